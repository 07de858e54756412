#ifndef NUBO_SIMULATOR_FAULTS_H
#define NUBO_SIMULATOR_FAULTS_H

#include <Poco/Types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::Simulator {

/// How an open WebSocket ends.
struct Ending_t {
    enum class Kind {
        CloseFrame,   ///< a close frame, then the end of the stream
        EndOfStream,  ///< the end of the stream without a close frame
        Reset         ///< a TCP reset
    };

    /// A close frame with `code` and `reason` (at most 123 bytes); code 0: a close frame without a body.
    static Ending_t closeFrame(Poco::UInt16 code = 1000, const std::string& reason = "");
    static Ending_t endOfStream();
    static Ending_t reset();

    Kind kind = Kind::EndOfStream;
    Poco::UInt16 code = 0;
    std::string reason;
};

/// An answer to an HTTP request, sent as given: nothing is checked.
struct HttpAnswer_t {
    using Headers = std::vector<std::pair<std::string, std::string>>;

    /// An answer whose body is `body` compressed with gzip, with the Content-Encoding header.
    static HttpAnswer_t gzip(const std::string& body);

    int status = 200;
    std::string body = {};
    /// Added to, or in place of, what is sent anyway: Content-Length (the body's size), Content-Type
    /// (application/json; charset=utf-8), Connection. A Content-Length above the body's size makes a body
    /// that is cut short.
    Headers headers = {};
};

/// Something that an endpoint does instead of answering a request properly.
struct Fault_t {
    enum class Kind {
        None,        ///< the proper answer (which may come late)
        Answer,      ///< the HTTP answer `answer`, then the end of the connection
        NoAnswer,    ///< nothing: the connection stays open until the peer ends it or the endpoint stops
        Raw,         ///< the bytes `bytes`, then the end of the connection
        HangUp,      ///< the end of the connection, without an answer
        Reset,       ///< a TCP reset, without an answer
        OpenAndEnd,  ///< upgrades only: the proper answer and, right behind it, `ending`
    };

    static constexpr int ALWAYS = -1;  ///< number of times: until told otherwise

    static Fault_t answering(const HttpAnswer_t& answer);
    /// A refusal by a bare status: 401, 403, 404, 503, ...
    static Fault_t status(int status);
    static Fault_t noAnswer();
    static Fault_t garbage(const std::string& bytes);
    static Fault_t hangUp();
    static Fault_t reset();
    static Fault_t openAndEnd(const Ending_t& ending);
    /// The proper answer, `wait` late.
    static Fault_t late(std::chrono::milliseconds wait);

    /// The same fault, `wait` later: Fault_t::hangUp().after(2s).
    Fault_t after(std::chrono::milliseconds wait) const;

    Kind kind = Kind::None;
    HttpAnswer_t answer = {};
    std::string bytes = {};
    Ending_t ending = {};
    std::chrono::milliseconds delay{0};  ///< before anything else is done about the request
};

}  // namespace Nubo::Simulator

#endif
