#ifndef NUBO_NET_UNDELIVERED_H
#define NUBO_NET_UNDELIVERED_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "SendChannel.h"

namespace Nubo::Net {

/// Counts the messages of one connection that have been raised, but that the application has not been given
/// yet. A peer that sends faster than the application takes is not read until half of them have gone.
class Undelivered : public std::enable_shared_from_this<Undelivered> {
public:
    /// @param channel  of the connection: calls its manager when there is room again.
    explicit Undelivered(const std::shared_ptr<SendChannel>& channel) : _channel(channel) {}

    /// The message counts until the last copy of its receipt has gone, on whatever thread that is.
    std::shared_ptr<const void> receipt(const std::string& message);

    /// For the manager's thread. Whether there is too much of them; the manager is called when there is room
    /// again.
    bool tooMuch();
    bool hasRoom() const;

private:
    struct Receipt;

    void delivered(std::size_t bytes, std::size_t messages);

    const std::weak_ptr<SendChannel> _channel;  // weak: a receipt that is kept holds no descriptor

    // Each by itself.
    std::atomic<std::size_t> _bytes{0};
    std::atomic<std::size_t> _messages{0};
    std::atomic<bool> _managerWaits{false};
};

}  // namespace Nubo::Net

#endif
