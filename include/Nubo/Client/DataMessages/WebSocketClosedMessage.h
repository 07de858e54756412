#ifndef NUBO_CLIENT_DATAMESSAGES_WEBSOCKETCLOSEDMESSAGE_H
#define NUBO_CLIENT_DATAMESSAGES_WEBSOCKETCLOSEDMESSAGE_H

#include <Nubo/Client/IWebSocketClosedHandlerImpl.h>
#include <Nubo/Client/MultiThreadingObject.h>
#include <Nubo/Export.h>
#include <Nubo/Net/WebsocketEventPayload.h>
#include <Nubo/Util/DataMessageBase.h>

namespace Nubo::Client {

/// Posted by a handler when a connection that it listens on has ended.
class ZOL_EXPORT WebSocketClosedMessage : public Nubo::Util::DataMessageBase {
public:
    /// @param handler not owned. If it is a MultiThreadingObject it may be destroyed before the message runs;
    ///                any other handler outlives the message. Null: Poco::NullPointerException.
    /// @param value copied; the copy refers to the same WebSocketProxy and owns its Reason.
    WebSocketClosedMessage(IWebSocketClosedHandlerImpl* handler,
                           const Nubo::Net::WebsocketEventPayload& value);

    /// Calls the handler's WebSocketClosedHandlerSync(), unless the handler is gone. Caller's thread.
    void processData() override;

private:
    IWebSocketClosedHandlerImpl* m_handler;
    const Nubo::Net::WebsocketEventPayload m_value;
    MultiThreadingObject::Liveness _handlerAlive;  // a message may be run after its handler is gone
};

}  // namespace Nubo::Client

#endif
