// WebSocket frames (RFC 6455, no extensions): what a server writes and how it reads a client's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "MR_text.h"

namespace Velmora::Feed {

/// Codes of a close frame.
enum CloseCode : std::uint16_t {
    CLOSE_NONE = 0,  // a close frame without a code
    CLOSE_GOING_AWAY = 1001,
    CLOSE_PROTOCOL_ERROR = 1002,
    CLOSE_NOT_UTF8 = 1007,
    CLOSE_NOT_ALLOWED = 1008,
    CLOSE_TOO_BIG = 1009,
    CLOSE_TRY_AGAIN_LATER = 1013,
};

enum Opcode : std::uint8_t {
    OP_CONTINUATION = 0x0,
    OP_TEXT = 0x1,
    OP_BINARY = 0x2,
    OP_CLOSE = 0x8,
    OP_PING = 0x9,
    OP_PONG = 0xA,
};

/// Longest payload of a control frame.
inline constexpr std::size_t MaxControlPayload = 125;
/// Longest message that a client may send, over all its fragments.
inline constexpr std::size_t MaxClientMessage = 64u << 10;
/// Longest header of a frame that a server sends.
inline constexpr std::size_t MaxServerHeader = 10;

/// Size of the header of an unmasked frame with `payload` bytes: 2, 4 or 10.
std::size_t ServerHeaderSize(std::size_t payload);

/// Writes that header (FIN set) to `out`, which has room for it, and returns its size.
std::size_t WriteServerHeader(char* out, Opcode opcode, std::size_t payload);

/// Size of the whole frame, header and payload, that begins at `frame`: one that this server has written.
std::size_t ServerFrameSize(const char* frame);

/// The payload of such a frame, in place.
std::string_view ServerPayload(const char* frame);

/// Appends a whole control frame. `payload` is at most MaxControlPayload bytes.
void AppendControlFrame(std::string& out, Opcode opcode, std::string_view payload);

/// Appends a close frame with `code` and `reason` (nothing of either for CLOSE_NONE).
void AppendCloseFrame(std::string& out, std::uint16_t code, std::string_view reason = {});

/// Reads what one client sends, in pieces of any size. Payloads of data messages are skipped, those of texts
/// after a look whether they are UTF-8; only a control frame's is kept. Takes a fixed amount of memory. Not
/// thread-safe.
class FrameParser {
  public:
    enum class Found {
        Nothing,    // the input is used up
        Ping,       // Payload() is what the pong has to carry
        Pong,       // Payload() is what it carries
        Close,      // Code() is its code, CLOSE_NONE for one without
        Violation,  // Code() says with what to close, Reason() why; nothing can be read any more
    };

    /// Takes bytes from the front of `input` up to the end of the next control frame, or all.
    Found Next(std::string_view& input);

    /// Valid until the next call of Next().
    std::string_view Payload() const { return {m_Payload.data(), m_PayloadSize}; }
    std::uint16_t Code() const { return m_Code; }
    const char* Reason() const { return m_Reason; }

  private:
    enum class Expects { Start, Header, Payload, Dead };

    Found Violate(std::uint16_t code, const char* reason);
    const char* StartFault() const;
    bool TakeHeader(std::string_view& input);
    Found JudgeLength();
    Found TakePayload(std::string_view& input);
    Found FinishFrame();
    bool IsText(std::string_view masked);
    Found FinishControl();
    Found JudgeClose();
    bool IsControl() const { return (m_Header[0] & 0x08) != 0; }
    Opcode GetOpcode() const { return static_cast<Opcode>(m_Header[0] & 0x0F); }

    Expects m_Expects = Expects::Start;
    std::array<std::uint8_t, 14> m_Header{};
    std::size_t m_HeaderHas = 0;
    std::size_t m_HeaderNeeds = 2;
    std::uint64_t m_Left = 0;         // payload bytes of the frame that are still to come
    std::uint64_t m_MessageSize = 0;  // payload bytes of the data message so far
    bool m_InMessage = false;         // between the fragments of a data message
    bool m_InText = false;            // the data message that came last, or comes, is a text
    std::size_t m_MaskAt = 0;         // where in the header the text frame's mask is
    std::size_t m_Taken = 0;          // bytes of that frame that were looked at
    Mirel::Utf8Check m_Text;
    std::array<char, MaxControlPayload> m_Payload{};
    std::size_t m_PayloadSize = 0;
    std::uint16_t m_Code = CLOSE_NONE;
    const char* m_Reason = "";
};

}  // namespace Velmora::Feed
