#include "Pipeline.h"

#include <chrono>
#include <stdexcept>

void Pipeline::receive(std::size_t count) {
    const std::size_t wanted = _received + count;
    while (_received < wanted) {
        if (!runNext()) throw std::runtime_error(name() + ": no notification comes any more");
    }
}

void Pipeline::note(const std::string& stamp) {
    const auto sent = std::chrono::nanoseconds(std::stoll(stamp));
    const auto way = std::chrono::steady_clock::now().time_since_epoch() - sent;
    _latencies.push_back(std::chrono::duration<double, std::micro>(way).count());
}

std::string subscription(const std::string& service, std::size_t number) {
    const std::string id = std::to_string(number + 11);
    return R"({"event":")" + resourcePath(service, number) + "#" + id + "-" + service +
           R"(-0xa","interval":0,"type":"subscribe","updateLimit":100})";
}

std::string stampOf(const Poco::JSON::Object& notification) {
    return notification.getObject("data")->getValue<std::string>("stamp");
}
