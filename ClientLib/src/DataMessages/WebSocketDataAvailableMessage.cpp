#include <Nubo/Client/DataMessages/WebSocketDataAvailableMessage.h>

#include "DataMessages/HandlerLiveness.h"

namespace Nubo::Client {

WebSocketDataAvailableMessage::WebSocketDataAvailableMessage(IWebSocketDataAvailableImpl* handler,
                                                             const Poco::JSON::Object::Ptr& data)
    : m_handler(handler), m_data(data), _handlerAlive(livenessOf(handler)) {}

void WebSocketDataAvailableMessage::processData() {
    if (_handlerAlive.alive()) m_handler->WebSocketDataAvailableHandlerSync(m_data);
}

}  // namespace Nubo::Client
