#ifndef ZOLCTL_LIBRARYLOG_H
#define ZOLCTL_LIBRARYLOG_H

#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <mutex>
#include <string>

namespace ZolCtl {

/// Takes the library's own lines: those of the level asked for go to stderr. The last error is kept as well,
/// since a call of the library that fails names the cause only there. Locks itself.
class LibraryLog : public Poco::Channel {
public:
    /// Becomes the channel of the library's logger.
    /// @param shown the least important priority that is written; 0: none
    static void install(int shown);

    /// The text of the last Error line without its level, "" when there was none.
    static std::string lastError();

    void log(const Poco::Message& message) override;

private:
    explicit LibraryLog(int shown) : _shown(shown) {}

    static LibraryLog* _installed;

    const int _shown;

    std::mutex _mutex;       // leaf
    std::string _lastError;  // guarded by _mutex
};

}  // namespace ZolCtl

#endif
