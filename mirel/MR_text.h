// Text: hex digits, ASCII letters without regard to their case, UTF-8, and names of the machine itself.
#pragma once

#include <cstddef>
#include <string_view>

#include "MR_types.h"

namespace Mirel {

/// The value of a hexadecimal digit of either case, 0 to 15, or -1 for any other character.
MR_EXPORT int HexValue(char digit) noexcept;

/// The digits that AppendHex() writes.
inline constexpr std::string_view HexDigits = "0123456789abcdef";

/// Appends the two digits of a byte, in lower case, to any string or output with push_back().
template <class String>
void AppendHex(String& out, byte_t byte) {
    out.push_back(HexDigits[byte >> 4]);
    out.push_back(HexDigits[byte & 15]);
}

/// The small letter for a capital one of ASCII, whatever the locale; every other character as it is.
constexpr char LowerASCII(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

/// Whether the texts are the same but for the case of ASCII letters.
MR_EXPORT bool EqualIgnoringCase(std::string_view a, std::string_view b) noexcept;

/// Whether a text that comes byte by byte is UTF-8 (RFC 3629).
class Utf8Check {
  public:
    /// False once it can't be any more.
    bool Take(byte_t byte) noexcept {
        if (m_Left > 0) {
            if (byte < m_Low || byte > m_High) return false;
            --m_Left;
            m_Low = 0x80;
            m_High = 0xBF;
            return true;
        }
        return byte < 0x80 || TakeLead(byte);
    }
    /// Whether the text may end here.
    bool Whole() const noexcept { return m_Left == 0; }

  private:
    bool TakeLead(byte_t byte) noexcept {
        if (byte < 0xC2 || byte > 0xF4) return false;
        m_Left = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
        // The second byte's range keeps overlong forms, surrogates and what lies beyond U+10FFFF out.
        m_Low = byte == 0xE0 ? 0xA0 : byte == 0xF0 ? 0x90 : 0x80;
        m_High = byte == 0xED ? 0x9F : byte == 0xF4 ? 0x8F : 0xBF;
        return true;
    }

    std::size_t m_Left = 0;  // bytes of the character that are still to come
    byte_t m_Low = 0;        // the range of the next one
    byte_t m_High = 0;
};

/// What stands at the front of a text.
struct Utf8Lead {
    std::size_t Size;  ///< bytes of the character; where it is none, of what to replace
    bool Valid;        ///< whether it is a character
};

/// Looks at the front of a text, which must not be empty. What is no character reaches up to the byte that
/// shows it, and has one byte at least.
MR_EXPORT Utf8Lead ReadUtf8(std::string_view text) noexcept;

/// Whether the whole text is UTF-8; an empty one is.
MR_EXPORT bool IsUtf8(std::string_view text) noexcept;

/// Whether the text is "localhost" (in any case), an address in 127.0.0.0/8, or ::1 without brackets.
MR_EXPORT bool IsLoopbackName(std::string_view host);

}  // namespace Mirel
