#ifndef NUBO_NET_SENDREGISTRY_H
#define NUBO_NET_SENDREGISTRY_H

#include <Poco/Net/WebSocket.h>

#include <memory>

#include "SendChannel.h"

namespace Nubo::Net::SendRegistry {

// The channels of all connections of the process, by socket implementation. From any thread. A channel is
// here from addConnection() on until its manager has closed the descriptor, so that a socket without one is
// closed, forgotten or was never added.

/// False, and nothing is changed, when the socket has one already.
bool insert(const std::shared_ptr<SendChannel>& channel);

std::shared_ptr<SendChannel> find(const Poco::Net::WebSocket& socket);

void erase(const SendChannel& channel);

}  // namespace Nubo::Net::SendRegistry

#endif
