#ifndef TESTS_REFUSINGQUEUE_H
#define TESTS_REFUSINGQUEUE_H

#include <Nubo/Client/MessageQueue.h>

#include <atomic>

/// A queue that refuses messages while a test wants it, as one at its bound does. Any thread.
class RefusingQueue : public Nubo::Client::MessageQueue {
public:
    bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) override {
        if (!_refusing) return MessageQueue::enqueueDataMessage(message);
        message->release();
        return false;
    }
    void refuse(bool refuseMessages) { _refusing = refuseMessages; }

private:
    std::atomic<bool> _refusing{false};
};

#endif
