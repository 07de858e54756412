#include "FaultTable.h"

namespace Nubo::Simulator {

void FaultTable::setUpgrade(const Fault_t& fault, int times) {
    std::lock_guard<std::mutex> guard(_mutex);
    _upgrade = {fault, times};
}

void FaultTable::setHttp(const Fault_t& fault, int times) {
    std::lock_guard<std::mutex> guard(_mutex);
    _http = {fault, times};
}

void FaultTable::clear() {
    std::lock_guard<std::mutex> guard(_mutex);
    _upgrade = {};
    _http = {};
}

Fault_t FaultTable::takeUpgrade() {
    std::lock_guard<std::mutex> guard(_mutex);
    return take(_upgrade);
}

Fault_t FaultTable::takeHttp() {
    std::lock_guard<std::mutex> guard(_mutex);
    return take(_http);
}

Fault_t FaultTable::take(Entry_t& entry) {
    if (entry.times == 0) return {};
    if (entry.times > 0) --entry.times;
    return entry.fault;
}

}  // namespace Nubo::Simulator
