#ifndef BENCH_PEER_FRAMES_H
#define BENCH_PEER_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

/// What the peer says and hears on a WebSocket (RFC 6455): its frames are built once and then only written.
namespace frames {

/// Length of every notification's text; all frames that are pushed have the same length.
constexpr std::size_t NOTIFICATION_BYTES = 300;

constexpr unsigned TEXT = 0x1;
constexpr unsigned CLOSE = 0x8;
constexpr unsigned PING = 0x9;
constexpr unsigned PONG = 0xA;

/// A whole, unmasked frame.
std::string frame(unsigned opcode, const std::string& payload);

/// The text frame of a data notification about `event`, filled up to NOTIFICATION_BYTES. What it says depends
/// on the path of the event: "/" is the registry's answer without a service, anything else a resource.
std::string notification(const std::string& event);

/// Writes a time stamp (nanoseconds of the monotonic clock) into the frame of a notification.
void stamp(std::string& notification, std::int64_t nanoseconds);

/// A frame that a client has sent.
struct Received {
    unsigned opcode;
    std::string payload;
};

/// Takes the first frame off `bytes`; empty when it is not complete yet.
std::optional<Received> take(std::string& bytes);

/// The text behind `"key":"` in a compact JSON text; empty when there is none. Escapes are not resolved.
std::string member(const std::string& json, const std::string& key);

/// The path in the first line of an HTTP request, without its leading slash.
std::string requestedName(const std::string& request);

/// The answer that turns an HTTP connection into a WebSocket.
std::string upgradeAnswer(const std::string& request);

}  // namespace frames

#endif
