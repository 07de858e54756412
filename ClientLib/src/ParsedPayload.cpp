#include "ParsedPayload.h"

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Poco/Exception.h>

#include "EventFragment.h"
#include "NotificationText.h"
#include "ParseJson.h"

namespace Nubo::Client {
namespace {

void parse(ParsedText_t& parsed) {
    const auto object = parseJsonObject(parsed.text);
    const std::string event = eventOf(*object);
    typeOf(*object);                                                        // must be there
    if (event.find('%') != std::string::npos) Poco::URI(event).getQuery();  // must be decodable
    parsed.service = EventFragment(event).service;
    parsed.object = object;
}

}  // namespace

std::vector<ParsedText_t> parseBlock(const std::string& block) {
    std::vector<std::string> texts;
    Nubo::Net::WebsocketDataObjectSplitter().splitJsonDataObjectString(block, texts);
    std::vector<ParsedText_t> result;
    result.reserve(texts.size());
    for (std::string& text : texts) {
        ClientLib::cleanJsonString(text);
        ParsedText_t& parsed = result.emplace_back(ParsedText_t{std::move(text), nullptr, "", ""});
        try {
            parse(parsed);
        } catch (const Poco::Exception& e) {
            parsed.error = e.displayText();
        } catch (const std::exception& e) {
            parsed.error = e.what();
        }
    }
    return result;
}

}  // namespace Nubo::Client
