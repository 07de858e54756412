#ifndef CLIENTLIB_SRC_HTTPEXCHANGE_H
#define CLIENTLIB_SRC_HTTPEXCHANGE_H

#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/URI.h>

#include <string>

#include "BoundedSession.h"

namespace Nubo::Client {

/// What an application asks for, and the parts of a request's header.
struct HttpQuestion_t {
    const std::string& method;
    const std::string& path;  ///< with its query
    const std::string& content;
    const std::string& useragent;  ///< may be empty
};

/// The header of the request, without its Host.
/// @throws Poco::InvalidArgumentException when a part cannot stand where it has to: it is not sent then
Poco::Net::HTTPRequest requestFor(const HttpQuestion_t& question);

/// Sends the request and reads the answer to it, on an open session. @return what sendRequest() returns.
/// @param body  what was read of the body, also when this throws; left as it is when none was
/// @param redirection  set when the answer redirects, else left as it is
/// @throws Poco::Exception when the exchange fails, the body is not whole, or the redirection is not one to a
///         host, a port and a path of HTTP
bool exchange(BoundedSession& session, Poco::Net::HTTPRequest& request, Poco::Net::HTTPResponse& response,
              const std::string& content, std::string& body, Poco::URI& redirection);

}  // namespace Nubo::Client

#endif
