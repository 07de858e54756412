#include <Nubo/Client/UserStory.h>

namespace Nubo::Client {

uint16_t UserStory::_nextFreeStoryId = 65535;

UserStory::UserStory() : _storyId(getNextStoryId()), _isStarted(false) {}

UserStory::~UserStory() = default;

void UserStory::startup() {
    _isStarted = true;
}

void UserStory::shutdown() {
    _isStarted = false;
}

uint16_t UserStory::getNextStoryId() {
    return --_nextFreeStoryId;
}

}  // namespace Nubo::Client
