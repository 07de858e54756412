#include "SocketTable.h"

#include <algorithm>
#include <iterator>

namespace Nubo::Simulator {

using Guard = std::lock_guard<std::mutex>;

void SocketTable::add(Endpoint& endpoint, const Poco::Net::StreamSocket& stream) {
    for (const auto& finished : takeFinished()) finished->join();
    const auto connection = std::make_shared<Connection>(endpoint, stream);
    Guard guard(_mutex);
    connection->setSilent(_silent);
    connection->start();
    _connections.push_back(connection);
}

SocketTable::Connections SocketTable::takeFinished() {
    Guard guard(_mutex);
    const auto running = std::partition(_connections.begin(), _connections.end(),
                                        [](const auto& connection) { return connection->isFinished(); });
    Connections finished(_connections.begin(), running);
    _connections.erase(_connections.begin(), running);
    return finished;
}

SocketTable::Connections SocketTable::open() const {
    Connections open;
    {
        Guard guard(_mutex);
        std::copy_if(_connections.begin(), _connections.end(), std::back_inserter(open),
                     [](const auto& connection) { return connection->isOpen(); });
    }
    std::sort(open.begin(), open.end(),
              [](const auto& one, const auto& other) { return one->number() < other->number(); });
    return open;
}

void SocketTable::setSilent(bool silent) {
    Guard guard(_mutex);
    _silent = silent;
    for (const auto& connection : _connections) connection->setSilent(silent);
}

void SocketTable::stop() {
    Connections connections;
    {
        Guard guard(_mutex);
        connections.swap(_connections);
    }
    for (const auto& connection : connections) connection->abort();
    for (const auto& connection : connections) connection->join();
}

}  // namespace Nubo::Simulator
