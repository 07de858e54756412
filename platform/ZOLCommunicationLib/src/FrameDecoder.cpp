#include "FrameDecoder.h"

#include <algorithm>

#include "CloseCode.h"

namespace Nubo::Net {

FrameDecoder::Event FrameDecoder::next(const char*& data, const char* end) {
    while (!_finished) {
        if (!_inPayload && !readHeader(data, end)) return _finished ? Event::Error : Event::NeedMore;
        const Event event = isControl() ? readControl(data, end) : readData(data, end);
        if (event != Event::NeedMore || _inPayload) return event;
    }
    data = end;
    return Event::NeedMore;
}

// Whether the header is complete and good. Each byte is checked when it comes.
bool FrameDecoder::readHeader(const char*& data, const char* end) {
    while (data != end) {
        _header[_headerSize++] = *data++;
        if (_headerSize == 1 && !checkFirstByte()) return false;
        if (_headerSize == 2 && !checkSecondByte()) return false;
        if (_headerSize >= 2 && _headerSize == headerLength()) return beginPayload();
    }
    return false;
}

bool FrameDecoder::checkFirstByte() {
    if ((first() & FrameBits::RESERVED) != 0) return refuse("reserved bit set");
    if ((opcode() & 0x07) > FrameBits::BINARY) return refuse("unknown opcode");
    if (isControl()) return isFinal() || refuse("control frame fragmented");
    if (opcode() == FrameBits::CONTINUATION) return _messageOpcode != 0 || refuse("nothing to continue");
    return _messageOpcode == 0 || refuse("message begun within a message");
}

bool FrameDecoder::checkSecondByte() {
    if ((second() & FrameBits::MASKED) != 0) return refuse("masked frame from a server");
    if (isControl() && second() > _control.size()) return refuse("control frame longer than 125 bytes");
    return true;
}

std::size_t FrameDecoder::headerLength() const {
    const unsigned length = second() & FrameBits::LENGTH;
    return length == 127 ? 10 : length == 126 ? 4 : 2;
}

std::uint64_t FrameDecoder::announcedLength() const {
    if (_headerSize == 2) return second() & FrameBits::LENGTH;
    std::uint64_t length = 0;
    for (std::size_t i = 2; i < _headerSize; ++i)
        length = length << 8 | static_cast<unsigned char>(_header[i]);
    return length;
}

bool FrameDecoder::beginPayload() {
    _remaining = announcedLength();
    if (_headerSize == 4 && _remaining < 126) return refuse("length not in its shortest form");
    if (_headerSize == 10 && _remaining <= 0xFFFF) return refuse("length not in its shortest form");
    if (_remaining >> 63 != 0) return refuse("length out of range");
    if (!isControl() && _remaining > _maxMessage - _message.size()) {
        fail(CloseCode::TOO_BIG, "message too big");
        return false;
    }
    if (!isControl() && _messageOpcode == 0) _messageOpcode = opcode();
    _controlSize = 0;
    _inPayload = true;
    return true;
}

FrameDecoder::Event FrameDecoder::readData(const char*& data, const char* end) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(_remaining, end - data));
    if (_messageOpcode == FrameBits::TEXT && !_utf8.feed(data, size))
        return fail(CloseCode::INVALID_PAYLOAD, "text is not UTF-8");
    _message.append(data, size);
    data += size;
    _remaining -= size;
    return _remaining == 0 ? endOfDataFrame() : Event::NeedMore;
}

FrameDecoder::Event FrameDecoder::endOfDataFrame() {
    _inPayload = false;
    _headerSize = 0;
    if (!isFinal()) return Event::NeedMore;
    if (!_utf8.complete()) return fail(CloseCode::INVALID_PAYLOAD, "text ends within a character");
    _messageFlags = static_cast<int>(FrameBits::FIN | _messageOpcode);
    _messageOpcode = 0;
    return Event::Message;
}

FrameDecoder::Event FrameDecoder::readControl(const char*& data, const char* end) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(_remaining, end - data));
    std::copy_n(data, size, _control.data() + _controlSize);
    _controlSize = static_cast<unsigned char>(_controlSize + size);
    data += size;
    _remaining -= size;
    if (_remaining != 0) return Event::NeedMore;
    _inPayload = false;
    _headerSize = 0;
    if (opcode() == FrameBits::CLOSE) return endOfClose();
    return opcode() == FrameBits::PING ? Event::Ping : Event::Pong;
}

// RFC 6455, 5.5.1: nothing, or a code of two bytes and a reason in UTF-8.
FrameDecoder::Event FrameDecoder::endOfClose() {
    _closeCode = CloseCode::NO_STATUS;
    if (_controlSize == 1) return fail(CloseCode::PROTOCOL_ERROR, "close frame with half a code");
    if (_controlSize >= 2) {
        _closeCode = static_cast<std::uint16_t>(static_cast<unsigned char>(_control[0]) << 8 |
                                                static_cast<unsigned char>(_control[1]));
        if (!isCloseCodeAllowed(_closeCode)) return fail(CloseCode::PROTOCOL_ERROR, "close code not allowed");
        Utf8Validator reason;
        if (!reason.feed(_control.data() + 2, _controlSize - 2U) || !reason.complete())
            return fail(CloseCode::INVALID_PAYLOAD, "close reason is not UTF-8");
    }
    _finished = true;
    return Event::Close;
}

FrameDecoder::Event FrameDecoder::fail(std::uint16_t code, const char* text) {
    _finished = true;
    _errorCode = code;
    _errorText = text;
    std::string().swap(_message);
    return Event::Error;
}

bool FrameDecoder::refuse(const char* text) {
    fail(CloseCode::PROTOCOL_ERROR, text);
    return false;
}

}  // namespace Nubo::Net
