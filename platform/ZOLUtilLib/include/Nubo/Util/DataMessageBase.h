#ifndef NUBO_UTIL_DATAMESSAGEBASE_H
#define NUBO_UTIL_DATAMESSAGEBASE_H

#include <Nubo/Export.h>
#include <Nubo/Util/IUncopyable.h>
#include <Poco/Notification.h>

namespace Nubo::Util {

/// A message for another thread's queue. It is a reference-counted POCO notification, so that a
/// Poco::NotificationQueue can carry it: a new message has a count of 1, which belongs to whoever created it
/// and goes along when the message is handed over (`Poco::AutoPtr<DataMessageBase> message(raw)` adopts it).
/// The last release() deletes the message; nobody deletes it otherwise.
class ZOL_EXPORT DataMessageBase : public IUncopyable, public Poco::Notification {
public:
    /// Does the message's work. Called at most once, on the thread that takes the message from its queue.
    virtual void processData() = 0;

    /// Releases what the message carries before it is dropped; the message is not run afterwards. Does
    /// nothing here. Called on the thread that drops the message.
    virtual void destroyData();

protected:
    DataMessageBase();
    ~DataMessageBase() override;
};

}  // namespace Nubo::Util

#endif
