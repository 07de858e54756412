#include "BoundedSocket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace Nubo::Client {

namespace {

bool isTransient(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

BoundedSocket::BoundedSocket(std::shared_ptr<const WaitBounds> bounds) : _bounds(std::move(bounds)) {}

BoundedSocket::BoundedSocket(std::shared_ptr<const WaitBounds> bounds, int descriptor)
    : StreamSocketImpl(descriptor), _bounds(std::move(bounds)) {}

void BoundedSocket::init(int family) {
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) error();
    reset(descriptor);
}

// POCO's time-out is part of the bounds.
void BoundedSocket::connect(const Poco::Net::SocketAddress& address, const Poco::Timespan&) {
    init(address.af());
    if (::connect(sockfd(), address.addr(), address.length()) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) error(errno, address.toString());
        _bounds->await(sockfd(), POLLOUT);
        if (const int failure = socketError()) error(failure, address.toString());
    }
    setBlocking(true);
}

int BoundedSocket::sendBytes(const void* buffer, int length, int flags) {
    if (!_bounds) return StreamSocketImpl::sendBytes(buffer, length, flags | MSG_NOSIGNAL);
    const auto* const bytes = static_cast<const char*>(buffer);
    int sent = 0;
    while (sent < length) {
        _bounds->await(sockfd(), POLLOUT);
        const auto size = static_cast<std::size_t>(length - sent);
        const auto count = ::send(sockfd(), bytes + sent, size, flags | MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<int>(count);
        else if (!isTransient(errno))
            error();
    }
    return sent;
}

int BoundedSocket::receiveBytes(void* buffer, int length, int flags) {
    if (!_bounds) return StreamSocketImpl::receiveBytes(buffer, length, flags);
    for (;;) {
        _bounds->await(sockfd(), POLLIN);
        const auto count = ::recv(sockfd(), buffer, static_cast<std::size_t>(length), flags | MSG_DONTWAIT);
        if (count >= 0) return static_cast<int>(count);
        if (!isTransient(errno)) error();
    }
}

}  // namespace Nubo::Client
