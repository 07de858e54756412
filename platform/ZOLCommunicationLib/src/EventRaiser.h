#ifndef NUBO_NET_EVENTRAISER_H
#define NUBO_NET_EVENTRAISER_H

#include <Nubo/Net/WebSocketProxy.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Poco/SharedPtr.h>

#include <memory>
#include <string>

namespace Nubo::Net {

/// Raises a manager's events on its thread. What a delegate throws goes no further, except the two below.
class EventRaiser {
public:
    explicit EventRaiser(WebsocketConnectionManager& manager) : _manager(manager) {}

    /// @throws std::bad_alloc when there was no memory, here or in a delegate: the message is lost.
    /// @throws RefusedMessage when a delegate has refused the message.
    void data(const Poco::SharedPtr<WebSocketProxy>& proxy, std::string&& message, int flags,
              std::shared_ptr<const void> receipt);

    /// False when there was no memory for it, here or in a delegate: to be raised again.
    /// @param reason  "" for that of an end for which there was no memory.
    bool closed(const Poco::SharedPtr<WebSocketProxy>& proxy, const std::string& reason) noexcept;

private:
    WebsocketConnectionManager& _manager;
};

}  // namespace Nubo::Net

#endif
