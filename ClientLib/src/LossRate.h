#ifndef CLIENTLIB_SRC_LOSSRATE_H
#define CLIENTLIB_SRC_LOSSRATE_H

#include <chrono>

namespace Nubo::Client {

/// Whether a peer ends its connections too soon: more than MAX_SHORT_LIVES in a row that have not lasted
/// SHORT_LIFE. A value: it has no clock, it is told of each loss.
class LossRate {
public:
    static constexpr int MAX_SHORT_LIVES = 10;
    static constexpr std::chrono::seconds SHORT_LIFE{1};

    /// A connection was lost.
    /// @param lived  for how long it was there
    void lost(std::chrono::steady_clock::duration lived) {
        _shortLives = lived < SHORT_LIFE ? _shortLives + 1 : 0;
    }
    bool tooHigh() const { return _shortLives > MAX_SHORT_LIVES; }

private:
    int _shortLives = 0;  // in a row
};

}  // namespace Nubo::Client

#endif
