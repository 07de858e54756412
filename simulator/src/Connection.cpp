#include "Connection.h"

#include <Nubo/Simulator/Endpoint.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "HttpExchange.h"
#include "Listener.h"

namespace Nubo::Simulator {

using Guard = std::lock_guard<std::mutex>;
using Lock = std::unique_lock<std::mutex>;

namespace {

std::string closeFrame(const Ending_t& ending) {
    if (ending.code == 0) return Endpoint::encodeFrame("", Endpoint::CLOSE);
    const std::string code = {static_cast<char>(ending.code >> 8), static_cast<char>(ending.code & 0xFF)};
    return Endpoint::encodeFrame(code + ending.reason, Endpoint::CLOSE);
}

/// After a send that failed with `error`: whether it is worth another try.
bool awaitSendable(int descriptor, int error) {
    using std::chrono::milliseconds;
    if (error == EINTR) return true;
    if (error != EAGAIN) return false;
    pollfd sendable{descriptor, POLLOUT, 0};
    return ::poll(&sendable, 1, static_cast<int>(milliseconds(Endpoint::SEND_TIMEOUT).count())) > 0;
}

}  // namespace

Connection::Connection(Endpoint& endpoint, const Poco::Net::StreamSocket& stream)
    : _endpoint(endpoint), _stream(stream) {
    _stream.setNoDelay(true);
}

void Connection::start() {
    _thread = std::make_unique<Poco::Thread>();
    _thread->setStackSize(STACK_SIZE);
    _thread->start(*this);
}

void Connection::join() {
    _thread->join();
}

void Connection::run() {
    try {
        HttpExchange::serve(_endpoint, *this, _stream);
    } catch (const std::exception&) {
        // The peer has broken off or sent nonsense: that ends the connection and nothing else.
    }
    close();
    if (_number != 0) _endpoint.report("closed", "", _number);
    _endpoint.raiseChanged();
    _finished = true;
}

void Connection::close() {
    Guard sendGuard(_sendMutex);
    Guard guard(_mutex);
    _phase = Phase::Closed;
    _subscriptions.clear();
    _stream.close();
}

void Connection::setSilent(bool silent) {
    Guard guard(_mutex);
    _silent = silent;
    _changed.notify_all();
}

bool Connection::end(const Ending_t& ending) {
    if (ending.kind == Ending_t::Kind::CloseFrame) return endOurSide(closeFrame(ending));
    if (ending.kind == Ending_t::Kind::EndOfStream) return endOurSide("");
    Guard guard(_mutex);
    if (_phase != Phase::Open) return false;
    _stream.setLinger(true, 0);
    // Wakes the thread without a word to the peer; closing the descriptor then sends the reset.
    endNowLocked(SHUT_RD);
    return true;
}

bool Connection::endOurSide(const std::string& lastBytes) {
    Guard sendGuard(_sendMutex);
    {
        Guard guard(_mutex);
        if (_phase != Phase::Open) return false;
        _phase = Phase::Closing;
        _changed.notify_all();
    }
    trySend(lastBytes);
    ::shutdown(_stream.impl()->sockfd(), SHUT_WR);
    return true;
}

void Connection::abort() {
    Guard guard(_mutex);
    if (_phase != Phase::Closed) endNowLocked(SHUT_RDWR);
}

void Connection::endNowLocked(int how) {
    _phase = Phase::Ending;
    _changed.notify_all();
    ::shutdown(_stream.impl()->sockfd(), how);
}

bool Connection::send(const std::string& bytes) {
    Guard sendGuard(_sendMutex);
    if (!isOpen()) return false;
    if (trySend(bytes)) return true;
    abort();
    return false;
}

bool Connection::trySend(const std::string& bytes) {
    const int descriptor = _stream.impl()->sockfd();
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const auto count =
            ::send(descriptor, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && !awaitSendable(descriptor, errno))
            return false;  // the peer is gone or takes nothing
        if (count > 0) sent += static_cast<std::size_t>(count);
    }
    return true;
}

bool Connection::isOpen() const {
    return isPhase(Phase::Open);
}

bool Connection::isPhase(Phase phase) const {
    Guard guard(_mutex);
    return _phase == phase;
}

bool Connection::waitWhileSilent() {
    Lock lock(_mutex);
    _changed.wait(lock, [this] { return !_silent || (_phase != Phase::Http && _phase != Phase::Open); });
    return _phase != Phase::Ending;
}

bool Connection::pause(std::chrono::milliseconds time) {
    Lock lock(_mutex);
    return !_changed.wait_for(lock, time, [this] { return _phase == Phase::Ending; });
}

void Connection::awaitHangUp() {
    std::array<char, 1024> ignored;
    while (!isPhase(Phase::Ending)) {
        try {
            if (_stream.receiveBytes(ignored.data(), static_cast<int>(ignored.size())) <= 0) return;
        } catch (const Poco::TimeoutException&) {
            // The peer is patient.
        }
    }
}

void Connection::reset() {
    _stream.setLinger(true, 0);
}

bool Connection::open(unsigned number, const std::string& answer) {
    Guard sendGuard(_sendMutex);
    {
        Guard guard(_mutex);
        if (_phase != Phase::Http) return false;
        _number = number;
        _phase = Phase::Open;
    }
    return trySend(answer);
}

void Connection::received(const std::string& text) {
    _endpoint.received(*this, text);
}

void Connection::pushDue() {
    _endpoint.pushDue(*this);
}

}  // namespace Nubo::Simulator
