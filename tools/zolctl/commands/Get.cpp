// zolctl get, zolctl find: one HTTP request, its data on stdout.
#include <Nubo/Client/MessageQueue.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include "../Command.h"
#include "../LibraryLog.h"
#include "../Output.h"
#include "../Request.h"

namespace ZolCtl {

using Nubo::Client::ClientLib;

namespace {

/// As a part of a query, where a comma may stand as it is. @param encodedAsWell further characters to encode
std::string encoded(const std::string& text, const std::string& encodedAsWell) {
    std::string result;
    Poco::URI::encode(text, encodedAsWell, result);
    return Poco::replace(result, "%2C", ",");
}

}  // namespace

void runGet(const Call_t& call) {
    const auto query = ClientLib::createQuery(requestPath(call.arguments[0]),
                                              encoded(call.options.getString("fields", ""), "?#/;+&"),
                                              static_cast<uint8_t>(call.options.getInt("expand", 0)),
                                              encoded(call.options.getString("filter", ""), "?#/;+"));
    Nubo::Client::MessageQueue sink;
    Output::json(request(ClientLib(&sink, clientParameters()), "GET", query));
}

void runFind(const Call_t& call) {
    Nubo::Client::MessageQueue sink;
    const ClientLib client(&sink, clientParameters());
    const auto found =
        client.findElementByName(requestPath(call.arguments[0]), encoded(call.arguments[1], "?#/;+&="));
    if (!found) {
        const std::string error = LibraryLog::lastError();
        throw Failure("no \"" + call.arguments[1] + "\" in " + call.arguments[0] +
                      (error.empty() ? "" : ": " + error));
    }
    Output::json(found);
}

}  // namespace ZolCtl
