#include <Nubo/Client/Query.h>
#include <Nubo/Command/RequestBase.h>
#include <Nubo/Command/UrlPath.h>
#include <Poco/JSON/Array.h>
#include <gmock/gmock.h>

#include "ClientDoubles.h"
#include "TestClient.h"

namespace {

using namespace Nubo::Client;

const std::string VALUES[] = {
    "plain",      "B & C",
    "C++",        "AC/DC",
    "50 %",       "100%25",
    "a=b=c",      "#1",
    "?",          "a,b;c:",
    "$word",      "",
    "\"'\\<>{|}", "Motörhead \u2603",
    "~a-b_c.d",   std::string("\x01\t\x7f"),
};

TEST(QueryTest, WritesPathFieldsExpansionAndFilters) {
    const std::pair<Query, std::string> table[] = {
        {Query("/Media/tracks"), "/Media/tracks"},
        {Query("Media"), "/Media"},
        {Query(""), "/"},
        {Query("/Media/tracks").fields({}).expand(0), "/Media/tracks"},
        {Query("/Media/tracks/1")
             .filter("b", "1")
             .filter("a", "x y")
             .expand(2)
             .fields({"t", "u"})
             .fields({"v,w"}),
         "/Media/tracks/1?$fields=t,u,v%2Cw&$expand=2&b=1&a=x%20y"},
        {Query("/Media/tracks?name=x").filter("artist", "B & C"), "/Media/tracks?name=x&artist=B%20%26%20C"},
        {Query("/Media/tracks/" + Query::encode("AC/DC+")), "/Media/tracks/AC%2FDC%2B"},
    };
    for (const auto& [query, expected] : table) EXPECT_EQ(expected, query.string());
}

TEST(QueryTest, ValuesAreReadAsTheyWereGiven) {
    for (const std::string& value : VALUES) {
        const Poco::URI uri(Query("/Media/tracks").filter("n" + value, value).filter("other", "1").string());
        const std::map<std::string, std::string> expected{{"n" + value, value}, {"other", "1"}};
        EXPECT_EQ(expected, Nubo::Command::UrlPath(uri).getQueryParameter()) << value;
    }
}

class QueryClientTest : public ClientTest {
protected:
    /// One track for each value: each has to be found among all others.
    QueryClientTest() {
        for (const std::string& value : VALUES) {
            Poco::JSON::Object track;
            track.set("title", value);
            media.setElement("tracks", std::to_string(++number), written(track));
        }
    }
    ~QueryClientTest() override {
        listener.shutdown();
        lib.shutdown();
    }

    static std::string byTitle(const std::string& title) {
        return Query("/Media/tracks").fields({"title"}).filter("title", title).string();
    }
    /// The titles in a list that a service has sent.
    static std::string titles(const Poco::JSON::Object& answer) {
        std::string all;
        for (const auto& track : *answer.getArray("data"))
            all += "[" + track.extract<Poco::JSON::Object::Ptr>()->getValue<std::string>("title") + "]";
        return all;
    }

    int number = 1;
    ScriptedListener listener{&lib, 10};
};

// Through the registry's redirection.
TEST_F(QueryClientTest, FindsEachValueOverHttp) {
    connect();
    for (const std::string& value : VALUES) {
        const auto answer = lib.getResourceElement(byTitle(value));
        ASSERT_TRUE(answer) << value;
        EXPECT_EQ("[" + value + "]", titles(*answer));
    }
    media.setElement("tracks", "0", R"({"name":"C++ & C"})");
    EXPECT_TRUE(lib.findElementByName("/Media/tracks", Query::encode("C++ & C")));
}

TEST_F(QueryClientTest, SubscribesToEachValue) {
    connect();
    listener.addServiceToMonitor("Media", false);
    listener.startup();
    std::map<std::string, std::string> received;
    listener.onData = [&](const auto& data) { received[data.event] = titles(*data.container); };
    for (const std::string& value : VALUES) {
        const auto uri = listener.addSubscription(byTitle(value), "", 0, "", false);
        ASSERT_TRUE(eventually([&] { return received.count(uri) != 0; })) << uri;
        EXPECT_EQ("[" + value + "]", received[uri]) << uri;
    }
}

}  // namespace
