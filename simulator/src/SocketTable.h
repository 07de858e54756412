#ifndef NUBO_SIMULATOR_SOCKETTABLE_H
#define NUBO_SIMULATOR_SOCKETTABLE_H

#include <memory>
#include <mutex>
#include <vector>

#include "Connection.h"

namespace Nubo::Simulator {

/// The connections of one endpoint. Locks itself.
class SocketTable {
public:
    using Connections = std::vector<std::shared_ptr<Connection>>;

    /// Adds and starts a connection, and clears away those that have ended. One thread at a time.
    void add(Endpoint& endpoint, const Poco::Net::StreamSocket& stream);

    /// The open WebSockets, in the order of their numbers.
    Connections open() const;

    /// For the present connections and those to come.
    void setSilent(bool silent);

    /// Ends all connections and joins their threads. Nothing may be added meanwhile.
    void stop();

private:
    Connections takeFinished();

    mutable std::mutex _mutex;  // taken before those of a connection
    // Guarded by _mutex. Whoever takes a connection out joins its thread.
    Connections _connections;
    bool _silent = false;
};

}  // namespace Nubo::Simulator

#endif
