#include <Nubo/Simulator/Endpoint.h>

#include <algorithm>

#include "ChangeSignal.h"
#include "FaultTable.h"
#include "Listener.h"
#include "SocketTable.h"

namespace Nubo::Simulator {

using Guard = std::lock_guard<std::mutex>;

namespace {

std::string describeAddress(const Endpoint& endpoint) {
    return endpoint.address() + ":" + std::to_string(endpoint.port());
}

}  // namespace

Endpoint::Endpoint(const std::string& name, const std::string& address, Poco::UInt16 port,
                   ChangeSignal& changed)
    : _name(name),
      _address(address),
      _changed(changed),
      _recorder(changed),
      _faults(std::make_unique<FaultTable>()),
      _sockets(std::make_unique<SocketTable>()),
      _listener(std::make_unique<Listener>(address, port)) {
    _port = _listener->port();
}

Endpoint::~Endpoint() = default;

void Endpoint::start() {
    Guard guard(_lifeMutex);
    if (!_running) startLocked();
}

void Endpoint::startLocked() {
    _listener->start([this](const Poco::Net::StreamSocket& stream) { _sockets->add(*this, stream); });
    _running = true;
    report("started", describeAddress(*this));
}

void Endpoint::stop() {
    Guard guard(_lifeMutex);
    stopLocked();
}

void Endpoint::stopLocked() {
    _listener->stop();
    _sockets->stop();
    if (_running) report("stopped", describeAddress(*this));
    _running = false;
    _changed.raise();
}

void Endpoint::relocate() {
    Guard guard(_lifeMutex);
    const bool wasRunning = _running;
    stopLocked();
    _listener = std::make_unique<Listener>(_address, 0);
    _port = _listener->port();
    if (wasRunning) startLocked();
}

bool Endpoint::isRunning() const {
    Guard guard(_lifeMutex);
    return _running;
}

void Endpoint::onUpgrade(const Fault_t& fault, int times) {
    _faults->setUpgrade(fault, times);
}

void Endpoint::onHttp(const Fault_t& fault, int times) {
    _faults->setHttp(fault, times);
}

void Endpoint::goSilent() {
    Guard guard(_order);
    if (!_silent) report("silent");
    _silent = true;
    _sockets->setSilent(true);
}

void Endpoint::speak() {
    Guard guard(_order);
    if (_silent) report("speaking");
    _silent = false;
    for (const auto& connection : _sockets->open())
        for (const auto& missed : connection->subscriptions().takeMissed()) pushData(*connection, missed);
    _sockets->setSilent(false);
}

void Endpoint::clearFaults() {
    _faults->clear();
    speak();
}

std::size_t Endpoint::dropSockets(const Ending_t& ending) {
    const auto open = _sockets->open();
    const auto dropped = std::count_if(open.begin(), open.end(),
                                       [&](const auto& connection) { return connection->end(ending); });
    _changed.raise();
    return static_cast<std::size_t>(dropped);
}

std::size_t Endpoint::openSockets() const {
    return _sockets->open().size();
}

void Endpoint::raiseChanged() {
    _changed.raise();
}

void Endpoint::report(const std::string& what, const std::string& text, unsigned socket) const {
    _changed.report({_name, what, socket, text});
}

}  // namespace Nubo::Simulator
