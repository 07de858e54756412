#include "Control.h"

#include <Logging/Escaped.h>
#include <Poco/JSON/Array.h>
#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/NumberParser.h>
#include <Poco/URI.h>

#include <cerrno>
#include <sstream>

#include "Actions.h"

namespace ZolPlatform {

using Nubo::Simulator::Endpoint;
using Nubo::Simulator::Platform;
using Poco::JSON::Object;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using std::chrono::milliseconds;

namespace {

const char* const LOOPBACK = "127.0.0.1";

/// An answer that refuses the request.
struct Refusal {
    HTTPResponse::HTTPStatus status;
    std::string message;
};

Object::Ptr describe(const Endpoint& endpoint) {
    Object::Ptr made = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
    made->set("name", endpoint.name());
    made->set("address", endpoint.address() + ":" + std::to_string(endpoint.port()));
    made->set("running", endpoint.isRunning());
    made->set("sockets", endpoint.openSockets());
    made->set("subscriptions", endpoint.subscribedEvents().size());
    return made;
}

Object describe(Platform& platform) {
    Poco::JSON::Array::Ptr services = new Poco::JSON::Array;
    for (auto* service : platform.services()) {
        auto described = describe(*service);
        described->set("registered", platform.registry().has(service->name()));
        services->add(described);
    }
    Object::Ptr possible = new Object(Poco::JSON_PRESERVE_KEY_ORDER);
    for (const auto& action : actions()) possible->set(action.name, action.help);
    Object made(Poco::JSON_PRESERVE_KEY_ORDER);
    made.set("registry", describe(platform.registry()));
    made.set("services", services);
    made.set("actions", possible);
    return made;
}

/// Those that a path without its last segment names.
Endpoints endpointsAt(const std::vector<std::string>& segments, Platform& platform) {
    if (segments.size() == 2 && segments[0] == "registry") return {&platform.registry()};
    if (segments.size() == 2 && segments[0] == "services") return allServices(platform);
    try {
        if (segments.size() == 3 && segments[0] == "services") return {&platform.service(segments[1])};
    } catch (const Poco::NotFoundException&) {
        throw Refusal{HTTPResponse::HTTP_NOT_FOUND, "no service " + segments[1]};
    }
    throw Refusal{HTTPResponse::HTTP_NOT_FOUND, "nothing there; GET / lists what can be done"};
}

std::optional<milliseconds> timeIn(const Poco::URI& uri) {
    for (const auto& [name, value] : uri.getQueryParameters()) {
        unsigned count = 0;
        if (name == "ms" && Poco::NumberParser::tryParseUnsigned(value, count)) return milliseconds(count);
        throw Refusal{HTTPResponse::HTTP_BAD_REQUEST, "the query may only be ms=N"};
    }
    return std::nullopt;
}

void act(const Poco::URI& uri, Platform& platform) {
    std::vector<std::string> segments;
    uri.getPathSegments(segments);
    const auto endpoints = endpointsAt(segments, platform);
    const auto* action = findAction(segments.back());
    if (!action) throw Refusal{HTTPResponse::HTTP_NOT_FOUND, "no action " + segments.back()};
    if (!perform(*action, endpoints, timeIn(uri)))
        throw Refusal{HTTPResponse::HTTP_BAD_REQUEST, action->name + " is for services only"};
}

class Handler : public Poco::Net::HTTPRequestHandler {
public:
    explicit Handler(Platform& platform) : _platform(platform) {}

    void handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) override {
        Object answer;
        try {
            const Poco::URI uri(request.getURI());
            if (request.getMethod() == HTTPRequest::HTTP_POST) act(uri, _platform);
            answer = describe(_platform);
        } catch (const Refusal& refusal) {
            refuse(response, answer, refusal.status, refusal.message);
        } catch (const Poco::Exception& exception) {
            refuse(response, answer, HTTPResponse::HTTP_INTERNAL_SERVER_ERROR, exception.displayText());
        }
        response.setContentType("application/json; charset=utf-8");
        std::ostringstream json;
        answer.stringify(json, 2);
        response.send() << Logging::escapedJson(json.str());
    }

private:
    static void refuse(HTTPServerResponse& response, Object& answer, HTTPResponse::HTTPStatus status,
                       const std::string& message) {
        response.setStatusAndReason(status);
        answer.set("message", message);
    }

    Platform& _platform;
};

class Factory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit Factory(Platform& platform) : _platform(platform) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override {
        return new Handler(_platform);
    }

private:
    Platform& _platform;
};

Poco::Net::ServerSocket listenOn(Poco::UInt16 port) {
    const Poco::Net::SocketAddress address(LOOPBACK, port);
    try {
        Poco::Net::ServerSocket socket;
        socket.bind(address, true, false);  // POCO's default lets two processes share a port
        socket.listen();
        return socket;
    } catch (const Poco::Net::NetException& exception) {
        if (exception.code() != EADDRINUSE) throw;
        throw Poco::Net::NetException("port " + std::to_string(port) + " of " + LOOPBACK + " is taken");
    }
}

}  // namespace

Control::Control(Platform& platform, Poco::UInt16 port)
    : _server(new Factory(platform), listenOn(port), new Poco::Net::HTTPServerParams) {
    _server.start();
}

Control::~Control() {
    _server.stopAll(true);
}

std::string Control::address() const {
    return LOOPBACK + (":" + std::to_string(_server.port()));
}

}  // namespace ZolPlatform
