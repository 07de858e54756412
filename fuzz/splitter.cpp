// The splitter of JSON objects: the objects that a plain scan finds, byte for byte, each of which is whole.
// Input: the block.

#include <Nubo/Net/WebSocketProxy.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Poco/Delegate.h>

#include <string>
#include <vector>

#include "Fuzz.h"
#include "LogCapture.h"

using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketDataObjectSplitter;
using Texts = std::vector<std::string>;

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
    void onObject(const WebsocketDataEventPayload& object) { objects.push_back(object.data); }
};

Texts raised(const std::string& text) {
    static Nubo::Net::WebSocketProxy proxy(nullptr, nullptr);
    WebsocketDataObjectSplitter splitter;
    Receiver receiver;
    splitter.ObjectAvailable += Poco::delegate(&receiver, &Receiver::onObject);
    WebsocketDataEventPayload block(proxy);
    block.data = text;
    splitter.onDataBlockAvailable(block);
    return receiver.objects;
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
    require(objects == raised(text), "what is raised is what is returned");
    std::string together;
    for (const std::string& object : objects) {
        require(split(object) == Texts{object}, "an object is whole");
        together += object;
    }
    require(objects == split(together), "objects one behind the other are found again");
    return 0;
}
