// The HTTP path of the ClientLib against a peer that answers byte for byte: results, bodies, requests on the
// wire, and every log line with its level.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Nubo/Simulator/MessageSink.h>
#include <Poco/DeflatingStream.h>
#include <Poco/JSON/Parser.h>
#include <Poco/String.h>
#include <Poco/URI.h>
#include <gtest/gtest.h>

#include <cctype>
#include <sstream>

#include "LogCapture.h"
#include "RawPeer.h"

using Nubo::Client::ClientLib;
using Poco::Net::HTTPResponse;
using Registry = Nubo::ServiceRegistryConnection;
using Lines = std::vector<std::string>;

namespace {

const std::string HOST_DEBUG =
    "D|Debug: bool Nubo::Client::ClientLib::sendRequest(const string&, Poco::UInt16, "
    "Poco::Net::HTTPResponse&, std::__cxx11::string&, const string&, const string&, const string&) const"
    ": Redirecting to : ";
const std::string REGISTRY_DEBUG =
    "D|Debug: virtual bool Nubo::Client::ClientLib::sendRequest(Poco::Net::HTTPResponse&, "
    "std::__cxx11::string&, const string&, const string&, const string&) const: Redirecting to ";
const std::string GET_ELEMENT =
    "virtual Poco::JSON::Object::Ptr Nubo::Client::ClientLib::getResourceElement(const string&) const";
const std::string FIND_ELEMENT =
    "virtual Poco::JSON::Object::Ptr Nubo::Client::ClientLib::findElementByName(const string&, const "
    "string&) const";
/// What was logged: a letter for the level, then the text.
Lines logged(const LogCapture& log) {
    Lines lines;
    for (const Poco::Message& message : log.messages())
        lines.push_back(std::string(1, " FCEWNIDT"[message.getPriority()]) + "|" + message.getText());
    return lines;
}

/// A '*' at the end of an expected line stands for any rest.
void expectLines(const Lines& expected, Lines actual) {
    for (std::size_t i = 0; i < expected.size() && i < actual.size(); ++i) {
        const std::size_t known = expected[i].size() - 1;
        const bool matches =
            expected[i].back() == '*' && actual[i].compare(0, known, expected[i], 0, known) == 0;
        if (matches) actual[i] = expected[i];
    }
    EXPECT_EQ(expected, actual);
}

/// The lines of one exchange. @param outcome the answer's status and reason, or the text of an exception
Lines exchange(const std::string& method, const std::string& uri, const std::string& content,
               const std::string& outcome, const std::string& body) {
    const std::string path = uri.empty() || uri[0] == '/' ? uri : "/" + uri;
    const std::string answered = "sendRequest: " + method + " " + path + " -> " + outcome;
    Lines lines{"I|Info: sendRequest: " + method + " " + uri + ", content: " + content};
    const auto add = [&](const Lines& more) { lines.insert(lines.end(), more.begin(), more.end()); };
    if (uri.empty()) add({"E|Error: sendRequest: empty uri specified!"});
    if (path != uri) add({"W|Warning: sendRequest: relative path may not be supported!"});
    if (outcome.empty()) return lines;
    if (std::isdigit(outcome[0]) == 0)
        add({"E|Error: sendRequest: sending request " + path + ": " + outcome});
    else if (outcome < "400")
        add({"I|Info: " + answered, "I|, request content: " + content + ", ",
             "I|response content: " + Poco::replace(body, "\n", "\\n")});
    else
        add({"E|Error: " + answered, "E|request content: " + content + ", ", "E|response content: " + body});
    return lines;
}

std::string answer(const std::string& status, const std::string& body, const std::string& headers = "") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers +
           "\r\n" + body;
}

std::string compressed(const std::string& text, Poco::DeflatingStreamBuf::StreamType type) {
    std::ostringstream out;
    Poco::DeflatingOutputStream stream(out, type);
    stream << text;
    stream.close();
    return out.str();
}

enum Overload { Single, Host, ToRegistry };

class HttpPathTest : public ::testing::Test {
protected:
    static RawPeer registry(const std::string& answer) {
        return RawPeer({answer}, RawPeer::Then::Close, Registry::ADDRESS, Registry::PORT);
    }
    bool send(Overload overload, const std::string& method, const std::string& uri,
              const std::string& content) {
        body = "before";
        redirection = Poco::URI();
        if (overload == ToRegistry) return client.sendRequest(response, body, method, uri, content);
        if (overload == Host)
            return client.sendRequest(Registry::ADDRESS, Registry::PORT, response, body, method, uri,
                                      content);
        return client.sendRequest(Registry::ADDRESS, Registry::PORT, response, body, method, uri, content,
                                  redirection);
    }

    Nubo::Simulator::MessageSink sink;
    ClientLib client{&sink, ClientLib::ClientLibParameters{}};
    HTTPResponse response;
    std::string body;
    Poco::URI redirection;
};

}  // namespace

TEST_F(HttpPathTest, OneExchange) {
    const std::string zipped = compressed("zipped body", Poco::DeflatingStreamBuf::STREAM_GZIP);
    const std::string deflated = compressed("deflated body", Poco::DeflatingStreamBuf::STREAM_ZLIB);
    const std::string gzip = "Content-Encoding: gzip\r\n";
    const std::string noBody = "\r\nContent-Length: 5\r\n\r\n";
    const char* const cut = "Malformed message: body ends after 3 of 5 bytes";
    const struct {
        const char *method, *uri, *content;
        std::string answer;
        const char* outcome;
        std::string body;  // afterwards; "before" where none was read
    } table[] = {
        {"GET", "/a", "", answer("200 OK", "{}"), "200 OK", "{}"},
        {"GET", "/a", "", answer("200 OK", ""), "200 OK", ""},
        {"PUT", "/a?b=c", "{\"x\":1}", answer("399 Odd", "ok"), "399 Odd", "ok"},
        {"POST", "/a", "x", answer("200 OK", "1\n2"), "200 OK", "1\n2"},
        {"GET", "a/b", "", answer("200 OK", "r"), "200 OK", "r"},
        {"GET", "", "c", answer("200 OK", "r"), "", "before"},
        {"GET", "/a", "", answer("404 Not Found", "{\"code\":404}"), "404 Not Found", "{\"code\":404}"},
        {"DELETE", "/a", "c", answer("400 Bad Request", ""), "400 Bad Request", ""},
        {"GET", "/a", "", "HTTP/1.1 200 OK\r\n\r\nto the end", "200 OK", "to the end"},
        {"GET", "/a", "", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n",
         "200 OK", "abc"},
        {"HEAD", "/a", "", "HTTP/1.1 200 OK" + noBody, "200 OK", ""},
        {"GET", "/a", "", "HTTP/1.1 204 No Content" + noBody, "204 No Content", ""},
        {"GET", "/a", "", "HTTP/1.1 304 Not Modified" + noBody, "304 Not Modified", ""},
        {"GET", "/a", "", "HTTP/1.1 200 OK" + noBody + "abc", cut, "abc"},
        {"GET", "/a", "", "HTTP/1.1 404 No" + noBody + "abc", cut, "abc"},
        {"GET", "/a", "", answer("200 OK", zipped, gzip), "200 OK", "zipped body"},
        {"GET", "/a", "", answer("200 OK", zipped + "rest", gzip), "200 OK", "zipped body"},
        {"GET", "/a", "", answer("500 Oops", zipped, gzip), "500 Oops", "zipped body"},
        {"GET", "/a", "", answer("200 OK", deflated, "Content-Encoding: deflate\r\n"), "200 OK",
         "deflated body"},
        {"GET", "/a", "", answer("200 OK", "as is", "Content-Encoding: br\r\n"), "200 OK", "as is"},
        {"GET", "/a", "", answer("200 OK", "no gzip at all", gzip), "I/O error*", ""},
        {"GET", "/a", "", "HTTP/1.1 200 OK\r\n" + gzip + "Content-Length: 99\r\n\r\n" + zipped.substr(0, 12),
         "Malformed message: body ends after 12 of 99 bytes", ""},
        {"GET", "/a", "", "", "No message received*", "before"},
        {"GET", "/a", "", "garbage\r\n\r\n", "Malformed message*", "before"},
    };
    for (const auto& row : table) {
        for (const Overload overload : {Single, Host, ToRegistry}) {
            SCOPED_TRACE(row.answer + ", overload " + std::to_string(overload));
            const RawPeer peer = registry(row.answer);
            const LogCapture log;
            const bool succeeds = std::isdigit(row.outcome[0]) != 0 && row.outcome[0] < '4';
            EXPECT_EQ(succeeds, send(overload, row.method, row.uri, row.content));
            EXPECT_EQ(row.body, body);
            EXPECT_TRUE(redirection.empty());
            expectLines(exchange(row.method, row.uri, row.content, row.outcome, row.body), logged(log));
            if (*row.uri == '\0') continue;
            const std::string path = row.uri[0] == '/' ? row.uri : std::string("/") + row.uri;
            const std::string request = peer.requests().at(0);
            EXPECT_EQ(0u, request.find(row.method + (" " + path) + " HTTP/1.1\r\n")) << request;
            EXPECT_EQ(row.content, request.substr(request.find("\r\n\r\n") + 4));
        }
    }
}

TEST_F(HttpPathTest, RequestHeaders) {
    for (const std::string agent : {"", "User-Agent: Unit/1.0\r\n"}) {
        const RawPeer peer = registry(answer("200 OK", ""));
        ClientLib::ClientLibParameters parameters{};
        if (!agent.empty()) parameters.useragent = "Unit/1.0";
        EXPECT_TRUE(ClientLib(&sink, parameters).sendRequest(response, body, "GET", "/a", "\xC3\xA4"));
        EXPECT_EQ(
            "GET /a HTTP/1.1\r\nContent-Length: 2\r\nContent-Type: application/json; charset=utf-8\r\n" +
                agent + "Accept: application/json\r\nHost: 127.0.0.1:" + std::to_string(Registry::PORT) +
                "\r\n\r\n\xC3\xA4",
            peer.requests().at(0));
    }
}

TEST_F(HttpPathTest, HostsInAllTheirForms) {
    for (const std::string host : {"127.0.0.1", "localhost", "::1", "[::1]"}) {
        const auto peer = RawPeer::at(host, answer("200 OK", "x"), RawPeer::Then::Close);
        if (!peer) GTEST_SKIP() << "no IPv6 on this machine";
        EXPECT_TRUE(client.sendRequest(host, peer->port(), response, body, "GET", "/a", "")) << host;
    }
}

TEST_F(HttpPathTest, ARefusedConnectionIsOneErrorLine) {
    Poco::Net::ServerSocket reserved;
    reserved.bind(Poco::Net::SocketAddress("127.0.0.1", 0), true, false);  // nobody listens
    const LogCapture log;
    EXPECT_FALSE(client.sendRequest("127.0.0.1", reserved.address().port(), response, body, "GET", "/a", ""));
    expectLines(exchange("GET", "/a", "", "Connection refused*", ""), logged(log));
}

TEST_F(HttpPathTest, Redirections) {
    const auto choices = [](const std::string& json) { return answer("300 Multiple Choices", json); };
    const auto location = [](const std::string& url) {
        return answer("307 Temporary Redirect", "", "Location: " + url + "\r\n");
    };
    const RawPeer other({answer("200 OK", "found"), answer("404 No", "gone"),
                         location("http://127.0.0.1:1/never"), answer("200 OK", "found"),
                         choices("{\"data\":[]}")});
    const std::string base = "http://127.0.0.1:" + std::to_string(other.port());
    const std::string path = "/M/t/?$fields=a,b";
    const std::string named = R"({"status":"ok","data":[{"hostAddress":")" + base + path + R"("},{}]})";
    const std::string pathless = R"({"data":[{"hostAddress":")" + base + R"("}]})";
    const struct {
        std::string answer;       // of the registry
        std::string outcome;      // of that, as exchange() takes it
        std::string redirection;  // reported by the overload that follows nothing
        bool reported, result;    // result of that one, and of those that follow
        std::string second;       // outcome of the other peer's answer
        std::string body;
    } table[] = {
        {location(base + path), "", base + path, true, true, "200 OK", "found"},
        {location(base + path), "", base + path, true, false, "404 No", "gone"},
        {location(base + path), "", base + path, true, true, "", "before"},
        {choices(named), "", base + path, true, true, "200 OK", "found"},
        {choices(named), "", base + path, true, false, "", "{\"data\":[]}"},
        {choices(pathless), "", base, true, false, "", pathless},
        {location("/b"), "", "/b", true, false, "*", "before"},
        {location(""), "", "", true, true, "", "before"},
        {answer("307 Temporary Redirect", "b"), "307 Temporary Redirect", "", true, true, "", "b"},
        {location("http://[::1"), "Bad URI syntax*", "", false, false, "", "before"},
        {choices("{\"data\":[]}"), "", "", false, false, "", "{\"data\":[]}"},
        {choices("{\"d\":1}"), "", "", false, false, "", "{\"d\":1}"},
        {choices("{\"data\":{}}"), "", "", false, false, "", "{\"data\":{}}"},
        {choices("{\"data\":[1]}"), "Null pointer*", "", false, false, "", "{\"data\":[1]}"},
        {choices("{\"data\":[{}]}"), "Invalid access*", "", false, false, "", "{\"data\":[{}]}"},
        {choices("{\"data\":[{\"hostAddress\":\":\"}]}"), "Bad URI syntax*", "", false, false, "",
         "{\"data\":[{\"hostAddress\":\":\"}]}"},
        {choices("[]"), "Bad cast*", "", false, false, "", "[]"},
        {choices("{"), "JSON*", "", false, false, "", "{"},
    };
    for (const Overload overload : {Single, Host, ToRegistry}) {
        for (const auto& row : table) {
            SCOPED_TRACE(row.answer + ", overload " + std::to_string(overload));
            const std::size_t before = other.requests().size();
            const RawPeer peer = registry(row.answer);
            const LogCapture log;
            EXPECT_EQ(overload == Single ? row.reported : row.result, send(overload, "GET", "/a", "c"));
            Lines expected = exchange("GET", "/a", "c", row.outcome, row.body);
            const Poco::URI to(row.redirection);
            const std::string second = to.getPathAndQuery();
            if (overload != Single && !to.empty()) {
                expected.push_back(overload == Host ? HOST_DEBUG + second
                                                    : REGISTRY_DEBUG + to.getHost() + ":" +
                                                          std::to_string(to.getPort()) + second);
                const Lines more = exchange("GET", second, "c", row.second, row.body);
                expected.insert(expected.end(), more.begin(), more.end());
            }
            expectLines(expected, logged(log));
            EXPECT_EQ(overload == Single ? row.redirection : "", redirection.toString());
            if (overload == Single) continue;
            EXPECT_EQ(row.body, body);
            EXPECT_EQ(second == path, other.requests().size() > before);
            if (second != path) continue;
            EXPECT_EQ(0u, other.requests().back().find("GET " + path + " HTTP/1.1\r\n"));
        }
    }
}

TEST(ClientLibQueriesTest, CreateQuery) {
    const struct {
        const char *uri, *fields;
        uint8_t level;
        const char *filter, *expected;
    } table[] = {
        {"", "a", 2, "f=1", ""},
        {"svc/res", "", 0, "", "/svc/res"},
        {"/a", "", 0, "", "/a"},
        {"/svc/res", "a,b", 2, "", "/svc/res?$fields=a,b&$expand=2"},
        {"/svc/res", "", 0, "k=v", "/svc/res?k=v"},
        {"/a", "k=v", 0, "", "/a?k=v"},
        {"/a", "", 255, "f=1", "/a?$expand=255&f=1"},
        {"/a", "b", 65, "f=1", "/a?$fields=b&$expand=65&f=1"},
        {"/a?x", "b", 0, "", "/a?x?$fields=b"},
    };
    for (const auto& row : table)
        EXPECT_EQ(row.expected, ClientLib::createQuery(row.uri, row.fields, row.level, row.filter));
}

TEST(ClientLibQueriesTest, CleanJsonString) {
    const std::pair<std::string, std::string> table[] = {
        {"", ""},
        {"\x1E", ""},
        {"\x1E{\"a\":1}\x1E", "{\"a\":1}"},
        {"x\x1E\x1Ey\n\x1F", "xy\n\x1F"},
        {std::string("a\0b\x1E", 4), std::string("a\0b", 3)},
    };
    for (const auto& row : table) {
        std::string value = row.first;
        ClientLib::cleanJsonString(value);
        EXPECT_EQ(row.second, value);
    }
}

TEST_F(HttpPathTest, GetResourceElement) {
    const std::string exception = "E|Error: " + GET_ELEMENT + " - exception: *";
    const std::string notOk = "E|Error: getObject: ! HTTP_OK";
    const std::string found = "I|response content: *";
    const struct {
        std::string answer;
        std::string line;  // the last one: of the request alone when the element is found
    } table[] = {
        {answer("200 OK", R"({"k":"v"})"), found},
        {answer("200 OK", "\x1E{\"k\":\x1E\"v\"}\x1E"), found},
        {answer("200 OK", "[\x1E 1]"), "E|Error: getObject: error parsing JSON: [ 1]"},
        {answer("200 OK", "{"), exception},
        {answer("200 OK", "{}{}"), exception},
        {answer("200 OK", ""), exception},
        {answer("200 OK", std::string(500, '[')), exception},
        {answer("404 Not Found", "{}"), notOk},
        {answer("201 Created", "{}"), notOk},
        {"", notOk},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.answer);
        const RawPeer peer = registry(row.answer);
        const LogCapture log;
        const Poco::JSON::Object::Ptr element = client.getResourceElement("/M/t/1");
        EXPECT_EQ(row.line[0] == 'I' ? "v" : "", element ? element->getValue<std::string>("k") : "");
        expectLines({row.line}, {logged(log).back()});
        EXPECT_EQ(0u, peer.requests().at(0).find("GET /M/t/1 HTTP/1.1\r\n"));
    }
}

TEST(ClientLibQueriesTest, FindElementByName) {
    struct Answering : ClientLib {
        using ClientLib::ClientLib;
        Poco::JSON::Object::Ptr getResourceElement(const std::string& uri) const override {
            EXPECT_EQ("/M/t?name=a b", uri);
            return list.empty() ? nullptr
                                : Poco::JSON::Parser().parse(list).extract<Poco::JSON::Object::Ptr>();
        }
        std::string list;
    };
    const std::string nothing = "I|Info: findElementByName: returned nullptr";
    const struct {
        const char *list, *id;  // id of the element, empty when none
        Lines lines;
    } table[] = {
        {R"({"data":[{"uri":"/1","id":"1"},{"uri":"/2","id":"2"}]})",
         "1",
         {"I|Info: findElementByName: returned /1"}},
        {R"({"data":[{"uri":7,"id":"1"}]})", "1", {"I|Info: findElementByName: returned 7"}},
        {R"({"data":[]})", "", {nothing}},
        {R"({"data":{}})", "", {nothing}},
        {R"({"other":[]})", "", {nothing}},
        {R"({"data":[1,{"uri":"/2"}]})", "", {nothing}},
        {R"({"data":[{"id":"1"}]})", "", {"E|Error: " + FIND_ELEMENT + " - exception: *", nothing}},
        {"", "", {"W|Warning: " + FIND_ELEMENT + ": error getting element for M/t a b"}},
    };
    Nubo::Simulator::MessageSink sink;
    Answering client(&sink, ClientLib::ClientLibParameters{});
    for (const auto& row : table) {
        SCOPED_TRACE(row.list);
        client.list = row.list;
        const LogCapture log;
        const Poco::JSON::Object::Ptr element = client.findElementByName("M/t", "a b");
        EXPECT_EQ(row.id, element ? element->getValue<std::string>("id") : "");
        expectLines(row.lines, logged(log));
    }
}
