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

#include "VL_PListBody.h"

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

constexpr std::size_t kMaxDepth = 256;
constexpr unsigned kParseFlags = rapidjson::kParseValidateEncodingFlag | rapidjson::kParseIterativeFlag |
                                 rapidjson::kParseNumbersAsStringsFlag;

struct Refusal {
    std::string reason;
    std::size_t offset;
};

// Half of a surrogate pair, which the reader lets pass when it is the second half. UTF-8 from outside has
// none.
bool HasHalfPair(std::string_view text) {
    for (std::size_t at = text.find('\xED'); at != text.npos; at = text.find('\xED', at + 1)) {
        if (at + 1 < text.size() && static_cast<byte_t>(text[at + 1]) >= 0xA0) return true;
    }
    return false;
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
    explicit TreeBuilder(BoundedStream& stream) : m_Stream(stream) {
        m_Entries.reserve(kUsualEntries);
        m_Levels.reserve(kUsualLevels);
    }

    bool Null() { return Add(PListSlot(PListData(IT_NULL, {}))); }
    bool Bool(bool value) { return Add(PListSlot(PListData(value))); }
    bool RawNumber(const char* text, rapidjson::SizeType size, bool) {
        return Add(PListSlot(NumberItem({text, size})));
    }
    bool String(const char* text, rapidjson::SizeType size, bool) {
        if (HasHalfPair({text, size})) return RefuseHalfPair();
        return Add(PListSlot(PListData(std::string_view(text, size))));
    }
    bool Key(const char* text, rapidjson::SizeType size, bool) {
        if (HasHalfPair({text, size})) return RefuseHalfPair();
        m_Entries.push_back({{CompactText<16>({text, size}), PListSlot()}, m_Stream.Tell()});
        return true;
    }
    bool StartObject() { return Open(true); }
    bool StartArray() { return Open(false); }

    bool EndObject(rapidjson::SizeType) {
        PListSlot slot(IT_DICT);
        PListDictBody*& body = PListInside::Body(static_cast<PListDict&>(*slot.Get()));
        const std::size_t first = m_Levels.back().first_entry;
        const std::size_t count = m_Entries.size() - first;
        if (count > 0) body = PListDictBody::New(std::min(count, PListBlock::kMaxEntries));
        for (std::size_t i = first; i < m_Entries.size(); ++i) {
            auto& [entry, key_offset] = m_Entries[i];
            if (body->Find(entry.key.View()).entry) return RefuseDuplicate(entry.key.View(), key_offset);
            body->Add(std::move(entry.key), std::move(entry.slot));
        }
        Close();
        return Add(std::move(slot));
    }

    bool EndArray(rapidjson::SizeType) {
        PListSlot slot(IT_ARRAY);
        PListArrayBody*& body = PListInside::Body(static_cast<PListArray&>(*slot.Get()));
        for (std::size_t i = m_Levels.back().first_entry; i < m_Entries.size(); ++i) {
            AppendSlot(body, std::move(m_Entries[i].entry.slot), false);
        }
        Close();
        return Add(std::move(slot));
    }

    const std::optional<Refusal>& Refused() const { return m_Refusal; }
    std::unique_ptr<PListItem> Root() const { return std::unique_ptr<PListItem>(m_Root.Get()->Copy()); }

  private:
    struct OpenEntry {
        PListEntry entry;
        std::size_t key_offset;  // of items without a key 0
    };
    struct Level {
        bool dict;
        std::size_t first_entry;
    };
    // A posting's data has no more of them, and needs these stacks once.
    static constexpr std::size_t kUsualEntries = 16;
    static constexpr std::size_t kUsualLevels = 4;

    bool Open(bool dict) {
        if (m_Levels.size() == kMaxDepth) {
            return Refuse("Lists are nested deeper than " + std::to_string(kMaxDepth) + " levels",
                          m_Stream.Tell());
        }
        m_Levels.push_back({dict, m_Entries.size()});
        return true;
    }

    void Close() {
        const Level& level = m_Levels.back();
        m_Entries.erase(m_Entries.begin() + static_cast<std::ptrdiff_t>(level.first_entry), m_Entries.end());
        m_Levels.pop_back();
    }

    bool Add(PListSlot&& slot) {
        if (m_Levels.empty()) {
            m_Root = std::move(slot);
        } else if (m_Levels.back().dict) {
            m_Entries.back().entry.slot = std::move(slot);
        } else {
            m_Entries.push_back({{{}, std::move(slot)}, 0});
        }
        return true;
    }

    bool Refuse(std::string reason, std::size_t offset) {
        m_Refusal = {std::move(reason), offset};
        return false;
    }
    bool RefuseHalfPair() { return Refuse("The surrogate pair in string is invalid", m_Stream.Tell()); }
    bool RefuseDuplicate(std::string_view key, std::size_t offset) {
        std::string quoted;
        (void)PListData(key).EncodeJSON(quoted);
        return Refuse("Duplicate key " + quoted, offset);
    }

    // While a string or a key is handed over, it still stands in front of it.
    BoundedStream& m_Stream;
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

std::unique_ptr<PListItem> Read(const std::string& json, std::optional<Refusal>& refusal) {
    if (json.size() > std::numeric_limits<rapidjson::SizeType>::max()) {
        refusal = {"The text is too long", std::numeric_limits<rapidjson::SizeType>::max()};
        return nullptr;
    }
    BoundedStream stream(json);
    TreeBuilder builder(stream);
    ThrowingAllocator allocator;  // the reader makes one with new otherwise
    const rapidjson::ParseResult result = JSONReader(&allocator).Parse<kParseFlags>(stream, builder);
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

}  // namespace

std::unique_ptr<PListItem> PListItem::CreateFromJSON(const std::string& json, Result_t* why) {
    std::optional<Refusal> refusal;
    std::unique_ptr<PListItem> item = Read(json, refusal);
    if (why) {
        *why = refusal ? Mirel::RESULT_FORMAT.WithMessage(refusal->reason + " at byte " +
                                                          std::to_string(refusal->offset) + ".")
                       : Mirel::RESULT_OK;
    }
    return item;
}

}  // namespace Velmora
