// zolctl services: what the registry lists, once or as it changes.
#include <Nubo/Client/SRServiceHandler.h>
#include <Nubo/Command/WebSocketResponseObject.h>
#include <Nubo/Data/ServiceBase.h>
#include <Nubo/Data/XObjectBase.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/JSON/Array.h>
#include <Poco/URI.h>

#include <map>

#include "../Command.h"
#include "../Output.h"
#include "../Request.h"
#include "../Session.h"

namespace ZolCtl {

using Nubo::Client::SRServiceHandler;
using Nubo::Command::WebSocketRequestObject;
using Nubo::Command::WebSocketResponseObject;
using Nubo::Data::ServiceBase;
using Nubo::Data::XObjectBase;

namespace {

/// What is registered: host and port, and URI, by name.
using Records = std::map<std::string, std::pair<std::string, std::string>>;

/// A service whose URI names no host runs beside the registry.
std::string hostIn(const std::string& uri) {
    try {
        const std::string host = Poco::URI(uri).getHost();
        return host.empty() ? Nubo::ServiceRegistryConnection::ADDRESS : host;
    } catch (const Poco::SyntaxException&) {
        return "?";
    }
}

/// @throws Poco::Exception when it is no list of service records
Records recordsIn(const Poco::Dynamic::Var& list) {
    Records records;
    for (const auto& entry : *list.extract<Poco::JSON::Array::Ptr>()) {
        const auto& record = *entry.extract<Poco::JSON::Object::Ptr>();
        const auto uri = record.optValue<std::string>(XObjectBase::KEY_URI, "");
        const auto port = record.optValue<std::string>(ServiceBase::KEY_PORT, "");
        records[record.optValue<std::string>(XObjectBase::KEY_NAME, "?")] = {hostIn(uri) + ":" + port, uri};
    }
    return records;
}

Output::Row rowOf(const Records::value_type& record) {
    return {record.first, record.second.first, record.second.second};
}

void showAll() {
    Nubo::Client::MessageQueue sink;
    const auto list = request(Nubo::Client::ClientLib(&sink, clientParameters()), "GET", "/");
    std::vector<Output::Row> rows;
    for (const auto& record : recordsIn(list)) rows.push_back(rowOf(record));
    Output::table({"SERVICE", "ADDRESS", "URI"}, rows);
}

void showChange(const std::string& what, Output::Colour colour, const Records::value_type& record) {
    Output::row(colour, {what, record.first, record.second.first, record.second.second});
}

/// Subscribes to the whole of the registry's list. The library's own handler of the registry asks for single
/// services only, so this is a second one, with a connection of its own.
class RegistryWatcher : public SRServiceHandler {
public:
    explicit RegistryWatcher(Session& session)
        : SRServiceHandler(&session.client(), &session.sink(), PING_AFTER_MS) {
        start();
        if (!isAvailable()) Output::notice("waiting for the registry");
        addSubscription("/", "", false);
    }
    ~RegistryWatcher() override {
        _stopping = true;
        shutdown();
    }

private:
    void WebSocketDataAvailableHandlerSync(const Poco::JSON::Object::Ptr& message) override {
        const auto type = message->optValue<std::string>(WebSocketRequestObject::FIELD_TYPE, "");
        if (type == WebSocketResponseObject::TYPE_DATA)
            show(recordsIn(message->get(WebSocketRequestObject::FIELD_DATA)));
    }

    void RaiseMicroServiceRegistrationChanged(const ServiceRegistrationEventData_t& data) override {
        if (isAvailable() != _wasAvailable && !_stopping) {
            _wasAvailable = isAvailable();
            Output::notice(_wasAvailable ? "the registry is available"
                                         : "the registry is away, waiting for it");
        }
        SRServiceHandler::RaiseMicroServiceRegistrationChanged(data);
    }

    void HandleConnectionReplaced() override {
        Output::notice("the registry is available again, on a new connection");
        SRServiceHandler::HandleConnectionReplaced();
    }

    void show(const Records& records) {
        for (const auto& record : _shown)
            if (records.count(record.first) == 0) showChange("gone", Output::Colour::Red, record);
        for (const auto& record : records) {
            const auto before = _shown.find(record.first);
            if (before == _shown.end())
                showChange("here", Output::Colour::Green, record);
            else if (*before != record)
                showChange("moved", Output::Colour::Yellow, record);
        }
        _shown = records;
    }

    Records _shown;
    bool _wasAvailable = false;
    bool _stopping = false;
};

}  // namespace

void runServices(const Call_t& call) {
    if (!call.has("watch")) return showAll();
    Session session;
    const RegistryWatcher watcher(session);
    session.run([] { return false; }, std::nullopt);
}

}  // namespace ZolCtl
