#ifndef NUBO_NET_UPGRADESESSION_H
#define NUBO_NET_UPGRADESESSION_H

#include <Nubo/Export.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/SharedPtr.h>
#include <Poco/Types.h>

#include <iosfwd>
#include <memory>
#include <string>

namespace Nubo::Net {

class UpgradeDeadline;
class WebsocketConnectionManager;

/// The HTTP session in which a WebSocket is opened: new Poco::Net::WebSocket(session, request, response).
/// POCO bounds each of its sends and receives, but not their number, so a peer could drip its answer for
/// ever. The manager therefore ends the socket when TransportLimits::UPGRADE has passed since the connection
/// was made. Used by one thread, as POCO's session is.
class ZOL_EXPORT UpgradeSession : public Poco::Net::HTTPClientSession {
public:
    /// @param host     a name or an address; a literal IPv6 address with or without its brackets.
    /// @param manager  keeps the deadline, and is kept alive by the session; null: no deadline.
    UpgradeSession(const std::string& host, Poco::UInt16 port,
                   const Poco::SharedPtr<WebsocketConnectionManager>& manager);

    /// Ends the watch. The socket that was upgraded lives on.
    ~UpgradeSession() override;

    UpgradeSession(const UpgradeSession&) = delete;
    UpgradeSession& operator=(const UpgradeSession&) = delete;

    /// Ends the watch early: from now on the deadline does not touch the socket.
    void upgradeDone();

    /// Whether the deadline has ended the socket.
    bool deadlinePassed() const;

    /// As in POCO, but a failure that the deadline has caused is a Poco::TimeoutException that says so.
    std::ostream& sendRequest(Poco::Net::HTTPRequest& request) override;
    std::istream& receiveResponse(Poco::Net::HTTPResponse& response) override;  ///< @copydoc sendRequest()

protected:
    /// As in POCO; the deadline begins when the connection is made.
    void connect(const Poco::Net::SocketAddress& address) override;

private:
    [[noreturn]] void rethrow() const;

    const Poco::SharedPtr<WebsocketConnectionManager> _manager;
    std::unique_ptr<UpgradeDeadline> _deadline;  // only while watched; goes before the manager
};

}  // namespace Nubo::Net

#endif
