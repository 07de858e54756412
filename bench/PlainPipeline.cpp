// The reference: what one would write by hand on POCO. One thread receives frames, one parses, and the
// calling one copies and dispatches, with queues between them.

#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/WebSocket.h>
#include <Poco/NotificationQueue.h>

#include <functional>
#include <map>
#include <sstream>
#include <thread>

#include "Pipeline.h"

namespace {

using Poco::JSON::Object;
using Poco::Net::WebSocket;

const std::string SERVICE = "Plain";

struct Text : Poco::Notification {
    explicit Text(std::string t) : text(std::move(t)) {}
    const std::string text;
};

struct Parsed : Poco::Notification {
    explicit Parsed(const Object::Ptr& o) : object(o) {}
    const Object::Ptr object;
};

struct Stop : Poco::Notification {};

WebSocket connect() {
    Poco::Net::HTTPClientSession session(Nubo::ServiceRegistryConnection::ADDRESS,
                                         Nubo::ServiceRegistryConnection::PORT);
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, "/" + SERVICE,
                                   Poco::Net::HTTPRequest::HTTP_1_1);
    Poco::Net::HTTPResponse response;
    WebSocket socket(session, request, response);
    socket.setReceiveTimeout(0);  // waits as long as it must
    return socket;
}

class PlainPipeline : public Pipeline {
public:
    PlainPipeline()
        : _socket(connect()), _receiver([this] { receiveFrames(); }), _parser([this] { parseTexts(); }) {}
    ~PlainPipeline() override {
        _socket.shutdown();  // the peer answers and closes, which ends the receiver
        _receiver.join();
        _texts.enqueueNotification(new Stop);
        _parser.join();
    }

    std::string name() const override { return SERVICE; }

    void subscribe(std::size_t resources) override {
        for (std::size_t i = 0; i < resources; ++i) {
            const std::string text = subscription(SERVICE, i);
            _subscribers[resourcePath(SERVICE, i)] = [this](const Object& notification) {
                received([&] { return stampOf(notification); });
            };
            _socket.sendFrame(text.data(), static_cast<int>(text.size()));
        }
        receive(resources);
    }

protected:
    bool runNext() override {
        Poco::AutoPtr<Poco::Notification> next(_objects.waitDequeueNotification(WAIT_MS));
        if (next) dispatch(static_cast<Parsed&>(*next).object);
        return !next.isNull();
    }

private:
    void receiveFrames() {
        Poco::Buffer<char> buffer(0);
        for (;;) {
            int flags = 0;
            buffer.resize(0, false);
            const int size = _socket.receiveFrame(buffer, flags);
            if (size <= 0 || (flags & WebSocket::FRAME_OP_BITMASK) == WebSocket::FRAME_OP_CLOSE) return;
            _texts.enqueueNotification(new Text(std::string(buffer.begin(), buffer.size())));
        }
    }

    void parseTexts() {
        for (;;) {
            Poco::AutoPtr<Poco::Notification> next(_texts.waitDequeueNotification());
            const auto* text = dynamic_cast<Text*>(next.get());
            if (text == nullptr) return;
            Poco::JSON::Parser parser;
            _objects.enqueueNotification(new Parsed(parser.parse(text->text).extract<Object::Ptr>()));
        }
    }

    void dispatch(const Object::Ptr& notification) {
        if (notification->getValue<std::string>("type") != "data") return;
        std::ostringstream text;
        notification->stringify(text);
        Poco::JSON::Parser parser;
        const auto copy = parser.parse(text.str()).extract<Object::Ptr>();
        const auto event = notification->getValue<std::string>("event");
        const auto subscriber = _subscribers.find(event.substr(0, event.find('#')));
        if (subscriber == _subscribers.end()) return;
        _current[subscriber->first] = copy;
        subscriber->second(*notification);
    }

    WebSocket _socket;
    Poco::NotificationQueue _texts;
    Poco::NotificationQueue _objects;
    std::map<std::string, std::function<void(const Object&)>> _subscribers;
    std::map<std::string, Object::Ptr> _current;
    std::thread _receiver;
    std::thread _parser;
};

}  // namespace

std::unique_ptr<Pipeline> makePlainPipeline() {
    return std::make_unique<PlainPipeline>();
}
