#ifndef NUBO_COMMAND_WEBSOCKETREQUESTOBJECT_H
#define NUBO_COMMAND_WEBSOCKETREQUESTOBJECT_H

#include <Nubo/Command/RequestBase.h>
#include <Nubo/Export.h>
#include <Poco/JSON/Object.h>
#include <Poco/Optional.h>
#include <Poco/SharedPtr.h>
#include <Poco/URI.h>

#include <string>

namespace Nubo::Command {

/// A request that goes to a service as one WebSocket text frame, and the words of such messages. A value that
/// never changes after construction: copies may be used, and their data written as text, on several threads
/// at once. Constants are set when the library is loaded and never change.
class ZOL_EXPORT WebSocketRequestObject : public RequestBase {
public:
    typedef Poco::SharedPtr<WebSocketRequestObject> Ptr;  ///< counted

    static const std::string FIELD_TYPE;                   ///< key of the type word, in both directions
    static const std::string FIELD_EVENT;                  ///< key of the URI concerned, in both directions
    static const std::string FIELD_SUBSCRIPTION_INTERVAL;  ///< key of the interval in milliseconds
    static const std::string FIELD_SUBSCRIPTION_UPDATE_LIMIT;  ///< key of the update limit
    static const std::string FIELD_AUTHORIZATION;              ///< key of the authorization text
    static const std::string FIELD_AUTOSUBSCRIBE;              ///< key of the autosubscribe flag
    static const std::string FIELD_DATA;                       ///< key of a message's data
    static const std::string FIELD_ERROR;                      ///< key of a message's error

    static const std::string TYPE_SUBSCRIBE;    ///< type word: subscribe the event
    static const std::string TYPE_UNSUBSCRIBE;  ///< type word: end that subscription
    static const std::string TYPE_DATA;  ///< type word, and the key of the records in registry messages

    /// Builds the request and its JSON data. `event` goes into the data byte for byte as given, also when it
    /// is no URI. `interval` (milliseconds) and `updateLimit` are written when they are given,
    /// `authorization` when it is not null (it is copied; an empty text counts as given), `autosubscribe`
    /// when it is true. Does not throw on any text.
    WebSocketRequestObject(const std::string& type, const std::string& event,
                           const Poco::Optional<long>& interval, const Poco::Optional<long>& updateLimit,
                           const std::string* authorization, bool autosubscribe);

    /// Whether the event is a URI and not empty. The data is complete in either case.
    bool isValid() const { return m_isValid; }

    /// The data, never null, owned by this object and its copies. `stringify(stream, 0, -1)` writes it as the
    /// wire has it: compact, on one line. It is flat and constant, so any number of threads may do so at
    /// once.
    const Poco::JSON::Object* getData() const { return m_data.get(); }

    const std::string& getType() const { return m_type; }  ///< one of the TYPE_ constants

    /// The event as a URI, empty when it is none. POCO encodes anew: for the text as given see getData().
    const Poco::URI& getEvent() const { return m_event; }

    const Poco::Optional<long>& getInterval() const { return m_interval; }        ///< milliseconds
    const Poco::Optional<long>& getUpdateLimit() const { return m_updateLimit; }  ///< as given
    const std::string& getAuthorization() const { return m_authorization; }       ///< empty when not given
    bool isAutosubscribe() const { return m_autosubscribe; }                      ///< false when not given

private:
    // Fixed after construction.
    bool m_isValid;
    Poco::JSON::Object::Ptr m_data;  // shared by copies, which is safe since nobody writes to it
    std::string m_type;
    Poco::URI m_event;
    Poco::Optional<long> m_interval;
    Poco::Optional<long> m_updateLimit;
    std::string m_authorization;
    bool m_autosubscribe;
};

}  // namespace Nubo::Command

#endif
