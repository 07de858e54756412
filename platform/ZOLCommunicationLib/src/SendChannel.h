#ifndef NUBO_NET_SENDCHANNEL_H
#define NUBO_NET_SENDCHANNEL_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Util/Mutex.h>
#include <Poco/Net/WebSocket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Mailbox.h"

namespace Nubo::Net {

/// The sending side of one connection, shared by its manager and by the threads that send on it. Its lock
/// keeps frames whole: whoever has it finishes the frame that was begun, then sends its own. Senders wait for
/// it; the manager only tries, and queues what it has to send meanwhile.
class SendChannel {
public:
    /// How a connection came to its end; the first claim holds.
    enum class End { None, Removed, Forgotten, Over };

    enum class Flushed { Done, Blocked, Busy, Failed };

    SendChannel(Mailbox::Key key, int descriptor, std::shared_ptr<Mailbox> mailbox);

    // From any thread.

    /// See sendFrame(), sendClose() and cancelSends() in WebSocketSender.h; `socket` is the connection's.
    void send(Poco::Net::WebSocket& socket, const std::string& text, int flags);
    void sendClose();
    void cancelSends();

    /// True for the first claim only: who ends the connection also decides whether a closed event is raised.
    bool claimEnd(End how);
    End end() const { return _end.load(); }

    /// Has the connection removed or forgotten by its manager, without a closed event.
    void remove(End how);

    // From the manager's thread only.

    Mailbox::Key key() const { return _key; }
    int descriptor() const { return _descriptor; }

    void queuePing();
    void queuePong(std::string_view payload);
    void queueClose(std::uint16_t code);               // nothing is sent behind it
    bool closeWanted() const { return _closeWanted; }  // sendClose() was called

    /// Sends what is queued, as far as that goes without waiting. Blocked: wait until the descriptor can be
    /// written. Busy: a sender has the lock, the mailbox will tell when it is free. Failed: reported once.
    Flushed flush();

    /// Whether a close frame has been sent or is on its way.
    bool closing() const { return _closeQueued || _closeSent.load(); }

    /// What went wrong in a sender's send, nullptr if nothing has.
    const std::string* failure() const { return _failed.load() ? &_failure : nullptr; }

    /// Since when a sender has been sending; the clock's epoch when none is.
    MonotonicClock::TimePoint sendingSince() const;

    /// Has the failure of the send under way called a stall.
    void markStalled() { _stalled = true; }

    /// Tells the peer that nothing more comes, unless something is still to be sent.
    void shutSendSide();

    /// Closes the descriptor, unless a sender has the lock.
    bool tryClose(Poco::Net::WebSocket& socket);

private:
    class Turn;

    template <typename Action>
    void sendInTurn(const Action& action) ZOL_REQUIRES(_mutex);
    void requireOpenLocked() const ZOL_REQUIRES(_mutex);
    void finishBegunLocked() ZOL_REQUIRES(_mutex);
    void failLocked(const std::string& why) ZOL_REQUIRES(_mutex);

    void queueMessage(std::string_view text, int flags);
    bool tryLock() ZOL_TRY_ACQUIRE(true, _mutex);
    void takeQueuedLocked() ZOL_REQUIRES(_mutex);
    Flushed sendPendingLocked() ZOL_REQUIRES(_mutex);

    const Mailbox::Key _key;
    const int _descriptor;
    const std::shared_ptr<Mailbox> _mailbox;

    // Each by itself.
    std::atomic<End> _end{End::None};
    std::atomic<bool> _managerWaits{false};  // for the lock: whoever releases it tells the mailbox
    std::atomic<bool> _closeWanted{false};
    std::atomic<bool> _cancelled{false};
    std::atomic<bool> _closeSent{false};  // set with _mutex held
    std::atomic<bool> _failed{false};     // set with _mutex held, after _failure
    std::atomic<bool> _stalled{false};
    std::atomic<MonotonicClock::Duration::rep> _sendingSince{0};

    Nubo::Util::Mutex _descriptorMutex;  // a leaf: held to shut or close the descriptor, for a moment
    bool _descriptorClosed ZOL_GUARDED_BY(_descriptorMutex) = false;
    Nubo::Util::Mutex _mutex;  // the send lock: held by senders while they block in send(2), on purpose
    std::string _pending ZOL_GUARDED_BY(_mutex);  // frames of the manager, the first perhaps sent in part
    std::string _failure;                         // written once, before _failed is set

    // Manager's thread only.
    std::string _queued;                     // whole frames, to go behind _pending
    std::optional<std::string> _latestPong;  // the pong that found no room
    std::size_t _backlog = 0;                // of _pending, when the manager saw it last
    bool _closeQueued = false;
    bool _sendSideShut = false;
};

}  // namespace Nubo::Net

#endif
