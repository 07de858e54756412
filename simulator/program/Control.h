#ifndef ZOLPLATFORM_CONTROL_H
#define ZOLPLATFORM_CONTROL_H

#include <Nubo/Simulator/Platform.h>
#include <Poco/Net/HTTPServer.h>

namespace ZolPlatform {

/// The control interface: a small HTTP server on the loopback interface.
///
///     GET  /                                  what there is, and what can be done
///     POST /registry/ACTION[?ms=N]            does it to the registry
///     POST /services/ACTION[?ms=N]            to all services
///     POST /services/NAME/ACTION[?ms=N]       to one
class Control {
public:
    /// Runs from now on. @param platform outlives it
    /// @param port 0: a free one. @throws Poco::Exception "port N of 127.0.0.1 is taken"
    Control(Nubo::Simulator::Platform& platform, Poco::UInt16 port);
    ~Control();

    std::string address() const;

private:
    Poco::Net::HTTPServer _server;
};

}  // namespace ZolPlatform

#endif
