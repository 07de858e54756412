#ifndef NUBO_NET_FRAMEENCODER_H
#define NUBO_NET_FRAMEENCODER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace Nubo::Net {

/// Appends one client's frame to `out`: masked, as RFC 6455, 5.3 demands, with a generator of the calling
/// thread's own that was seeded from the system's random source.
/// When that throws, `out` is as before.
/// @param firstByte  FIN and the opcode.
void appendFrame(std::string& out, unsigned firstByte, std::string_view payload);

/// The two bytes of a close code as they stand in a close frame; "" for CloseCode::NO_STATUS.
std::string closePayload(std::uint16_t code);

}  // namespace Nubo::Net

#endif
