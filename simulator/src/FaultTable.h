#ifndef NUBO_SIMULATOR_FAULTTABLE_H
#define NUBO_SIMULATOR_FAULTTABLE_H

#include <Nubo/Simulator/Faults.h>

#include <mutex>

namespace Nubo::Simulator {

/// The faults that an endpoint has been told to show, and how often each. Locks itself.
class FaultTable {
public:
    void setUpgrade(const Fault_t& fault, int times);
    void setHttp(const Fault_t& fault, int times);
    void clear();

    /// What the next request meets (kind None: nothing); uses it up once.
    Fault_t takeUpgrade();
    Fault_t takeHttp();

private:
    struct Entry_t {
        Fault_t fault;
        int times = 0;
    };
    static Fault_t take(Entry_t& entry);

    std::mutex _mutex;  // leaf
    // Guarded by _mutex.
    Entry_t _upgrade;
    Entry_t _http;
};

}  // namespace Nubo::Simulator

#endif
