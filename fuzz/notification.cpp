// From a received block to a subscriber: split, parsed, posted, matched, delivered.
// Input: the block; each '@' in it becomes the event of a live subscription.

#include <Logging/LineLimit.h>
#include <Nubo/Util/JSONTools.h>
#include <Poco/Exception.h>
#include <Poco/String.h>

#include "Client.h"
#include "EventFragment.h"
#include "Fuzz.h"
#include "NotificationText.h"
#include "ParsedPayload.h"

namespace {

using Nubo::Client::ParsedText_t;
using Poco::JSON::Object;
using Texts = std::vector<ParsedText_t>;

/// What the text of `object` is parsed to, as text; empty when it cannot be parsed, which is so for numbers
/// that JSON does not have.
std::string rewritten(const Object& object) {
    try {
        return written(*parsed(written(object)));
    } catch (const Poco::Exception&) {
        return "";
    }
}

void checkText(const ParsedText_t& text) {
    require(text.text.find('\x1E') == std::string::npos, "a text has no record separator");
    require(text.object.isNull() == !text.error.empty(), "a text is an object or has an error");
    if (!text.object) return;
    Nubo::Client::typeOf(*text.object);
    require(text.service == Nubo::Client::EventFragment(Nubo::Client::eventOf(*text.object)).service,
            "the service is the one that the event names");
    const std::string again = rewritten(*text.object);
    if (!again.empty())
        require(written(*Nubo::Util::JSONTools::cloneJsonObject(text.object)) == again,
                "a copy is what writing and parsing gives");
}

void checkLines(const LogCapture& log, std::size_t good, std::size_t bad, std::size_t dropped) {
    const auto lines = log.lines();
    require(lines.size() <= good + bad + dropped,
            "one line for each text, and one for a rest that never closes");
    require(lines.size() >= good + std::min<std::size_t>(bad, Logging::LineLimit::LINES) + dropped,
            "lines about bad texts only are left out");
    for (const std::string& line : lines)
        require(line.find_first_of("\r\n") == std::string::npos, "a line is one line");
}

void checkDelivery(Client& client, std::size_t posted) {
    require(client.sink.pending() == posted, "what is for this handler, or for nobody, is posted");
    client.sink.dispatch();
    require(client.notifications.received.size() <= posted, "a notification is raised once at most");
    for (const auto& notification : client.notifications.received)
        require(notification.container && !notification.event.empty(), "a notification is complete");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Client client;
    const std::string event = client.handler->addSubscription("/Media/tracks/?$fields=a,b", "0xa", false);
    const std::string block(reinterpret_cast<const char*>(data), size);
    const std::string received = Poco::replace(block, std::string("@"), event);
    client.log.clear();
    const Texts texts = Nubo::Client::parseBlock(received);
    const std::size_t dropped = client.log.lines().size();
    for (const ParsedText_t& text : texts) checkText(text);

    client.log.clear();
    client.handler->receive(received);
    const auto good = static_cast<std::size_t>(std::count_if(
        texts.begin(), texts.end(), [](const ParsedText_t& text) { return !text.object.isNull(); }));
    checkLines(client.log, good, texts.size() - good, dropped);
    checkDelivery(client, static_cast<std::size_t>(
                              std::count_if(texts.begin(), texts.end(), [](const ParsedText_t& text) {
                                  return text.object && !text.isForAnother("Media");
                              })));
    client.handler->receive(R"({"type":"data","event":")" + event + R"(","data":"the next one"})");
    client.sink.dispatch();
    require(client.notifications.count(event, "the next one") != 0, "the next notification arrives");
    return 0;
}
