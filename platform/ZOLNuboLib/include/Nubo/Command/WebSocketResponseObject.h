#ifndef NUBO_COMMAND_WEBSOCKETRESPONSEOBJECT_H
#define NUBO_COMMAND_WEBSOCKETRESPONSEOBJECT_H

#include <Nubo/Export.h>

#include <string>

namespace Nubo::Command {

/// Words of the messages that a service sends over a WebSocket: the values of their type member
/// (WebSocketRequestObject::FIELD_TYPE). Constants are set when the library is loaded and never change.
class ZOL_EXPORT WebSocketResponseObject {
public:
    WebSocketResponseObject() = delete;

    static const std::string TYPE_DATA;       ///< the resource's data: at once, and again on each change
    static const std::string TYPE_SUBSCRIBE;  ///< a subscription was accepted
    static const std::string TYPE_ERROR;      ///< an error; StatusObject::FIELD_ERROR_CODE holds its code
};

}  // namespace Nubo::Command

#endif
