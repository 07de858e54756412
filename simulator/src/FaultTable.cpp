#include "FaultTable.h"

namespace Nubo::Simulator {

void FaultTable::setUpgrade(const Fault_t& fault, int times) {
    std::lock_guard<std::mutex> guard(_mutex);
    _upgrade = {fault, times};
}

void FaultTable::setHttp(const std::string& path, const Fault_t& fault, int times) {
    std::lock_guard<std::mutex> guard(_mutex);
    _http[path] = {fault, times};
}

void FaultTable::setGlue(const std::string& bytes) {
    std::lock_guard<std::mutex> guard(_mutex);
    _glue = bytes;
}

void FaultTable::clear() {
    std::lock_guard<std::mutex> guard(_mutex);
    _upgrade = {};
    _http.clear();
    _glue.clear();
}

Fault_t FaultTable::takeUpgrade() {
    std::lock_guard<std::mutex> guard(_mutex);
    return take(_upgrade);
}

Fault_t FaultTable::takeHttp(const std::string& uri) {
    std::lock_guard<std::mutex> guard(_mutex);
    return take(entryLocked(uri));
}

std::string FaultTable::glue() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _glue;
}

Fault_t FaultTable::take(Entry_t& entry) {
    if (entry.times == 0) return {};
    if (entry.times > 0) --entry.times;
    return entry.fault;
}

FaultTable::Entry_t& FaultTable::entryLocked(const std::string& uri) {
    auto found = _http.find(uri);
    if (found == _http.end()) found = _http.find(uri.substr(0, uri.find('?')));
    return found == _http.end() ? _http[""] : found->second;
}

}  // namespace Nubo::Simulator
