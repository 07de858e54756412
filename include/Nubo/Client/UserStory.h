#ifndef NUBO_CLIENT_USERSTORY_H
#define NUBO_CLIENT_USERSTORY_H

#include <Nubo/Export.h>

#include <cstdint>

namespace Nubo::Client {

/// Base for one feature (user story) of an application: a started flag, and an id that tells the features of
/// a process apart and serves, for example, as the unique id of the feature's ServiceListener.
///
/// Not thread-safe: instances are made from one thread at a time, or two of them may get the same id.
class ZOL_EXPORT UserStory {
public:
    /// Takes the next id (getNextStoryId()); not started.
    UserStory();
    virtual ~UserStory();

    /// Sets the started flag. Overriding classes call it; repeated calls are harmless.
    virtual void startup();
    /// Clears the started flag. Overriding classes call it; repeated calls are harmless.
    virtual void shutdown();

    bool IsStarted() const { return _isStarted; }     ///< since startup(), until shutdown()
    uint16_t getStoryId() const { return _storyId; }  ///< as constructed

    /// Takes an id without making an instance. Ids count down from 65534 and wrap after 0 to 65535, from
    /// where on they repeat.
    uint16_t getNextStoryId();

private:
    static uint16_t _nextFreeStoryId;
    uint16_t _storyId;
    bool _isStarted;
};

}  // namespace Nubo::Client

#endif
