#include <Nubo/Client/DataMessages/WebSocketOpenedMessage.h>

#include "DataMessages/HandlerLiveness.h"

namespace Nubo::Client {

WebSocketOpenedMessage::WebSocketOpenedMessage(IWebSocketOpenedHandlerImpl* handler)
    : m_handler(handler), _handlerAlive(livenessOf(handler)) {}

void WebSocketOpenedMessage::processData() {
    if (_handlerAlive.alive()) m_handler->WebSocketOpenedHandlerSync();
}

}  // namespace Nubo::Client
