#ifndef NUBO_CLIENT_VERSION_H
#define NUBO_CLIENT_VERSION_H

#include <Nubo/Export.h>

/// The version of the headers that a program is compiled with, by the rules of semantic versioning
/// (semver.org 2.0): within one major version a program needs no change and, with the same compiler, no new
/// build. The build takes the project's version from these three lines.
#define ZOL_VERSION_MAJOR 1
#define ZOL_VERSION_MINOR 0
#define ZOL_VERSION_PATCH 0

namespace Nubo::Client {

/// The version of the library that the program runs with, such as "1.0.0"; it may be newer than the headers
/// it was compiled with. Any thread; valid for ever, never fails.
ZOL_EXPORT const char* version() noexcept;

}  // namespace Nubo::Client

#endif
