#ifndef CLIENTLIB_SRC_CONNECTBUDGET_H
#define CLIENTLIB_SRC_CONNECTBUDGET_H

#include <Nubo/Net/Cancellation.h>

#include <chrono>
#include <memory>
#include <utility>

namespace Nubo::Client {

/// What connection attempts on this thread may take while this object lives. The signature of
/// IClientLibInterface::createNewWebsocket() is given, so a handler tells the ClientLib in this way.
/// Without one, an attempt has the transport's full time and may look names up.
class ConnectBudget {
public:
    enum class Names { MayBeLookedUp, LiteralsAndLocalhostOnly };

    /// @param total  for everything: the look-up, the connection and the upgrade
    /// @param cancellation  ends the attempt early; may be null
    ConnectBudget(std::chrono::milliseconds total, Names names,
                  std::shared_ptr<const Nubo::Net::Cancellation> cancellation)
        : _total(total),
          _names(names),
          _cancellation(std::move(cancellation)),
          _outer(std::exchange(current(), this)) {}
    ~ConnectBudget() { current() = _outer; }
    ConnectBudget(const ConnectBudget&) = delete;
    ConnectBudget& operator=(const ConnectBudget&) = delete;

    std::chrono::milliseconds total() const { return _total; }
    Names names() const { return _names; }
    const std::shared_ptr<const Nubo::Net::Cancellation>& cancellation() const { return _cancellation; }

    /// The calling thread's innermost one, null when it has none.
    static const ConnectBudget* ofThisThread() { return current(); }

private:
    static const ConnectBudget*& current() {
        thread_local const ConnectBudget* innermost = nullptr;
        return innermost;
    }

    const std::chrono::milliseconds _total;
    const Names _names;
    const std::shared_ptr<const Nubo::Net::Cancellation> _cancellation;
    const ConnectBudget* const _outer;
};

}  // namespace Nubo::Client

#endif
