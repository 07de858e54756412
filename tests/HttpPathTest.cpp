// The HTTP path of the ClientLib against a peer that answers byte for byte: results, bodies, requests on the
// wire, and the log lines with their levels.

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Nubo/Simulator/Faults.h>
#include <Poco/URI.h>
#include <dlfcn.h>
#include <netdb.h>

#include <cctype>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <optional>

#include "LogCapture.h"
#include "NameLookup.h"
#include "ParseJson.h"
#include "RawPeer.h"

using namespace std::chrono_literals;
using Nubo::Client::ClientLib;
using Registry = Nubo::ServiceRegistryConnection;

namespace {

/// The name server does not answer for this name while an object lives.
const std::string HUNG = "hung.example";
class HungNameServer {
public:
    HungNameServer() { set(true); }
    ~HungNameServer() {
        set(false);
        eventually([] { return waiting() == 0; });
    }
    static int waiting() {
        const std::lock_guard<std::mutex> lock(mutex);
        return count;
    }
    static void ask() {
        std::unique_lock<std::mutex> lock(mutex);
        ++count;
        changed.wait(lock, [] { return !hung; });
        --count;
    }

private:
    static void set(bool value) {
        const std::lock_guard<std::mutex> lock(mutex);
        hung = value;
        changed.notify_all();
    }
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline bool hung = false;  // guarded by mutex, as the next
    static inline int count = 0;
};

}  // namespace

/// In place of the system's, for the libraries too.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service,
                                                                  const addrinfo* hints, addrinfo** result) {
    if (name == HUNG) {
        HungNameServer::ask();
        return EAI_AGAIN;
    }
    static const auto real = reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    return real(name, service, hints, result);
}

namespace {

/// What was logged, line by line: a letter for the level, then the text.
std::string logged(const LogCapture& log) {
    std::string lines;
    for (const Poco::Message& message : log.messages())
        lines += std::string(1, " FCEWNIDT"[message.getPriority()]) + "|" + message.getText() + "\n";
    return lines;
}

std::string repeated(std::size_t count, const std::string& text) {
    std::string all;
    while (count-- > 0) all += text;
    return all;
}

std::string answer(const std::string& status, const std::string& body, const std::string& headers = "") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers +
           "\r\n" + body;
}

std::string location(const std::string& url) {
    return answer("307 Moved", "", "Location: " + url + "\r\n");
}
std::string choice(const std::string& address) {
    return answer("300 Choices", R"({"data":[{"hostAddress":")" + address + R"("},{}]})");
}

struct HttpPathTest : testing::Test {
    static RawPeer registry(const std::string& answer) {
        return RawPeer({answer}, RawPeer::Then::Close, Registry::ADDRESS, Registry::PORT);
    }
    /// The exception of a look-up that has `milliseconds`, empty when it succeeds.
    static std::string lookUp(const std::string& host, Nubo::Client::ConnectBudget::Names names,
                              int milliseconds) {
        try {
            const Nubo::Client::WaitBounds bounds(std::chrono::milliseconds(milliseconds), {});
            return addressesOf(host, 80, names, bounds).at(0).toString();
        } catch (const Poco::Exception& e) {
            return e.displayText();
        }
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
    const LogCapture log;
    for (const std::string form : {"127.1", "::1", "[::1]"}) {
        const auto peer = RawPeer::at(form, location("http://127.0.0.1:1/M/t"), RawPeer::Then::Close);
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
    const std::string abc = chunked + "3\r\nabc";
    const std::string many(20000, 'x');
    const std::string earlyHints = "HTTP/1.1 103 Early Hints\r\nLink: a\r\n\r\n";
    const auto sized = [](const std::string& length) {
        return "HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\nabc";
    };
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
        {"GET",
         "HTTP/1.1 200 OK\r\nContent-Length: 3\r\nTransfer-Encoding: Chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n",
         "ab", "200 OK"},
        {"GET", abc + " \r\n0\r\n\r\n", "abc", "broken end of a chunk"},
        {"GET", abc + "\r\n0a;b=c\r\n0123456789\r\n0 ;x\r\nT: 1\r\n\r\n", "abc0123456789", "200 OK"},
        {"GET", abc.substr(0, abc.size() - 1), "ab", "chunked body ends after 2 bytes"},
        {"GET", abc + "\r\n", "abc", "without its last chunk"},
        {"GET", abc + "\r\n0\r\n", "abc", "without its last chunk"},
        {"GET", abc + "\r\n0\n\n", "abc", "broken line"},
        {"GET", abc + "\r\n-1\r\nx", "abc", "broken chunk size"},
        {"GET", abc + "\r\n10000000000000001\r\nx", "abc", "broken chunk size"},
        {"GET", abc + "\r\n4000001\r\nx", "abc", "longer than 67108864 bytes"},
        {"GET", abc + "\r\n1;" + many, "abc", "more than 16384 bytes of chunk extensions"},
        {"GET", abc + "\r\n0\r\n" + repeated(2000, "T: 0123456789\r\n"), "abc", "extensions and trailers"},
        {"GET", chunked + repeated(2000, "1;0123456789\r\nx\r\n"), std::string(1489, 'x'), "extensions"},
        {"GET", "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", "before",
         "not supported: gzip, chunked"},
        {"GET", sized("-5"), "before", "bad Content-Length: -5"},
        {"GET", sized("3\r\nContent-Length: 4"), "before", "bad Content-Length: 4"},
        {"GET", sized("3, 3"), "abc", "200 OK"},
        {"GET", sized("67108865"), "before", "longer than 67108864 bytes"},
        {"GET", sized("99999999999999999999"), "before", "longer than 67108864 bytes"},
        {"GET", repeated(16, earlyHints) + answer("200 OK", "late"), "late", "200 OK"},
        {"GET", repeated(17, earlyHints), "before", "more than 16 interim answers"},
        {"GET", "HTTP/1.1 200 OK\r\n" + repeated(60, many + "\n"), "before", "header is too long"},
        {"GET", "HTTP/1.1 200 OK\r\nContent-Type", "before", "header is cut short"},
        {"GET", "HTTP/1.1 -10 OK\r\n\r\n", "before", "no HTTP status"},
        {"GET", "HTTP/1.1 200 OK\r\n\rContent-Length: 9\r\n\r\n", "before", "broken header line"},
    };
    for (const auto& row : table) {
        const RawPeer peer = registry(row.answer);
        const LogCapture log;
        EXPECT_EQ(std::isdigit(row.outcome[0]) != 0, send(row.method, "/a", "")) << row.answer;
        EXPECT_EQ(row.body, body) << row.answer;
        EXPECT_TRUE(log.contains(row.outcome)) << row.answer;
    }
}

TEST_F(HttpPathTest, BodiesAreBounded) {
    const std::string tooLong((64U << 20) + 1, 'x');
    const auto zipped = Nubo::Simulator::HttpAnswer_t::gzip(tooLong).body;
    for (const std::string& text :
         {"HTTP/1.1 200 OK\r\n\r\n" + tooLong, answer("200 OK", zipped, "Content-Encoding: gzip\r\n"),
          "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4000000\r\n" + tooLong.substr(1) +
              "\r\n1\r\nx"}) {
        const RawPeer peer = registry(text);
        const LogCapture log(Poco::Message::PRIO_ERROR);
        EXPECT_FALSE(send("GET", "/a", ""));
        EXPECT_LE(63U << 20, body.size());
        EXPECT_GE(64U << 20, body.size());
        EXPECT_TRUE(log.contains("body is longer than 67108864 bytes"));
    }
}

/// What keeps a request from ending: each begins one, whose answer is then awaited for ever.
TEST_F(HttpPathTest, RequestsEndByTimeAndByShutdown) {
    Poco::Net::ServerSocket hole;  // with room for one connection that nobody accepts
    hole.bind(Poco::Net::SocketAddress("127.0.0.1", 0));
    hole.listen(0);
    const Poco::Net::StreamSocket filler(hole.address());
    const HungNameServer names;
    const std::string start = "HTTP/1.1 200 OK\r\n";
    const struct {
        std::string name, host, answer, drip, line;
    } table[] = {
        {"connecting", "127.0.0.1", "", "", "connect timed out: 127.0.0.1"},
        {"resolving", HUNG, "", "", "look-up not finished in time: hung.example"},
        {"silent", "127.0.0.1", "", "", "answer not finished in time by 127.0.0.1"},
        {"dripping header", "127.0.0.1", start, "x", "answer not finished in time"},
        {"dripping body", "127.0.0.1", start + "\r\n", "x", "answer not finished in time"},
        {"endless chunks", "127.0.0.1", start + "Transfer-Encoding: chunked\r\n\r\n", "1\r\nx\r\n",
         "answer not finished in time"},
        {"not reading", "127.0.0.1", "", "", "answer not finished in time"},
    };
    for (const auto& row : table)
        for (const bool byShutdown : {false, true}) {
            SCOPED_TRACE(row.name + (byShutdown ? ", shutdown" : ", time"));
            const RawPeer peer({row.answer}, RawPeer::Then::Keep);
            auto own = std::make_unique<ClientLib>(&sink, parameters);
            const auto time = row.name == "not reading" ? 3000ms : 300ms;  // much is written before it stalls
            own->setRequestTimeout(byShutdown ? std::chrono::milliseconds::max() : time);
            const LogCapture log(Poco::Message::PRIO_INFORMATION);
            const auto port =
                row.name == "connecting" || row.name == "not reading" ? hole.address().port() : peer.port();
            std::optional<Poco::Net::StreamSocket> accepted;
            if (row.name == "not reading") accepted = hole.acceptConnection();
            const std::string content(row.name == "not reading" ? 8U << 20 : 0, 'x');
            auto done = std::async(std::launch::async, [&] {
                return own->sendRequest(row.host, port, response, body, "PUT", "/a", content);
            });
            EXPECT_TRUE(log.waitFor("sendRequest: PUT"));
            if (byShutdown) {
                own->shutdown();
                own.reset();  // which nothing touches any more
            } else if (!row.drip.empty()) {
                EXPECT_TRUE(peer.dripUntil(0, row.drip, done));
            }
            EXPECT_FALSE(done.get());
            EXPECT_TRUE(log.contains("Error: sendRequest: sending request /a: "));
            EXPECT_TRUE(log.contains(byShutdown ? "ended by this side" : row.line))
                << logged(log).substr(0, 999);
        }
    client.shutdown();
    const LogCapture log(Poco::Message::PRIO_ERROR);
    EXPECT_FALSE(send("GET", "/later", ""));
    EXPECT_TRUE(log.contains("/later: Software caused connection abort: ended by this side"))
        << logged(log).substr(0, 999);
}

TEST_F(HttpPathTest, NamesAreLookedUpOnlyWhereTheyMay) {
    using Names = Nubo::Client::ConnectBudget::Names;
    constexpr int LONG = 30000;
    const struct {
        std::string host;
        Names names;
        int milliseconds;
        std::string outcome;  // a part
    } table[] = {
        {"127.1", Names::LiteralsAndLocalhostOnly, LONG, "127.0.0.1:80"},
        {"::1", Names::LiteralsAndLocalhostOnly, LONG, "[::1]:80"},
        {"LocalHost", Names::LiteralsAndLocalhostOnly, LONG, "127.0.0.1:80"},
        {HUNG, Names::LiteralsAndLocalhostOnly, LONG, "names are looked up on the reconnect thread only"},
        {HUNG, Names::MayBeLookedUp, 1, "Timeout"},
    };
    {
        const HungNameServer server;
        for (const auto& row : table)
            EXPECT_NE(std::string::npos, lookUp(row.host, row.names, row.milliseconds).find(row.outcome))
                << row.host;
        EXPECT_TRUE(eventually([] { return HungNameServer::waiting() == 1; }));
        for (int i = 1; i < 16; ++i) lookUp(HUNG, Names::MayBeLookedUp, 1);
        EXPECT_TRUE(eventually([] { return HungNameServer::waiting() == 16; }));
        EXPECT_EQ("DNS error: too many names are being looked up: hung.example",
                  lookUp(HUNG, Names::MayBeLookedUp, LONG));
    }
    // The threads have gone, or are about to: a place is free again, and the system's own answer is told.
    const std::string temporary = "DNS error: Temporary DNS error while resolving: hung.example";
    EXPECT_TRUE(eventually([&] { return lookUp(HUNG, Names::MayBeLookedUp, LONG) == temporary; }));
    const auto v6 = RawPeer::at("::1", answer("200 OK", ""), RawPeer::Then::Close);
    if (!v6) GTEST_SKIP() << "no IPv6 on this machine";
    EXPECT_TRUE(client.sendRequest("localhost", v6->port(), response, body, "GET", "/a", ""));
}

/// Nothing of the sender's choice stands in a request beside its method, path, host and user agent.
TEST_F(HttpPathTest, NothingIsInjectedIntoRequests) {
    const RawPeer victim({answer("200 OK", "hit")});
    const std::string base = "http://127.0.0.1:" + std::to_string(victim.port());
    const std::string attack = R"(/a?b HTTP/1.1\r\nX: y\r\n\r\nDELETE /victim HTTP/1.1\r\n\r\n)";
    for (const std::string& redirection :
         {choice(base + attack), choice(base + "/a?b\\u0000"), choice(base + "/a b"),
          choice(base + "/a\\u007F"), choice("http://127.0.0.1\\r\\nX: y/"), choice("http://a(b)/c"),
          choice("ftp://127.0.0.1/a"), choice("http:///a"), location(base + "/a?=?UTF-8?Q?=0D=0AX:y?="),
          location(base + "/a?b\r\n c"), location("gopher://127.0.0.1/a"), location("//127.0.0.1/a")}) {
        const RawPeer peer = registry(redirection);
        const LogCapture log(Poco::Message::PRIO_ERROR);
        EXPECT_FALSE(send("GET", "/a", "")) << redirection;
        EXPECT_EQ(1U, log.lines().size()) << redirection;
        EXPECT_TRUE(log.contains("Error: sendRequest: sending request /"));
    }
    const std::string good = "127.0.0.1", bad = "x\r\nX: y";
    const struct {
        std::string host, method, uri, useragent;
    } table[] = {{good, "GET", "/a b", ""},     {good, "GET", "/" + bad, ""}, {good, "GET", "\x7F", ""},
                 {good, "G ET", "/a", ""},      {good, "", "/a", ""},         {good, bad, "/a", ""},
                 {good + bad, "GET", "/a", ""}, {"", "GET", "/a", ""},        {good + " x", "GET", "/a", ""},
                 {good, "GET", "/a", bad}};
    for (const auto& row : table) {
        const LogCapture log(Poco::Message::PRIO_ERROR);
        parameters.useragent = row.useragent;
        EXPECT_FALSE(ClientLib(&sink, parameters)
                         .sendRequest(row.host, victim.port(), response, body, row.method, row.uri, ""));
        EXPECT_TRUE(log.contains("Invalid argument: not a ")) << row.uri;
    }
    EXPECT_TRUE(victim.requests().empty());
}

/// A peer that closes while the request is sent must not end the process by SIGPIPE.
TEST(HttpPathDeathTest, NoSignalWhenThePeerCloses) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto request = [] {
        std::signal(SIGPIPE, SIG_DFL);
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        ::pthread_sigmask(SIG_UNBLOCK, &pipe, nullptr);  // POCO blocks it
        Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0));
        std::thread closing([&] { server.acceptConnection().close(); });
        Nubo::Client::MessageQueue sink;
        Poco::Net::HTTPResponse response;
        std::string body;
        const bool sent = ClientLib(&sink, {}).sendRequest("127.0.0.1", server.address().port(), response,
                                                           body, "PUT", "/a", std::string(32U << 20, 'x'));
        closing.join();
        std::_Exit(sent ? 1 : 0);
    };
    EXPECT_EXIT(request(), testing::ExitedWithCode(0), "");
}

TEST_F(HttpPathTest, RedirectionsAreReportedOrFollowedOnce) {
    const auto choices = [](const std::string& json) { return answer("300 Multiple Choices", json); };
    const RawPeer other({answer("200 OK", "found"), answer("404 No", "gone"),
                         location("http://127.0.0.1:1/never"), answer("200 OK", "found")});
    const std::string base = "http://127.0.0.1:" + std::to_string(other.port());
    const std::string path = "/M/t/?$fields=a,b";
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
        {choice(base + path), base + path, true, true, "found", to},
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

TEST_F(HttpPathTest, JsonOfTooManyValuesIsRefusedUnparsed) {
    const std::pair<std::string, std::size_t> table[] = {{"[]", 1},
                                                         {"{ }", 1},
                                                         {"[ [ ] , { } ]", 3},
                                                         {R"({"a,[\\\",":[1,"]"],"b":{"c":{}}})", 6},
                                                         {"[[[[]]]]", 4}};
    for (const auto& [text, count] : table) EXPECT_EQ(count, Nubo::Client::countJsonValues(text)) << text;
    std::string values(std::size_t{2} << 20, '1');
    for (std::size_t i = 0; i < values.size(); i += 2) values[i] = ',';
    for (const auto& [text, isRead] : {std::pair{"{\"data\":[1" + values + "]}", false},
                                       std::pair{"{\"data\":\"" + values + "\"}", true}}) {
        const RawPeer peer = registry(answer("200 OK", text));
        const LogCapture log;
        EXPECT_EQ(isRead, !client.getResourceElement("/a").isNull());
        EXPECT_EQ(!isRead, log.contains("exception: JSON Exception: more than 1048576 values"));
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
