#ifndef NUBO_SIMULATOR_WIRE_H
#define NUBO_SIMULATOR_WIRE_H

#include <Nubo/Simulator/Faults.h>
#include <Nubo/Simulator/Recorder.h>
#include <Poco/JSON/Object.h>

#include <string>

/// The texts that a registry and a service send, and the one that they receive.
namespace Nubo::Simulator::Wire {

/// @throws Poco::Exception when `json` is no JSON object.
Poco::JSON::Object::Ptr parseObject(const std::string& json);
std::string toText(const Poco::Dynamic::Var& json);

/// A message from a client. Never throws: what cannot be read leaves its member empty.
Request_t parseRequest(unsigned socket, const std::string& text);

/// `json` is JSON text, put in as it is.
std::string data(const std::string& event, const std::string& json);
std::string acknowledgement(const std::string& event);
std::string error(const std::string& event, int code);

HttpAnswer_t ok(const std::string& json, int status = 200);
HttpAnswer_t failure(int status, const std::string& message);
/// "Multiple choices" with one choice.
HttpAnswer_t choice(const std::string& url);

/// The bytes of an answer. @param keepAlive what the Connection header says.
std::string compose(const HttpAnswer_t& answer, bool keepAlive);
/// The bytes of the answer that accepts an upgrade (RFC 6455, 4.2.2). @param key Sec-WebSocket-Key
std::string switchingProtocols(const std::string& key);

}  // namespace Nubo::Simulator::Wire

#endif
