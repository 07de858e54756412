#ifndef NUBO_NET_HTTPENCODERDECODER_H
#define NUBO_NET_HTTPENCODERDECODER_H

#include <Nubo/Export.h>
#include <Poco/DeflatingStream.h>
#include <Poco/InflatingStream.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/SharedPtr.h>

#include <iosfwd>

namespace Nubo::Net {

/// The content codings of one HTTP exchange (RFC 9110, 8.4): gzip (also called x-gzip) and deflate, all other
/// codings being passed through. Used on one thread, for one exchange. Reads and changes neither message
/// after construction.
class ZOL_EXPORT HTTPEncoderDecoder {
public:
    /// Looks at the response's Content-Encoding, which decides how a body is read, and at the request, which
    /// decides how one is written: by its Content-Encoding if it has one, else by its Accept-Encoding (a
    /// coding with the weight 0 is refused). Letter case does not matter; gzip is preferred to deflate. Call
    /// it when the response's header has been received.
    HTTPEncoderDecoder(const Poco::Net::HTTPRequest& request, Poco::Net::HTTPResponse& response);
    virtual ~HTTPEncoderDecoder();
    HTTPEncoderDecoder(const HTTPEncoderDecoder&) = delete;
    HTTPEncoderDecoder& operator=(const HTTPEncoderDecoder&) = delete;

    /// The stream to read the decoded body from: `raw` itself when the body is not encoded or is empty, else
    /// an inflating stream over it, owned by this object and valid as long as both. The deflate coding is
    /// understood with and without the zlib wrapping (RFC 1950, RFC 1951). For an encoded body it blocks
    /// until the first decoded byte is there, and both this operation and reading the stream throw
    /// Poco::IOException when the body is damaged or cut short. Bytes behind the end of the encoded data may
    /// be left in `raw`.
    std::istream& getInputStream(std::istream& raw);

    /// The stream to write a body to: `raw` itself when it is not to be encoded, else a deflating stream over
    /// it, owned by this object; then close() must be called before `raw` ends.
    std::ostream& getOutputStream(std::ostream& raw);

    /// Writes what the encoding of a body still holds back. Returns 0, also when nothing is being written.
    int close();

private:
    // Fixed after construction.
    bool m_isGzipEncoded;
    bool m_isDeflateEncoded;
    bool m_encodeGzip;
    bool m_encodeDeflate;
    // Null until they are asked for.
    Poco::SharedPtr<Poco::DeflatingOutputStream> m_outStream;
    Poco::SharedPtr<Poco::InflatingInputStream> m_inStream;
};

}  // namespace Nubo::Net

#endif
