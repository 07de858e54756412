#ifndef NUBO_SIMULATOR_SERVICE_H
#define NUBO_SIMULATOR_SERVICE_H

#include <Nubo/Simulator/Endpoint.h>
#include <Nubo/Simulator/ResourceTree.h>

namespace Nubo::Simulator {

class Registry;

/// How a service's registry record is written.
struct RecordForm_t {
    enum class Uri { WithHost, WithoutHost };  ///< "http://127.0.0.1:5001/Media/" or "/Media/"
    enum class Port { Number, Text };          ///< 5001 or "5001"

    Uri uri = Uri::WithHost;
    Port port = Port::Number;
};

/// One service: elements in named resources, read and changed over HTTP, pushed to subscribers.
///
/// An element is a JSON object at "/<service>/<resource>/<element>"; a resource is the list of its elements,
/// in the order of their ids. Changing an element pushes it to its own subscriptions and the whole list to
/// those of the list. Removing it sends error 410 to its own subscriptions, which end thereby. A subscription
/// of something that does not exist is answered with error 404 and forgotten.
///
/// Over HTTP: GET reads (queries "name=X" and the like, "$fields", "$expand"), PUT and POST on an element set
/// the members given, POST on a list adds an element (status 201, the element in the body), DELETE removes
/// one.
class Service final : public Endpoint {
public:
    /// Listens on a free port of `address`; does not register yet. `registry` and `changed` outlive the
    /// service.
    /// @throws Poco::Exception when there is no free port or no thread.
    Service(const std::string& name, const std::string& address, const RecordForm_t& form, Registry& registry,
            ChangeSignal& changed);
    ~Service() override;

    /// Puts the service's record, with its present port, into the registry, which pushes it.
    void registerService();
    /// The same in another form, which is kept for later.
    void registerService(const RecordForm_t& form);
    /// Takes the record away; the service itself goes on.
    void withdraw();

    /// Goes to another port, as a service that is restarted elsewhere, and renews its record if it has one.
    /// All connections are ended as by stop(). Runs afterwards if it ran before.
    void move();

    /// Adds an empty resource, unless there is one of that name.
    void addResource(const std::string& resource);

    /// Sets the whole of an element, adding it and its resource as needed. The members "name" (the element's
    /// id) and "uri" are added when `json` has none.
    /// @param json text of a JSON object. @return how many subscriptions were served.
    /// @throws Poco::Exception when `json` is no JSON object; nothing is changed then.
    std::size_t setElement(const std::string& resource, const std::string& element, const std::string& json);

    /// Sets those members of an element that `json` names. Otherwise as setElement(), but that nothing is
    /// added.
    std::size_t changeElement(const std::string& resource, const std::string& element,
                              const std::string& json);

    /// Removes an element. @return how many subscriptions were told; 0 when there was no such element.
    std::size_t removeElement(const std::string& resource, const std::string& element);

    /// The elements, for looking; changes made there directly are not pushed.
    const ResourceTree& resources() const { return _tree; }

private:
    bool servesUpgrade(const Target_t& target) const override;
    HttpAnswer_t answer(const HttpRequest_t& request) override;
    std::optional<std::string> render(const Target_t& target) const override;
    HttpAnswer_t modify(const Target_t& target, const std::string& json);
    HttpAnswer_t create(const Target_t& list, const std::string& json);
    HttpAnswer_t erase(const Target_t& target);
    Poco::JSON::Object::Ptr registryRecord() const;

    // Fixed after construction.
    Registry& _registry;

    // Locks itself.
    ResourceTree _tree;

    mutable std::mutex _formMutex;  // leaf
    RecordForm_t _form;             // Guarded by _formMutex.
};

}  // namespace Nubo::Simulator

#endif
