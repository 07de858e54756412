#include <Nubo/Client/DataMessages/WebSocketClosedMessage.h>

#include "DataMessages/HandlerLiveness.h"

namespace Nubo::Client {

WebSocketClosedMessage::WebSocketClosedMessage(IWebSocketClosedHandlerImpl* handler,
                                               const Nubo::Net::WebsocketEventPayload& value)
    : m_handler(handler), m_value(value), _handlerAlive(livenessOf(handler)) {}

void WebSocketClosedMessage::processData() {
    if (_handlerAlive.alive()) m_handler->WebSocketClosedHandlerSync(m_value);
}

}  // namespace Nubo::Client
