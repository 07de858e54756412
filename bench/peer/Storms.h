#ifndef BENCH_PEER_STORMS_H
#define BENCH_PEER_STORMS_H

#include <string>

/// What hostile services send over and over, each kind by the name of its service.
namespace storms {

const std::string TINY_FRAMES = "StormTiny";      ///< texts of two bytes
const std::string MANY_OBJECTS = "StormObjects";  ///< 16 MiB of `{}` in one text
const std::string WIDE_JSON = "StormWide";        ///< 16 MiB of one array
const std::string BAD_TEXTS = "StormBad";         ///< small texts that are no JSON
const std::string PINGS = "StormPings";
const std::string LINE_ENDS =
    "StormLines";  ///< no WebSocket: each request is answered by 404, 16 MiB of line ends

/// The frames of a storm; empty when there is none of that name.
std::string frames(const std::string& name);

/// The answer to a request that does not ask for a WebSocket.
std::string lineEndsAnswer();

}  // namespace storms

#endif
