#ifndef CLIENTLIB_SRC_HTTPBODY_H
#define CLIENTLIB_SRC_HTTPBODY_H

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>

#include <array>
#include <cstddef>
#include <exception>
#include <streambuf>
#include <string>

#include "BoundedSession.h"

namespace Nubo::Client {

/// The body of an answer, freed of its framing (RFC 9112, 6.3 and 7.1), within Limits. A stream says no more
/// than that it has ended; finish() tells whether the body was whole.
class HttpBody : public std::streambuf {
public:
    /// @throws Poco::Net::MessageException for a Content-Length that is no number in range, and for a
    ///         transfer coding other than chunked
    HttpBody(BoundedSession& session, const Poco::Net::HTTPRequest& request,
             const Poco::Net::HTTPResponse& response);

    /// Reads and drops what is left. @throws what has kept the body from being whole, of the kinds that
    /// BoundedSession::receiveResponse() throws
    void finish();

protected:
    int_type underflow() override;

private:
    enum class Framing { Length, Chunks, UntilClose };

    std::size_t readSome();
    bool beginChunk();
    void endChunk();
    std::string readLine();
    void spendOnExtras(std::size_t size);
    [[noreturn]] void failCutShort() const;

    BoundedSession& _session;
    Framing _framing;
    std::size_t _whole = 0;     // of Framing::Length: the Content-Length
    std::size_t _left = 0;      // of the content, of the chunk or, without a length, of what is accepted
    std::size_t _received = 0;  // content
    std::size_t _extras = 0;    // bytes of chunk extensions and trailers
    bool _ended = false;
    std::exception_ptr _failure;
    std::array<char, 8192> _room;
};

}  // namespace Nubo::Client

#endif
