// The HTTP path: an answer of any kind is read within bounds, reported as good only when it is whole, and a
// redirection puts nothing into the request that follows it.
// Input: 1 in the first byte's lowest bit asks by HEAD; the rest is the answer, up to the end of the stream.

#include <Poco/Exception.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include "Fuzz.h"
#include "HttpExchange.h"
#include "HttpSyntax.h"
#include "Limits.h"

namespace {

using namespace Nubo::Client;

const std::string NONE;
const std::string CONTENT = "{}";

/// What came of one exchange with a peer that sends an answer and then ends its stream.
struct Outcome_t {
    bool good = false;
    Poco::Net::HTTPResponse response = {};
    std::string body = {};
    Poco::URI redirection = {};
    std::string sent = {};
    std::size_t left = 0;  // bytes of the answer that were not read
};

std::string readAll(int descriptor) {
    std::string all;
    char room[4096];
    for (auto size = ::read(descriptor, room, sizeof room); size > 0;
         size = ::read(descriptor, room, sizeof room))
        all.append(room, static_cast<std::size_t>(size));
    return all;
}

void exchangeOn(BoundedSession& session, const std::string& method, const std::string& path,
                Outcome_t& outcome) {
    try {
        auto request = requestFor({method, path, CONTENT, NONE});
        outcome.good =
            exchange(session, request, outcome.response, CONTENT, outcome.body, outcome.redirection);
    } catch (const Poco::TimeoutException&) {
        require(false, "a stream that ends is read in time");
    } catch (const Poco::Exception&) {
        // Any failure is told so.
    }
}

Outcome_t run(const std::string& host, const std::string& method, const std::string& path,
              const std::string& answer) {
    int ends[2];
    require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "there are sockets");
    require(
        ::send(ends[1], answer.data(), answer.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(answer.size()),
        "an answer fits the socket's buffer");
    ::shutdown(ends[1], SHUT_WR);
    Outcome_t outcome;
    {
        const auto bounds =
            std::make_shared<WaitBounds>(std::chrono::seconds(10), WaitBounds::Cancellations{});
        BoundedSession session(host, 80, bounds);
        session.adopt(ends[0]);
        exchangeOn(session, method, path, outcome);
        if (outcome.good)
            while (session.readByte() >= 0) ++outcome.left;
    }
    outcome.sent = readAll(ends[1]);
    ::close(ends[1]);
    return outcome;
}

bool endsWithStream(const Outcome_t& outcome, const std::string& method) {
    const int status = outcome.response.getStatus();
    const bool hasBody = method != "HEAD" && status >= 200 && status != 204 && status != 304;
    const bool isLeft = status == 307 && outcome.response.has("Location");
    return hasBody && !isLeft && !outcome.response.has("Content-Length") &&
           !outcome.response.has("Transfer-Encoding");
}

/// One header, of the lines that the library writes, and the content: nothing else has come in.
void checkRequest(const std::string& request, const std::string& method, const std::string& path) {
    const std::string first = method + " " + path + " HTTP/1.1\r\n";
    require(request.compare(0, first.size(), first) == 0, "the request line is method and path");
    require(std::count(first.begin(), first.end(), ' ') == 2, "the request line has three words");
    const auto end = request.find("\r\n\r\n");
    require(end != std::string::npos && request.substr(end + 4) == CONTENT,
            "the content is all behind the header");
    require(std::count(request.begin(), request.end(), '\n') == 6, "the header has four fields");
    require(request.find("\r\nHost: ") != std::string::npos, "one of them is the host");
}

/// As ClientLib::sendRequest() follows it.
void follow(const Poco::URI& redirection, const std::string& method) {
    const std::string path = redirection.getPathAndQuery();
    if (path.empty() || path.front() != '/' || !HttpSyntax::isHost(redirection.getHost())) return;
    const std::string sent = run(redirection.getHost(), method, path, "").sent;
    if (!sent.empty()) checkRequest(sent, method, path);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string method = (data[0] & 1) != 0 ? "HEAD" : "GET";
    const std::string answer(reinterpret_cast<const char*>(data) + 1, size - 1);
    const Outcome_t outcome = run("127.0.0.1", method, "/a", answer);
    checkRequest(outcome.sent, method, "/a");
    require(outcome.body.size() <= Limits::MAX_BODY_BYTES, "a body is within its limit");
    if (!outcome.redirection.empty()) follow(outcome.redirection, method);
    if (!outcome.good || endsWithStream(outcome, method)) return 0;
    const std::string cut = answer.substr(0, answer.size() - outcome.left - 1);
    require(!run("127.0.0.1", method, "/a", cut).good, "an answer without its last byte is not whole");
    return 0;
}
