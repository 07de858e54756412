#include <Nubo/ServiceRegistryConnection.h>

namespace Nubo {

static_assert(ZOL_REGISTRY_PORT > 0 && ZOL_REGISTRY_PORT <= 65535, "ZOL_REGISTRY_PORT is no TCP port");

const std::string ServiceRegistryConnection::ADDRESS = ZOL_REGISTRY_ADDRESS;
const Poco::UInt16 ServiceRegistryConnection::PORT = ZOL_REGISTRY_PORT;

}  // namespace Nubo
