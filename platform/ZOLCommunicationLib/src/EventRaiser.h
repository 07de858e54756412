#ifndef NUBO_NET_EVENTRAISER_H
#define NUBO_NET_EVENTRAISER_H

#include <Nubo/Net/WebSocketProxy.h>
#include <Nubo/Net/WebsocketConnectionManager.h>
#include <Poco/SharedPtr.h>

#include <string>

namespace Nubo::Net {

/// Raises a manager's events on its thread. What a delegate throws goes no further.
class EventRaiser {
public:
    explicit EventRaiser(WebsocketConnectionManager& manager) : _manager(manager) {}

    void data(const Poco::SharedPtr<WebSocketProxy>& proxy, std::string&& message, int flags);
    void closed(const Poco::SharedPtr<WebSocketProxy>& proxy, const std::string& reason);

private:
    WebsocketConnectionManager& _manager;
};

}  // namespace Nubo::Net

#endif
