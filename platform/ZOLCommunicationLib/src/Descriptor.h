#ifndef NUBO_NET_DESCRIPTOR_H
#define NUBO_NET_DESCRIPTOR_H

#include <Poco/Exception.h>
#include <unistd.h>

#include <cerrno>

#include "Reasons.h"

namespace Nubo::Net {

/// Owns a file descriptor of the transport's own.
class Descriptor {
public:
    /// Takes over what the system call named `call` has returned. @throws Poco::SystemException when it
    /// failed.
    Descriptor(const char* call, int descriptor) : _descriptor(descriptor) {
        if (descriptor < 0) throw Poco::SystemException(call, Reasons::systemText(errno), errno);
    }
    ~Descriptor() { ::close(_descriptor); }

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return _descriptor; }

private:
    const int _descriptor;
};

}  // namespace Nubo::Net

#endif
