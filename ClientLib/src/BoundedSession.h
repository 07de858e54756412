#ifndef CLIENTLIB_SRC_BOUNDEDSESSION_H
#define CLIENTLIB_SRC_BOUNDEDSESSION_H

#include <Poco/AutoPtr.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Types.h>

#include <cstddef>
#include <istream>
#include <memory>
#include <string>

#include "BoundedSocket.h"
#include "ConnectBudget.h"
#include "WaitBounds.h"

namespace Nubo::Client {

/// An HTTP session for one request, or for the upgrade to a WebSocket (new Poco::Net::WebSocket(session, ...)
/// after open()). Nothing that the peer does or leaves undone takes it beyond its bounds, and the header is
/// read within Limits. POCO's second connection when a send fails, and its global proxy, are left out: the
/// one would send a part of a request, the other would be waited for without a bound. One thread.
class BoundedSession : public Poco::Net::HTTPClientSession {
public:
    /// @param host  checked by the caller, an IPv6 address without brackets
    BoundedSession(const std::string& host, Poco::UInt16 port, std::shared_ptr<WaitBounds> bounds);

    /// Looks the host up and connects to the first of its addresses that accepts, within Limits::CONNECT;
    /// what comes afterwards has all that is left of the bounds.
    /// @throws what addressesOf() throws; Poco::Exception of the last attempt
    void open(ConnectBudget::Names names);
    /// Instead of open(): takes over a connected descriptor.
    void adopt(int descriptor);

    /// Lifts the bounds from the socket, which lives on in the WebSocket.
    void upgradeDone() { _bounded->liftBounds(); }

    /// Reads the header of the final answer; interim answers before it are skipped. An answer that upgrades
    /// has its Connection header reduced to "Upgrade": POCO wants it alone there, RFC 6455, 4.1 among others.
    /// @return a stream without content, as POCO wants one; the body is read by readBody()
    /// @throws Poco::Net::NoMessageException without any answer, Poco::Net::MessageException for one that is
    ///         no HTTP, is cut short or beyond Limits; what WaitBounds::await() throws
    std::istream& receiveResponse(Poco::Net::HTTPResponse& response) override;

    /// The next bytes behind the header. @return their number, 0 at the end of the stream. Throws as above.
    std::size_t readBody(char* buffer, std::size_t size);
    /// The next byte, -1 at the end of the stream. Throws as above.
    int readByte();

protected:
    void connect(const Poco::Net::SocketAddress& address) override;
    bool mustReconnect() const override { return false; }
    int write(const char* buffer, std::streamsize length) override;

private:
    void attach(BoundedSocket* bounded);
    std::string readHead(std::size_t atMost);

    const std::shared_ptr<WaitBounds> _bounds;
    Poco::AutoPtr<BoundedSocket> _bounded;  // that of the session's socket
    std::istream _noBody{nullptr};
};

}  // namespace Nubo::Client

#endif
