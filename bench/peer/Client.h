#ifndef BENCH_PEER_CLIENT_H
#define BENCH_PEER_CLIENT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// One client of the peer: answers its requests and pushes what it is told to. Never blocks.
class Client {
public:
    /// @param descriptor of a connected, non-blocking socket; closed by the destructor
    /// @param port that the registry's records name
    Client(int descriptor, unsigned port) : _descriptor(descriptor), _port(port) {}
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int descriptor() const { return _descriptor; }

    /// The path that it asked for, without the slash: a service's name, nothing for the registry. The names
    /// "Stall", "Flood", "Drip", "Hostile" and those of Storms.h make this connection a bad peer of that
    /// kind.
    const std::string& name() const { return _name; }
    bool upgraded() const { return _upgraded; }
    bool wantsWrite() const { return _written < _out.size() || _floodBytes != 0; }

    bool readable();  ///< @return false when the connection is over
    bool writable();  ///< the same

    /// Pushes `count` notifications, round the subscriptions, as fast as they are taken.
    void flood(std::size_t count);

    /// Pushes one notification now, about the next subscription, with the time.
    void push();

    /// One byte more of a frame that never ends, for a dripping peer. To be called now and then.
    void drip();

private:
    void upgrade();
    void handle(unsigned opcode, const std::string& payload);
    void subscribed(const std::string& event);
    void misbehave();
    void prepareBlock();
    bool send(const char* data, std::size_t size, std::size_t& sent);

    const int _descriptor;
    const unsigned _port;
    std::string _name;
    bool _upgraded = false;
    std::string _in;
    std::string _out;  // answers, of which the first _written bytes have gone
    std::size_t _written = 0;
    std::vector<std::string> _frames;     // a prebuilt notification for each subscription
    std::size_t _next = 0;                // of _frames, to be pushed
    std::shared_ptr<std::string> _block;  // many frames in a row, for floods
    std::size_t _blockAt = 0;
    std::uint64_t _floodBytes = 0;  // still to be flooded
};

#endif
