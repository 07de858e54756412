#include <Nubo/Simulator/Recorder.h>

#include <algorithm>
#include <iterator>

#include "ChangeSignal.h"

namespace Nubo::Simulator {

Recorder::Recorder(ChangeSignal& changed) : _changed(changed) {}

void Recorder::add(const Request_t& request) {
    {
        std::lock_guard<std::mutex> guard(_mutex);
        _requests.push_back(request);
    }
    _changed.raise();
}

void Recorder::addHttp(const HttpRequest_t& request) {
    {
        std::lock_guard<std::mutex> guard(_mutex);
        _httpRequests.push_back(request);
    }
    _changed.raise();
}

void Recorder::addUpgradeRequest(const HttpRequest_t& request) {
    {
        std::lock_guard<std::mutex> guard(_mutex);
        _upgradeRequests.push_back(request);
    }
    _changed.raise();
}

unsigned Recorder::addUpgrade() {
    std::lock_guard<std::mutex> guard(_mutex);
    ++_upgrades;
    return ++_lastSocket;
}

void Recorder::clear() {
    std::lock_guard<std::mutex> guard(_mutex);
    _requests.clear();
    _httpRequests.clear();
    _upgradeRequests.clear();
    _upgrades = 0;
}

std::vector<Request_t> Recorder::requests() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _requests;
}

std::vector<Request_t> Recorder::requests(const std::string& type) const {
    std::lock_guard<std::mutex> guard(_mutex);
    std::vector<Request_t> matching;
    std::copy_if(_requests.begin(), _requests.end(), std::back_inserter(matching),
                 [&](const Request_t& request) { return request.type == type; });
    return matching;
}

std::vector<HttpRequest_t> Recorder::httpRequests() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _httpRequests;
}

std::vector<HttpRequest_t> Recorder::upgradeRequests() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _upgradeRequests;
}

std::size_t Recorder::upgrades() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _upgrades;
}

}  // namespace Nubo::Simulator
