#include <Nubo/Net/HTTPEncoderDecoder.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>

#include <string>

namespace Nubo::Net {
namespace {

const char* const CONTENT_ENCODING = "Content-Encoding";
const char* const ACCEPT_ENCODING = "Accept-Encoding";
constexpr int RAW_DEFLATE_WINDOW_BITS = -15;  // zlib: negative for data without a wrapping

/// Whether one item of a coding list, "gzip" or "gzip;q=0.5", names `coding` and does not refuse it.
bool allows(const std::string& item, const std::string& coding) {
    const Poco::StringTokenizer parts(item, ";", Poco::StringTokenizer::TOK_TRIM);
    if (parts.count() == 0 || Poco::icompare(parts[0], coding) != 0) return false;
    double weight = 1;
    if (parts.count() > 1 && Poco::icompare(parts[1], 0, 2, "q=") == 0) {
        Poco::NumberParser::tryParseFloat(parts[1].substr(2), weight);
    }
    return weight > 0;
}

bool lists(const std::string& codings, const std::string& coding) {
    const Poco::StringTokenizer items(codings, ",", Poco::StringTokenizer::TOK_TRIM);
    for (const std::string& item : items) {
        if (allows(item, coding)) return true;
    }
    return false;
}

bool listsGzip(const std::string& codings) {
    return lists(codings, "gzip") || lists(codings, "x-gzip");
}

/// How the request lets a body be written: its own coding, else the one that it accepts for the answer.
std::string codingsToWrite(const Poco::Net::HTTPRequest& request) {
    return request.get(CONTENT_ENCODING, request.get(ACCEPT_ENCODING, ""));
}

/// The first byte of the zlib wrapping has 8 in its lower half (RFC 1950). Bare deflate data would begin so
/// only with a stored block whose padding is not zero, which nobody writes.
bool hasZlibWrapping(int firstByte) {
    return (firstByte & 0x0f) == 8;
}

/// Makes a damaged body throw where it would look like a short one. A body that is cut before its first
/// decoded byte reads as empty at first; a second attempt throws there, but not at a body that really is
/// empty.
void failWhenDamaged(std::istream& inflater) {
    inflater.exceptions(std::ios::badbit);
    if (inflater.peek() != std::istream::traits_type::eof()) return;
    inflater.clear();
    inflater.peek();
}

}  // namespace

HTTPEncoderDecoder::HTTPEncoderDecoder(const Poco::Net::HTTPRequest& request,
                                       Poco::Net::HTTPResponse& response)
    : m_isGzipEncoded(listsGzip(response.get(CONTENT_ENCODING, ""))),
      m_isDeflateEncoded(!m_isGzipEncoded && lists(response.get(CONTENT_ENCODING, ""), "deflate")),
      m_encodeGzip(listsGzip(codingsToWrite(request))),
      m_encodeDeflate(!m_encodeGzip && lists(codingsToWrite(request), "deflate")) {}

HTTPEncoderDecoder::~HTTPEncoderDecoder() = default;

std::istream& HTTPEncoderDecoder::getInputStream(std::istream& raw) {
    if (!m_isGzipEncoded && !m_isDeflateEncoded) return raw;
    const int firstByte = raw.peek();
    if (firstByte == std::istream::traits_type::eof()) return raw;
    if (m_isGzipEncoded) {
        m_inStream = new Poco::InflatingInputStream(raw, Poco::InflatingStreamBuf::STREAM_GZIP);
    } else if (hasZlibWrapping(firstByte)) {
        m_inStream = new Poco::InflatingInputStream(raw, Poco::InflatingStreamBuf::STREAM_ZLIB);
    } else {
        m_inStream = new Poco::InflatingInputStream(raw, RAW_DEFLATE_WINDOW_BITS);
    }
    failWhenDamaged(*m_inStream);
    return *m_inStream;
}

std::ostream& HTTPEncoderDecoder::getOutputStream(std::ostream& raw) {
    if (!m_encodeGzip && !m_encodeDeflate) return raw;
    m_outStream = new Poco::DeflatingOutputStream(
        raw, m_encodeGzip ? Poco::DeflatingStreamBuf::STREAM_GZIP : Poco::DeflatingStreamBuf::STREAM_ZLIB);
    return *m_outStream;
}

int HTTPEncoderDecoder::close() {
    if (!m_outStream.isNull()) m_outStream->close();
    return 0;
}

}  // namespace Nubo::Net
