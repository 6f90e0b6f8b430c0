// The reader of JSON: straight from its text into a tree.

// The reader adds to a null pointer while its stack is empty, which every compiler takes well; the sanitizer
// does not.
#ifdef __clang__
#pragma clang attribute push(__attribute__((no_sanitize("pointer-overflow"))), apply_to = function)
#endif
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>
#ifdef __clang__
#pragma clang attribute pop
#endif

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <optional>

#include "plist/PListBody.h"
#include "plist/TreeWalk.h"

namespace Velmora {

namespace {

// The reader writes through what it is given without a look, so that no memory must not be a null pointer.
struct ThrowingAllocator {
    static void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }
    static void* Realloc(void* memory, std::size_t, std::size_t size) {
        if (size == 0) return Free(memory), nullptr;
        void* const larger = std::realloc(memory, size);
        if (!larger) throw std::bad_alloc();
        return larger;
    }
    static void Free(void* memory) { std::free(memory); }
};
using JSONReader = rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, ThrowingAllocator>;

// Ends with the text: the check of a character that is cut off there reads on.
struct BoundedStream : rapidjson::MemoryStream {
    explicit BoundedStream(const std::string& text) : MemoryStream(text.data(), text.size()) {}
};

}  // namespace

}  // namespace Velmora

// The reader works on a copy of the stream while it reads a string.
template <>
struct rapidjson::StreamTraits<Velmora::BoundedStream> {
    enum { copyOptimization = 1 };
};

namespace Velmora {

namespace {

constexpr unsigned ParseFlags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag |
                                rapidjson::kParseNumbersAsStringsFlag;

struct Refusal {
    std::string Reason;
    std::size_t Offset;
};

// Where half of a surrogate pair stands, which the reader lets pass when it is the second half: three bytes
// which UTF-8 from outside cannot have.
std::size_t FindHalfPair(std::string_view text, std::size_t from) {
    for (std::size_t at = text.find('\xED', from); at != text.npos; at = text.find('\xED', at + 1)) {
        if (at + 1 < text.size() && static_cast<byte_t>(text[at + 1]) >= 0xA0) return at;
    }
    return text.npos;
}

// Puts the text into `bytes`, with the bytes that are no UTF-8 in the place of the halves \udc80 to \udcff,
// as which EncodeJSON writes them. False where there is another half.
bool PutBytesBack(std::string_view text, std::string& bytes) {
    bytes.clear();
    std::size_t done = 0;
    for (std::size_t at = 0; (at = FindHalfPair(text, done)) != text.npos; done = at + 3) {
        const auto second = static_cast<byte_t>(text[at + 1]), third = static_cast<byte_t>(text[at + 2]);
        if (second != 0xB2 && second != 0xB3) return false;
        bytes.append(text, done, at - done);
        bytes += static_cast<char>(second == 0xB2 ? third : third + 0x40);
    }
    bytes.append(text, done);
    return true;
}

// The text with "0.00" and so on, as long, in the place of its numbers: the reader refuses those that no
// double can hold, and it is the text that counts.
std::string WithSmallNumbers(const std::string& json) {
    std::string small = json;
    bool in_string = false;
    for (std::size_t at = 0; at < json.size(); ++at) {
        if (json[at] == '"') {
            in_string = !in_string;
        } else if (in_string) {
            at += json[at] == '\\';
        } else if (json[at] == '-' || (json[at] >= '0' && json[at] <= '9')) {
            const std::size_t end = std::min(json.find_first_not_of("+-.0123456789Ee", at), json.size());
            const std::size_t size = end - at;
            if (size > 2 && IsJSONNumber(std::string_view(json).substr(at, size))) {
                small.replace(at, 2, "0.").replace(at + 2, size - 2, size - 2, '0');
            }
            at = end - 1;
        }
    }
    return small;
}

PListData NumberItem(std::string_view text) {
    if (text.find_first_of(".eE") != text.npos) return PListData(IT_REAL, text);
    long long value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc()) {
        return PListData(IT_REAL, text);
    }
    const bool small = value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max();
    return small ? PListData(static_cast<int>(value)) : PListData(value);
}

// Receives what the reader finds. The entries of all open lists stand in one stack; a list is made, exactly
// as large as it must be, when it is complete.
class TreeBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, TreeBuilder> {
  public:
    // Numbers are taken from `json`, whatever the stream has in their place.
    TreeBuilder(BoundedStream& stream, std::string_view json, std::size_t max_depth)
        : m_Stream(stream), m_JSON(json), m_MaxDepth(max_depth) {
        m_Entries.reserve(KUsualEntries);
        m_Levels.reserve(KUsualLevels);
    }

    bool Null() { return Add(PListSlot(PListData(IT_NULL, {}))); }
    bool Bool(bool value) { return Add(PListSlot(PListData(value))); }
    bool RawNumber(const char*, rapidjson::SizeType size, bool) {
        return Add(PListSlot(NumberItem(m_JSON.substr(m_Stream.Tell(), size))));
    }
    bool String(const char* read, rapidjson::SizeType size, bool) {
        std::string_view text(read, size);
        return WithBytes(text) && Add(PListSlot(PListData(text)));
    }
    bool Key(const char* read, rapidjson::SizeType size, bool) {
        std::string_view text(read, size);
        if (!WithBytes(text)) return false;
        m_Entries.push_back({{CompactText<16>(text), PListSlot()}, m_Stream.Tell()});
        return true;
    }
    bool StartObject() { return Open(true); }
    bool StartArray() { return Open(false); }

    bool EndObject(rapidjson::SizeType) {
        PListSlot slot(IT_DICT);
        PListDictBody*& body = PListInside::Body(static_cast<PListDict&>(*slot.Get()));
        const std::size_t first = m_Levels.back().FirstEntry;
        const std::size_t count = m_Entries.size() - first;
        if (count > 0) body = PListDictBody::New(std::min(count, PListBlock::MaxEntries));
        for (std::size_t i = first; i < m_Entries.size(); ++i) {
            auto& [entry, key_offset] = m_Entries[i];
            if (body->Find(entry.key.View()).Entry) return RefuseDuplicate(entry.key.View(), key_offset);
            body->Add(std::move(entry.key), std::move(entry.Slot));
        }
        Close();
        return Add(std::move(slot));
    }

    bool EndArray(rapidjson::SizeType) {
        PListSlot slot(IT_ARRAY);
        PListArrayBody*& body = PListInside::Body(static_cast<PListArray&>(*slot.Get()));
        for (std::size_t i = m_Levels.back().FirstEntry; i < m_Entries.size(); ++i) {
            AppendSlot(body, std::move(m_Entries[i].Entry.Slot), false);
        }
        Close();
        return Add(std::move(slot));
    }

    const std::optional<Refusal>& Refused() const { return m_Refusal; }
    std::unique_ptr<PListItem> Root() const { return std::unique_ptr<PListItem>(m_Root.Get()->Copy()); }

  private:
    struct OpenEntry {
        PListEntry Entry;
        std::size_t key_offset;  // of items without a key 0
    };
    struct Level {
        bool Dict;
        std::size_t FirstEntry;
    };
    // A posting's data has no more of them, and needs these stacks once.
    static constexpr std::size_t KUsualEntries = 16;
    static constexpr std::size_t KUsualLevels = 4;

    bool Open(bool dict) {
        if (m_Levels.size() == m_MaxDepth) {
            return Refuse("Lists are nested deeper than " + std::to_string(m_MaxDepth) + " levels",
                          m_Stream.Tell());
        }
        m_Levels.push_back({dict, m_Entries.size()});
        return true;
    }

    void Close() {
        const Level& level = m_Levels.back();
        m_Entries.erase(m_Entries.begin() + static_cast<std::ptrdiff_t>(level.FirstEntry), m_Entries.end());
        m_Levels.pop_back();
    }

    bool Add(PListSlot&& slot) {
        if (m_Levels.empty()) {
            m_Root = std::move(slot);
        } else if (m_Levels.back().Dict) {
            m_Entries.back().Entry.Slot = std::move(slot);
        } else {
            m_Entries.push_back({{{}, std::move(slot)}, 0});
        }
        return true;
    }

    // Valid until the next text that has such bytes.
    bool WithBytes(std::string_view& text) {
        if (FindHalfPair(text, 0) == text.npos) return true;
        if (!PutBytesBack(text, m_TextWithBytes)) {
            return Refuse("The surrogate pair in string is invalid", m_Stream.Tell());
        }
        text = m_TextWithBytes;
        return true;
    }

    bool Refuse(std::string reason, std::size_t offset) {
        m_Refusal = {std::move(reason), offset};
        return false;
    }
    bool RefuseDuplicate(std::string_view key, std::size_t offset) {
        std::string quoted;
        (void)PListData(key).EncodeJSON(quoted);
        return Refuse("Duplicate key " + quoted, offset);
    }

    // While a number, a string or a key is handed over, it still stands in front of it.
    BoundedStream& m_Stream;
    const std::string_view m_JSON;
    const std::size_t m_MaxDepth;
    std::string m_TextWithBytes;
    std::vector<OpenEntry> m_Entries;
    std::vector<Level> m_Levels;
    PListSlot m_Root;
    std::optional<Refusal> m_Refusal;
};

Refusal ReaderRefusal(const rapidjson::ParseResult& result) {
    std::string reason = rapidjson::GetParseError_En(result.Code());
    if (reason.ends_with('.')) reason.pop_back();
    return {reason, result.Offset()};
}

// Reads `json` from `shown`, which has its numbers or others that are as long.
std::unique_ptr<PListItem> ReadShown(const std::string& shown, const std::string& json, std::size_t max_depth,
                                     std::optional<Refusal>& refusal, bool& too_big) {
    BoundedStream stream(shown);
    TreeBuilder builder(stream, json, max_depth);
    ThrowingAllocator allocator;  // the reader makes one with new otherwise
    const rapidjson::ParseResult result = JSONReader(&allocator).Parse<ParseFlags>(stream, builder);
    too_big = result.Code() == rapidjson::kParseErrorNumberTooBig;
    if (builder.Refused()) {
        refusal = builder.Refused();
    } else if (result.IsError()) {
        refusal = ReaderRefusal(result);
    } else if (stream.Tell() != json.size()) {
        // To the reader the text ends there.
        refusal = {"The text holds a NUL byte", stream.Tell()};
    }
    return refusal ? nullptr : builder.Root();
}

std::unique_ptr<PListItem> Read(const std::string& json, std::size_t max_depth,
                                std::optional<Refusal>& refusal) {
    if (json.size() > std::numeric_limits<rapidjson::SizeType>::max()) {
        refusal = {"The text is too long", std::numeric_limits<rapidjson::SizeType>::max()};
        return nullptr;
    }
    bool too_big = false;
    std::unique_ptr<PListItem> item = ReadShown(json, json, max_depth, refusal, too_big);
    if (!too_big) return item;
    refusal.reset();
    return ReadShown(WithSmallNumbers(json), json, max_depth, refusal, too_big);
}

}  // namespace

std::unique_ptr<PListItem> PListItem::CreateFromJSON(const std::string& json, Result_t* why,
                                                     std::size_t max_depth) {
    std::optional<Refusal> refusal;
    std::unique_ptr<PListItem> item = Read(json, max_depth, refusal);
    if (why) {
        *why = refusal ? Mirel::RESULT_FORMAT.WithMessage(refusal->Reason + " at byte " +
                                                          std::to_string(refusal->Offset) + ".")
                       : Mirel::RESULT_OK;
    }
    return item;
}

}  // namespace Velmora
