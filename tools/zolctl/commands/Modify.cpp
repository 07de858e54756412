// zolctl put, post, delete: one HTTP request that changes something.
#include <Nubo/Client/MessageQueue.h>
#include <Poco/String.h>

#include "../Command.h"
#include "../Output.h"
#include "../Request.h"

namespace ZolCtl {

void runModify(const Call_t& call) {
    const auto path = requestPath(call.arguments[0]);
    const auto content = call.arguments.size() > 1 ? jsonArgument(call.arguments[1]) : "";
    Nubo::Client::MessageQueue sink;
    const Nubo::Client::ClientLib client(&sink, clientParameters());
    Output::json(request(client, Poco::toUpper(call.command), path, content));
}

}  // namespace ZolCtl
