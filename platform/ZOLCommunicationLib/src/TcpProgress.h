#ifndef NUBO_NET_TCPPROGRESS_H
#define NUBO_NET_TCPPROGRESS_H

#include <cstdint>

namespace Nubo::Net {

/// How many bytes the peer's system has acknowledged since the connection was made: while it grows, the peer
/// takes what is sent. Constant where the system does not tell. In a file of its own, since the kernel's
/// <linux/tcp.h>, which alone declares the count, cannot be included beside POCO's <netinet/tcp.h>.
std::uint64_t acknowledgedBytes(int descriptor);

}  // namespace Nubo::Net

#endif
