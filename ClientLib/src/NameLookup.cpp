#include "NameLookup.h"

#include <Nubo/Net/Cancellation.h>
#include <Nubo/Util/SignalsBlocked.h>
#include <Poco/Exception.h>
#include <Poco/Net/DNS.h>
#include <Poco/Net/NetException.h>
#include <Poco/String.h>
#include <poll.h>
#include <pthread.h>

#include <atomic>
#include <exception>
#include <memory>
#include <system_error>
#include <thread>

#include "Limits.h"

namespace Nubo::Client {

namespace {

using Poco::Net::HostEntry;
using Poco::Net::IPAddress;

/// One of the places for look-ups, of which the process has so many.
class Place {
public:
    explicit Place(const std::string& name) {
        if (taken.fetch_add(1) < Limits::MAX_LOOKUPS) return;
        --taken;
        throw Poco::Net::DNSException("too many names are being looked up", name);
    }
    ~Place() { --taken; }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

private:
    static inline std::atomic<int> taken{0};
};

/// A look-up that two threads share: the one that makes it and the one that waits for it.
class LookUp {
public:
    explicit LookUp(std::string name) : _name(std::move(name)), _place(_name) {}

    /// The thread's. The addresses and the failure are the other thread's once this has returned.
    void run() noexcept {
        try {
            _addresses = Poco::Net::DNS::hostByName(_name).addresses();
        } catch (...) {
            _failure = std::current_exception();
        }
        _published = true;
        _done.cancel();
    }

    HostEntry::AddressList await(const WaitBounds& bounds) {
        bounds.await(_done.descriptor(), POLLIN);
        if (!_published) throw Poco::IllegalStateException("a look-up that is done without a result");
        if (_failure) std::rethrow_exception(_failure);
        if (_addresses.empty()) throw Poco::Net::NoAddressFoundException(_name);
        return _addresses;
    }

private:
    const std::string _name;
    const Place _place;
    Nubo::Net::Cancellation _done;        // a sign to poll for
    std::atomic<bool> _published{false};  // orders the two members below, which a descriptor does not
    HostEntry::AddressList _addresses;
    std::exception_ptr _failure;
};

void start(const std::shared_ptr<LookUp>& lookUp) {
    const Nubo::Util::SignalsBlocked blocked;  // inherited by the thread
    try {
        std::thread([lookUp] {
            ::pthread_setname_np(::pthread_self(), "zol-lookup");
            lookUp->run();
        }).detach();
    } catch (const std::system_error& e) {
        throw Poco::SystemException("cannot start thread for a look-up", e.what());
    }
}

HostEntry::AddressList lookedUp(const std::string& name, const WaitBounds& bounds) {
    const auto lookUp = std::make_shared<LookUp>(name);
    start(lookUp);
    return lookUp->await(bounds);
}

HostEntry::AddressList find(const std::string& host, ConnectBudget::Names names, const WaitBounds& bounds) {
    IPAddress literal;
    if (IPAddress::tryParse(host, literal)) return {literal};
    if (Poco::icompare(host, "localhost") == 0) return {IPAddress("127.0.0.1"), IPAddress("::1")};
    if (names == ConnectBudget::Names::MayBeLookedUp) return lookedUp(host, bounds);
    throw Poco::Net::HostNotFoundException("names are looked up on the reconnect thread only", host);
}

}  // namespace

std::vector<Poco::Net::SocketAddress> addressesOf(const std::string& host, Poco::UInt16 port,
                                                  ConnectBudget::Names names, const WaitBounds& bounds) {
    std::vector<Poco::Net::SocketAddress> addresses;
    for (const auto& address : find(host, names, bounds)) addresses.emplace_back(address, port);
    return addresses;
}

}  // namespace Nubo::Client
