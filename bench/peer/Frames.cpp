#include "Frames.h"

#include <Poco/Base64Encoder.h>
#include <Poco/SHA1Engine.h>

#include <sstream>

namespace frames {

namespace {

const std::string STAMP_MEMBER = "\"stamp\":\"";
constexpr std::size_t STAMP_DIGITS = 19;

std::string resource(const std::string& event) {
    return "{\"name\":\"0xa\",\"uri\":\"" + event.substr(0, event.find('#')) +
           "\",\"duration\":215,\"position\":12.75,\"playing\":true,\"rating\":null," + STAMP_MEMBER +
           std::string(STAMP_DIGITS, '0') + "\"}";
}

std::string opening(const std::string& event) {
    return "{\"type\":\"data\",\"event\":\"" + event + "\",\"data\":";
}

}  // namespace

std::string frame(unsigned opcode, const std::string& payload) {
    std::string bytes(1, static_cast<char>(0x80 | opcode));
    if (payload.size() < 126) {
        bytes += static_cast<char>(payload.size());
    } else {
        const bool isLong = payload.size() > 0xFFFF;
        bytes += static_cast<char>(isLong ? 127 : 126);
        for (unsigned bits = isLong ? 64 : 16; bits > 0; bits -= 8)
            bytes += static_cast<char>(payload.size() >> (bits - 8) & 0xFFU);
    }
    return bytes + payload;
}

std::string notification(const std::string& event) {
    const bool registry = event.rfind("/?", 0) == 0;
    std::string text = opening(event) + (registry ? "[]" : resource(event)) + ",\"note\":\"";
    text.resize(NOTIFICATION_BYTES - 2, 'n');
    return frame(TEXT, text + "\"}");
}

void stamp(std::string& notification, std::int64_t nanoseconds) {
    const auto at = notification.find(STAMP_MEMBER);
    if (at == std::string::npos) return;
    const std::string digits = std::to_string(nanoseconds);
    notification.replace(at + STAMP_MEMBER.size(), STAMP_DIGITS,
                         std::string(STAMP_DIGITS - digits.size(), '0') + digits);
}

std::optional<Received> take(std::string& bytes) {
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    if (bytes.size() < 2) return std::nullopt;
    std::size_t size = at(1) & 0x7FU;
    const std::size_t lengthBytes = size == 126 ? 2 : size == 127 ? 8 : 0;
    const std::size_t mask = 2 + lengthBytes;
    if (bytes.size() < mask + 4) return std::nullopt;
    if (lengthBytes != 0) size = 0;
    for (std::size_t i = 0; i < lengthBytes; ++i) size = size << 8 | at(2 + i);
    if (bytes.size() < mask + 4 + size) return std::nullopt;
    Received received{at(0) & 0x0FU, bytes.substr(mask + 4, size)};
    for (std::size_t i = 0; i < size; ++i) received.payload[i] ^= bytes[mask + i % 4];
    bytes.erase(0, mask + 4 + size);
    return received;
}

std::string member(const std::string& json, const std::string& key) {
    const std::string opening = "\"" + key + "\":\"";
    const auto found = json.find(opening);
    if (found == std::string::npos) return "";
    const auto begin = found + opening.size();
    return json.substr(begin, json.find('"', begin) - begin);
}

std::string requestedName(const std::string& request) {
    const auto slash = request.find('/');
    return request.substr(slash + 1, request.find(' ', slash) - slash - 1);
}

std::string upgradeAnswer(const std::string& request) {
    const std::string keyField = "Sec-WebSocket-Key: ";
    const auto key = request.find(keyField) + keyField.size();
    Poco::SHA1Engine sha1;
    sha1.update(request.substr(key, request.find("\r\n", key) - key) +
                "258EAFA5-E914-47DA-95CA-C5AB0DC85B11");  // RFC 6455, 1.3
    const auto& digest = sha1.digest();
    std::ostringstream accept;
    Poco::Base64Encoder encoder(accept);
    encoder.write(reinterpret_cast<const char*>(digest.data()), static_cast<std::streamsize>(digest.size()));
    encoder.close();
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Accept: " +
           accept.str() + "\r\n\r\n";
}

}  // namespace frames
