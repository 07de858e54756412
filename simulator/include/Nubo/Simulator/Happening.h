#ifndef NUBO_SIMULATOR_HAPPENING_H
#define NUBO_SIMULATOR_HAPPENING_H

#include <functional>
#include <string>

namespace Nubo::Simulator {

/// Something that has happened on the platform, for those who show it to people or write it down.
struct Happening_t {
    std::string endpoint;  ///< a service's name, or "registry"
    /// "started", "stopped" (text: the address), "silent", "speaking", "registered", "withdrawn" (the
    /// service), "http" (method, URI and status), "opened", "closed" (a WebSocket), "subscribe",
    /// "unsubscribe" (the event), "message" (any other message), "changed" (an element that is subscribed, or
    /// whose list is, and how many were notified)
    std::string what;
    unsigned socket = 0;  ///< which WebSocket, as in the record; 0: none
    std::string text;
};

/// Told of each happening. Runs on: the thread that makes it happen, several at a time. Holding: locks of the
/// platform. Must not: use the platform, block, throw.
using Observer = std::function<void(const Happening_t&)>;

}  // namespace Nubo::Simulator

#endif
