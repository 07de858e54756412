#ifndef NUBO_CLIENT_IWEBSOCKETCLOSEDHANDLERIMPL_H
#define NUBO_CLIENT_IWEBSOCKETCLOSEDHANDLERIMPL_H

#include <Nubo/Export.h>
#include <Nubo/Net/WebsocketEventPayload.h>

namespace Nubo::Client {

/// What a WebSocketClosedMessage calls when the application runs it. Implemented by ServiceHandler.
class ZOL_EXPORT IWebSocketClosedHandlerImpl {
public:
    /// Called when a connection that the handler listens on has ended; `payload.Reason` says why.
    /// Runs on: the caller's thread, from `processData()` of the posted message.
    /// Holding: no lock. Must not: throw; block.
    virtual void WebSocketClosedHandlerSync(const Nubo::Net::WebsocketEventPayload& payload) = 0;

protected:
    // Not virtual: nobody owns a handler through this interface.
    ~IWebSocketClosedHandlerImpl() = default;
};

}  // namespace Nubo::Client

#endif
