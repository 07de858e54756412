#ifndef CLIENTLIB_SRC_NAMELOOKUP_H
#define CLIENTLIB_SRC_NAMELOOKUP_H

#include <Poco/Net/SocketAddress.h>
#include <Poco/Types.h>

#include <string>
#include <vector>

#include "ConnectBudget.h"
#include "WaitBounds.h"

namespace Nubo::Client {

/// The addresses of `host` in the order in which to try them, at least one. No name server is asked for a
/// literal address and for "localhost" (RFC 6761, 6.3). The system's look-up of any other name can be neither
/// bounded nor ended: it is made on a thread of its own, which is left behind when `bounds` end the wait.
/// @throws Poco::Net::HostNotFoundException and others of Poco::Net::DNS when there is none, or none may be
///         looked up; Poco::Net::DNSException when Limits::MAX_LOOKUPS are in progress; what
///         WaitBounds::await() throws
std::vector<Poco::Net::SocketAddress> addressesOf(const std::string& host, Poco::UInt16 port,
                                                  ConnectBudget::Names names, const WaitBounds& bounds);

}  // namespace Nubo::Client

#endif
