#include "Reasons.h"

#include <Nubo/Net/TransportLimits.h>

#include <cerrno>
#include <system_error>

#include "CloseCode.h"

namespace Nubo::Net::Reasons {

namespace {

std::string codeText(std::uint16_t code) {
    const std::string meaning = closeCodeMeaning(code);
    if (code == CloseCode::NO_STATUS) return "(" + meaning + ")";
    return "(" + std::to_string(code) + (meaning.empty() ? "" : " ") + meaning + ")";
}

std::string milliseconds(std::chrono::milliseconds time) {
    return std::to_string(time.count()) + " ms";
}

}  // namespace

std::string closedByPeer(std::uint16_t code) {
    return "closed by peer " + codeText(code);
}

std::string closeAnswered(std::uint16_t code) {
    return "closed by this side, answered by peer " + codeText(code);
}

std::string closeUnanswered() {
    return "closed by this side, no answer within " + milliseconds(TransportLimits::CLOSE_LINGER);
}

std::string closeCut() {
    return "closed by this side, end of stream";
}

std::string endOfStream() {
    return "end of stream";
}

std::string receiveFailed(int error) {
    return error == ECONNRESET ? "connection reset by peer" : "receive failed: " + systemText(error);
}

std::string sendFailed(const std::string& why) {
    return "send failed: " + why;
}

std::string sendStalled() {
    return "send stalled";
}

std::string frameStalled() {
    return "frame stalled";
}

std::string messageIncomplete() {
    return "message not complete within " + milliseconds(TransportLimits::MESSAGE_TOTAL);
}

std::string tooManyObjects() {
    return "more than " + std::to_string(TransportLimits::MAX_OBJECTS) + " JSON objects in one message";
}

std::string noPong(std::chrono::milliseconds time) {
    return "no pong within " + milliseconds(time);
}

std::string protocolError(std::uint16_t code, const char* what) {
    return code == CloseCode::TOO_BIG ? what : std::string("protocol error: ") + what;
}

std::string managerStopped() {
    return "connection manager stopped";
}

std::string internalError(const char* what) {
    return std::string("internal error: ") + what;
}

std::string systemText(int error) {
    return std::generic_category().message(error);
}

}  // namespace Nubo::Net::Reasons
