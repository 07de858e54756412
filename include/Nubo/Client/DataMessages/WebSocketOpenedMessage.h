#ifndef NUBO_CLIENT_DATAMESSAGES_WEBSOCKETOPENEDMESSAGE_H
#define NUBO_CLIENT_DATAMESSAGES_WEBSOCKETOPENEDMESSAGE_H

#include <Nubo/Client/IWebSocketOpenedHandlerImpl.h>
#include <Nubo/Client/MultiThreadingObject.h>
#include <Nubo/Export.h>
#include <Nubo/Util/DataMessageBase.h>

namespace Nubo::Client {

/// Posted by a handler's reconnect thread when it has a connection to the service again.
class ZOL_EXPORT WebSocketOpenedMessage : public Nubo::Util::DataMessageBase {
public:
    /// @param handler not owned. If it is a MultiThreadingObject it may be destroyed before the message runs;
    ///                any other handler outlives the message. Null: Poco::NullPointerException.
    explicit WebSocketOpenedMessage(IWebSocketOpenedHandlerImpl* handler);

    /// Calls the handler's WebSocketOpenedHandlerSync(), unless the handler is gone. Caller's thread.
    void processData() override;

private:
    IWebSocketOpenedHandlerImpl* m_handler;
    MultiThreadingObject::Liveness _handlerAlive;  // a message may be run after its handler is gone
};

}  // namespace Nubo::Client

#endif
