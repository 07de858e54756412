#ifndef TESTS_RAWPEER_H
#define TESTS_RAWPEER_H

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/WebSocketImpl.h>
#include <Poco/NumberFormatter.h>
#include <Poco/SharedPtr.h>
#include <fcntl.h>
#include <poll.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EventLog.h"
#include "SocketPeer.h"

enum class Side { Client, Server };

/// A connected TCP socket as an open WebSocket, without a handshake.
inline Poco::SharedPtr<Poco::Net::WebSocket> asWebSocket(const Poco::Net::StreamSocket& stream, Side side) {
    struct Holder : Poco::Net::Socket {
        explicit Holder(Poco::Net::SocketImpl* impl) : Socket(impl) {}
    };
    Poco::Net::HTTPClientSession nothingBuffered;
    auto* const impl = static_cast<Poco::Net::StreamSocketImpl*>(stream.impl());
    return new Poco::Net::WebSocket(
        Holder(new Poco::Net::WebSocketImpl(impl, nothingBuffered, side == Side::Client)));
}

/// The next frame that comes: its flags as two hexadecimal digits, a blank, its payload.
inline std::string frameFrom(Poco::Net::WebSocket& socket) {
    char payload[4096];
    int flags = 0;
    socket.setReceiveTimeout(Poco::Timespan(DEADLINE.count(), 0));
    const int size = socket.receiveFrame(payload, sizeof payload, flags);
    return Poco::NumberFormatter::formatHex(flags) + " " +
           std::string(payload, static_cast<std::size_t>(size));
}
const std::string CLOSE_FRAME = "88 \x03\xE8";  // code 1000

/// A server that answers as told, byte for byte, on a thread of its own. Connection number i is read up to
/// the end of its request, then sent answers[i] (beginning anew behind the last one), and then closed or
/// kept. "{accept}" in an answer becomes the key with which RFC 6455 has an upgrade answered.
class RawPeer {
public:
    enum class Then { Close, Keep };
    static constexpr const char* UPGRADED =
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Accept: {accept}\r\n\r\n";

    /// @param port 0 takes a free one. @throws Poco::IOException when the address is not to be had.
    explicit RawPeer(std::vector<std::string> answers, Then then = Then::Close,
                     const std::string& address = "127.0.0.1", Poco::UInt16 port = 0)
        : _answers(std::move(answers)), _then(then) {
        _server.bind(Poco::Net::SocketAddress(address, port), true, false);  // a port is never shared
        _server.listen();
        closeInPrograms(_server);
        _port = _server.address().port();
        _thread = std::thread([this] { serve(); });
    }
    /// For "::1" with or without brackets, null where there is no IPv6; else for 127.0.0.1, as a host of any
    /// spelling.
    static std::unique_ptr<RawPeer> at(const std::string& host, const std::string& answer, Then then) {
        try {
            const bool v6 = host.find(':') != std::string::npos;
            return std::make_unique<RawPeer>(std::vector<std::string>{answer}, then,
                                             v6 ? "::1" : "127.0.0.1");
        } catch (const Poco::IOException&) {
            return nullptr;
        }
    }
    ~RawPeer() {
        _stop = true;
        _thread.join();
    }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    Poco::UInt16 port() const { return _port; }

    /// The requests so far, whole.
    std::vector<std::string> requests() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _requests;
    }
    /// Connection number i; waits until it has been answered.
    Poco::Net::StreamSocket connection(std::size_t i) const {
        eventually([&] { return answered().size() > i; });
        return answered().at(i);
    }
    void send(std::size_t i, const std::string& bytes) const {
        connection(i).sendBytes(bytes.data(), static_cast<int>(bytes.size()));
    }
    /// Sends on connection number i until `done` has its result; false when it has none within the deadline.
    template <class Result>
    bool dripUntil(std::size_t i, const std::string& bytes, const std::future<Result>& done) const {
        return eventually([&] {
            try {
                send(i, bytes);
            } catch (const Poco::IOException&) {
                // The client has given up.
            }
            return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
    }

private:
    std::vector<Poco::Net::StreamSocket> answered() const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return _answered;
    }

    // A test counts what the programs that it starts inherit.
    static void closeInPrograms(const Poco::Net::Socket& socket) {
        ::fcntl(socket.impl()->sockfd(), F_SETFD, FD_CLOEXEC);
    }

    void serve() {
        // poll(2) itself: POCO's takes a descriptor for each call, and tests count those.
        pollfd incoming{_server.impl()->sockfd(), POLLIN, 0};
        while (!_stop) {
            if (::poll(&incoming, 1, 10) != 1) continue;
            try {
                answer(_server.acceptConnection());
            } catch (const Poco::Exception&) {
                // The client went away first: its request stays recorded.
            }
        }
    }

    void answer(Poco::Net::StreamSocket socket) {
        closeInPrograms(socket);
        socket.setReceiveTimeout(Poco::Timespan(DEADLINE.count(), 0));
        const RawRequest request(socket);
        std::string text = _answers[requests().size() % _answers.size()];
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _requests.push_back(request.text);
        }
        const std::string mark = "{accept}";
        const std::size_t at = text.find(mark);
        if (at != std::string::npos) text.replace(at, mark.size(), request.accept());
        if (!text.empty()) socket.sendBytes(text.data(), static_cast<int>(text.size()));
        if (_then == Then::Close) socket.close();
        const std::lock_guard<std::mutex> lock(_mutex);
        _answered.push_back(socket);
    }

    // Fixed after construction.
    const std::vector<std::string> _answers;
    const Then _then;
    Poco::UInt16 _port = 0;

    std::atomic<bool> _stop{false};
    mutable std::mutex _mutex;
    std::vector<std::string> _requests;              // guarded by _mutex
    std::vector<Poco::Net::StreamSocket> _answered;  // guarded by _mutex
    Poco::Net::ServerSocket _server;                 // the thread's only, once it runs
    std::thread _thread;                             // last: uses everything above
};

#endif
