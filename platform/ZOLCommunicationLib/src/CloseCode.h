#ifndef NUBO_NET_CLOSECODE_H
#define NUBO_NET_CLOSECODE_H

#include <cstdint>

namespace Nubo::Net {

/// The close codes that this side sends, or uses to say that there was none (RFC 6455, 7.4.1).
struct CloseCode {
    static constexpr std::uint16_t NORMAL = 1000;
    static constexpr std::uint16_t PROTOCOL_ERROR = 1002;
    static constexpr std::uint16_t NO_STATUS = 1005;  // never on the wire
    static constexpr std::uint16_t INVALID_PAYLOAD = 1007;
    static constexpr std::uint16_t POLICY_VIOLATION = 1008;
    static constexpr std::uint16_t TOO_BIG = 1009;
    static constexpr std::uint16_t INTERNAL_ERROR = 1011;
};

/// Whether a peer may send this code: defined by RFC 6455 or registered with IANA since, or a private one.
bool isCloseCodeAllowed(std::uint16_t code);

/// What the code means, in a few words; "" for codes without a registered meaning.
const char* closeCodeMeaning(std::uint16_t code);

}  // namespace Nubo::Net

#endif
