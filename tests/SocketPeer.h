#ifndef TESTS_SOCKETPEER_H
#define TESTS_SOCKETPEER_H

#include <Poco/Base64Encoder.h>
#include <Poco/SHA1Engine.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

/// The server's side of one WebSocket, on plain system calls, so that it can do all that a peer should not.
/// Every wait has a deadline and fails with std::runtime_error.
class SocketPeer {
public:
    struct Frame {
        unsigned first = 0;
        std::string payload;
    };

    explicit SocketPeer(int descriptor) : _descriptor(descriptor) {}
    SocketPeer(SocketPeer&& other) noexcept
        : _descriptor(std::exchange(other._descriptor, -1)), _received(std::move(other._received)) {}
    ~SocketPeer() { close(); }

    void close() {
        if (_descriptor >= 0) ::close(std::exchange(_descriptor, -1));
    }

    void reset() {
        const linger atOnce{1, 0};
        ::setsockopt(_descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        close();
    }

    void send(const std::string& bytes) {
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t sent = ::send(_descriptor, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) throw std::runtime_error("peer cannot send");
            done += static_cast<std::size_t>(sent);
        }
    }

    /// Returns when something has come, which it leaves where it is.
    void awaitData() const {
        pollfd wait{_descriptor, POLLIN, 0};
        if (::poll(&wait, 1, 20000) != 1) throw std::runtime_error("peer: nothing came");
    }

    /// Reads up to and with `end`.
    std::string readUntil(const std::string& end) {
        while (_received.find(end) == std::string::npos) readSome();
        return take(_received.find(end) + end.size());
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

    /// Reads a little of what has come, if anything has.
    void readALittle() {
        char room[4096];
        if (::recv(_descriptor, room, sizeof room, MSG_DONTWAIT) < 0 && errno != EAGAIN)
            throw std::runtime_error("peer cannot read");
    }

private:
    std::string take(std::size_t size) {
        std::string taken = _received.substr(0, size);
        _received.erase(0, size);
        return taken;
    }

    std::string read(std::size_t size) {
        while (_received.size() < size) readSome();
        return take(size);
    }

    std::size_t readNumber(std::size_t bytes) {
        std::size_t number = 0;
        for (const char byte : read(bytes)) number = number << 8 | static_cast<unsigned char>(byte);
        return number;
    }

    void readSome() {
        if (!readMore()) throw std::runtime_error("peer: end of stream");
    }

    bool readMore() {
        awaitData();
        char room[64 * 1024];
        const ssize_t size = ::recv(_descriptor, room, sizeof room, 0);
        if (size > 0) _received.append(room, static_cast<std::size_t>(size));
        return size > 0;
    }

    int _descriptor;
    std::string _received;
};

/// Listens on a free port of the loopback interface.
class SocketListener {
public:
    /// @param receiveBuffer  of the connections, in bytes.
    explicit SocketListener(int receiveBuffer)
        : _descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        ::setsockopt(_descriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (::bind(_descriptor, generic, size) != 0 || ::listen(_descriptor, 16) != 0)
            throw std::runtime_error("listener cannot listen");
        ::getsockname(_descriptor, generic, &size);
        _port = ntohs(address.sin_port);
    }
    ~SocketListener() { ::close(_descriptor); }
    SocketListener(const SocketListener&) = delete;
    SocketListener& operator=(const SocketListener&) = delete;

    unsigned short port() const { return _port; }

    /// The next connection, its request read; `key` becomes the one for answer().
    SocketPeer accept(std::string& key) {
        pollfd wait{_descriptor, POLLIN, 0};
        if (::poll(&wait, 1, 20000) != 1) throw std::runtime_error("listener: nobody came");
        const int accepted = ::accept4(_descriptor, nullptr, nullptr, SOCK_CLOEXEC);
        const int atOnce = 1;
        ::setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof atOnce);
        SocketPeer peer(accepted);
        const std::string request = peer.readUntil("\r\n\r\n");
        const std::string name = "Sec-WebSocket-Key: ";
        key = request.substr(request.find(name) + name.size(), 24);
        return peer;
    }

    /// The answer that completes the upgrade.
    static std::string answer(const std::string& key) {
        Poco::SHA1Engine hash;
        hash.update(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11");
        const auto& digest = hash.digest();
        std::ostringstream text;
        Poco::Base64Encoder encoder(text);
        encoder.write(reinterpret_cast<const char*>(digest.data()),
                      static_cast<std::streamsize>(digest.size()));
        encoder.close();
        return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: keep-alive, Upgrade\r\n"
               "Sec-WebSocket-Accept: " +
               text.str() + "\r\n\r\n";
    }

private:
    const int _descriptor;
    unsigned short _port = 0;
};

#endif
