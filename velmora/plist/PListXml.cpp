// Writes a tree as XML.
#include "MR_text.h"
#include "plist/TreeWalk.h"

namespace Velmora {

namespace {

class XMLWriter {
  public:
    explicit XMLWriter(std::string& out) : m_Out(out) {}
    void Finish() { m_Out.Flush(); }  // not the destructor's work, which must not fail for want of memory

    void Open(ItemType_t type) { m_Out.Put(type == IT_DICT ? "<dict>" : "<array>"); }
    void Close(ItemType_t type) { m_Out.Put(type == IT_DICT ? "</dict>" : "</array>"); }
    void Entry() {}
    void Key(std::string_view key) { Element("key", key); }

    void Scalar(const PListData& data) {
        const std::string_view text = data.TextView();
        switch (data.GetType()) {
            case IT_TRUE:
                return m_Out.Put("<true/>");
            case IT_FALSE:
                return m_Out.Put("<false/>");
            case IT_INT:
            case IT_INT64:
                return Element("integer", text);
            case IT_REAL:
                return Element("real", text);
            case IT_DATE:
                return Element("date", text);
            case IT_DATA:
                return Element("data", text);
            default:
                return Element("string", text);
        }
    }

  private:
    void Element(std::string_view name, std::string_view text) {
        m_Out.Put('<');
        m_Out.Put(name);
        m_Out.Put('>');
        while (!text.empty()) {
            const auto [size, valid] = Mirel::ReadUtf8(text);
            m_Out.Put(valid ? Character(text.substr(0, size)) : ReplacementCharacter);
            text.remove_prefix(size);
        }
        m_Out.Put("</");
        m_Out.Put(name);
        m_Out.Put('>');
    }

    static std::string_view Character(std::string_view character) {
        switch (character[0]) {
            case '<':
                return "&lt;";
            case '>':
                return "&gt;";
            case '&':
                return "&amp;";
            case '\r':
                return "&#13;";  // a bare one would be read as a newline
            case '\t':
            case '\n':
                return character;
            default:
                break;
        }
        const bool control = static_cast<byte_t>(character[0]) < 0x20;
        const bool nothing = character == "\xEF\xBF\xBE" || character == "\xEF\xBF\xBF";  // U+FFFE, U+FFFF
        return control || nothing ? ReplacementCharacter : character;
    }

    TextOutput m_Out;
};

std::string Element(const PListItem& item) {
    std::string out;
    {
        XMLWriter writer(out);
        TreeWalk<XMLWriter>(writer).Run(item);
        writer.Finish();
    }
    return out;
}

}  // namespace

std::string PListData::CreateXMLElement() const {
    return Element(*this);
}
std::string PListDict::CreateXMLElement() const {
    return Element(*this);
}
std::string PListArray::CreateXMLElement() const {
    return Element(*this);
}

}  // namespace Velmora
