#include "ParsedPayload.h"

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Poco/Exception.h>

#include <exception>
#include <new>
#include <utility>

#include "EventFragment.h"
#include "NotificationText.h"
#include "ParseJson.h"

namespace Nubo::Client {
namespace {

void parse(ParsedText_t& parsed) {
    const auto object = parseJsonObject(parsed.text);
    const std::string& event = eventOf(*object);
    typeOf(*object);                                                        // must be there
    if (event.find('%') != std::string::npos) Poco::URI(event).getQuery();  // must be decodable
    const UriText uri(event);
    parsed.service = EventFragment(uri).service;
    parsed.isRegistryAnswer = uri.path() == "/";
    parsed.object = object;
}

thread_local ParsedPayload* innermost = nullptr;

// What is held a little longer must not amount to much.
constexpr std::size_t SMALL_TEXT = 2048;

}  // namespace

std::vector<ParsedText_t> parseBlock(const std::string& block) {
    std::vector<std::string> texts;
    Nubo::Net::WebsocketDataObjectSplitter().splitJsonDataObjectString(block, texts);
    std::vector<ParsedText_t> result;
    result.reserve(texts.size());
    for (std::string& text : texts) {
        ClientLib::cleanJsonString(text);
        ParsedText_t& parsed = result.emplace_back(ParsedText_t{std::move(text), nullptr, "", "", false});
        try {
            parse(parsed);
        } catch (const Poco::Exception& e) {
            parsed.error = e.displayText();
        } catch (const std::bad_alloc&) {
            throw;  // not the text's fault
        } catch (const std::exception& e) {
            parsed.error = e.what();
        }
    }
    return result;
}

ParsedPayload::ParsedPayload(const Nubo::Net::WebsocketDataEventPayload& payload, LastObjects* last)
    : _payload(payload),
      _last(last),
      _outer(std::exchange(innermost, this)),
      _first(_outer != nullptr && &_outer->_payload == &payload ? _outer->_first : *this) {}

ParsedPayload::~ParsedPayload() {
    innermost = _outer;
}

const std::vector<ParsedText_t>& ParsedPayload::texts() {
    if (!_first._texts) _first.parse();
    return *_first._texts;
}

bool ParsedPayload::claimComplaints() {
    return !std::exchange(_first._complaintsClaimed, true);
}

void ParsedPayload::parse() {
    _texts = parseBlock(_payload.data);
    if (_last == nullptr) return;
    for (const ParsedText_t& parsed : *_texts) {
        if (parsed.text.size() <= SMALL_TEXT) _last->add(parsed.object);
    }
}

}  // namespace Nubo::Client
