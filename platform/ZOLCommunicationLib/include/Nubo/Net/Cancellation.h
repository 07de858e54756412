#ifndef NUBO_NET_CANCELLATION_H
#define NUBO_NET_CANCELLATION_H

#include <Nubo/Export.h>

namespace Nubo::Net {

/// Ends waits of other threads: connection attempts, name look-ups and HTTP requests poll its descriptor
/// beside their socket. Once cancelled it stays so. Any thread; no operation blocks.
class ZOL_EXPORT Cancellation {
public:
    /// @throws Poco::SystemException when the system has no descriptor left.
    Cancellation();
    ~Cancellation();
    Cancellation(const Cancellation&) = delete;
    Cancellation& operator=(const Cancellation&) = delete;

    /// Ends every wait on this object, those that begin later too.
    void cancel() noexcept;
    bool cancelled() const noexcept;  ///< whether cancel() was called

    /// For poll(2): readable from cancel() on. Owned by this object, and never to be read.
    int descriptor() const noexcept { return _event; }

private:
    const int _event;  // of eventfd(2)
};

}  // namespace Nubo::Net

#endif
