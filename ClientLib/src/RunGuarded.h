#ifndef CLIENTLIB_SRC_RUNGUARDED_H
#define CLIENTLIB_SRC_RUNGUARDED_H

#include <Logging/LogLine.h>
#include <Poco/Exception.h>

#include <exception>

namespace Nubo::Client {

/// Runs `function`; what it throws becomes an Error line "`where` - exception: ...".
template <class Function>
void runGuarded(const char* where, const Function& function) {
    try {
        function();
    } catch (const Poco::Exception& e) {
        ZOL_LOG_ERROR(where << " - exception: " << e.displayText());
    } catch (const std::exception& e) {
        ZOL_LOG_ERROR(where << " - exception: " << e.what());
    } catch (...) {
        ZOL_LOG_ERROR(where << " - unknown exception");
    }
}

}  // namespace Nubo::Client

#endif
