#ifndef NUBO_NET_REFUSEDMESSAGE_H
#define NUBO_NET_REFUSEDMESSAGE_H

#include <stdexcept>

namespace Nubo::Net {

/// Thrown out of a data event: the connection that the message came on is ended, with close code 1008 and
/// this text as the closed event's Reason. Of this library only: what others throw is swallowed.
class RefusedMessage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace Nubo::Net

#endif
