#ifndef NUBO_NET_BUFFEREDBYTES_H
#define NUBO_NET_BUFFEREDBYTES_H

#include <Poco/Net/WebSocket.h>

#include <string>

namespace Nubo::Net {

/// Takes what POCO has read behind the upgrade answer and keeps in the WebSocket's own buffer, where waiting
/// for the descriptor would not notice it. Never blocks. To be called once, before the descriptor is read.
std::string takeBufferedBytes(Poco::Net::WebSocket& socket);

}  // namespace Nubo::Net

#endif
