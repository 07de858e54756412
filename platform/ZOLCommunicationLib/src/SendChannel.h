#ifndef NUBO_NET_SENDCHANNEL_H
#define NUBO_NET_SENDCHANNEL_H

#include <Nubo/Net/MonotonicClock.h>
#include <Nubo/Util/Mutex.h>
#include <Poco/Net/WebSocket.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Nubo::Net {

class Mailbox;

/// The sending side of one connection, shared by its manager and by the threads that send on it. Its lock
/// keeps frames whole: whoever has it finishes the frame that was begun, then sends its own. Senders wait for
/// it, and bound themselves; the manager only tries, and queues what it has to send meanwhile.
class SendChannel : public std::enable_shared_from_this<SendChannel> {
public:
    using TimePoint = MonotonicClock::TimePoint;

    /// Names a connection: the address of its socket's implementation.
    using Key = const void*;

    /// How a connection came to its end; the first claim holds.
    enum class End { None, Removed, Forgotten, Over };

    enum class Flushed { Done, Blocked, Busy, Failed };

    SendChannel(Key key, int descriptor, std::shared_ptr<Mailbox> mailbox);

    // From any thread.

    /// See sendFrame(), sendClose() and cancelSends() in WebSocketSender.h.
    void send(const std::string& text, int flags);
    void sendClose();
    void cancelSends();

    /// True for the first claim only: who ends the connection also decides whether a closed event is raised.
    bool claimEnd(End how);
    End end() const { return _end.load(); }

    /// Has the connection removed or forgotten by its manager, without a closed event.
    void remove(End how);

    /// Has the manager's thread look at what it shares with other threads here.
    void callManager() noexcept;

    Key key() const { return _key; }

    // From the manager's thread only.

    int descriptor() const { return _descriptor; }

    void queuePing();
    void queuePong(std::string_view payload);
    void queueClose(std::uint16_t code);  // nothing is sent behind it

    /// Sends what is queued, as far as that goes without waiting. Blocked: wait until the descriptor can be
    /// written. Busy: a sender has the lock, the mailbox will tell when it is free. Failed: reported once.
    Flushed flush();

    /// Whether something waits for flush().
    bool hasQueued() const { return !_queued.empty() || _backlog != 0 || _leftBehind; }

    /// When the oldest of the delegates' messages has to be sent; max when there is none.
    TimePoint queueDue() const { return _waiting.empty() ? TimePoint::max() : _waiting.front().due; }

    bool closeWanted() const { return _closeWanted; }  // sendClose() was called
    bool closing() const { return _closeQueued; }      // a close frame has been sent or is on its way

    /// What went wrong in a send, nullptr if nothing has.
    const std::string* failure() const { return _failed.load() ? &_failure : nullptr; }
    bool stalled() const { return _stalled; }  // that is what went wrong

    /// Closes the descriptor, unless a sender has the lock.
    bool tryClose(Poco::Net::WebSocket& socket);

private:
    friend class Mailbox;
    class Turn;
    class Wake;

    struct Waiting {
        std::uint64_t end;  // of the message, in bytes queued since the beginning
        TimePoint due;
    };

    void requireOpenLocked() const ZOL_REQUIRES(_mutex);
    void finishLocked(TimePoint start, std::size_t frameSize) ZOL_REQUIRES(_mutex);
    [[noreturn]] void withdrawLocked(std::size_t frameSize) ZOL_REQUIRES(_mutex);
    void failLocked(const std::string& why) noexcept ZOL_REQUIRES(_mutex);
    std::size_t unsentLocked() const ZOL_REQUIRES(_mutex) { return _pending.size() - _sent; }
    void consumeLocked(std::size_t size) ZOL_REQUIRES(_mutex);
    Flushed sendPendingLocked() ZOL_REQUIRES(_mutex);

    void queueMessage(std::string_view text, int flags);
    void enqueue(unsigned firstByte, std::string_view payload);
    void forgetSentMessages();
    bool tryLock() ZOL_TRY_ACQUIRE(true, _mutex);
    void takeQueuedLocked() ZOL_REQUIRES(_mutex);

    const Key _key;
    const int _descriptor;
    const std::shared_ptr<Mailbox> _mailbox;

    // Each by itself.
    std::atomic<End> _end{End::None};
    std::atomic<bool> _managerWaits{false};  // for the lock: whoever releases it tells the mailbox
    std::atomic<bool> _closeWanted{false};
    std::atomic<bool> _closeQueued{false};  // written by the manager's thread
    std::atomic<bool> _cancelled{false};
    std::atomic<bool> _leftBehind{false};  // a sender has gone and left the rest of its frame in _pending
    std::atomic<bool> _failed{false};      // set with _mutex held, after _failure and _stalled
    std::atomic<bool> _stalled{false};

    Nubo::Util::Mutex _mutex;  // the send lock: held by senders while they wait for the peer, on purpose
    std::string _pending ZOL_GUARDED_BY(_mutex);   // frames, the first of which may have been begun
    std::size_t _sent ZOL_GUARDED_BY(_mutex) = 0;  // how much of it
    std::string _failure;                          // written once, before _failed is set

    Nubo::Util::Mutex _wakeMutex;                    // a leaf
    int _wakeEvent ZOL_GUARDED_BY(_wakeMutex) = -1;  // of the sender that waits for the peer

    // Manager's thread only.
    std::string _queued;                     // whole frames, to go behind _pending
    std::optional<std::string> _latestPong;  // the pong that found no room
    std::size_t _backlog = 0;                // unsent bytes of _pending, when the manager saw it last
    std::uint64_t _queuedInAll = 0;
    std::list<Waiting> _waiting;  // messages of delegates, perhaps not sent yet

    // Guarded by the mailbox's mutex.
    std::shared_ptr<SendChannel> _nextInMail;
    bool _inMail = false;
};

}  // namespace Nubo::Net

#endif
