#ifndef BENCH_PEERPROCESS_H
#define BENCH_PEERPROCESS_H

#include <sys/types.h>

#include <string>

/// A running peer (peer/main.cpp): it listens when the constructor has returned, and ends with the object.
class PeerProcess {
public:
    /// @throws std::runtime_error when the peer does not start, for instance because the port is taken.
    explicit PeerProcess(unsigned port);
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    /// Sends one command and returns at once. An empty name stands for the registry's connections.
    void flood(const std::string& name, std::size_t count);
    void pace(const std::string& name, std::size_t hz, std::size_t count);

private:
    void command(const std::string& line);

    pid_t _process = -1;
    int _commands = -1;
};

#endif
