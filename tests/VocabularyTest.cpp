#include <Nubo/Command/RequestBase.h>
#include <Nubo/Command/UrlPath.h>
#include <Nubo/Command/WebSocketRequestObject.h>
#include <Nubo/Net/HTTPEncoderDecoder.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Nubo/Util/JSONTools.h>
#include <Nubo/Util/cValueTools.h>
#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/JSON/Parser.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>

#include <sstream>

#include "LogCapture.h"
#include "UpdateClone.h"

namespace {

using Nubo::Command::RequestBase;
using Nubo::Command::UrlPath;
using Nubo::Command::WebSocketRequestObject;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketDataObjectSplitter;
using Poco::JSON::Object;
using Texts = std::vector<std::string>;

TEST(UrlPath, ClassifiesPaths) {
    const struct {
        const char* uri;
        UrlPath::Characteristic characteristic;
        const char* service;
        const char* resource;
        const char* element;
    } rows[] = {
        {"/", UrlPath::ROOT, "", "", ""},
        {"//", UrlPath::ROOT, "", "", ""},
        {"http://host:80/", UrlPath::ROOT, "", "", ""},
        {"/?name=Media#11-Media", UrlPath::ROOT, "", "", ""},
        {"/$id", UrlPath::ROOT_ID, "", "", ""},
        {"/$spec", UrlPath::INVALID, "", "", ""},
        {"/Media", UrlPath::SERVICE, "Media", "", ""},
        {"/Media/", UrlPath::SERVICE, "Media", "", ""},
        {"/Media/$id", UrlPath::SERVICE_ID, "Media", "", ""},
        {"/Media/$spec/", UrlPath::SERVICE_SPEC, "Media", "", ""},
        {"/Media/$rights", UrlPath::SERVICE_RIGHTS, "Media", "", ""},
        {"/Media/tracks", UrlPath::SERVICE_RESOURCE, "Media", "tracks", ""},
        {"http://[::1]:5001//Media//tracks/?a=b", UrlPath::SERVICE_RESOURCE, "Media", "tracks", ""},
        {"/Media/tracks/%24id", UrlPath::SERVICE_RESOURCE_ID, "Media", "tracks", ""},
        {"/Media/tracks/$spec", UrlPath::SERVICE_RESOURCE_SPEC, "Media", "tracks", ""},
        {"/Media/tracks/$rights", UrlPath::INVALID, "Media", "tracks", ""},
        {"/Media/tracks/4711", UrlPath::SERVICE_RESOURCE_ELEMENT, "Media", "tracks", "4711"},
        {"/Media/tracks/4711/", UrlPath::SERVICE_RESOURCE_OBJECT, "Media", "tracks", "4711"},
        {"/Media/a%20b/c/d", UrlPath::SERVICE_RESOURCE_ELEMENT, "Media", "a b", "c/d"},
        {"/Media/tracks/4711/$id", UrlPath::INVALID, "Media", "tracks", "4711"},
        {"/$id/x", UrlPath::SERVICE_RESOURCE, "$id", "x", ""},
        {"", UrlPath::INVALID, "", "", ""},
        {"Media/tracks", UrlPath::INVALID, "", "", ""},
        {"http://host", UrlPath::INVALID, "", "", ""},
        {"/Media?x=%zz", UrlPath::SERVICE, "Media", "", ""},
    };
    for (const auto& row : rows) {
        const UrlPath path{Poco::URI(row.uri)};
        EXPECT_EQ(path.getCharacteristic(), row.characteristic) << row.uri;
        EXPECT_EQ(path.getService(), row.service) << row.uri;
        EXPECT_EQ(path.getResource(), row.resource) << row.uri;
        EXPECT_EQ(path.getElement(), row.element) << row.uri;
    }
}

TEST(RequestBase, SortsQueryParameters) {
    const RequestBase request(Poco::URI("/M/t?%24fields=a%2Cb&name=x+y&&flag&bad=%zz&$expand=2&name=z&=v"));
    Texts render, search;
    for (const auto& each : request.getRenderCriteria()) {
        render.push_back(each.getName() + "=" + each.getValue() + (each.isValid() ? "" : " invalid"));
    }
    for (const auto& each : request.getSearchCriteria()) {
        search.push_back(each.getName() + "=" + each.getValue() + (each.isValid() ? "" : " invalid"));
    }
    EXPECT_EQ(render, (Texts{"$fields=a,b", "$expand=2"}));
    EXPECT_EQ(search, (Texts{"name=x y", "flag=", "bad=%zz invalid", "name=z", "=v invalid"}));
    const std::map<std::string, std::string> byName{
        {"$fields", "a,b"}, {"name", "x y"}, {"flag", ""}, {"$expand", "2"}};
    EXPECT_EQ(request.getUrlPath().getQueryParameter(), byName);
}

TEST(RequestBase, ReadsTheExpansionLevel) {
    const std::pair<const char*, unsigned int> rows[] = {
        {"/M/t", 0},
        {"/M/t?$expand=3", 3},
        {"/M/t?%24expand%3D3", 0},
        {"/M/t?%24expand=255", 255},
        {"/M/t?$fields=a&$expand=1&$expand=2", 1},
        {"/M/t?$expand=", 0},
        {"/M/t?$expand=x", 0},
        {"/M/t?$expand=2x", 0},
        {"/M/t?$expand=-1", 0},
        {"/M/t?expand=2", 0},
        {"/M/t?$expand=%zz", 0},
        {"/M/t?$expand=99999999999", 4294967295u},
    };
    for (const auto& [uri, level] : rows)
        EXPECT_EQ(RequestBase(Poco::URI(uri)).getExpansionLevel(), level) << uri;
}

Object::Ptr parsed(const std::string& text) {
    return Poco::JSON::Parser().parse(text).extract<Object::Ptr>();
}

std::string written(const Object& object) {
    std::ostringstream text;
    object.stringify(text, 0, -1);
    return text.str();
}

TEST(WebSocketRequestObject, WritesWhatIsGiven) {
    const std::string token = "secret", none;
    const struct {
        WebSocketRequestObject request;
        const char* text;
    } rows[] = {
        {{WebSocketRequestObject::TYPE_SUBSCRIBE, "/?name=Media#11-Media", {}, {}, nullptr, false},
         R"({"event":"/?name=Media#11-Media","type":"subscribe"})"},
        {{WebSocketRequestObject::TYPE_SUBSCRIBE, "/M/t/?%24fields=a%2Cb#12-M-0xa", 0L, 100L, nullptr, true},
         R"({"event":"/M/t/?%24fields=a%2Cb#12-M-0xa","type":"subscribe","interval":0,"updateLimit":100,
             "autosubscribe":true})"},
        {{WebSocketRequestObject::TYPE_UNSUBSCRIBE, "/M", -1L, {}, &token, false},
         R"({"event":"/M","type":"unsubscribe","interval":-1,"authorization":"secret"})"},
        {{"", "/a b\"\n%zz", {}, {}, &none, false},
         R"({"event":"/a b\"\n%zz","type":"","authorization":""})"},
    };
    for (const auto& row : rows) {
        const std::string text = written(*WebSocketRequestObject(row.request).getData());
        EXPECT_EQ(written(*parsed(text)), written(*parsed(row.text)));
        EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
    }
}

TEST(WebSocketRequestObject, AcceptsAnyEvent) {
    for (const char* event : {"/%zz", "http:", "http://h:99999999/", "http://[::1", ""}) {
        const WebSocketRequestObject request("subscribe", event, {}, {}, nullptr, false);
        EXPECT_FALSE(request.isValid()) << event;
        EXPECT_TRUE(request.getEvent().empty()) << event;
        EXPECT_EQ(request.getData()->getValue<std::string>("event"), event);
    }
    const WebSocketRequestObject good("subscribe", "/M/t?$expand=2", {}, {}, nullptr, false);
    EXPECT_TRUE(good.isValid());
    EXPECT_EQ(good.getExpansionLevel(), 2u);
    EXPECT_EQ(good.getUrlPath().getService(), "M");
}

TEST(ValueTools, SetBitWritesTheLowerSixteenBits) {
    for (unsigned int bit = 0; bit < 256; ++bit) {
        const unsigned int single = bit < 16 ? 1u << bit : 0;
        unsigned int cleared = 0xffffffffu, set = 0;
        Nubo::Util::cValueTools::setBit<unsigned int>(static_cast<std::uint8_t>(bit), false, cleared);
        Nubo::Util::cValueTools::setBit<unsigned int>(static_cast<std::uint8_t>(bit), true, set);
        EXPECT_EQ(cleared, 0xffffffffu - single) << bit;
        EXPECT_EQ(set, single) << bit;
    }
}

TEST(JSONTools, CloneSharesNothing) {
    const std::string text = R"({"list":[{"n":1}],"s":"\u0001é\"","x":{"y":null}})";
    const Object::Ptr original = parsed(text);
    const Object::Ptr clone = Nubo::Util::JSONTools::cloneJsonObject(original);
    const std::string before = written(*original);
    EXPECT_EQ(written(*clone), before);
    clone->getObject("x")->set("y", 2);
    clone->getArray("list")->getObject(0)->set("n", 3);
    EXPECT_EQ(written(*original), before);
    EXPECT_TRUE(Nubo::Util::JSONTools::cloneJsonObject(nullptr).isNull());
}

/// Types and values of a parsed text, so that an integer is told from a number that prints like one.
std::string shape(const Poco::Dynamic::Var& value) {
    std::string text;
    if (value.type() == typeid(Object::Ptr)) {
        for (const auto& member : *value.extract<Object::Ptr>())
            text += member.first + ":" + shape(member.second);
        return "{" + text + "}";
    }
    if (value.type() == typeid(Poco::JSON::Array::Ptr)) {
        for (const auto& element : *value.extract<Poco::JSON::Array::Ptr>()) text += shape(element);
        return "[" + text + "]";
    }
    return value.isEmpty() ? "null;" : value.type().name() + ("=" + value.convert<std::string>()) + ";";
}

TEST(JSONTools, CloneIsWhatWritingAndParsingGives) {
    for (const char* text :
         {R"({})", R"({"":1})", R"({"a":null,"b":true,"c":[],"d":{},"e":[[{"f":[1,"x",null]}]]})",
          R"({"a":0,"b":-5,"c":9223372036854775807,"d":18446744073709551615,"e":-9223372036854775808})",
          R"({"a":1.0,"b":1.5,"c":1e5,"d":-0.0,"e":1e-7,"f":123456789.125,"g":1e300})",
          R"({"a":"\u00e4\n\t\"\\\/\u0001\u007f\ud83d\ude00","b":"x\u0000y","c\u0000d":1})"}) {
        const Object::Ptr original = Poco::JSON::Parser().parse(text).extract<Object::Ptr>();
        const Object::Ptr byText = Poco::JSON::Parser().parse(written(*original)).extract<Object::Ptr>();
        EXPECT_EQ(shape(Nubo::Util::JSONTools::cloneJsonObject(original)), shape(byText)) << text;
    }
}

TEST(UpdateClone, GivesWhatAFreshCloneWouldBe) {
    const std::vector<const char*> texts{
        R"({"a":"x","b":{"c":1,"d":[1]},"e":null})",   R"({"a":"y","b":{"c":2,"d":[1]},"e":1.5})",
        R"({"a":"x","b":{"c":1,"d":2},"e":true})",     R"({"a":"x","b":{"c":1.0,"d":-0.0},"e":0.0})",
        R"({"a":1e300,"b":{"c":1,"d":0.0},"e":-0.0})", R"({"a":"x","b":{"c":1},"e":{"f":1}})",
        R"({"a":"x","b":7,"e":18446744073709551615})", R"({"a":1,"b":{"c":"x\u0000y","d":2},"z":0})"};
    for (const char* before : texts) {
        for (const char* after : texts) {
            Object::Ptr clone = Nubo::Util::JSONTools::cloneJsonObject(parsed(before));
            const Object::Ptr object = parsed(after);
            Nubo::Client::updateClone(clone, object);
            EXPECT_EQ(shape(clone), shape(Nubo::Util::JSONTools::cloneJsonObject(object))) << before << after;
            Nubo::Client::updateClone(clone, parsed(before));
            EXPECT_EQ(shape(object), shape(parsed(after)));  // the clone shares nothing with it
        }
    }
    Object::Ptr kept = Nubo::Util::JSONTools::cloneJsonObject(parsed(texts[0]));
    const Object::Ptr elsewhere = kept;
    Nubo::Client::updateClone(kept, parsed(texts[1]));
    EXPECT_EQ(shape(elsewhere), shape(parsed(texts[0])));
    EXPECT_ANY_THROW(Nubo::Client::updateClone(kept, parsed(R"({"a":"z","b":{"c":1,"d":[1]},"e":1e999})")));
    EXPECT_EQ(shape(kept), shape(parsed(texts[1])));
}

struct SplitterRow {
    std::string text;
    Texts objects;
    bool restDropped;
};

const SplitterRow SPLITTER_ROWS[] = {
    {"", {}, false},
    {R"({})", {"{}"}, false},
    {R"({"a":{"b":[{}]}})", {R"({"a":{"b":[{}]}})"}, false},
    {"{\"a\":1}{\"b\":2}", {"{\"a\":1}", "{\"b\":2}"}, false},
    {"\x1e{\"a\":1}\n\x1e {\"b\":2}\x1e", {"{\"a\":1}", "{\"b\":2}"}, false},
    {"[{\"a\":1},\r\n{\"b\":2}]", {"{\"a\":1}", "{\"b\":2}"}, false},
    {R"({"a":"}{"})", {R"({"a":"}{"})"}, false},
    {R"({"a\"}":"\\"}{"b":"\\\"}"})", {R"({"a\"}":"\\"})", R"({"b":"\\\"}"})"}, false},
    {"}} {\"a\":1} }", {"{\"a\":1}"}, false},
    {"lue\"}{\"a\":1}", {"{\"a\":1}"}, false},
    {"{broken json}{\"a\":1}", {"{broken json}", "{\"a\":1}"}, false},
    {std::string("x\0{\"\0\"}\0", 9), {std::string("{\"\0\"}", 5)}, false},
    {R"({"a":1}{"b":{"c":2})", {R"({"a":1})"}, true},
    {R"({"a":"never closed}{"b":2})", {}, true},
    {R"({"a\)", {}, true},
    {std::string(100000, '{'), {}, true},
    {std::string(100000, '{') + std::string(100000, '}'),
     {std::string(100000, '{') + std::string(100000, '}')},
     false},
};

Texts split(const std::string& text) {
    Texts objects{"kept"};
    WebsocketDataObjectSplitter().splitJsonDataObjectString(text, objects);
    EXPECT_EQ(objects.front(), "kept");
    objects.erase(objects.begin());
    return objects;
}

TEST(Splitter, FindsTopLevelObjects) {
    for (const SplitterRow& row : SPLITTER_ROWS) {
        const LogCapture log;
        EXPECT_EQ(split(row.text), row.objects) << row.text.substr(0, 100);
        EXPECT_EQ(log.lines().size(), row.restDropped ? 1u : 0u) << row.text.substr(0, 100);
        EXPECT_EQ(log.contains("Warning: WebsocketDataObjectSplitter"), row.restDropped);
    }
}

// A piece never gives an object that the whole does not have at that place, and at most one line.
TEST(Splitter, FindsTheSameObjectsInEveryPrefix) {
    for (const SplitterRow& row : SPLITTER_ROWS) {
        for (std::size_t length = 0; length < std::min<std::size_t>(row.text.size(), 200); ++length) {
            const LogCapture log;
            const Texts objects = split(row.text.substr(0, length));
            ASSERT_LE(objects.size(), row.objects.size());
            EXPECT_TRUE(std::equal(objects.begin(), objects.end(), row.objects.begin()))
                << row.text << length;
            EXPECT_LE(log.lines().size(), 1u);
        }
    }
}

/// What a splitter raises.
struct Receiver {
    Texts texts;
    std::vector<const WebsocketDataEventPayload*> payloads;
    int flags = 0;
    std::string reason;

    void onObject(const WebsocketDataEventPayload& object) {
        texts.push_back(object.data);
        payloads.push_back(&object);
        flags = object.flags;
        reason = object.Reason;
    }
};

TEST(Splitter, RaisesOneEventPerObject) {
    Nubo::Net::WebSocketProxy proxy(nullptr, nullptr);
    for (const SplitterRow& row : SPLITTER_ROWS) {
        const LogCapture log;
        WebsocketDataObjectSplitter splitter;
        Receiver receiver;
        splitter.ObjectAvailable += Poco::delegate(&receiver, &Receiver::onObject);
        WebsocketDataEventPayload block(proxy);
        block.data = row.text;
        block.flags = 0x81;
        splitter.onDataBlockAvailable(block);
        EXPECT_EQ(receiver.texts, row.objects) << row.text.substr(0, 100);
        if (row.objects.empty()) continue;
        EXPECT_EQ(receiver.flags, 0x81);
        EXPECT_EQ(receiver.payloads.front() == &block, row.objects.front() == row.text)
            << "copied needlessly";
    }
}

using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;

std::string readAll(const std::string& coding, const std::string& body) {
    HTTPResponse response;
    if (!coding.empty()) response.set("Content-Encoding", coding);
    Nubo::Net::HTTPEncoderDecoder coder{HTTPRequest(), response};
    std::istringstream raw(body);
    std::string text;
    Poco::StreamCopier::copyToString(coder.getInputStream(raw), text);
    return text;
}

std::string writeAll(const std::string& field, const std::string& codings, const std::string& body) {
    HTTPRequest request;
    request.set(field, codings);
    HTTPResponse response;
    Nubo::Net::HTTPEncoderDecoder coder(request, response);
    std::ostringstream raw;
    coder.getOutputStream(raw) << body;
    EXPECT_EQ(coder.close(), 0);
    return raw.str();
}

std::string sampleBody() {
    std::string body;
    for (int i = 0; i < 20000; ++i) body += std::to_string(i * i) + ",";
    return body;
}

TEST(HTTPEncoderDecoder, ReadsWhatItWrites) {
    const std::string body = sampleBody();
    const struct {
        const char* field;
        const char* written;
        const char* read;
        bool isEncoded;
    } rows[] = {
        {"Content-Encoding", "gzip", "gzip", true},
        {"Content-Encoding", "GZip", "X-GZIP", true},
        {"Content-Encoding", "deflate", "Deflate", true},
        {"Accept-Encoding", "br, gzip;q=0.5, deflate", "gzip", true},
        {"Accept-Encoding", "gzip;q=0, deflate", "deflate", true},
        {"Accept-Encoding", "br", "br", false},
        {"Content-Encoding", "identity", "", false},
    };
    for (const auto& row : rows) {
        const std::string encoded = writeAll(row.field, row.written, body);
        EXPECT_EQ(encoded != body, row.isEncoded) << row.written;
        EXPECT_TRUE(readAll(row.read, encoded) == body) << row.written;
    }
}

TEST(HTTPEncoderDecoder, ReadsBareDeflate) {
    std::ostringstream bare;
    Poco::DeflatingOutputStream deflater(bare, -15, 6);
    deflater << sampleBody();
    deflater.close();
    EXPECT_TRUE(readAll("deflate", bare.str()) == sampleBody());
}

TEST(HTTPEncoderDecoder, EmptyBodyIsEmptyInAnyCoding) {
    for (const char* coding : {"", "gzip", "deflate"}) {
        EXPECT_EQ(readAll(coding, ""), "") << coding;
        EXPECT_EQ(readAll(coding, writeAll("Content-Encoding", coding, "")), "") << coding;
    }
}

TEST(HTTPEncoderDecoder, DamagedBodyThrows) {
    const std::string body =
        R"({"status":"ok","data":[{"name":"a","uri":"/M/t/1"},{"name":"b","uri":"/M/t/2"}]})";
    for (const char* coding : {"gzip", "deflate"}) {
        EXPECT_THROW(readAll(coding, body), Poco::IOException) << coding;
        const std::string encoded = writeAll("Content-Encoding", coding, body);
        for (std::size_t length = 1; length < encoded.size(); ++length) {
            EXPECT_THROW(readAll(coding, encoded.substr(0, length)), Poco::IOException) << coding << length;
        }
    }
}

}  // namespace
