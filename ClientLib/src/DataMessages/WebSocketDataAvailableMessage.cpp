#include <Nubo/Client/DataMessages/WebSocketDataAvailableMessage.h>

#include <utility>

#include "DataMessages/HandlerLiveness.h"

namespace Nubo::Client {

WebSocketDataAvailableMessage::WebSocketDataAvailableMessage(IWebSocketDataAvailableImpl* handler,
                                                             const Poco::JSON::Object::Ptr& data)
    : WebSocketDataAvailableMessage(handler, data, nullptr) {}

WebSocketDataAvailableMessage::WebSocketDataAvailableMessage(IWebSocketDataAvailableImpl* handler,
                                                             const Poco::JSON::Object::Ptr& data,
                                                             std::shared_ptr<const void> receipt)
    : m_handler(handler), m_data(data), _handlerAlive(livenessOf(handler)), _receipt(std::move(receipt)) {}

void WebSocketDataAvailableMessage::processData() {
    if (_handlerAlive.alive()) m_handler->WebSocketDataAvailableHandlerSync(m_data);
}

}  // namespace Nubo::Client
