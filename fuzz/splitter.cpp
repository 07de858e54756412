// The splitter of JSON objects: the objects that a plain scan finds, byte for byte, each of which is whole.
// Input: the block.

#include <Nubo/Net/TransportLimits.h>
#include <Nubo/Net/WebSocketProxy.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Poco/Delegate.h>

#include <exception>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "LogCapture.h"

using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketDataObjectSplitter;
using Texts = std::vector<std::string>;
constexpr std::size_t MAX_OBJECTS = Nubo::Net::TransportLimits::MAX_OBJECTS;

namespace {

/// The objects in `text`, found byte by byte; `rest` becomes what belongs to an object that never closes.
Texts scanned(const std::string& text, std::string& rest) {
    Texts objects;
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (depth == 0 && c != '{') continue;
        rest += c;
        if (inString) {
            inString = escaped || c != '"';
            escaped = !escaped && c == '\\';
        } else if (c == '"') {
            inString = true;
        } else if (c == '{') {
            ++depth;
        } else if (c == '}' && --depth == 0) {
            objects.push_back(std::exchange(rest, ""));
        }
    }
    return objects;
}

Texts split(const std::string& text) {
    Texts objects;
    WebsocketDataObjectSplitter().splitJsonDataObjectString(text, objects);
    return objects;
}

struct Receiver {
    Texts objects;
    std::size_t drops = 0;
    void onObject(const WebsocketDataEventPayload& object) { objects.push_back(object.data); }
    void onDropped(const WebsocketDataEventPayload&) { ++drops; }
};

/// What is raised, which is all there is, up to the limit.
Receiver raised(const std::string& text) {
    static Nubo::Net::WebSocketProxy proxy(nullptr, nullptr);
    WebsocketDataObjectSplitter splitter;
    Receiver receiver;
    splitter.ObjectAvailable += Poco::delegate(&receiver, &Receiver::onObject);
    splitter.IncompleteDropped += Poco::delegate(&receiver, &Receiver::onDropped);
    WebsocketDataEventPayload block(proxy);
    block.data = text;
    try {
        splitter.onDataBlockAvailable(block);
    } catch (const std::exception&) {
        require(receiver.objects.size() == MAX_OBJECTS, "a block is refused when the limit is passed");
    }
    return receiver;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const LogCapture log;
    const Texts objects = split(text);
    std::string rest;
    require(objects == scanned(text, rest), "the objects are those that a plain scan finds");
    require(log.lines().size() == (rest.empty() ? 0 : 1),
            "a rest that never closes is one line, nothing else is");
    const Receiver receiver = raised(text);
    if (objects.size() <= MAX_OBJECTS) {
        require(objects == receiver.objects, "what is raised is what is returned");
        require(receiver.drops == log.lines().size(), "a rest is told either way");
    }
    std::string together;
    for (const std::string& object : objects) {
        require(split(object) == Texts{object}, "an object is whole");
        together += object;
    }
    require(objects == split(together), "objects one behind the other are found again");
    return 0;
}
