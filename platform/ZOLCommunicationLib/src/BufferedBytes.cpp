#include "BufferedBytes.h"

#include <Poco/Net/WebSocketImpl.h>
#include <sys/ioctl.h>

namespace Nubo::Net {

namespace {

// receiveSomeBytes() gives out POCO's buffer before it reads the descriptor. It is protected, and a member
// pointer taken in a derived class reaches it.
struct Access : Poco::Net::WebSocketImpl {
    static constexpr int (WebSocketImpl::*TAKE)(char*, int) = &Access::receiveSomeBytes;
};

int inDescriptor(int descriptor) {
    int bytes = 0;
    return ::ioctl(descriptor, FIONREAD, &bytes) == 0 ? bytes : 0;
}

}  // namespace

std::string takeBufferedBytes(Poco::Net::WebSocket& socket) {
    auto* const implementation = dynamic_cast<Poco::Net::WebSocketImpl*>(socket.impl());
    if (implementation == nullptr) return std::string();
    // available() counts both. What comes in between the two looks may be taken too; it is there, and in
    // order.
    int remaining = -inDescriptor(implementation->sockfd());
    remaining += implementation->available();
    std::string bytes;
    while (remaining > 0) {
        const std::size_t size = bytes.size();
        bytes.resize(size + static_cast<std::size_t>(remaining));
        const int taken = (implementation->*Access::TAKE)(&bytes[size], remaining);
        bytes.resize(size + static_cast<std::size_t>(taken > 0 ? taken : 0));
        if (taken <= 0) break;
        remaining -= taken;
    }
    return bytes;
}

}  // namespace Nubo::Net
