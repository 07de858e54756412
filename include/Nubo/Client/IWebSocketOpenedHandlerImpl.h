#ifndef NUBO_CLIENT_IWEBSOCKETOPENEDHANDLERIMPL_H
#define NUBO_CLIENT_IWEBSOCKETOPENEDHANDLERIMPL_H

#include <Nubo/Export.h>

namespace Nubo::Client {

/// What a WebSocketOpenedMessage calls when the application runs it. Implemented by ServiceHandler.
class ZOL_EXPORT IWebSocketOpenedHandlerImpl {
public:
    /// Called when the posting handler has a new connection to its service.
    /// Runs on: the caller's thread, from `processData()` of the posted message.
    /// Holding: no lock. Must not: throw; block.
    virtual void WebSocketOpenedHandlerSync() = 0;

protected:
    // Not virtual: nobody owns a handler through this interface.
    ~IWebSocketOpenedHandlerImpl() = default;
};

}  // namespace Nubo::Client

#endif
