#include <Nubo/Simulator/Faults.h>
#include <Poco/DeflatingStream.h>

#include <sstream>

namespace Nubo::Simulator {

Ending_t Ending_t::closeFrame(Poco::UInt16 code, const std::string& reason) {
    return {Kind::CloseFrame, code, reason};
}

Ending_t Ending_t::endOfStream() {
    return {Kind::EndOfStream, 0, ""};
}

Ending_t Ending_t::reset() {
    return {Kind::Reset, 0, ""};
}

HttpAnswer_t HttpAnswer_t::gzip(const std::string& body) {
    std::ostringstream compressed;
    Poco::DeflatingOutputStream deflater(compressed, Poco::DeflatingStreamBuf::STREAM_GZIP);
    deflater << body;
    deflater.close();
    HttpAnswer_t answer;
    answer.body = compressed.str();
    answer.headers = {{"Content-Encoding", "gzip"}};
    return answer;
}

namespace {

Fault_t ofKind(Fault_t::Kind kind) {
    Fault_t fault;
    fault.kind = kind;
    return fault;
}

}  // namespace

Fault_t Fault_t::answering(const HttpAnswer_t& answer) {
    Fault_t fault = ofKind(Kind::Answer);
    fault.answer = answer;
    return fault;
}

Fault_t Fault_t::status(int status) {
    HttpAnswer_t answer;
    answer.status = status;
    return answering(answer);
}

Fault_t Fault_t::noAnswer() {
    return ofKind(Kind::NoAnswer);
}

Fault_t Fault_t::garbage(const std::string& bytes) {
    Fault_t fault = ofKind(Kind::Raw);
    fault.bytes = bytes;
    return fault;
}

Fault_t Fault_t::hangUp() {
    return ofKind(Kind::HangUp);
}

Fault_t Fault_t::reset() {
    return ofKind(Kind::Reset);
}

Fault_t Fault_t::openAndEnd(const Ending_t& ending) {
    Fault_t fault = ofKind(Kind::OpenAndEnd);
    fault.ending = ending;
    return fault;
}

Fault_t Fault_t::late(std::chrono::milliseconds wait) {
    return Fault_t().after(wait);
}

Fault_t Fault_t::after(std::chrono::milliseconds wait) const {
    Fault_t fault = *this;
    fault.delay = wait;
    return fault;
}

}  // namespace Nubo::Simulator
