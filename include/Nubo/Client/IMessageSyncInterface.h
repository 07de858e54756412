#ifndef NUBO_CLIENT_IMESSAGESYNCINTERFACE_H
#define NUBO_CLIENT_IMESSAGESYNCINTERFACE_H

#include <Nubo/Util/DataMessageBase.h>

namespace Nubo::Client {

/// The application's message sink: the library posts every state change here, and the application's own
/// thread (the "caller's thread") later takes the messages out and runs them.
///
/// Contract of an implementation:
/// - `enqueueDataMessage` stores the message and returns; it never runs it, never blocks and never waits for
///   the thread that runs messages. The library may hold its own locks while it calls it.
/// - The caller's thread calls `processData()` on each stored message exactly once, in order, and then drops
///   the message (`release()`, since every message arrives with one reference that the sink owns). The
///   queue's own lock must not be held while a message runs.
/// - A message that was refused belongs to the sink as well, which releases it.
/// - A message may be run late: after the handler that posted it was shut down or destroyed it does nothing.
///
/// Order in which an application stops: shut the listeners down, then `ClientLib::shutdown()`, then drop what
/// is left in the sink, then destroy the ClientLib, then the sink. The sink outlives the ClientLib.
class IMessageSyncInterface {
public:
    virtual ~IMessageSyncInterface() = default;

    /// Takes over `message` (never null), whether it is accepted or refused.
    /// @return true when the message will be run; false refuses it: the event it carries is lost, the
    ///         library logs that and does not retry.
    /// Runs on: any thread of the library, and the caller's thread (a subscription served with current data).
    /// Must not: throw, block, run the message.
    virtual bool enqueueDataMessage(Nubo::Util::DataMessageBase* message) = 0;
};

}  // namespace Nubo::Client

#endif
