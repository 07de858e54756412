#ifndef NUBO_CLIENT_IWEBSOCKETDATAAVAILABLEIMPL_H
#define NUBO_CLIENT_IWEBSOCKETDATAAVAILABLEIMPL_H

#include <Nubo/Export.h>
#include <Poco/JSON/Object.h>

namespace Nubo::Client {

/// What a WebSocketDataAvailableMessage calls when the application runs it. Implemented by ServiceHandler.
class ZOL_EXPORT IWebSocketDataAvailableImpl {
public:
    /// Called when one JSON object came in; `data` is shared, never null and read-only.
    /// Runs on: the caller's thread, from `processData()` of the posted message.
    /// Holding: no lock. Must not: throw; block.
    virtual void WebSocketDataAvailableHandlerSync(const Poco::JSON::Object::Ptr& data) = 0;

protected:
    // Not virtual: nobody owns a handler through this interface.
    ~IWebSocketDataAvailableImpl() = default;
};

}  // namespace Nubo::Client

#endif
