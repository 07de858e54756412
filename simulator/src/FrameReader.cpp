#include "FrameReader.h"

#include <Nubo/Simulator/Endpoint.h>
#include <poll.h>

#include "Connection.h"

namespace Nubo::Simulator {

using Poco::Net::WebSocket;

namespace {

const Poco::Timespan REST_OF_FRAME(10, 0);  // no frame takes longer than this to go on
constexpr std::chrono::hours LONG{1};
constexpr int MAX_PAYLOAD = 64 * 1024 * 1024;

}  // namespace

FrameReader::FrameReader(const WebSocket& webSocket, Connection& connection)
    : _webSocket(webSocket), _connection(connection) {
    _webSocket.setReceiveTimeout(REST_OF_FRAME);
    _webSocket.setMaxPayloadSize(MAX_PAYLOAD);
}

void FrameReader::run() {
    do {
        awaitFrame();
    } while (_connection.waitWhileSilent() && readFrame());
}

void FrameReader::awaitFrame() {
    // POCO's own poll opens a descriptor for each wait, which would come and go beside those of the peer.
    pollfd readable{_webSocket.impl()->sockfd(), POLLIN, 0};
    // Frames that came right behind the upgrade request are in the WebSocket's buffer, where no poll sees
    // them.
    while (_webSocket.available() == 0 && ::poll(&readable, 1, untilNextDue()) == 0) _connection.pushDue();
}

// In milliseconds.
int FrameReader::untilNextDue() const {
    return static_cast<int>(_connection.subscriptions().untilNextDue().value_or(LONG).count());
}

bool FrameReader::readFrame() {
    int flags = 0;
    _payload.resize(0, false);
    const int size = _webSocket.receiveFrame(_payload, flags);
    if (size == 0 && flags == 0) return false;  // end of the stream
    const std::string payload(_payload.begin(), static_cast<std::size_t>(size));
    switch (flags & WebSocket::FRAME_OP_BITMASK) {
        case WebSocket::FRAME_OP_CLOSE:
            _connection.endOurSide(Endpoint::encodeFrame(payload, WebSocket::FRAME_OP_CLOSE));
            return false;
        case WebSocket::FRAME_OP_PING:
            _connection.send(Endpoint::encodeFrame(payload, WebSocket::FRAME_OP_PONG));
            return true;
        case WebSocket::FRAME_OP_PONG:
            return true;
        default:
            take(payload, flags);
            return true;
    }
}

void FrameReader::take(const std::string& payload, int flags) {
    _message += payload;
    if ((flags & WebSocket::FRAME_FLAG_FIN) == 0) return;
    if (_connection.isOpen()) _connection.received(_message);
    _message.clear();
}

}  // namespace Nubo::Simulator
