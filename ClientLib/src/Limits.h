#ifndef CLIENTLIB_SRC_LIMITS_H
#define CLIENTLIB_SRC_LIMITS_H

#include <chrono>
#include <cstddef>

namespace Nubo::Client {

/// The limits of what a peer can make a connection attempt, an HTTP request or a parser cost. Those that a
/// user can meet are told in README.md, "Limits".
struct Limits {
    /// Look-up of the name and TCP connection together. The upgrade's own: TransportLimits::UPGRADE.
    static constexpr std::chrono::milliseconds CONNECT{30000};

    /// One call of sendRequest() in all, its redirection included, unless setRequestTimeout() says otherwise.
    static constexpr std::chrono::milliseconds REQUEST{60000};

    /// What setRequestTimeout() takes at least and at most.
    static constexpr std::chrono::milliseconds MIN_REQUEST{1};
    static constexpr std::chrono::milliseconds MAX_REQUEST{std::chrono::hours{24}};

    /// Look-ups in progress in the process: one that hangs keeps its thread until the system gives up.
    static constexpr int MAX_LOOKUPS = 16;

    /// Header of an answer, together with the interim answers before it. POCO's own limits add up to less.
    static constexpr std::size_t MAX_HEAD_BYTES = std::size_t{1024} * 1024;

    /// Interim answers (100 Continue and other 1xx) before the answer.
    static constexpr int MAX_INTERIM_ANSWERS = 16;

    /// Body of an answer, as received and as decoded.
    static constexpr std::size_t MAX_BODY_BYTES = std::size_t{64} * 1024 * 1024;

    /// Chunk extensions and trailers of one body together.
    static constexpr std::size_t MAX_CHUNK_EXTRAS = std::size_t{16} * 1024;

    /// Values in one JSON text, as countJsonValues() counts them.
    static constexpr std::size_t MAX_JSON_VALUES = std::size_t{1024} * 1024;
};

}  // namespace Nubo::Client

#endif
