#ifndef CLIENTLIB_SRC_PARSEDPAYLOAD_H
#define CLIENTLIB_SRC_PARSEDPAYLOAD_H

#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Poco/JSON/Object.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace Nubo::Client {

/// One JSON text of a received block, and what became of it.
struct ParsedText_t {
    std::string text;                ///< without record separators
    Poco::JSON::Object::Ptr object;  ///< null when the text is no notification
    std::string service;             ///< the service part of the event's fragment; may be empty
    std::string error;               ///< why there is no object
    bool isRegistryAnswer = false;   ///< the event's path is "/"

    /// Whether it is a notification that names a service, but another one.
    bool isForAnother(const std::string& serviceName) const {
        return !object.isNull() && !service.empty() && service != serviceName;
    }
};

/// Splits, cleans and parses a block. Never throws for what a peer has sent.
std::vector<ParsedText_t> parseBlock(const std::string& block);

/// The objects that a thread has parsed last. Others use them; held here a little longer, most are freed by
/// the thread that made them, whose allocator then needs no lock (a tenth of a flood's processor time).
class LastObjects {
public:
    void add(const Poco::JSON::Object::Ptr& object) { _objects[_next++ % _objects.size()] = object; }
    void clear() {
        std::fill_n(_objects.begin(), std::min(_next, _objects.size()), nullptr);
        _next = 0;
    }

private:
    std::array<Poco::JSON::Object::Ptr, 64> _objects;
    std::size_t _next = 0;
};

/// A payload taken apart, once for all who ask on this thread while the first object for it lives: every
/// handler of the process listens on the registry's connection, so the worker makes one around the raise.
class ParsedPayload {
public:
    /// @param last  where small objects are held, null for nowhere; that of the first object counts
    explicit ParsedPayload(const Nubo::Net::WebsocketDataEventPayload& payload, LastObjects* last = nullptr);
    ~ParsedPayload();
    ParsedPayload(const ParsedPayload&) = delete;
    ParsedPayload& operator=(const ParsedPayload&) = delete;

    /// Parsed at the first call; valid as long as this object.
    const std::vector<ParsedText_t>& texts();

    /// @return true for the first who asks: that one writes the lines about what is bad in the payload
    bool claimComplaints();

private:
    void parse();

    const Nubo::Net::WebsocketDataEventPayload& _payload;
    LastObjects* const _last;
    ParsedPayload* const _outer;                      // of this thread; null for the outermost
    ParsedPayload& _first;                            // for the same payload; may be this one
    std::optional<std::vector<ParsedText_t>> _texts;  // of the first one
    bool _complaintsClaimed = false;                  // likewise
};

}  // namespace Nubo::Client

#endif
