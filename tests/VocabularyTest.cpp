#include <Nubo/Command/RequestBase.h>
#include <Nubo/Command/UrlPath.h>
#include <Nubo/Command/WebSocketRequestObject.h>
#include <Nubo/Net/HTTPEncoderDecoder.h>
#include <Nubo/Net/WebsocketDataObjectSplitter.h>
#include <Nubo/Util/JSONTools.h>
#include <Nubo/Util/cValueTools.h>
#include <Poco/StreamCopier.h>
#include <gtest/gtest.h>

#include "ClientDoubles.h"
#include "LogCapture.h"
#include "UpdateClone.h"

namespace {

using Nubo::Client::updateClone;
using Nubo::Command::RequestBase;
using Nubo::Command::UrlPath;
using Nubo::Command::WebSocketRequestObject;
using Nubo::Net::WebsocketDataEventPayload;
using Nubo::Net::WebsocketDataObjectSplitter;
using Nubo::Util::JSONTools;
using Poco::JSON::Object;
using Texts = std::vector<std::string>;

TEST(UrlPath, ClassifiesPaths) {
    const std::tuple<std::string, UrlPath::Characteristic, std::string> table[] = {
        {"/?name=Media#11-Media", UrlPath::ROOT, "||"},
        {"/$spec", UrlPath::INVALID, "||"},
        {"/Media?x=%zz", UrlPath::SERVICE, "Media||"},
        {"/Media/$spec/", UrlPath::SERVICE_SPEC, "Media||"},
        {"/Media/$rights", UrlPath::SERVICE_RIGHTS, "Media||"},
        {"http://[::1]:5001//Media//tracks/?a=b", UrlPath::SERVICE_RESOURCE, "Media|tracks|"},
        {"/Media/tracks/%24id", UrlPath::SERVICE_RESOURCE_ID, "Media|tracks|"},
        {"/Media/a%20b/c/d", UrlPath::SERVICE_RESOURCE_ELEMENT, "Media|a b|c/d"},
        {"/Media/tracks/4711/$id", UrlPath::INVALID, "Media|tracks|4711"},
        {"", UrlPath::INVALID, "||"},
    };
    for (const auto& [uri, characteristic, parts] : table) {
        const UrlPath path{Poco::URI(uri)};
        EXPECT_EQ(path.getCharacteristic(), characteristic) << uri;
        EXPECT_EQ(path.getService() + "|" + path.getResource() + "|" + path.getElement(), parts) << uri;
    }
}

TEST(RequestBase, SortsQueryParametersAndReadsTheExpansionLevel) {
    const RequestBase request(Poco::URI("/M/t?%24fields=a%2Cb&name=x+y&&flag&bad=%zz&$expand=2&name=z&=v"));
    const auto texts = [](const auto& criteria) {
        std::string text;
        for (const auto& each : criteria)
            text += each.getName() + "=" + each.getValue() + (each.isValid() ? "; " : " invalid; ");
        return text;
    };
    EXPECT_EQ(texts(request.getRenderCriteria()), "$fields=a,b; $expand=2; ");
    EXPECT_EQ(texts(request.getSearchCriteria()), "name=x y; flag=; bad=%zz invalid; name=z; =v invalid; ");
    EXPECT_EQ(request.getUrlPath().getQueryParameter().size(), 4U);
    EXPECT_EQ(request.getUrlPath().getQueryParameter().at("name"), "x y");
    const std::pair<std::string, unsigned int> levels[] = {
        {"$fields=a&$expand=1&$expand=2", 1}, {"$expand=2x", 0}, {"$expand=99999999999", 4294967295u}};
    for (const auto& [query, level] : levels)
        EXPECT_EQ(RequestBase(Poco::URI("/M/t?" + query)).getExpansionLevel(), level) << query;
}

TEST(WebSocketRequestObject, WritesWhatIsGivenAndAcceptsAnyEvent) {
    const std::string none;
    const std::pair<WebSocketRequestObject, const char*> table[] = {
        {{"subscribe", "/M/t/?%24fields=a%2Cb#12-M-0xa", 0L, 100L, nullptr, true},
         R"({"event":"/M/t/?%24fields=a%2Cb#12-M-0xa","type":"subscribe","interval":0,"updateLimit":100,
             "autosubscribe":true})"},
        {{"", "/a b\"\n%zz", {}, {}, &none, false},
         R"({"event":"/a b\"\n%zz","type":"","authorization":""})"},
    };
    for (const auto& [request, text] : table) {
        EXPECT_EQ(written(*request.getData()), written(*parsed(text)));
        EXPECT_EQ(request.isValid(), request.getUrlPath().getService() == "M");
        EXPECT_EQ(request.getEvent().empty(), !request.isValid());
    }
}

TEST(ValueTools, SetBitWritesTheLowerSixteenBits) {
    unsigned int value = 0xf0f0;
    for (const std::uint8_t bit : {0, 15, 16, 255})
        Nubo::Util::cValueTools::setBit<unsigned int>(bit, bit % 2 == 0, value);
    EXPECT_EQ(value, 0x70f1u);
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

TEST(JSONTools, CloneIsWhatWritingAndParsingGivesAndSharesNothing) {
    for (const char* text :
         {R"({})", R"({"":1})", R"({"a":null,"b":true,"c":[],"d":{},"e":[[{"f":[1,"x",null]}]]})",
          R"({"a":0,"b":-5,"c":9223372036854775807,"d":18446744073709551615,"e":-9223372036854775808})",
          R"({"a":1.0,"b":1.5,"c":1e5,"d":-0.0,"e":1e-7,"f":123456789.125,"g":1e300})",
          R"({"a":"\u00e4\n\t\"\\\/\u0001\u007f\ud83d\ude00","b":"x\u0000y","c\u0000d":1})"}) {
        const Object::Ptr original = parsed(text);
        EXPECT_EQ(shape(JSONTools::cloneJsonObject(original)), shape(parsed(written(*original)))) << text;
    }
    const Object::Ptr original = parsed(R"({"list":[{"n":1}],"x":{"y":null}})");
    const Object::Ptr clone = JSONTools::cloneJsonObject(original);
    clone->getObject("x")->set("y", 2);
    clone->getArray("list")->getObject(0)->set("n", 3);
    EXPECT_EQ(written(*original), R"({"list":[{"n":1}],"x":{"y":null}})");
    EXPECT_TRUE(JSONTools::cloneJsonObject(nullptr).isNull());
}

TEST(UpdateClone, GivesWhatAFreshCloneWouldBe) {
    const std::vector<const char*> texts{
        R"({"a":"x","b":{"c":1,"d":[1]},"e":null})",   R"({"a":"y","b":{"c":2,"d":[1]},"e":1.5})",
        R"({"a":"x","b":{"c":1,"d":2},"e":true})",     R"({"a":"x","b":{"c":1.0,"d":-0.0},"e":0.0})",
        R"({"a":1e300,"b":{"c":1,"d":0.0},"e":-0.0})", R"({"a":"x","b":{"c":1},"e":{"f":1}})",
        R"({"a":"x","b":7,"e":18446744073709551615})", R"({"a":1,"b":{"c":"x\u0000y","d":2},"z":0})"};
    for (const char* before : texts) {
        for (const char* after : texts) {
            Object::Ptr clone = JSONTools::cloneJsonObject(parsed(before));
            const Object::Ptr object = parsed(after);
            updateClone(clone, object);
            EXPECT_EQ(shape(clone), shape(JSONTools::cloneJsonObject(object))) << before << after;
            updateClone(clone, parsed(before));
            EXPECT_EQ(shape(object), shape(parsed(after)));  // the clone shares nothing with it
        }
    }
    Object::Ptr kept = JSONTools::cloneJsonObject(parsed(texts[0]));
    const Object::Ptr elsewhere = kept;
    updateClone(kept, parsed(texts[1]));
    EXPECT_EQ(shape(elsewhere), shape(parsed(texts[0])));
    EXPECT_ANY_THROW(updateClone(kept, parsed(R"({"a":"z","b":{"c":1,"d":[1]},"e":1e999})")));
    EXPECT_EQ(shape(kept), shape(parsed(texts[1])));
}

// That the objects are the right ones is a property that fuzz/splitter.cpp checks, with its corpus as a test.
TEST(Splitter, RaisesABlockThatIsOneObjectAsItIsAndReportsARest) {
    struct {
        void onObject(const WebsocketDataEventPayload& object) {
            texts.push_back(object.data);
            last = &object;
            EXPECT_EQ(object.flags, 0x81);
        }
        void onDropped(const WebsocketDataEventPayload& rest) { dropped.push_back(rest.Reason + rest.data); }
        Texts texts, dropped;
        const WebsocketDataEventPayload* last = nullptr;
    } receiver;
    WebsocketDataObjectSplitter splitter;
    splitter.ObjectAvailable += Poco::delegate(&receiver, &decltype(receiver)::onObject);
    splitter.IncompleteDropped += Poco::delegate(&receiver, &decltype(receiver)::onDropped);
    Nubo::Net::WebSocketProxy proxy(nullptr, nullptr);
    WebsocketDataEventPayload block(proxy);
    block.flags = 0x81;
    const LogCapture log;
    for (const std::string& text :
         {std::string(R"({"a":{}})"), R"({"b":"{"} {"c":[{}]} )" + std::string(100000, '{')}) {
        EXPECT_TRUE(receiver.dropped.empty());
        block.data = text;
        splitter.onDataBlockAvailable(block);
        EXPECT_EQ(receiver.last == &block, text == receiver.texts[0]) << "copied needlessly";
    }
    EXPECT_EQ(receiver.dropped, Texts{"incomplete JSON object dropped, 100000 of 100021 bytes"});
    EXPECT_TRUE(log.lines().empty()) << "not on the manager's thread";
    splitter.splitJsonDataObjectString("[{}{", receiver.texts);
    EXPECT_TRUE(
        log.contains("Warning: WebsocketDataObjectSplitter: incomplete JSON object dropped, 1 of 4 bytes"));
    EXPECT_EQ(receiver.texts, (Texts{R"({"a":{}})", R"({"b":"{"})", R"({"c":[{}]})", "{}"}));
}

std::string decoded(const std::string& coding, const std::string& body) {
    Poco::Net::HTTPResponse response;
    response.set("Content-Encoding", coding);
    Nubo::Net::HTTPEncoderDecoder coder{Poco::Net::HTTPRequest(), response};
    std::istringstream raw(body);
    std::string text;
    Poco::StreamCopier::copyToString(coder.getInputStream(raw), text);
    return text;
}

std::string encoded(const std::string& field, const std::string& codings, const std::string& body) {
    Poco::Net::HTTPRequest request;
    request.set(field, codings);
    Poco::Net::HTTPResponse response;
    Nubo::Net::HTTPEncoderDecoder coder(request, response);
    std::ostringstream raw;
    coder.getOutputStream(raw) << body;
    EXPECT_EQ(coder.close(), 0);
    return raw.str();
}

TEST(HTTPEncoderDecoder, ReadsWhatItWritesAndRefusesDamage) {
    const std::string body = R"({"status":"ok","data":[{"name":"a","uri":"/M/t/1"},{"name":"b"}]})";
    const std::tuple<std::string, std::string, std::string, bool> table[] = {
        {"Content-Encoding", "GZip", "X-GZIP", true},
        {"Content-Encoding", "deflate", "Deflate", true},
        {"Accept-Encoding", "br, gzip;q=0.5, deflate", "gzip", true},
        {"Accept-Encoding", "gzip;q=0, deflate", "deflate", true},
        {"Accept-Encoding", "br", "br", false},
    };
    for (const auto& [field, codings, coding, isEncoded] : table) {
        const std::string whole = encoded(field, codings, body);
        EXPECT_EQ(whole != body, isEncoded) << codings;
        EXPECT_EQ(decoded(coding, whole), body) << codings;
        EXPECT_EQ(decoded(coding, encoded(field, codings, "")), "") << codings;
        EXPECT_EQ(decoded(coding, ""), "") << codings;
        for (std::size_t length = 1; isEncoded && length < whole.size(); ++length)
            EXPECT_THROW(decoded(coding, whole.substr(0, length)), Poco::IOException) << codings << length;
    }
    EXPECT_THROW(decoded("gzip", body), Poco::IOException);
    std::ostringstream bare;
    Poco::DeflatingOutputStream(bare, -15, 6) << body;
    EXPECT_EQ(decoded("deflate", bare.str()), body);
}

}  // namespace
