#include "TcpProgress.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace Nubo::Net {

std::uint64_t acknowledgedBytes(int descriptor) {
    tcp_info info{};  // what an older kernel does not fill in stays 0
    socklen_t size = sizeof info;
    if (::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return 0;
    return info.tcpi_bytes_acked;
}

}  // namespace Nubo::Net
