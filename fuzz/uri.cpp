// URIs and queries: taken apart, put together, normalised, subscribed to, read from the registry's records.
// Input: an expansion level (one byte), then up to three texts with zero bytes between them: a URI; the tag
// of a subscriber, which serves as a parameter's name too; its value.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Command/RequestBase.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/Exception.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <array>
#include <memory>

#include "Client.h"
#include "Fuzz.h"
#include "HostAddress.h"
#include "UriText.h"

namespace {

using Nubo::Client::ClientLib;
using Nubo::Client::UriText;
using Nubo::Command::RequestBase;
using Nubo::Command::UrlPath;
using Poco::JSON::Object;

std::string encoded(const std::string& text) {
    std::string result;
    Poco::URI::encode(text, "?#/:;+@&=", result);
    return result;
}

/// Null when `text` is no URI.
std::unique_ptr<Poco::URI> parse(const std::string& text) {
    try {
        return std::make_unique<Poco::URI>(text);
    } catch (const Poco::SyntaxException&) {
        return nullptr;
    }
}

void checkUriText(const std::string& text, const Poco::URI* uri) {
    try {
        const UriText own(text);
        require(uri != nullptr, "what POCO refuses is refused");
        require(own.path() == uri->getPath(), "the path is POCO's");
        require(own.fragment() == uri->getFragment(), "the fragment is POCO's");
    } catch (const Poco::SyntaxException&) {
        require(uri == nullptr, "what POCO takes is taken");
    }
}

void checkPath(const Poco::URI& uri) {
    if (uri.getPath().find('$') != std::string::npos) return;  // a "$" word is no part
    const UrlPath path(uri);
    const UrlPath again(
        Poco::URI(encoded("/" + path.getService() + "/" + path.getResource() + "/" + path.getElement())));
    require(again.getService() == path.getService() && again.getResource() == path.getResource() &&
                again.getElement() == path.getElement() &&
                again.getCharacteristic() == path.getCharacteristic(),
            "the parts of a path make up the same path");
}

void checkQuery(std::uint8_t level, const std::string& name, const std::string& value) {
    const std::string filter = encoded(name) + "=" + Poco::replace(encoded(value), "%20", "+");
    const RequestBase request(Poco::URI(ClientLib::createQuery("M/t", encoded(value), level, filter)));
    std::map<std::string, std::string> expected{{name, value}};
    if (!value.empty()) expected["$fields"] = value;
    if (level != 0) expected["$expand"] = std::to_string(level);
    require(request.getUrlPath().getQueryParameter() == expected, "a query is read as it was written");
    require(request.getExpansionLevel() == level, "the expansion level is read as it was written");
    require(request.getUrlPath().getCharacteristic() == UrlPath::SERVICE_RESOURCE, "the path stays");
}

/// A service reads from the normalised query what it reads from the given one. Not kept apart are the encoded
/// and the plain '='.
void checkParameters(const Poco::URI& given, const Poco::URI& normal) {
    if (Poco::toUpper(given.getRawQuery()).find("%3D") != std::string::npos) return;
    require(given.getQueryParameters() == normal.getQueryParameters(), "a query keeps its parameters");
}

/// False when `uri` cannot be normalised.
bool checkNormal(TestHandler& handler, const std::string& uri) {
    std::string normal;
    try {
        normal = handler.normalizeUrl(uri);
    } catch (const Poco::SyntaxException&) {
        return false;
    }
    require(handler.normalizeUrl(normal) == normal, "a normalised URI stays as it is");
    checkParameters(Poco::URI(uri), Poco::URI(normal));
    return true;
}

/// A subscription's life.
void checkSubscription(const std::string& uri, const std::string& tag) {
    Client client;
    const bool normal = checkNormal(*client.handler, uri);
    const std::string event = client.handler->addSubscription(uri, tag, false);
    // The path "/" is the registry's.
    const bool mayBe = normal && UriText(client.handler->normalizeUrl(uri)).path() != "/";
    require(event.empty() != mayBe, "what can be normalised can be subscribed to, nothing else can");
    if (!mayBe) return;
    Object::Ptr data(new Object);
    data->set("type", "data");
    data->set("event", event);
    client.handler->WebSocketDataAvailableHandlerSync(data);
    const auto& received = client.notifications.received;
    require(received.size() == 1, "a subscriber is notified");
    require(received[0].additionalFragment == tag, "its tag comes back");
    client.log.clear();
    client.handler->removeSubscription(event);
    for (const std::string& line : client.log.lines())
        require(line.rfind("Error: ServiceHandler::removeSubscription", 0) != 0,
                "a subscription can be removed");
}

void checkRecord(const std::string& text, const Poco::URI* uri) {
    Client client;
    const Object::Ptr notification =
        parsed(R"({"type":"data","event":"/#1-Media","data":[{"name":"x"},{"name":"Media","port":"5001"}]})");
    notification->getArray("data")->getObject(1)->set("uri", text);
    client.handler->WebSocketDataAvailableHandlerSync(notification);
    if (uri == nullptr) {
        require(client.lib.attempts == 0, "no connection without an address");
        return;
    }
    const std::string registry = Nubo::ServiceRegistryConnection::ADDRESS;
    const std::string host = uri->getHost().empty() ? registry : uri->getHost();
    require(client.lib.lastConnection() == "Media@" + host + ":5001/0", "a record is connected to");
    require(client.handler->isAvailable(), "a service that is connected is available");
    require(Nubo::Client::bareHost("[" + host + "]") == host, "brackets around an address are taken off");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::array<std::string, 3> texts;
    auto text = texts.begin();
    for (std::size_t i = 1; i < size; ++i) {
        if (data[i] != 0)
            *text += static_cast<char>(data[i]);
        else if (++text == texts.end())
            return 0;
    }
    const auto& [uri, name, value] = texts;
    const auto parsedUri = parse(uri);
    checkUriText(uri, parsedUri.get());
    checkQuery(data[0], "n" + name, value);
    if (uri.find(':') != std::string::npos)
        checkRecord(uri, parsedUri.get());  // starts a thread: not for all
    if (parsedUri && parsedUri->getPath().rfind('/', 0) == 0) checkPath(*parsedUri);
    checkSubscription(uri, name);
    return 0;
}
