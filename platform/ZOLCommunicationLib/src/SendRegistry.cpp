#include "SendRegistry.h"

#include <Nubo/Util/Mutex.h>

#include <unordered_map>

namespace Nubo::Net::SendRegistry {

namespace {

struct Channels {
    Nubo::Util::Mutex mutex;
    std::unordered_map<SendChannel::Key, std::shared_ptr<SendChannel>> byKey ZOL_GUARDED_BY(mutex);
};

// Never destroyed, so that a manager may outlive static objects.
Channels& channels() {
    static auto& all = *new Channels;
    return all;
}

}  // namespace

bool insert(const std::shared_ptr<SendChannel>& channel) {
    const Nubo::Util::MutexLock lock(channels().mutex);
    return channels().byKey.emplace(channel->key(), channel).second;
}

std::shared_ptr<SendChannel> find(const Poco::Net::WebSocket& socket) {
    const Nubo::Util::MutexLock lock(channels().mutex);
    const auto found = channels().byKey.find(socket.impl());
    return found == channels().byKey.end() ? nullptr : found->second;
}

void erase(const SendChannel& channel) {
    const Nubo::Util::MutexLock lock(channels().mutex);
    channels().byKey.erase(channel.key());
}

}  // namespace Nubo::Net::SendRegistry
