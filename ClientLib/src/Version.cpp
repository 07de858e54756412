#include <Nubo/Client/Version.h>

#define ZOL_TEXT_OF(value) #value
#define ZOL_DOTTED(major, minor, patch) ZOL_TEXT_OF(major) "." ZOL_TEXT_OF(minor) "." ZOL_TEXT_OF(patch)

namespace Nubo::Client {

const char* version() noexcept {
    return ZOL_DOTTED(ZOL_VERSION_MAJOR, ZOL_VERSION_MINOR, ZOL_VERSION_PATCH);
}

}  // namespace Nubo::Client
