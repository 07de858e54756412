#include <Nubo/Client/SRServiceHandler.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/Thread.h>

#include "RetryInterval.h"

namespace Nubo::Client {

SRServiceHandler::SRServiceHandler(IClientLibInterface* clientLib, IMessageSyncInterface* messageSync,
                                   uint32_t timeoutBeforePing)
    : ServiceHandler("", clientLib, messageSync, timeoutBeforePing, true) {}

SRServiceHandler::~SRServiceHandler() {
    try {
        endReconnectThread();
    } catch (...) {
        // The base's destructor tries once more.
    }
}

std::string SRServiceHandler::getServiceDescription() const {
    return "ServiceRegistry";
}

void SRServiceHandler::start() {
    MultiThreadingObject::startup();
    setNewServiceAddress(ServiceRegistryConnection::ADDRESS, ServiceRegistryConnection::PORT);
}

void SRServiceHandler::shutdown() {
    try {
        wakeReconnectThread();
        while (!destroyWebsocket()) Poco::Thread::sleep(RETRY_INTERVAL_MS);
    } catch (...) {
        // The loss is announced in any case.
    }
    try {
        setNewServiceAddress("", 0);
        destroyWebsocket();  // one that the reconnect thread made before the address was gone
    } catch (...) {
        // The door is closed in any case.
    }
    // NOLINTNEXTLINE(bugprone-parent-virtual-call): the registry's handler is on no other registry
    MultiThreadingObject::shutdown();
}

void SRServiceHandler::HandleConnectionReplaced() {
    const ServiceRegistrationEventData_t data{this};
    MicroServiceRegistrationChanged.notify(this, data);
}

}  // namespace Nubo::Client
