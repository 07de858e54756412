// Lets one allocation of the library fail, each in turn, while a client connects, is notified, loses its
// connection, rebuilds it and shuts down; and looks whether it still works afterwards. Allocations of the
// test and of the simulator do not fail.

#include <Poco/NullChannel.h>
#include <execinfo.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <new>

#include "LibraryThreads.h"
#include "TestClient.h"

namespace {

std::atomic<long> untilFailure{0};  // allocations of the library, the last of which fails
thread_local int failuresHere = 0;  // on this thread
std::atomic<int> traceSize{0};
std::array<void*, 64> trace;  // where it failed

void* allocate(std::size_t size) {
    void* const block = std::malloc(size);
    if (block != nullptr && !(inLibrary && untilFailure > 0 && --untilFailure == 0)) return block;
    std::free(block);
    ++failuresHere;
    traceSize = ::backtrace(trace.data(), static_cast<int>(trace.size()));
    return nullptr;
}

void* allocateOrThrow(std::size_t size) {
    void* const block = allocate(size);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

}  // namespace

// Not inline: the compiler would see that an operator new is met by free().
#define REPLACED __attribute__((noinline))

REPLACED void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
REPLACED void* operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
REPLACED void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
REPLACED void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
REPLACED void operator delete(void* block) noexcept {
    std::free(block);
}
REPLACED void operator delete[](void* block) noexcept {
    std::free(block);
}
REPLACED void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
REPLACED void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}

namespace {

using namespace Nubo::Client;
using namespace Nubo::Simulator;
using namespace std::chrono_literals;

/// A sink of the application: what it does itself is not the library's, what a message does is.
class Inbox : public MessageQueue {
public:
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override {
        const LibraryScope outside(false);
        return MessageQueue::enqueueDataMessage(new Letter(message));
    }

private:
    struct Letter : Nubo::Util::DataMessageBase {
        explicit Letter(DataMessageBase* content) : message(content) {}
        void processData() override {
            const LibraryScope inside(true);
            message->processData();
        }
        Poco::AutoPtr<DataMessageBase> message;
    };
};

class AllocationTest : public testing::Test {
protected:
    AllocationTest() {
        Logging::Log::Logger().setChannel(new Poco::NullChannel);
        Logging::Log::Logger().setLevel(Poco::Message::PRIO_DEBUG);
        ::backtrace(trace.data(), 1);  // loads what it needs
    }

    // What fails in a call of the application's own may come back to it: it calls again.
    // @param again whether it does so also after a call that has swallowed the failure
    template <class Call>
    void call(
        const Call& call, const std::function<bool()>& again = [] { return false; }) {
        const int before = failuresHere;
        try {
            const LibraryScope inside(true);
            call();
            if (before == failuresHere || !again()) return;
        } catch (const std::bad_alloc&) {
            ASSERT_NE(before, failuresHere);
        }
        const LibraryScope inside(true);
        call();
    }
    void await(const char* what, const std::function<bool()>& condition) {
        EXPECT_TRUE(inbox.dispatchUntil(condition, DEADLINE)) << what;
    }
    // A change is told. One that was in the hands of the thread that got no memory may be lost.
    void expectNews() {
        bool isTold = false;
        for (int tries = 0; tries < 20 && !isTold; ++tries) {
            const int value = ++changes;
            media.setElement("tracks", "1", R"({"n":)" + std::to_string(value) + "}");
            isTold = inbox.dispatchUntil([&] { return told >= value; }, 1s);
        }
        EXPECT_TRUE(isTold);
    }
    void run();

    static constexpr std::chrono::seconds DEADLINE{20};

    Platform platform;
    Service& media = platform.addService("Media");
    Inbox inbox;
    std::atomic<int> changes{0}, told{0};
};

void AllocationTest::run() {
    std::unique_ptr<ClientLib> lib;
    std::unique_ptr<ScriptedListener> listener;
    ServiceHandler::Ptr handler;
    call([&] {
        lib = std::make_unique<ClientLib>(
            &inbox, ClientLib::ClientLibParameters{"test", 5000, false, 3, 10, 5, 3, 60, 10, 4, 1});
    });
    call([&] { lib->startup(); });
    call([&] { handler = lib->addService(new ServiceHandler("Media", lib.get(), &inbox, 5000, true)); });
    call([&] { listener = std::make_unique<ScriptedListener>(lib.get(), 1); });
    listener->onData = [&](const ScriptedListener::Data& data) {
        const LibraryScope outside(false);
        told = data.container->getObject("data")->getValue<int>("n");
    };
    std::string subscription;
    call([&] { listener->addServiceToMonitor("Media", false); }, [] { return true; });
    call([&] { listener->startup(); }, [] { return true; });
    await("available", [&] { return handler->isAvailable(); });
    call([&] { subscription = listener->addSubscription("/Media/tracks/1", "", 0, "", false); },
         [&] { return subscription.empty(); });
    expectNews();
    media.dropSockets(Ending_t::reset());
    expectNews();
    platform.registry().dropSockets(Ending_t::reset());
    expectNews();
    call([&] { listener->shutdown(); });
    call([&] { lib->shutdown(); });
    call([&] {
        listener.reset();
        handler.reset();
        lib.reset();
    });
    inbox.dispatch();
}

long setting(const char* name, long otherwise) {
    const char* const text = std::getenv(name);
    return text ? std::atol(text) : otherwise;
}

TEST_F(AllocationTest, EachMayFailOnce) {
    const long step = setting("ZOL_ALLOCATION_STEP", 37);
    std::set_terminate([] {
        ::backtrace_symbols_fd(trace.data(), traceSize, STDERR_FILENO);
        std::abort();
    });
    for (long number = setting("ZOL_ALLOCATION_FIRST", 1);; number += step) {
        SCOPED_TRACE("allocation " + std::to_string(number));
        std::cerr << number << std::endl;
        traceSize = 0;
        untilFailure = number;
        const bool failedBefore = HasFailure();
        run();
        if (untilFailure.exchange(0) > 0) return;  // there are fewer
        if (HasFailure() && !failedBefore) ::backtrace_symbols_fd(trace.data(), traceSize, STDERR_FILENO);
        if (HasFatalFailure() || HasFailure()) return;
    }
}

}  // namespace
