#ifndef NUBO_SIMULATOR_FRAMEREADER_H
#define NUBO_SIMULATOR_FRAMEREADER_H

#include <Poco/Buffer.h>
#include <Poco/Net/WebSocket.h>

#include <string>

namespace Nubo::Simulator {

class Connection;

/// Reads the frames of one WebSocket on its connection's thread: answers pings and closes, puts messages
/// together and hands them over.
class FrameReader {
public:
    FrameReader(const Poco::Net::WebSocket& webSocket, Connection& connection);

    /// Until the WebSocket has ended. @throws Poco::Exception when the peer breaks off or sends no frames.
    void run();

private:
    void awaitFrame();
    int untilNextDue() const;
    bool readFrame();
    void take(const std::string& payload, int flags);

    Poco::Net::WebSocket _webSocket;
    Connection& _connection;
    Poco::Buffer<char> _payload{0};
    std::string _message;  // of its frames, those that have come
};

}  // namespace Nubo::Simulator

#endif
