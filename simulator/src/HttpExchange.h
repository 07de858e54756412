#ifndef NUBO_SIMULATOR_HTTPEXCHANGE_H
#define NUBO_SIMULATOR_HTTPEXCHANGE_H

#include <Nubo/Simulator/Faults.h>
#include <Nubo/Simulator/Recorder.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponseImpl.h>
#include <Poco/Net/StreamSocket.h>

namespace Nubo::Simulator {

class Connection;
class Endpoint;

/// One HTTP request on a connection, from its header to the end of its answer or, after an upgrade, of the
/// WebSocket. Runs on the connection's thread.
class HttpExchange {
public:
    /// Serves requests until the peer ends the connection, a fault does or a WebSocket has ended. The stream
    /// is not closed. @throws Poco::Exception when the connection breaks or carries no HTTP.
    static void serve(Endpoint& endpoint, Connection& connection, const Poco::Net::StreamSocket& stream);

private:
    HttpExchange(Endpoint& endpoint, Connection& connection, Poco::Net::HTTPServerRequestImpl& request,
                 const Poco::Net::StreamSocket& stream);

    /// @return whether the connection goes on with another request
    bool run(bool keepAlive);
    bool isUpgrade() const;
    void read();
    void report(const std::string& outcome) const;
    void meet(const Fault_t& fault);
    void upgrade(const Fault_t& fault);
    void serveFrames();
    HttpAnswer_t properAnswer();
    bool servesUpgrade() const;

    Endpoint& _endpoint;
    Connection& _connection;
    Poco::Net::HTTPServerRequestImpl& _request;
    const Poco::Net::StreamSocket& _stream;
    HttpRequest_t _received;
};

}  // namespace Nubo::Simulator

#endif
