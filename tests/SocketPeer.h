#ifndef TESTS_SOCKETPEER_H
#define TESTS_SOCKETPEER_H

#include <Poco/Net/NetException.h>
#include <Poco/Net/WebSocket.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

/// A client's HTTP request, byte for byte.
struct RawRequest {
    /// Reads it whole, or up to the end of the stream.
    explicit RawRequest(Poco::Net::StreamSocket socket) {
        std::size_t wanted = std::string::npos;
        char room[4096];
        while (text.size() < wanted) {
            const int size = socket.receiveBytes(room, sizeof room);
            if (size <= 0) break;
            text.append(room, static_cast<std::size_t>(size));
            const std::size_t head = text.find("\r\n\r\n");
            const std::string length = header("Content-Length");
            if (head != std::string::npos) wanted = head + 4 + (length.empty() ? 0 : std::stoul(length));
        }
    }
    std::string header(const std::string& name) const {
        const std::size_t at = text.find("\r\n" + name + ": ");
        if (at == std::string::npos) return "";
        const std::size_t value = at + name.size() + 4;
        return text.substr(value, text.find("\r\n", value) - value);
    }
    /// What RFC 6455 has its key answered with.
    std::string accept() const {
        struct Handshake : Poco::Net::WebSocket {
            using WebSocket::computeAccept;
        };
        return Handshake::computeAccept(header("Sec-WebSocket-Key"));
    }

    std::string text;
};

/// The server's side of one WebSocket, byte by byte, so that it can do all that a peer should not. Every wait
/// has a deadline and fails with an exception.
class SocketPeer {
public:
    struct Frame {
        unsigned first = 0;
        std::string payload;
    };

    explicit SocketPeer(const Poco::Net::StreamSocket& socket) : _socket(socket) {
        _socket.setReceiveTimeout(Poco::Timespan(20, 0));
        _socket.setNoDelay(true);
    }

    void close() { _socket.close(); }
    void reset() {
        _socket.setLinger(true, 0);
        close();
    }
    void send(const std::string& bytes) {
        _socket.sendBytes(bytes.data(), static_cast<int>(bytes.size()), MSG_NOSIGNAL);
    }
    /// Returns when something has come, which it leaves where it is.
    void awaitData() {
        char byte = 0;
        _socket.receiveBytes(&byte, 1, MSG_PEEK);
    }
    /// The client's next frame, unmasked.
    Frame receive() {
        Frame frame;
        frame.first = static_cast<unsigned>(readNumber(1));
        std::size_t length = readNumber(1);
        EXPECT_GE(length, 0x80U) << "a client's frame has to be masked";
        length &= 0x7F;
        if (length >= 126) length = readNumber(length == 126 ? 2 : 8);
        const std::string mask = read(4);
        frame.payload = read(length);
        for (std::size_t i = 0; i < length; ++i)
            frame.payload[i] = static_cast<char>(frame.payload[i] ^ mask[i % 4]);
        return frame;
    }
    /// Whether the stream ends here, in whatever way.
    bool atEnd() { return _received.empty() && !readMore(); }
    /// Whether it has ended already; does not wait.
    bool hasEnded() {
        return _received.empty() && _socket.poll(Poco::Timespan(), Poco::Net::Socket::SELECT_READ) &&
               !readMore();
    }
    /// Reads a little of what has come, or comes within a second.
    void readALittle() {
        char room[4096];
        _socket.poll(Poco::Timespan(1, 0), Poco::Net::Socket::SELECT_READ);
        if (_socket.available() > 0) _socket.receiveBytes(room, sizeof room);
    }

private:
    std::string read(std::size_t size) {
        while (_received.size() < size)
            if (!readMore()) throw std::runtime_error("peer: end of stream");
        const std::string taken = _received.substr(0, size);
        _received.erase(0, size);
        return taken;
    }
    std::size_t readNumber(std::size_t bytes) {
        std::size_t number = 0;
        for (const char byte : read(bytes)) number = number << 8 | static_cast<unsigned char>(byte);
        return number;
    }
    bool readMore() {
        char room[64 * 1024];
        int size = 0;
        try {
            size = _socket.receiveBytes(room, sizeof room);
        } catch (const Poco::Net::NetException&) {
            // A reset is an end too.
        }
        _received.append(room, static_cast<std::size_t>(size));
        return size > 0;
    }

    Poco::Net::StreamSocket _socket;
    std::string _received;
};

#endif
