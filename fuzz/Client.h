#ifndef FUZZ_CLIENT_H
#define FUZZ_CLIENT_H

#include <Nubo/Client/MessageQueue.h>

#include <string>

#include "ClientDoubles.h"
#include "LogCapture.h"

/// The handler of the service "Media", started, with a sink and without a network; its connections have no
/// socket.
struct Client {
    Client() {
        lib.attempts = 0;
        handler->start();
        log.clear();
    }
    ~Client() { handler->shutdown(); }

    /// One for all: it begins with a worker, and so with a thread, of which there is no need.
    static FakeClientLib& withoutRegistry() {
        static FakeClientLib instance;
        instance.registry = nullptr;
        return instance;
    }

    LogCapture log{Poco::Message::PRIO_INFORMATION};
    FakeClientLib& lib = withoutRegistry();
    Nubo::Client::MessageQueue sink;
    TestHandler::Ptr handler{new TestHandler("Media", &lib, &sink, 0, true)};
    Notifications notifications{handler};
};

#endif
