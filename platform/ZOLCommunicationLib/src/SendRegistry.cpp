#include "SendRegistry.h"

#include <mutex>
#include <unordered_map>

namespace Nubo::Net::SendRegistry {

namespace {

struct Channels {
    std::mutex mutex;
    std::unordered_map<Mailbox::Key, std::shared_ptr<SendChannel>> byKey;  // guarded by mutex
};

// Never destroyed, so that a manager may outlive static objects.
Channels& channels() {
    static auto& all = *new Channels;
    return all;
}

}  // namespace

bool insert(const std::shared_ptr<SendChannel>& channel) {
    const std::lock_guard<std::mutex> lock(channels().mutex);
    return channels().byKey.emplace(channel->key(), channel).second;
}

std::shared_ptr<SendChannel> find(const Poco::Net::WebSocket& socket) {
    const std::lock_guard<std::mutex> lock(channels().mutex);
    const auto found = channels().byKey.find(socket.impl());
    return found == channels().byKey.end() ? nullptr : found->second;
}

void erase(const SendChannel& channel) {
    const std::lock_guard<std::mutex> lock(channels().mutex);
    channels().byKey.erase(channel.key());
}

}  // namespace Nubo::Net::SendRegistry
