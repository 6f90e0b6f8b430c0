// Writes frames' heads, and reads a client's frames across reads.
#include "feed/Frame.h"

#include <algorithm>

namespace Velmora::Feed {

namespace {

constexpr std::uint8_t FinBit = 0x80;
constexpr std::uint8_t ReservedBits = 0x70;
constexpr std::uint8_t MaskBit = 0x80;
constexpr std::uint8_t Length16 = 126;
constexpr std::uint8_t Length64 = 127;
constexpr std::size_t MaskSize = 4;

std::uint64_t BigEndian(const std::uint8_t* bytes, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) value = value << 8 | bytes[i];
    return value;
}

bool CodeIsValid(std::uint16_t code) {
    if (code >= 3000) return code <= 4999;
    return code >= 1000 && code <= 1014 && (code < 1004 || code > 1006);
}

}  // namespace

std::size_t ServerHeaderSize(std::size_t payload) {
    if (payload < Length16) return 2;
    return payload <= 0xFFFF ? 4 : 10;
}

std::size_t WriteServerHeader(char* out, Opcode opcode, std::size_t payload) {
    const std::size_t size = ServerHeaderSize(payload);
    out[0] = static_cast<char>(FinBit | opcode);
    out[1] = static_cast<char>(size == 2 ? payload : size == 4 ? Length16 : Length64);
    for (std::size_t i = size - 1; i >= 2; --i, payload >>= 8) out[i] = static_cast<char>(payload & 0xFF);
    return size;
}

std::size_t ServerFrameSize(const char* frame) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(frame);
    if (bytes[1] < Length16) return 2u + bytes[1];
    if (bytes[1] == Length16) return 4u + BigEndian(bytes + 2, 2);
    return 10u + BigEndian(bytes + 2, 8);
}

std::string_view ServerPayload(const char* frame) {
    const auto length = static_cast<std::uint8_t>(frame[1]);
    const std::size_t header = length < Length16 ? 2 : length == Length16 ? 4 : 10;
    return {frame + header, ServerFrameSize(frame) - header};
}

void AppendControlFrame(std::string& out, Opcode opcode, std::string_view payload) {
    char header[MaxServerHeader];
    out.append(header, WriteServerHeader(header, opcode, payload.size()));
    out.append(payload);
}

void AppendCloseFrame(std::string& out, std::uint16_t code, std::string_view reason) {
    std::string payload;
    if (code != CLOSE_NONE) {
        payload.push_back(static_cast<char>(code >> 8));
        payload.push_back(static_cast<char>(code & 0xFF));
        payload.append(reason.substr(0, MaxControlPayload - 2));
    }
    AppendControlFrame(out, OP_CLOSE, payload);
}

FrameParser::Found FrameParser::Next(std::string_view& input) {
    while (!input.empty() && m_Expects != Expects::Dead) {
        if (m_Expects == Expects::Payload) {
            const Found found = TakePayload(input);
            if (found != Found::Nothing) return found;
            continue;
        }
        if (!TakeHeader(input)) break;
        if (m_Expects == Expects::Start) {
            if (const char* fault = StartFault()) return Violate(CLOSE_PROTOCOL_ERROR, fault);
            const std::uint8_t length = m_Header[1] & 0x7F;
            m_HeaderNeeds = 2 + MaskSize + (length == Length16 ? 2 : length == Length64 ? 8 : 0);
            m_Expects = Expects::Header;
            continue;
        }
        const Found found = JudgeLength();
        if (found != Found::Nothing) return found;
    }
    return Found::Nothing;
}

FrameParser::Found FrameParser::Violate(std::uint16_t code, const char* reason) {
    m_Expects = Expects::Dead;
    m_Code = code;
    m_Reason = reason;
    return Found::Violation;
}

// What is wrong with the first two bytes of a frame; null where nothing is.
const char* FrameParser::StartFault() const {
    const Opcode opcode = GetOpcode();
    const std::uint8_t length = m_Header[1] & 0x7F;
    if ((m_Header[0] & ReservedBits) != 0) return "reserved bit set";
    if ((m_Header[1] & MaskBit) == 0) return "frame not masked";
    if (IsControl()) {
        if (opcode > OP_PONG) return "unknown opcode";
        if ((m_Header[0] & FinBit) == 0) return "control frame fragmented";
        if (length > MaxControlPayload) return "control frame too long";
        return nullptr;
    }
    if (opcode > OP_BINARY) return "unknown opcode";
    if (opcode == OP_CONTINUATION && !m_InMessage) return "continuation of nothing";
    if (opcode != OP_CONTINUATION && m_InMessage) return "message inside a message";
    return nullptr;
}

// Collects the header; true when all of it that is known to be needed is there.
bool FrameParser::TakeHeader(std::string_view& input) {
    const std::size_t count = std::min(m_HeaderNeeds - m_HeaderHas, input.size());
    std::copy_n(input.data(), count, m_Header.begin() + static_cast<std::ptrdiff_t>(m_HeaderHas));
    m_HeaderHas += count;
    input.remove_prefix(count);
    return m_HeaderHas == m_HeaderNeeds;
}

// With the whole header there: goes on to the payload, or ends the frame where it has none.
FrameParser::Found FrameParser::JudgeLength() {
    const std::size_t extended = m_HeaderNeeds - 2 - MaskSize;
    m_Left = extended == 0 ? m_Header[1] & 0x7F : BigEndian(m_Header.data() + 2, extended);
    if (extended != 0 && m_Left <= (extended == 2 ? Length16 - 1u : 0xFFFFu))
        return Violate(CLOSE_PROTOCOL_ERROR, "length not in its shortest form");
    if (m_Left >> 63 != 0) return Violate(CLOSE_PROTOCOL_ERROR, "length out of range");
    if (!IsControl()) {
        if (m_Left > MaxClientMessage - m_MessageSize) return Violate(CLOSE_TOO_BIG, "message too long");
        m_MessageSize += m_Left;
        m_InMessage = (m_Header[0] & FinBit) == 0;
        if (!m_InMessage) m_MessageSize = 0;
        if (GetOpcode() != OP_CONTINUATION) {
            m_InText = GetOpcode() == OP_TEXT;
            m_Text = {};
        }
        m_MaskAt = m_HeaderNeeds - MaskSize;
        m_Taken = 0;
    }
    m_PayloadSize = 0;
    m_HeaderHas = 0;
    m_HeaderNeeds = 2;
    m_Expects = m_Left > 0 ? Expects::Payload : Expects::Start;
    return m_Left == 0 ? FinishFrame() : Found::Nothing;
}

FrameParser::Found FrameParser::TakePayload(std::string_view& input) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(m_Left, input.size()));
    if (IsControl()) {
        const std::uint8_t length = m_Header[1] & 0x7F;  // a control frame's length is never extended
        const std::uint8_t* mask = m_Header.data() + 2;
        for (std::size_t i = 0; i < count && m_PayloadSize < length; ++i, ++m_PayloadSize)
            m_Payload[m_PayloadSize] = static_cast<char>(input[i] ^ mask[m_PayloadSize % MaskSize]);
    } else if (m_InText && !IsText(input.substr(0, count))) {
        return Violate(CLOSE_NOT_UTF8, "text not UTF-8");
    }
    input.remove_prefix(count);
    m_Left -= count;
    if (m_Left > 0) return Found::Nothing;
    m_Expects = Expects::Start;
    return FinishFrame();
}

// Looks at a piece of a text's payload.
bool FrameParser::IsText(std::string_view masked) {
    const std::uint8_t* mask = m_Header.data() + m_MaskAt;
    return std::all_of(masked.begin(), masked.end(), [&](char byte) {
        return m_Text.Take(static_cast<std::uint8_t>(byte) ^ mask[m_Taken++ % MaskSize]);
    });
}

FrameParser::Found FrameParser::FinishFrame() {
    if (IsControl()) return FinishControl();
    const bool cut = m_InText && !m_InMessage && !m_Text.Whole();
    return cut ? Violate(CLOSE_NOT_UTF8, "text not UTF-8") : Found::Nothing;
}

FrameParser::Found FrameParser::FinishControl() {
    if (GetOpcode() == OP_PING) return Found::Ping;
    if (GetOpcode() == OP_PONG) return Found::Pong;
    return JudgeClose();
}

FrameParser::Found FrameParser::JudgeClose() {
    m_Code = CLOSE_NONE;
    if (m_PayloadSize == 0) return Found::Close;
    if (m_PayloadSize == 1) return Violate(CLOSE_PROTOCOL_ERROR, "close frame cut short");
    m_Code =
        static_cast<std::uint16_t>(BigEndian(reinterpret_cast<const std::uint8_t*>(m_Payload.data()), 2));
    if (!CodeIsValid(m_Code)) return Violate(CLOSE_PROTOCOL_ERROR, "close code not allowed");
    if (!Mirel::IsUtf8(Payload().substr(2))) return Violate(CLOSE_NOT_UTF8, "close reason not UTF-8");
    return Found::Close;
}

}  // namespace Velmora::Feed
