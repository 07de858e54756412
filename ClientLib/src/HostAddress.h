#ifndef CLIENTLIB_SRC_HOSTADDRESS_H
#define CLIENTLIB_SRC_HOSTADDRESS_H

#include <string>

namespace Nubo::Client {

/// The address as POCO takes it: an IPv6 literal without its brackets, anything else as it is.
inline std::string bareHost(const std::string& address) {
    const bool bracketed = address.size() > 2 && address.front() == '[' && address.back() == ']';
    return bracketed ? address.substr(1, address.size() - 2) : address;
}

}  // namespace Nubo::Client

#endif
