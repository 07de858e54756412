#ifndef CLIENTLIB_SRC_IDRANGES_H
#define CLIENTLIB_SRC_IDRANGES_H

#include <cstddef>
#include <iterator>
#include <map>

namespace Nubo::Client {

/// A set of numbers that only grows, in bounded memory: numbers in a row are kept as one range. Beyond
/// MAX_RANGES the two lowest ranges become one, and the numbers between them belong to the set from then on.
class IdRanges {
public:
    static constexpr std::size_t MAX_RANGES = 1024;

    void insert(unsigned id) {
        const auto next = _lastByFirst.upper_bound(id);
        if (next != _lastByFirst.begin()) {
            const auto before = std::prev(next);
            if (id <= before->second) return;
            if (id == before->second + 1) {
                before->second = id;
                return joinIfAdjacent(before);
            }
        }
        joinIfAdjacent(_lastByFirst.emplace_hint(next, id, id));
        if (_lastByFirst.size() > MAX_RANGES) joinWithNext(_lastByFirst.begin());
    }

    bool contains(unsigned id) const {
        const auto next = _lastByFirst.upper_bound(id);
        return next != _lastByFirst.begin() && id <= std::prev(next)->second;
    }

    std::size_t ranges() const { return _lastByFirst.size(); }

private:
    using Ranges = std::map<unsigned, unsigned>;

    void joinIfAdjacent(Ranges::iterator range) {
        const auto next = std::next(range);
        if (next != _lastByFirst.end() && next->first == range->second + 1) joinWithNext(range);
    }

    void joinWithNext(Ranges::iterator range) {
        const auto next = std::next(range);
        range->second = next->second;
        _lastByFirst.erase(next);
    }

    Ranges _lastByFirst;
};

}  // namespace Nubo::Client

#endif
