// Numbers in JSON's form, and the writer.
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "MR_text.h"
#include "plist/TreeWalk.h"

namespace Velmora {

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

std::size_t SkipDigits(std::string_view text, std::size_t at) {
    while (at < text.size() && IsDigit(text[at])) ++at;
    return at;
}

constexpr std::array<bool, 256> PlainBytes() {
    std::array<bool, 256> plain{};
    for (std::size_t i = 0x20; i < 0x80; ++i) plain[i] = i != '"' && i != '\\';
    return plain;
}
constexpr std::array<bool, 256> KPlain = PlainBytes();

// How many bytes at the front stand for themselves. Looks at eight bytes at a time while there are as many.
std::size_t PlainPrefix(std::string_view text) {
    constexpr ui64_t Ones = 0x0101010101010101;
    constexpr ui64_t Tops = 0x8080808080808080;
    std::size_t at = 0;
    for (; at + 8 <= text.size(); at += 8) {
        ui64_t word;
        std::memcpy(&word, text.data() + at, 8);
        const ui64_t quote = word ^ (Ones * '"');
        const ui64_t backslash = word ^ (Ones * '\\');
        // A top bit for a byte below 0x20, equal to one of the two, or above 0x7F.
        if (((word - Ones * 0x20) | (quote - Ones) | (backslash - Ones) | word) & Tops) break;
    }
    while (at < text.size() && KPlain[static_cast<byte_t>(text[at])]) ++at;
    return at;
}

class JSONWriter {
  public:
    explicit JSONWriter(std::string& out) : m_Out(out) {}
    void Finish() { m_Out.Flush(); }  // not the destructor's work, which must not fail for want of memory

    void Open(ItemType_t type) {
        m_Out.Put(type == IT_DICT ? '{' : '[');
        m_First = true;
    }
    void Close(ItemType_t type) {
        m_Out.Put(type == IT_DICT ? '}' : ']');
        m_First = false;
    }
    void Entry() {
        if (!m_First) m_Out.Put(',');
        m_First = false;
    }
    void Key(std::string_view key) {
        String(key);
        m_Out.Put(':');
    }
    void Scalar(const PListData& data) {
        switch (data.GetType()) {
            case IT_TRUE:
            case IT_FALSE:
                return m_Out.Put(data.TextView());
            case IT_NULL:
                return m_Out.Put("null");
            case IT_INT:
            case IT_INT64:
            case IT_REAL:
                return Number(data);
            default:
                return String(data.TextView());
        }
    }

  private:
    void Number(const PListData& data) {
        if (IsJSONNumber(data.TextView())) return m_Out.Put(data.TextView());
        long long integer = 0;
        double real = 0;
        if (!data.HasType(IT_REAL) && data.GetValue(integer)) return m_Out.Put(std::to_string(integer));
        if (!data.GetValue(real) || !std::isfinite(real)) return m_Out.Put("null");
        m_Out.Put(PListData(real).TextView());
    }

    void String(std::string_view text) {
        m_Out.Put('"');
        for (;;) {
            const std::size_t plain = PlainPrefix(text);
            m_Out.Put(text.substr(0, plain));
            text.remove_prefix(plain);
            if (text.empty()) break;
            text.remove_prefix(Special(text));
        }
        m_Out.Put('"');
    }

    // Writes what stands at the front and returns how many bytes that was.
    std::size_t Special(std::string_view text) {
        const auto c = static_cast<byte_t>(text[0]);
        if (c < 0x80) {
            Escape(text[0]);
            return 1;
        }
        const auto [size, valid] = Mirel::ReadUtf8(text);
        if (valid) {
            m_Out.Put(text.substr(0, size));
        } else {
            for (const char byte : text.substr(0, size)) EscapeByte(byte);
        }
        return size;
    }

    // A byte that is no UTF-8: the half of a surrogate pair that ends in it. No text can hold one, so that
    // different bytes never become the same JSON, and can be read back.
    void EscapeByte(char byte) {
        m_Out.Put("\\udc");
        Hex(byte);
    }

    void Escape(char c) {
        constexpr std::string_view Named = "\"\\\b\f\n\r\t";
        constexpr std::string_view Names = "\"\\bfnrt";
        m_Out.Put('\\');
        if (const std::size_t at = Named.find(c); at != Named.npos) return m_Out.Put(Names[at]);
        m_Out.Put("u00");
        Hex(c);
    }

    void Hex(char c) {
        m_Out.Put(Mirel::HexDigits[static_cast<byte_t>(c) >> 4]);
        m_Out.Put(Mirel::HexDigits[static_cast<byte_t>(c) & 15]);
    }

    TextOutput m_Out;
    bool m_First = true;
};

Result_t Encode(const PListItem& item, std::string& out) {
    out.clear();
    JSONWriter writer(out);
    TreeWalk<JSONWriter>(writer).Run(item);
    writer.Finish();
    return Mirel::RESULT_OK;
}

}  // namespace

bool IsJSONNumber(std::string_view text) noexcept {
    std::size_t at = !text.empty() && text[0] == '-';
    const std::size_t integer = SkipDigits(text, at);
    if (integer == at || (text[at] == '0' && integer - at > 1)) return false;
    at = integer;
    if (at < text.size() && text[at] == '.') {
        const std::size_t end = SkipDigits(text, ++at);
        if (end == at) return false;
        at = end;
    }
    if (at < text.size() && (text[at] | 0x20) == 'e') {
        if (++at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
        const std::size_t end = SkipDigits(text, at);
        if (end == at) return false;
        at = end;
    }
    return at == text.size();
}

Result_t PListData::EncodeJSON(std::string& out) const {
    return Encode(*this, out);
}
Result_t PListDict::EncodeJSON(std::string& out) const {
    return Encode(*this, out);
}
Result_t PListArray::EncodeJSON(std::string& out) const {
    return Encode(*this, out);
}

}  // namespace Velmora
