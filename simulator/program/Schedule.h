#ifndef ZOLPLATFORM_SCHEDULE_H
#define ZOLPLATFORM_SCHEDULE_H

#include <Nubo/Simulator/Service.h>

#include <chrono>
#include <vector>

#include "Description.h"

namespace ZolPlatform {

/// The members that change over time, and when the next change of each is due. One thread.
class Schedule {
public:
    /// From now on. @param service outlives the schedule
    void add(Nubo::Simulator::Service& service, const ElementDescription_t& element);

    /// How long until the next change, at most `otherwise`.
    std::chrono::milliseconds untilNext(std::chrono::milliseconds otherwise) const;

    /// Makes the changes that are due. An element that is not there (any more) is left alone.
    void runDue();

private:
    using Clock = std::chrono::steady_clock;
    struct Entry_t {
        Nubo::Simulator::Service* service;
        std::string resource;
        std::string element;
        ChangingMember_t member;
        Clock::time_point due;
        Poco::Dynamic::Var value;  // that the member gets then
    };

    /// @return false when there is no further change
    static bool prepareNext(Entry_t& entry);
    static void change(const Entry_t& entry);

    std::vector<Entry_t> _entries;
};

}  // namespace ZolPlatform

#endif
