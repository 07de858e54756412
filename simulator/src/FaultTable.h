#ifndef NUBO_SIMULATOR_FAULTTABLE_H
#define NUBO_SIMULATOR_FAULTTABLE_H

#include <Nubo/Simulator/Faults.h>

#include <map>
#include <mutex>
#include <string>

namespace Nubo::Simulator {

/// The faults that an endpoint has been told to show, and how often each. Locks itself.
class FaultTable {
public:
    void setUpgrade(const Fault_t& fault, int times);
    void setHttp(const std::string& path, const Fault_t& fault, int times);
    void setGlue(const std::string& bytes);
    void clear();

    /// What the next request meets (kind None: nothing); uses it up once.
    Fault_t takeUpgrade();
    Fault_t takeHttp(const std::string& uri);
    std::string glue() const;

private:
    struct Entry_t {
        Fault_t fault;
        int times = 0;
    };
    static Fault_t take(Entry_t& entry);
    Entry_t& entryLocked(const std::string& uri);

    mutable std::mutex _mutex;  // leaf
    // Guarded by _mutex.
    Entry_t _upgrade;
    std::map<std::string, Entry_t> _http;
    std::string _glue;
};

}  // namespace Nubo::Simulator

#endif
