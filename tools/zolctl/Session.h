#ifndef ZOLCTL_SESSION_H
#define ZOLCTL_SESSION_H

#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/MessageQueue.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "Interrupt.h"

namespace ZolCtl {

/// The library at work: connected to the registry, its messages run on the thread that made the session.
/// Listeners are destroyed before it.
class Session {
public:
    Session();
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    Nubo::Client::ClientLib& client() { return _client; }
    Nubo::Client::IMessageSyncInterface& sink() { return _sink; }

    /// Has the library follow a service, unless it does already.
    Nubo::Client::ServiceHandler::Ptr follow(const std::string& service);

    /// Runs messages until done() is true or the time is over (without one: never).
    /// @return what done() said last. @throws Interrupt::Interrupted soon after a signal, Failure when nobody
    /// reads the output
    bool run(const std::function<bool()>& done, std::optional<std::chrono::milliseconds> timeout);

private:
    const Interrupt::Deferred _deferred;
    Nubo::Client::MessageQueue _sink;
    Nubo::Client::ClientLib _client;
    std::map<std::string, Nubo::Client::ServiceHandler::Ptr> _followed;
};

}  // namespace ZolCtl

#endif
