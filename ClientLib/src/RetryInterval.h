#ifndef CLIENTLIB_SRC_RETRYINTERVAL_H
#define CLIENTLIB_SRC_RETRYINTERVAL_H

namespace Nubo::Client {

/// Milliseconds between two tries of an operation that reports by false that it is not done yet.
constexpr long RETRY_INTERVAL_MS = 30;

}  // namespace Nubo::Client

#endif
