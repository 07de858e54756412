#include "Client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

#include "Frames.h"
#include "Storms.h"

namespace {

constexpr std::size_t CHUNK = 65536;
constexpr std::size_t BLOCK_BYTES = 1U << 20;
// Services of that name are never registered.
const std::string ABSENT = "Absent";

std::int64_t now() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

/// The registry's answer: the record of the service that the event asks for.
std::string records(const std::string& event, unsigned port) {
    const auto begin = event.find('=') + 1;
    const std::string name = event.substr(begin, event.find('#') - begin);
    if (name.rfind(ABSENT, 0) == 0) return "[]";
    return "[{\"name\":\"" + name + "\",\"uri\":\"/" + name + "/\",\"port\":" + std::to_string(port) + "}]";
}

}  // namespace

Client::~Client() {
    ::close(_descriptor);
}

bool Client::readable() {
    char room[CHUNK];
    const ssize_t size = ::recv(_descriptor, room, sizeof room, 0);
    if (size == 0 || (size < 0 && errno != EAGAIN)) return false;
    if (_name == "Stall") return true;  // and reads no more than it must
    _in.append(room, size > 0 ? static_cast<std::size_t>(size) : 0);
    if (!_upgraded) upgrade();
    while (_upgraded) {
        const auto received = frames::take(_in);
        if (!received) break;
        if (received->opcode == frames::CLOSE) {
            _out += frames::frame(frames::CLOSE, received->payload);
            writable();
            return false;
        }
        handle(received->opcode, received->payload);
    }
    return writable();
}

void Client::upgrade() {
    const auto end = _in.find("\r\n\r\n");
    if (end == std::string::npos) return;
    _name = frames::requestedName(_in);
    if (_in.find("Upgrade: ") == std::string::npos) {
        _out += storms::lineEndsAnswer();
        _in.erase(0, end + 4);
        return;
    }
    _out += frames::upgradeAnswer(_in);
    _in.erase(0, end + 4);
    _upgraded = true;
    misbehave();
}

void Client::misbehave() {
    if (_name == "Stall") _out += frames::notification("/Stall#1-Stall").substr(0, 100);
    if (_name == "Hostile") _out += "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF";
    if (_name == "Drip") _out += std::string("\x81\x7F\0\0\0\0\0\x0F\0\0", 10);  // 960 KiB to come
    if (auto storm = storms::frames(_name); !storm.empty()) {
        _block = std::make_shared<std::string>(std::move(storm));
        _floodBytes = std::numeric_limits<std::uint64_t>::max();
    }
    if (_name == "Flood") {
        subscribed("/Flood#1-Flood");
        prepareBlock();
        _floodBytes = std::numeric_limits<std::uint64_t>::max();
    }
}

void Client::handle(unsigned opcode, const std::string& payload) {
    if (opcode == frames::PING) _out += frames::frame(frames::PONG, payload);
    if (opcode != frames::TEXT || frames::member(payload, "type") != "subscribe") return;
    const std::string event = frames::member(payload, "event");
    subscribed(event);
    const std::string subject = ",\"event\":\"" + event + "\"";
    _out += frames::frame(frames::TEXT, "{\"type\":\"subscribe\"" + subject + "}");
    _out += _name.empty() ? frames::frame(frames::TEXT, "{\"type\":\"data\"" + subject +
                                                            ",\"data\":" + records(event, _port) + "}")
                          : _frames.back();
}

void Client::subscribed(const std::string& event) {
    _frames.push_back(frames::notification(event));
    _block.reset();
}

// A whole number of rounds through the subscriptions.
void Client::prepareBlock() {
    if (_block) return;
    _block = std::make_shared<std::string>();
    do {
        for (const std::string& frame : _frames) *_block += frame;
    } while (_block->size() < BLOCK_BYTES);
    _blockAt = 0;
}

void Client::flood(std::size_t count) {
    if (_frames.empty()) return;
    prepareBlock();
    _floodBytes = count * _frames.front().size();
    writable();
}

void Client::push() {
    if (_frames.empty()) return;
    std::string& frame = _frames[_next++ % _frames.size()];
    frames::stamp(frame, now());
    std::size_t sent = 0;
    if (!wantsWrite()) send(frame.data(), frame.size(), sent);
    if (sent < frame.size()) _out.append(frame, sent, frame.size());
}

void Client::drip() {
    if (_name == "Drip" && _out.empty()) _out += "d";
    writable();
}

bool Client::writable() {
    while (_written < _out.size()) {
        std::size_t sent = 0;
        if (!send(_out.data() + _written, _out.size() - _written, sent)) return false;
        if (sent == 0) return true;
        _written += sent;
    }
    _out.clear();
    _written = 0;
    if (_floodBytes == 0) return true;
    const std::uint64_t size = std::min<std::uint64_t>({CHUNK, _floodBytes, _block->size() - _blockAt});
    std::size_t sent = 0;
    if (!send(_block->data() + _blockAt, static_cast<std::size_t>(size), sent)) return false;
    _floodBytes -= sent;
    _blockAt = (_blockAt + sent) % _block->size();
    return true;
}

bool Client::send(const char* data, std::size_t size, std::size_t& sent) {
    const ssize_t result = ::send(_descriptor, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (result < 0) return errno == EAGAIN || errno == EINTR;
    sent = static_cast<std::size_t>(result);
    return true;
}
