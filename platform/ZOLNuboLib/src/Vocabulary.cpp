#include <Nubo/Command/RenderCriterion.h>
#include <Nubo/Command/ResponseObject.h>
#include <Nubo/Command/StatusObject.h>
#include <Nubo/Command/WebSocketRequestObject.h>
#include <Nubo/Command/WebSocketResponseObject.h>
#include <Nubo/Data/ServiceBase.h>
#include <Nubo/Data/XObjectBase.h>

// Every word of the wire, in one place: peers must write and expect the very same.

namespace Nubo::Command {

const std::string WebSocketRequestObject::FIELD_TYPE = "type";
const std::string WebSocketRequestObject::FIELD_EVENT = "event";
const std::string WebSocketRequestObject::FIELD_SUBSCRIPTION_INTERVAL = "interval";
const std::string WebSocketRequestObject::FIELD_SUBSCRIPTION_UPDATE_LIMIT = "updateLimit";
const std::string WebSocketRequestObject::FIELD_AUTHORIZATION = "authorization";
const std::string WebSocketRequestObject::FIELD_AUTOSUBSCRIBE = "autosubscribe";
const std::string WebSocketRequestObject::FIELD_DATA = "data";
const std::string WebSocketRequestObject::FIELD_ERROR = "error";
const std::string WebSocketRequestObject::TYPE_SUBSCRIBE = "subscribe";
const std::string WebSocketRequestObject::TYPE_UNSUBSCRIBE = "unsubscribe";
const std::string WebSocketRequestObject::TYPE_DATA = "data";

const std::string WebSocketResponseObject::TYPE_DATA = "data";
const std::string WebSocketResponseObject::TYPE_SUBSCRIBE = "subscribe";
const std::string WebSocketResponseObject::TYPE_ERROR = "error";

const std::string ResponseObject::FIELD_DATA = "data";
const std::string StatusObject::FIELD_ERROR_CODE = "code";
const std::string RenderCriterion::EXPAND = "$expand";

}  // namespace Nubo::Command

namespace Nubo::Data {

const std::string XObjectBase::KEY_NAME = "name";
const std::string XObjectBase::KEY_URI = "uri";
const std::string ServiceBase::KEY_PORT = "port";

}  // namespace Nubo::Data
