#ifndef NUBO_CLIENT_DATAMESSAGES_WEBSOCKETDATAAVAILABLEMESSAGE_H
#define NUBO_CLIENT_DATAMESSAGES_WEBSOCKETDATAAVAILABLEMESSAGE_H

#include <Nubo/Client/IWebSocketDataAvailableImpl.h>
#include <Nubo/Client/MultiThreadingObject.h>
#include <Nubo/Export.h>
#include <Nubo/Util/DataMessageBase.h>
#include <Poco/JSON/Object.h>

#include <memory>

namespace Nubo::Client {

/// Posted by a handler for each JSON object that came in on a connection that it listens on, and for a new
/// subscriber that is served with the current data.
class ZOL_EXPORT WebSocketDataAvailableMessage : public Nubo::Util::DataMessageBase {
public:
    /// @param handler not owned. If it is a MultiThreadingObject it may be destroyed before the message runs;
    ///                any other handler outlives the message. Null: Poco::NullPointerException.
    /// @param data shared, not copied; released with the message.
    WebSocketDataAvailableMessage(IWebSocketDataAvailableImpl* handler, const Poco::JSON::Object::Ptr& data);

    /// Likewise, for data that came in.
    /// @param receipt held until the message is destroyed (Nubo::Net::WebsocketDataEventPayload::receipt): a
    /// sink
    ///                that keeps messages for long makes the connection wait. May be null.
    WebSocketDataAvailableMessage(IWebSocketDataAvailableImpl* handler, const Poco::JSON::Object::Ptr& data,
                                  std::shared_ptr<const void> receipt);

    /// Calls the handler's WebSocketDataAvailableHandlerSync(), unless the handler is gone. Caller's thread.
    void processData() override;

private:
    IWebSocketDataAvailableImpl* m_handler;
    const Poco::JSON::Object::Ptr m_data;
    MultiThreadingObject::Liveness _handlerAlive;  // a message may be run after its handler is gone
    const std::shared_ptr<const void> _receipt;    // of data that counts as undelivered until then
};

}  // namespace Nubo::Client

#endif
