#ifndef NUBO_NET_WEBSOCKETDATAOBJECTSPLITTER_H
#define NUBO_NET_WEBSOCKETDATAOBJECTSPLITTER_H

#include <Nubo/Export.h>
#include <Nubo/Net/WebsocketDataEventPayload.h>
#include <Poco/BasicEvent.h>

#include <string>
#include <vector>

namespace Nubo::Net {

/// Cuts a received block into the JSON objects (RFC 8259) that it holds one after the other.
///
/// An object begins at a "{" and ends at the "}" that matches it; braces inside its strings do not count. It
/// is not checked otherwise: broken JSON between balanced braces comes out as it is. Whatever stands between
/// objects (white space, the record separator 1E hexadecimal, commas, brackets, a "}" too many, any other
/// text) is skipped; a quote there opens no string, so a stray one cannot swallow the object behind it.
/// Objects inside an array come out one by one.
///
/// Nothing is remembered from one block to the next, since a block is a whole WebSocket message: an object
/// that never closes is dropped, together with all that stands behind its brace, and that is told.
///
/// Of a block with more than TransportLimits::MAX_OBJECTS objects that many are raised; the manager then ends
/// the connection that it came on.
///
/// Any thread, also several at once; blocks only as long as the event's delegates do.
class ZOL_EXPORT WebsocketDataObjectSplitter {
public:
    /// Raised by onDataBlockAvailable() for each object, on the same thread, without a lock of the
    /// splitter's. Runs on: the connection manager's thread. Called: once per object, in their order.
    /// Holding: POCO's lock of the delegate. Must not: block, or keep a reference to the payload, which is
    /// valid only during the call.
    Poco::BasicEvent<const WebsocketDataEventPayload> ObjectAvailable;

    /// Raised by onDataBlockAvailable() when an object was dropped that never closes, after the objects
    /// before it: data is empty, Reason says what to log. Runs on, Called, Holding, Must not: as above, once
    /// per block.
    Poco::BasicEvent<const WebsocketDataEventPayload> IncompleteDropped;

    WebsocketDataObjectSplitter();
    ~WebsocketDataObjectSplitter();
    WebsocketDataObjectSplitter(const WebsocketDataObjectSplitter&) = delete;
    WebsocketDataObjectSplitter& operator=(const WebsocketDataObjectSplitter&) = delete;

    /// Raises ObjectAvailable for each object in `block.data`, with that object's text as `data` and
    /// everything else as in `block`. A block that is exactly one object is passed on itself, without a copy.
    /// An exception of a delegate goes to the caller and ends the block, as does that for too many objects,
    /// which the manager knows.
    void onDataBlockAvailable(const WebsocketDataEventPayload& block);

    /// Appends the text of each object in `text` to `objects`, in their order. An object that never closes is
    /// dropped with a Warning line.
    void splitJsonDataObjectString(const std::string& text, std::vector<std::string>& objects) const;
};

}  // namespace Nubo::Net

#endif
