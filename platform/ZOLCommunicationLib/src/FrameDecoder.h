#ifndef NUBO_NET_FRAMEDECODER_H
#define NUBO_NET_FRAMEDECODER_H

#include <Nubo/Net/TransportLimits.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "Utf8Validator.h"

namespace Nubo::Net {

/// Opcodes and bits of a frame's first two bytes (RFC 6455, 5.2).
struct FrameBits {
    static constexpr unsigned FIN = 0x80;
    static constexpr unsigned RESERVED = 0x70;
    static constexpr unsigned OPCODE = 0x0F;
    static constexpr unsigned MASKED = 0x80;
    static constexpr unsigned LENGTH = 0x7F;

    static constexpr unsigned CONTINUATION = 0x0;
    static constexpr unsigned TEXT = 0x1;
    static constexpr unsigned BINARY = 0x2;
    static constexpr unsigned CLOSE = 0x8;
    static constexpr unsigned PING = 0x9;
    static constexpr unsigned PONG = 0xA;
};

/// Decodes the stream of frames that a server sends (RFC 6455), in whatever pieces it comes. Refuses what the
/// RFC forbids at the first byte that shows it. Spends memory on bytes that have come, never on a length that
/// has been announced. After a close frame or an error, everything else is ignored.
class FrameDecoder {
public:
    enum class Event {
        NeedMore,  ///< everything given has been taken
        Message,   ///< takeMessage() and messageFlags()
        Ping,      ///< control() is its payload
        Pong,      ///< control() is its payload
        Close,     ///< closeCode()
        Error      ///< errorCode() and errorText()
    };

    /// @param maxMessage  the longest message accepted, in bytes, all fragments together.
    explicit FrameDecoder(std::size_t maxMessage = TransportLimits::MAX_MESSAGE_BYTES)
        : _maxMessage(maxMessage) {}

    /// Takes bytes from `data` on until something has happened or `end` is reached; `data` is left behind the
    /// last byte taken. To be called again until NeedMore.
    Event next(const char*& data, const char* end);

    /// The message just completed; at most one copy of its bytes has been made when it came in one frame.
    std::string takeMessage() { return std::move(_message); }

    /// FIN and the opcode of its first frame: 0x81 or 0x82.
    int messageFlags() const { return _messageFlags; }

    /// The payload of the ping or pong, valid until the next call.
    std::string_view control() const { return {_control.data(), _controlSize}; }

    /// The code in the peer's close frame, CloseCode::NO_STATUS when it had none.
    std::uint16_t closeCode() const { return _closeCode; }

    /// The close code that answers the error, and what was wrong (static text).
    std::uint16_t errorCode() const { return _errorCode; }
    const char* errorText() const { return _errorText; }

    /// Whether some but not all bytes of a message have come, its first header included.
    bool inMessage() const {
        return !_finished && (_messageOpcode != 0 || (_headerSize != 0 && !isControl()));
    }

    /// Whether some but not all bytes of a frame have come.
    bool inFrame() const { return _headerSize != 0 && !_finished; }

private:
    bool readHeader(const char*& data, const char* end);
    bool checkFirstByte();
    bool checkSecondByte();
    bool beginPayload();
    std::uint64_t announcedLength() const;
    std::size_t headerLength() const;

    Event readData(const char*& data, const char* end);
    Event endOfDataFrame();
    Event readControl(const char*& data, const char* end);
    Event endOfClose();

    Event fail(std::uint16_t code, const char* text);
    bool refuse(const char* text);

    unsigned first() const { return static_cast<unsigned char>(_header[0]); }
    unsigned second() const { return static_cast<unsigned char>(_header[1]); }
    unsigned opcode() const { return first() & FrameBits::OPCODE; }
    bool isFinal() const { return (first() & FrameBits::FIN) != 0; }
    bool isControl() const { return (first() & 0x08) != 0; }

    const std::size_t _maxMessage;

    // The current frame. A masked frame is refused, so that a header has ten bytes at most.
    std::array<char, 10> _header{};
    unsigned char _headerSize = 0;
    bool _inPayload = false;
    std::uint64_t _remaining = 0;

    // The current message, whose frames control frames may separate.
    std::string _message;
    unsigned _messageOpcode = 0;  // 0 between messages
    int _messageFlags = 0;
    Utf8Validator _utf8;

    std::array<char, 125> _control{};
    unsigned char _controlSize = 0;

    bool _finished = false;
    std::uint16_t _closeCode = 0;
    std::uint16_t _errorCode = 0;
    const char* _errorText = "";
};

}  // namespace Nubo::Net

#endif
