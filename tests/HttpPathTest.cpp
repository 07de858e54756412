// The HTTP path of the ClientLib against a peer that answers byte for byte: results, bodies, requests on the
// wire, and the log lines with their levels.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Nubo/Simulator/Faults.h>
#include <Poco/URI.h>
#include <gtest/gtest.h>

#include <cctype>

#include "LogCapture.h"
#include "RawPeer.h"

using Nubo::Client::ClientLib;
using Registry = Nubo::ServiceRegistryConnection;

namespace {

/// What was logged, line by line: a letter for the level, then the text.
std::string logged(const LogCapture& log) {
    std::string lines;
    for (const Poco::Message& message : log.messages())
        lines += std::string(1, " FCEWNIDT"[message.getPriority()]) + "|" + message.getText() + "\n";
    return lines;
}

std::string answer(const std::string& status, const std::string& body, const std::string& headers = "") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers +
           "\r\n" + body;
}

struct HttpPathTest : testing::Test {
    static RawPeer registry(const std::string& answer) {
        return RawPeer({answer}, RawPeer::Then::Close, Registry::ADDRESS, Registry::PORT);
    }
    bool send(const std::string& method, const std::string& uri, const std::string& content) {
        body = "before";
        return client.sendRequest(response, body, method, uri, content);
    }

    Nubo::Client::MessageQueue sink;
    ClientLib::ClientLibParameters parameters{};
    ClientLib client{&sink, parameters};
    Poco::Net::HTTPResponse response;
    std::string body;
};

TEST_F(HttpPathTest, LinesOfOneExchange) {
    const struct {
        std::string method, uri, content, answer, lines;
    } table[] = {
        {"PUT", "/a?b=c", "{}", answer("399 Odd", "1\n2"),
         "I|Info: sendRequest: PUT /a?b=c, content: {}\n"
         "I|Info: sendRequest: PUT /a?b=c -> 399 Odd\n"
         "I|, request content: {}, \n"
         "I|response content: 1\\n2\n"},
        {"GET", "a/b", "c", answer("400 Bad", "no"),
         "I|Info: sendRequest: GET a/b, content: c\n"
         "W|Warning: sendRequest: relative path may not be supported!\n"
         "E|Error: sendRequest: GET /a/b -> 400 Bad\n"
         "E|request content: c, \n"
         "E|response content: no\n"},
    };
    for (const auto& row : table) {
        const RawPeer peer = registry(row.answer);
        const LogCapture log;
        EXPECT_EQ(row.method == "PUT", send(row.method, row.uri, row.content));
        EXPECT_EQ(row.lines, logged(log));
    }
}

TEST_F(HttpPathTest, RequestsOnTheWire) {
    const RawPeer registered = registry(answer("200 OK", ""));
    EXPECT_TRUE(send("PUT", "a?b=c", "\xC3\xA4"));
    parameters.useragent = "Unit/1.0";
    EXPECT_TRUE(ClientLib(&sink, parameters).sendRequest(response, body, "PUT", "a?b=c", "\xC3\xA4"));
    const std::string start = "PUT /a?b=c HTTP/1.1\r\nContent-Length: 2\r\nContent-Type: application/json; ";
    const std::string host = "Host: 127.0.0.1:" + std::to_string(Registry::PORT);
    const std::string rest = "Accept: application/json\r\n" + host + "\r\n\r\n\xC3\xA4";
    EXPECT_EQ(start + "charset=utf-8\r\n" + rest, registered.requests().at(0));
    EXPECT_EQ(start + "charset=utf-8\r\nUser-Agent: Unit/1.0\r\n" + rest, registered.requests().at(1));
    const std::string redirection = answer("307 Moved", "", "Location: http://127.0.0.1:1/M/t\r\n");
    const LogCapture log;
    for (const std::string form : {"127.1", "::1", "[::1]"}) {
        const auto peer = RawPeer::at(form, redirection, RawPeer::Then::Close);
        if (!peer) GTEST_SKIP() << "no IPv6 on this machine";
        EXPECT_FALSE(client.sendRequest(form, peer->port(), response, body, "GET", "/a", ""));
    }
    EXPECT_EQ(3u, log.count("Debug: bool Nubo::Client::ClientLib::sendRequest(const string&, Poco::UInt16, "
                            "Poco::Net::HTTPResponse&, std::__cxx11::string&, const string&, const string&, "
                            "const string&) const: Redirecting to : /M/t"));
}

TEST_F(HttpPathTest, BodiesInAllTheirForms) {
    const std::string zipped = Nubo::Simulator::HttpAnswer_t::gzip("zipped body").body;
    const std::string gzip = "Content-Encoding: gzip\r\n";
    const std::string noBody = "\r\nContent-Length: 5\r\n\r\n";
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const struct {
        std::string method, answer, body;  // "before" where none was read
        std::string outcome;               // a part of a line
    } table[] = {
        {"GET", answer("200 OK", ""), "", "200 OK"},
        {"GET", "HTTP/1.1 200 OK\r\n\r\nto the end", "to the end", "200 OK"},
        {"GET", chunked + "3\r\nabc\r\n0\r\n\r\n", "abc", "200 OK"},
        {"HEAD", "HTTP/1.1 200 OK" + noBody, "", "200 OK"},
        {"GET", "HTTP/1.1 204 No Content" + noBody, "", "204 No Content"},
        {"GET", "HTTP/1.1 304 Not Modified" + noBody, "", "304 Not Modified"},
        {"GET", "HTTP/1.1 404 No" + noBody + "abc", "abc", "body ends after 3 of 5 bytes"},
        {"GET", answer("200 OK", zipped + "rest", gzip), "zipped body", "200 OK"},
        {"GET", answer("200 OK", "no gzip at all", gzip), "", "I/O error"},
        {"GET", "HTTP/1.1 200 OK\r\n" + gzip + noBody.substr(2) + zipped.substr(0, 4), "", "after 4 of 5"},
        {"GET", "", "before", "No message received"},
    };
    for (const auto& row : table) {
        const RawPeer peer = registry(row.answer);
        const LogCapture log;
        EXPECT_EQ(std::isdigit(row.outcome[0]) != 0, send(row.method, "/a", "")) << row.answer;
        EXPECT_EQ(row.body, body) << row.answer;
        EXPECT_TRUE(log.contains(row.outcome)) << row.answer;
    }
}

TEST_F(HttpPathTest, RedirectionsAreReportedOrFollowedOnce) {
    const auto choices = [](const std::string& json) { return answer("300 Multiple Choices", json); };
    const auto location = [](const std::string& url) {
        return answer("307 Temporary Redirect", "", "Location: " + url + "\r\n");
    };
    const RawPeer other({answer("200 OK", "found"), answer("404 No", "gone"),
                         location("http://127.0.0.1:1/never"), answer("200 OK", "found")});
    const std::string base = "http://127.0.0.1:" + std::to_string(other.port());
    const std::string path = "/M/t/?$fields=a,b";
    const std::string named = R"({"status":"ok","data":[{"hostAddress":")" + base + path + R"("},{}]})";
    const std::string pathless = R"({"data":[{"hostAddress":")" + base + R"("}]})";
    const std::string to =
        "Nubo::Client::ClientLib::sendRequest(Poco::Net::HTTPResponse&, std::__cxx11::string&, const "
        "string&, "
        "const string&, const string&) const: Redirecting to 127.0.0.1:" +
        std::to_string(other.port()) + path;
    const struct {
        std::string answer;       // of the registry
        std::string redirection;  // reported by the overload that follows nothing
        bool reported, result;    // result of that one, and of the one that follows
        std::string body, line;   // of that one; a part of a line
    } table[] = {
        {location(base + path), base + path, true, true, "found", "D|Debug: virtual bool " + to},
        {location(base + path), base + path, true, false, "gone", "-> 404 No"},
        {location(base + path), base + path, true, true, "before", to},
        {choices(named), base + path, true, true, "found", to},
        {choices(pathless), base, true, false, pathless, "empty uri"},
        {location("/b"), "/b", true, false, "before", "sending request /b: "},
        {answer("307 Temporary Redirect", "b"), "", true, true, "b", "-> 307 Temporary Redirect"},
        {location("http://[::1"), "", false, false, "before", "Bad URI syntax"},
        {choices("{\"data\":[]}"), "", false, false, "{\"data\":[]}", "GET /a"},
        {choices("{\"data\":[1]}"), "", false, false, "{\"data\":[1]}", "Null pointer"},
        {choices("{\"data\":[{}]}"), "", false, false, "{\"data\":[{}]}", "Invalid access"},
        {choices("[]"), "", false, false, "[]", "Bad cast"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.answer);
        const RawPeer peer = registry(row.answer);
        const LogCapture log;
        Poco::URI redirection;
        EXPECT_EQ(row.reported, client.sendRequest(Registry::ADDRESS, Registry::PORT, response, body, "GET",
                                                   "/a", "c", redirection));
        EXPECT_EQ(row.redirection, redirection.toString());
        const std::size_t before = other.requests().size();
        EXPECT_EQ(row.result, send("GET", "/a", "c"));
        EXPECT_EQ(row.body, body);
        EXPECT_NE(logged(log).find(row.line), std::string::npos) << logged(log);
        if (row.redirection != base + path) continue;
        ASSERT_EQ(before + 1, other.requests().size());
        EXPECT_EQ(0u, other.requests().back().find("GET " + path + " HTTP/1.1\r\n"));
    }
}

// Further queries are properties that fuzz/uri.cpp checks.
TEST_F(HttpPathTest, CreateQuery) {
    EXPECT_EQ("", ClientLib::createQuery("", "a", 2, "f=1"));
    EXPECT_EQ("/svc/res", ClientLib::createQuery("svc/res", "", 0, ""));
    EXPECT_EQ("/a?x?k=v&$expand=255&f=1", ClientLib::createQuery("/a?x", "k=v", 255, "f=1"));
}

TEST_F(HttpPathTest, ElementsAreReadAndFound) {
    const std::string function = ": virtual Poco::JSON::Object::Ptr Nubo::Client::ClientLib::";
    const std::string find = function + "findElementByName(const string&, const string&) const";
    const std::string parse = "Error" + function + "getResourceElement(const string&) const - exception: ";
    const std::string nothing = "Info: findElementByName: returned nullptr";
    const struct {
        std::string answer, id;  // of the first element
        bool isRead;
        std::string line;  // a part
    } table[] = {
        {answer("200 OK", "\x1E{\"data\":[{\"uri\":7,\x1E\"id\":1},{}]}\x1E"), "1", true, "returned 7"},
        {answer("200 OK", R"({"data":[]})"), "", true, nothing},
        {answer("200 OK", R"({"data":[1,{"uri":"/2"}]})"), "", true, nothing},
        {answer("200 OK", R"({"data":[{"id":"1"}]})"), "", true, "Error" + find + " - exception: "},
        {answer("200 OK", "[\x1E 1]"), "", false, "Error: getObject: error parsing JSON: [ 1]"},
        {answer("200 OK", "{}{}"), "", false, parse},
        {answer("200 OK", std::string(500, '[')), "", false, parse},
        {answer("404 Not Found", "{}"), "", false, "Error: getObject: ! HTTP_OK"},
        {answer("201 Created", "{}"), "", false, "Warning" + find + ": error getting element for M/t a%20b"},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.answer);
        const RawPeer peer = registry(row.answer);
        const LogCapture log;
        EXPECT_EQ(row.isRead, !client.getResourceElement("/M/t").isNull());
        const auto element = client.findElementByName("M/t", "a%20b");
        EXPECT_EQ(row.id, element ? element->getValue<std::string>("id") : "");
        EXPECT_TRUE(log.contains(row.line));
        EXPECT_EQ(0u, peer.requests().at(0).find("GET /M/t HTTP/1.1\r\n"));
        EXPECT_EQ(0u, peer.requests().at(1).find("GET /M/t?name=a%20b HTTP/1.1\r\n"));
    }
}

}  // namespace
