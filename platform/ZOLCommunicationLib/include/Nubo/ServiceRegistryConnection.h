#ifndef NUBO_SERVICEREGISTRYCONNECTION_H
#define NUBO_SERVICEREGISTRYCONNECTION_H

#include <Nubo/Export.h>
#include <Poco/Types.h>

#include <string>

namespace Nubo {

/// Where the service registry of the unit is reached, over HTTP and over a WebSocket. Both values are fixed
/// when the library is built (ZOL_REGISTRY_ADDRESS and ZOL_REGISTRY_PORT); they are set when it is loaded and
/// never change.
class ZOL_EXPORT ServiceRegistryConnection {
public:
    ServiceRegistryConnection() = delete;

    static const std::string ADDRESS;  ///< IP address or host name
    static const Poco::UInt16 PORT;    ///< TCP port
};

}  // namespace Nubo

#endif
