#ifndef CLIENTLIB_SRC_PARSEDPAYLOAD_H
#define CLIENTLIB_SRC_PARSEDPAYLOAD_H

#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Poco/JSON/Object.h>

#include <string>
#include <vector>

namespace Nubo::Client {

/// One JSON text of a received block, and what became of it.
struct ParsedText_t {
    std::string text;                ///< without record separators
    Poco::JSON::Object::Ptr object;  ///< null when the text is no notification
    std::string service;             ///< the service part of the event's fragment; may be empty
    std::string error;               ///< why there is no object
};

/// Splits, cleans and parses a block. Never throws for what a peer has sent.
std::vector<ParsedText_t> parseBlock(const std::string& block);

/// A block as a worker hands it to its delegates: taken apart when the first handler asks, for all of them,
/// since every handler of the process listens on the registry's connection. Worker's thread only.
class ParsedPayload : public Nubo::Net::WebsocketDataEventPayload {
public:
    explicit ParsedPayload(const Nubo::Net::WebsocketDataEventPayload& payload)
        : WebsocketDataEventPayload(payload) {}

    const std::vector<ParsedText_t>& texts() const {
        if (!_parsed) {
            _texts = parseBlock(data);
            _parsed = true;
        }
        return _texts;
    }

private:
    mutable bool _parsed = false;
    mutable std::vector<ParsedText_t> _texts;
};

}  // namespace Nubo::Client

#endif
