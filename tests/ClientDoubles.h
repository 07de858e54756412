#ifndef TESTS_CLIENTDOUBLES_H
#define TESTS_CLIENTDOUBLES_H

#include <Nubo/Client/IClientLibInterface.h>
#include <Nubo/Client/ServiceHandler.h>
#include <Poco/Delegate.h>
#include <Poco/JSON/Parser.h>
#include <Poco/Net/NetException.h>

#include <atomic>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

inline Poco::JSON::Object::Ptr parsed(const std::string& json) {
    return Poco::JSON::Parser().parse(json).extract<Poco::JSON::Object::Ptr>();
}

inline std::string written(const Poco::JSON::Object& object) {
    std::ostringstream text;
    object.stringify(text, 0, -1);
    return text.str();
}

/// Stands in for the ClientLib where no network is wanted: its connections have no socket.
class FakeClientLib : public Nubo::Client::IClientLibInterface {
public:
    using Handler = Nubo::Client::ServiceHandler;
    using Worker = Nubo::Client::WebSocketRequestHandler;

    virtual ~FakeClientLib() = default;

    static Worker::Ptr worker() {
        Poco::SharedPtr<Poco::Net::WebSocket> none;
        return new Worker(none);
    }
    Handler::Ptr getServiceHandler(const std::string& name) const override {
        const auto found = handlers.find(name);
        return found == handlers.end() ? Handler::Ptr() : found->second;
    }
    Worker::Ptr getServiceRegistryWebSocket() const override { return registry; }
    Worker::Ptr createNewWebsocket(const std::string& service, const std::string& address, int port,
                                   uint32_t timeout) override {
        ++attempts;
        if (onConnect) onConnect();
        if (refusing) throw Poco::Net::ConnectionRefusedException();
        ++connections;
        auto made = worker();
        if (onConnected) onConnected(*made);
        _last = service + "@" + address + ":" + std::to_string(port) + "/" + std::to_string(timeout);
        return made;
    }
    void destroyWebsocket(Worker::Ptr) override { ++destroyed; }
    bool sendRequest(Poco::Net::HTTPResponse&, std::string&, const std::string&, const std::string&,
                     const std::string&) const override {
        return false;
    }
    Poco::JSON::Object::Ptr getResourceElement(const std::string&) const override { return nullptr; }
    Poco::JSON::Object::Ptr findElementByName(const std::string&, const std::string&) const override {
        return nullptr;
    }
    void startup() override {}
    void shutdown() override {}

    /// The arguments of the last successful createNewWebsocket(), as "Media@10.0.0.5:80/5000". Not while a
    /// reconnect thread is at work.
    const std::string& lastConnection() const { return _last; }

    std::map<std::string, Handler::Ptr> handlers;
    Worker::Ptr registry = worker();
    // Both set before a reconnect thread may run.
    std::function<void()> onConnect;
    std::function<void(Worker&)> onConnected;
    std::atomic<bool> refusing{false};
    std::atomic<int> attempts{0};
    std::atomic<int> connections{0};
    std::atomic<int> destroyed{0};

private:
    std::string _last;
};

/// Opens what is protected, and plays the worker that a handler listens on.
class TestHandler : public Nubo::Client::ServiceHandler {
public:
    using Ptr = Poco::SharedPtr<TestHandler>;
    using ServiceHandler::destroyWebsocket;
    using ServiceHandler::parseUriFragments;
    using ServiceHandler::RefreshSubscription;
    using ServiceHandler::ServiceHandler;
    using ServiceHandler::setNewServiceAddress;
    using ServiceHandler::stopReconnectThread;
    using ServiceHandler::TriggerMicroServiceRegistrationChanged;

    /// What the worker does with one frame of text.
    void receive(const std::string& frame) { WebSocketDataAvailableHandler(payload(frame)); }
    /// What the worker does when its connection has closed.
    void close(const std::string& reason) { WebSocketClosedHandler({noProxy(), reason}); }
    /// What the posted message does on the caller's thread.
    void handle(const std::string& json) { WebSocketDataAvailableHandlerSync(parsed(json)); }

    static Nubo::Net::WebsocketDataEventPayload payload(const std::string& frame) {
        Nubo::Net::WebsocketDataEventPayload result(noProxy());
        result.data = frame;
        return result;
    }

private:
    static Poco::SharedPtr<Nubo::Net::WebSocketProxy> noProxy() {
        return new Nubo::Net::WebSocketProxy(nullptr, nullptr);
    }
};

/// Records the notifications of a handler, which it keeps alive; `then` is called for each.
class Notifications {
public:
    using Data = Nubo::Client::ServiceHandler::ServiceHandlerNotificationData_t;

    explicit Notifications(const Nubo::Client::ServiceHandler::Ptr& handler) : _handler(handler) {
        _handler->SocketDataAvailable += Poco::delegate(this, &Notifications::notified);
    }
    ~Notifications() { _handler->SocketDataAvailable -= Poco::delegate(this, &Notifications::notified); }

    std::vector<std::string> events() const {
        std::vector<std::string> all;
        for (const Data& data : received) all.push_back(data.event);
        return all;
    }
    /// How many of them went to `subscriber` and have `text` in what they carry.
    std::size_t count(const std::string& subscriber, const std::string& text) const {
        std::size_t n = 0;
        for (const Data& data : received)
            if (data.event == subscriber && written(*data.container).find(text) != std::string::npos) ++n;
        return n;
    }

    std::vector<Data> received;
    std::function<void(const Data&)> then;

private:
    void notified(const Data& data) {
        received.push_back(data);
        if (then) then(data);
    }

    Nubo::Client::ServiceHandler::Ptr _handler;
};

/// Records what a handler, which it keeps alive, announces.
class Announcements {
public:
    using Data = Nubo::Client::ServiceHandler::ServiceRegistrationEventData_t;

    explicit Announcements(const Nubo::Client::ServiceHandler::Ptr& handler) : _handler(handler) {
        _handler->MicroServiceRegistrationChanged += Poco::delegate(this, &Announcements::announced);
    }
    ~Announcements() {
        _handler->MicroServiceRegistrationChanged -= Poco::delegate(this, &Announcements::announced);
    }

    std::vector<bool> states;
    std::function<void(bool)> then;

private:
    void announced(const Data& data) {
        states.push_back(data.handler->isAvailable());
        if (then) then(states.back());
    }

    Nubo::Client::ServiceHandler::Ptr _handler;
};

#endif
