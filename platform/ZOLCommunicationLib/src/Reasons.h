#ifndef NUBO_NET_REASONS_H
#define NUBO_NET_REASONS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace Nubo::Net::Reasons {

// The texts that a closed event gives as its Reason, all of them.

std::string closedByPeer(std::uint16_t code);   // closed by peer (1001 going away)
std::string closeAnswered(std::uint16_t code);  // closed by this side, answered by peer (1000 normal closure)
std::string closeUnanswered();                  // closed by this side, no answer within 1000 ms
std::string closeCut();                         // closed by this side, end of stream
std::string endOfStream();                      // end of stream
std::string receiveFailed(int error);           // connection reset by peer; receive failed: <system's text>
std::string sendFailed(const std::string& why);      // send failed: <why>
std::string sendStalled();                           // send stalled
std::string frameStalled();                          // frame stalled
std::string messageIncomplete();                     // message not complete within 60000 ms
std::string tooManyObjects();                        // more than 16384 JSON objects in one message
std::string noPong(std::chrono::milliseconds time);  // no pong within 5000 ms
std::string protocolError(std::uint16_t code, const char* what);  // protocol error: <what>; message too big
std::string managerStopped();                                     // connection manager stopped
std::string internalError(const char* what);                      // internal error: <what>

std::string systemText(int error);  // the system's text for an errno

}  // namespace Nubo::Net::Reasons

#endif
