#ifndef NUBO_CLIENT_SRSERVICEHANDLER_H
#define NUBO_CLIENT_SRSERVICEHANDLER_H

#include <Nubo/Client/ServiceHandler.h>
#include <Nubo/Export.h>
#include <Poco/SharedPtr.h>

#include <cstdint>
#include <string>

namespace Nubo::Client {

/// The handler of the service registry itself. Its address is fixed (Nubo::ServiceRegistryConnection), so it
/// is retried until shutdown. The ClientLib owns one; its connection serves every other handler.
class ZOL_EXPORT SRServiceHandler : public ServiceHandler {
public:
    using Ptr = Poco::SharedPtr<SRServiceHandler>;  ///< counted; made from `new`

    /// Parameters as in ServiceHandler; the service name is empty, auto-reconnect on.
    SRServiceHandler(IClientLibInterface* clientLib, IMessageSyncInterface* messageSync,
                     uint32_t timeoutBeforePing);
    /// Waits for the reconnect thread first, which still makes virtual calls.
    ~SRServiceHandler() override;

    /// Connects to the registry: the first attempt is made at once and blocks, further ones on the reconnect
    /// thread. Sends no subscription.
    void start() override;
    /// Closes the connection, announces the loss and refuses further messages. Blocks as
    /// ServiceHandler::shutdown.
    void shutdown() override;
    /// "ServiceRegistry".
    std::string getServiceDescription() const override;

protected:
    /// The handlers subscribed on the old connection must be told of the new one, although the registry
    /// stayed available: raises MicroServiceRegistrationChanged, which the ClientLib alone observes.
    void HandleConnectionReplaced() override;
};

}  // namespace Nubo::Client

#endif
