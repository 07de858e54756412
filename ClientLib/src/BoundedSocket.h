#ifndef CLIENTLIB_SRC_BOUNDEDSOCKET_H
#define CLIENTLIB_SRC_BOUNDEDSOCKET_H

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/Timespan.h>

#include <memory>

#include "WaitBounds.h"

namespace Nubo::Client {

/// A TCP socket for POCO whose every wait is one of WaitBounds. Its descriptor is closed in children that
/// are executed, and a send to a peer that is gone raises no signal. The descriptor is left blocking: after
/// an upgrade the transport works on it.
class BoundedSocket : public Poco::Net::StreamSocketImpl {
public:
    explicit BoundedSocket(std::shared_ptr<const WaitBounds> bounds);
    /// Takes over a connected descriptor.
    BoundedSocket(std::shared_ptr<const WaitBounds> bounds, int descriptor);

    /// From now on it waits as a socket of POCO's does.
    void liftBounds() { _bounds.reset(); }

    using StreamSocketImpl::connect;
    using StreamSocketImpl::receiveBytes;
    using StreamSocketImpl::sendBytes;
    void connect(const Poco::Net::SocketAddress& address, const Poco::Timespan& timeout) override;
    int sendBytes(const void* buffer, int length, int flags) override;
    int receiveBytes(void* buffer, int length, int flags) override;

protected:
    void init(int family) override;

private:
    std::shared_ptr<const WaitBounds> _bounds;  // null once lifted
};

}  // namespace Nubo::Client

#endif
