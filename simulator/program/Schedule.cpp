#include "Schedule.h"

#include <Poco/JSON/Object.h>

#include <algorithm>
#include <sstream>

namespace ZolPlatform {

using std::chrono::milliseconds;

void Schedule::add(Nubo::Simulator::Service& service, const ElementDescription_t& element) {
    for (const auto& member : element.changing) {
        Entry_t entry{&service, element.resource, element.id, member, Clock::now(), {}};
        if (prepareNext(entry)) _entries.push_back(entry);
    }
}

milliseconds Schedule::untilNext(milliseconds otherwise) const {
    auto next = Clock::now() + otherwise;
    for (const auto& entry : _entries) next = std::min(next, entry.due);
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(next - Clock::now()));
}

void Schedule::runDue() {
    const auto now = Clock::now();
    for (auto entry = _entries.begin(); entry != _entries.end();) {
        bool goesOn = true;
        if (entry->due <= now) {
            change(*entry);
            goesOn = prepareNext(*entry);
        }
        entry = goesOn ? entry + 1 : _entries.erase(entry);
    }
}

// A process that was held up leaves changes out rather than make them all at once.
bool Schedule::prepareNext(Entry_t& entry) {
    const auto step = entry.member.source->next();
    if (!step) return false;
    entry.due = std::max(entry.due + step->wait, Clock::now());
    entry.value = step->value;
    return true;
}

void Schedule::change(const Entry_t& entry) {
    Poco::JSON::Object changes;
    changes.set(entry.member.name, entry.value);
    std::ostringstream json;
    changes.stringify(json);
    entry.service->changeElement(entry.resource, entry.element, json.str());
}

}  // namespace ZolPlatform
