#ifndef ZOLCTL_REQUEST_H
#define ZOLCTL_REQUEST_H

#include <Nubo/Client/ClientLib.h>
#include <Poco/Dynamic/Var.h>

#include <string>

namespace ZolCtl {

/// After how much silence the registry and the services are pinged.
constexpr uint32_t PING_AFTER_MS = 5000;

Nubo::Client::ClientLib::ClientLibParameters clientParameters();

/// Path and query of what the user wrote: a path, its '/' in front or not, or a whole URL.
/// @throws UsageError when it is none
std::string requestPath(const std::string& argument);

/// The first segment of a path. @throws UsageError when there is none, or one that no client can subscribe to
std::string serviceOf(const std::string& path);
/// @throws UsageError when it is no name that the library can follow
std::string serviceName(const std::string& argument);

/// One HTTP exchange through the registry. @return the answer's data
/// @throws Failure with the cause when there is no such answer
Poco::Dynamic::Var request(const Nubo::Client::ClientLib& client, const std::string& method,
                           const std::string& path, const std::string& content = "");

/// JSON as an argument of the command: the text itself, or "-" for stdin.
/// @throws UsageError when it is no JSON object or array
std::string jsonArgument(const std::string& argument);

}  // namespace ZolCtl

#endif
