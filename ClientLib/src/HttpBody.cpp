#include "HttpBody.h"

#include <Poco/Net/HTTPMessage.h>
#include <Poco/Net/MessageHeader.h>
#include <Poco/Net/NetException.h>
#include <Poco/String.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "Limits.h"

namespace Nubo::Client {

using Poco::Net::HTTPMessage;
using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::MessageException;

namespace {

constexpr const char* DECIMAL = "0123456789";
constexpr const char* HEXADECIMAL = "0123456789abcdefABCDEF";
constexpr std::size_t MAX_DIGITS = 16;  // so that the number fits

[[noreturn]] void failTooLong() {
    throw MessageException("body is longer than " + std::to_string(Limits::MAX_BODY_BYTES) + " bytes");
}

/// The values of all fields of that name, as one list; whole elements, as they stand there.
std::vector<std::string> elements(const HTTPResponse& response, const std::string& name) {
    std::vector<std::string> all;
    for (auto field = response.find(name); field != response.end(); ++field) {
        if (Poco::icompare(field->first, name) != 0) break;
        std::vector<std::string> some;
        Poco::Net::MessageHeader::splitElements(field->second, some, false);
        if (some.empty()) some.emplace_back();
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

bool hasNoBody(const HTTPRequest& request, const HTTPResponse& response) {
    return request.getMethod() == HTTPRequest::HTTP_HEAD || response.getStatus() < HTTPResponse::HTTP_OK ||
           response.getStatus() == HTTPResponse::HTTP_NO_CONTENT ||
           response.getStatus() == HTTPResponse::HTTP_NOT_MODIFIED;
}

bool isChunked(const HTTPResponse& response) {
    const auto codings = elements(response, HTTPMessage::TRANSFER_ENCODING);
    if (codings.empty()) return false;
    if (codings.size() == 1 && Poco::icompare(codings[0], HTTPMessage::CHUNKED_TRANSFER_ENCODING) == 0)
        return true;
    throw MessageException("transfer coding not supported: " +
                           Poco::cat(std::string(", "), codings.begin(), codings.end()));
}

/// A length that is given several times is accepted when it is the same (RFC 9110, 8.6).
std::size_t lengthIn(const std::vector<std::string>& values) {
    for (const std::string& value : values) {
        const bool isNumber = !value.empty() && value.find_first_not_of(DECIMAL) == std::string::npos;
        if (!isNumber || value != values.front()) throw MessageException("bad Content-Length: " + value);
    }
    const std::string& digits = values.front();
    if (digits.size() > MAX_DIGITS) failTooLong();
    return std::strtoull(digits.c_str(), nullptr, 10);
}

}  // namespace

HttpBody::HttpBody(BoundedSession& session, const HTTPRequest& request, const HTTPResponse& response)
    : _session(session), _framing(Framing::Length) {
    if (hasNoBody(request, response)) return;
    const bool chunked = isChunked(response);  // a Content-Length beside it does not count (RFC 9112, 6.3)
    const auto lengths = elements(response, HTTPMessage::CONTENT_LENGTH);
    if (chunked) {
        _framing = Framing::Chunks;
    } else if (!lengths.empty()) {
        _whole = _left = lengthIn(lengths);
        if (_whole > Limits::MAX_BODY_BYTES) failTooLong();
    } else {
        _framing = Framing::UntilClose;
        _left = Limits::MAX_BODY_BYTES + 1;
    }
}

void HttpBody::finish() {
    while (!traits_type::eq_int_type(underflow(), traits_type::eof())) setg(nullptr, nullptr, nullptr);
    if (_failure) std::rethrow_exception(_failure);
}

HttpBody::int_type HttpBody::underflow() {
    if (gptr() != egptr()) return traits_type::to_int_type(*gptr());
    if (_ended) return traits_type::eof();
    try {
        const std::size_t size = readSome();
        setg(_room.data(), _room.data(), _room.data() + size);
        _ended = size == 0;
    } catch (...) {
        _failure = std::current_exception();
        _ended = true;
    }
    return _ended ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

// @return 0 at the end of the body
std::size_t HttpBody::readSome() {
    if (_left == 0 && (_framing != Framing::Chunks || !beginChunk())) return 0;
    const std::size_t size = _session.readBody(_room.data(), std::min(_room.size(), _left));
    if (size == 0 && _framing != Framing::UntilClose) failCutShort();
    _received += size;
    _left -= size;
    if (_received > Limits::MAX_BODY_BYTES) failTooLong();
    return size;
}

// @return false when that was the last chunk, of which the trailers have been read, too
bool HttpBody::beginChunk() {
    if (_received > 0) endChunk();
    const std::string line = readLine();
    const std::size_t digits = std::min(line.find_first_not_of(HEXADECIMAL), line.size());
    const std::size_t extension = line.find_first_not_of(" \t", digits);
    const bool hasEnd = digits == line.size() || (extension != std::string::npos && line[extension] == ';');
    if (digits == 0 || digits > MAX_DIGITS || !hasEnd) throw MessageException("broken chunk size");
    spendOnExtras(line.size() - digits);
    _left = std::strtoull(line.c_str(), nullptr, 16);
    if (_left > Limits::MAX_BODY_BYTES) failTooLong();
    if (_left > 0) return true;
    for (std::string trailer = readLine(); !trailer.empty(); trailer = readLine())
        spendOnExtras(trailer.size());
    return false;
}

void HttpBody::endChunk() {
    if (_session.readByte() != '\r' || _session.readByte() != '\n')
        throw MessageException("broken end of a chunk");
}

// Without its end, which is CR LF and nothing else.
std::string HttpBody::readLine() {
    std::string line;
    for (;;) {
        const int byte = _session.readByte();
        if (byte < 0) failCutShort();
        const bool afterReturn = !line.empty() && line.back() == '\r';
        if (afterReturn != (byte == '\n')) throw MessageException("broken line in a chunked body");
        if (afterReturn) break;
        line += static_cast<char>(byte);
        if (line.size() > Limits::MAX_CHUNK_EXTRAS) spendOnExtras(line.size());
    }
    line.pop_back();
    return line;
}

void HttpBody::spendOnExtras(std::size_t size) {
    _extras += size;
    if (_extras > Limits::MAX_CHUNK_EXTRAS)
        throw MessageException("more than " + std::to_string(Limits::MAX_CHUNK_EXTRAS) +
                               " bytes of chunk extensions and trailers");
}

void HttpBody::failCutShort() const {
    if (_framing == Framing::Chunks)
        throw MessageException("chunked body ends after " + std::to_string(_received) +
                               " bytes without its last chunk");
    throw MessageException("body ends after " + std::to_string(_received) + " of " + std::to_string(_whole) +
                           " bytes");
}

}  // namespace Nubo::Client
