// zolctl watch: subscribes, and prints what comes.
#include <Nubo/Client/ServiceListener.h>
#include <Nubo/Command/StatusObject.h>
#include <Nubo/Command/WebSocketRequestObject.h>
#include <Poco/DateTimeFormatter.h>

#include <memory>

#include "../Command.h"
#include "../Output.h"
#include "../Request.h"
#include "../Session.h"

namespace ZolCtl {

using Nubo::Client::ServiceHandler;
using Nubo::Client::ServiceListener;
using Nubo::Command::StatusObject;
using Nubo::Command::WebSocketRequestObject;

namespace {

/// Subscribes to paths of one service whenever that comes, and prints their notifications. Session's thread.
class Watcher : public ServiceListener {
public:
    /// @param printed counts, over all watchers; outlives this one
    Watcher(Session& session, const std::string& service, uint16_t id, long& printed)
        : ServiceListener(&session.client(), id), _service(service), _printed(printed) {
        session.follow(service);
        addServiceToMonitor(service, false);
    }
    ~Watcher() override { shutdown(); }

    void add(const std::string& path) { _missing.push_back(path); }

    void start() {
        startup();
        if (getLastNotificationState() != Available) Output::notice("waiting for " + _service);
    }

private:
    void HandleMicroServicesAvailable(bool available) override {
        const std::string back = _paths.empty() ? " is available" : " is available again";
        Output::notice(_service + (available ? back : " is not available, waiting for it"));
        if (available) subscribe();
    }

    /// Each path once: the library keeps a subscription through every outage.
    void subscribe() {
        const auto wanted = std::exchange(_missing, {});
        for (const auto& path : wanted) {
            const auto subscription = addSubscription(path, "", 0, "", false);
            if (subscription.empty())
                _missing.push_back(path);
            else
                _paths[subscription] = path;
        }
    }

    void HandleServiceHandlerNotification(
        const ServiceHandler::ServiceHandlerNotificationData_t& data) override {
        Poco::JSON::Object::Ptr line = new Poco::JSON::Object(Poco::JSON_PRESERVE_KEY_ORDER);
        line->set("time", Poco::DateTimeFormatter::format(Poco::Timestamp(), "%Y-%m-%dT%H:%M:%S.%iZ"));
        line->set("path", _paths[data.event]);
        line->set(WebSocketRequestObject::FIELD_TYPE, data.type);
        for (const auto& key : {StatusObject::FIELD_ERROR_CODE, WebSocketRequestObject::FIELD_DATA})
            if (data.container->has(key)) line->set(key, data.container->get(key));
        ++_printed;
        Output::jsonLine(line);
    }

    const std::string _service;
    long& _printed;
    std::vector<std::string> _missing;          // paths not subscribed yet
    std::map<std::string, std::string> _paths;  // by subscription
};

using Watchers = std::map<std::string, std::unique_ptr<Watcher>>;

Watchers watchersOf(const std::vector<std::string>& arguments, Session& session, long& printed) {
    Watchers watchers;
    for (const auto& argument : arguments) {
        const auto path = requestPath(argument);
        const auto service = serviceOf(path);
        auto& watcher = watchers[service];
        if (!watcher) watcher = std::make_unique<Watcher>(session, service, watchers.size(), printed);
        watcher->add(path);
    }
    return watchers;
}

}  // namespace

void runWatch(const Call_t& call) {
    for (const auto& argument : call.arguments) serviceOf(requestPath(argument));
    long printed = 0;
    Session session;
    const auto watchers = watchersOf(call.arguments, session, printed);
    for (const auto& [service, watcher] : watchers) watcher->start();
    const long wanted = call.options.getInt("count", 0);
    const bool done = session.run([&] { return wanted != 0 && printed >= wanted; }, call.seconds("timeout"));
    if (wanted != 0 && !done)
        throw Failure("only " + std::to_string(printed) + " of " + std::to_string(wanted) +
                      " notifications came");
}

}  // namespace ZolCtl
