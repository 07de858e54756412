// Uses one thing of each installed library; without a registry, so that nothing becomes available.
#include <Logging/Log.h>
#include <Nubo/Client/ClientLib.h>
#include <Nubo/Client/Version.h>
#include <Nubo/Command/UrlPath.h>
#include <Nubo/ServiceRegistryConnection.h>
#include <Poco/URI.h>

#include <iostream>
#include <string>

namespace {

struct DroppingSink : Nubo::Client::IMessageSyncInterface {
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override {
        message->release();
        return true;
    }
};

std::string versionOfHeaders() {
    return std::to_string(ZOL_VERSION_MAJOR) + "." + std::to_string(ZOL_VERSION_MINOR) + "." +
           std::to_string(ZOL_VERSION_PATCH);
}

bool subscribes() {
    using namespace Nubo::Client;
    DroppingSink sink;
    ClientLib client(&sink, ClientLib::ClientLibParameters{});
    client.startup();
    ServiceHandler::Ptr media = client.addService(new ServiceHandler("Media", &client, &sink, 0, true));
    const std::string uri = media->addSubscription("/Media/tracks", "tag", false);
    client.shutdown();
    return Nubo::Command::UrlPath(Poco::URI(uri)).getService() == "Media";
}

}  // namespace

/// Prints the library's version.
int main() {
    Logging::Log::Logger().setLevel(Poco::Message::PRIO_ERROR);
    std::cout << Nubo::Client::version() << std::endl;
    return Nubo::Client::version() == versionOfHeaders() && Nubo::ServiceRegistryConnection::PORT != 0 &&
                   subscribes()
               ? 0
               : 1;
}
