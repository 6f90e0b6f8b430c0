// Dictionaries: handles that take a body of their own before a change.
#include <algorithm>

#include "plist/PListBody.h"

namespace Velmora {

namespace {

constexpr std::size_t FirstEntries = 4;

PListDictBody* Share(PListDictBody* body) {
    return static_cast<PListDictBody*>(ShareBody(body));
}

// Keeps the body that a change replaced until the change is done: keys and items handed in may be part of it.
class ReplacedBody {
  public:
    ReplacedBody() = default;
    ReplacedBody(const ReplacedBody&) = delete;
    ReplacedBody& operator=(const ReplacedBody&) = delete;
    ~ReplacedBody() {
        if (m_Body) ReleaseBody(m_Body);
    }
    void Keep(PListShared* body) { m_Body = body; }

  private:
    PListShared* m_Body = nullptr;
};

// Makes `body` one that nobody else owns.
PListDictBody& MakeOwn(PListDictBody*& body, ReplacedBody& replaced) {
    if (!body) {
        body = PListDictBody::New(FirstEntries);
    } else if (!body->Unique()) {
        const std::size_t spare = std::max(FirstEntries / 2, body->Size() / 4);
        auto* own = static_cast<PListDictBody*>(CloneBody(*body, spare));
        replaced.Keep(std::exchange(body, own));
    }
    return *body;
}

// `value` is what a slot is made of: a scalar, another slot, or an item that is not a list.
template <class Value>
void Store(PListDictBody*& body, std::string_view key, Value&& value) {
    ReplacedBody replaced;
    PListDictBody& own = MakeOwn(body, replaced);
    if (PListEntry* entry = own.Find(key).Entry) {
        // The old item is destroyed when the new one is in its place.
        const PListSlot old = std::exchange(entry->Slot, PListSlot(std::forward<Value>(value)));
    } else {
        own.Add(key, std::forward<Value>(value));
    }
}

// Never destroyed, so that they may be used while the process ends.
template <class T>
const T& EmptyItem() {
    static const T* const empty = new T;
    return *empty;
}

}  // namespace

PListDict::PListDict() : PListItem(IT_DICT) {}
PListDict::PListDict(const PListDict& other) : PListItem(IT_DICT), m_Body(Share(other.m_Body)) {}
PListDict::PListDict(PListDict&& other) noexcept
    : PListItem(IT_DICT), m_Body(std::exchange(other.m_Body, nullptr)) {}

PListDict& PListDict::operator=(const PListDict& other) {
    if (this != &other) ReleaseBody(std::exchange(m_Body, Share(other.m_Body)));
    return *this;
}

PListDict& PListDict::operator=(PListDict&& other) noexcept {
    PListDictBody* body = std::exchange(other.m_Body, nullptr);
    ReleaseBody(std::exchange(m_Body, body));
    return *this;
}

PListDict::~PListDict() {
    if (m_Body) ReleaseBody(m_Body);
}

PListItem* PListDict::Copy() const {
    return new PListDict(*this);
}
void PListDict::Copy(const PListDict& other) {
    *this = other;
}

const PListItem* PListDict::GetItem(std::string_view key) const {
    const PListEntry* entry = m_Body ? m_Body->Find(key).Entry : nullptr;
    return entry ? entry->Slot.Get() : nullptr;
}

PListItem* PListDict::GetItem(std::string_view key) {
    if (!HasItem(key)) return nullptr;
    ReplacedBody replaced;
    PListDictBody& own = MakeOwn(m_Body, replaced);
    own.HandedOut = true;
    return own.Find(key).Entry->Slot.Get();
}

const PListData& PListDict::GetData(std::string_view key) const {
    const PListItem* item = GetItem(key);
    if (!item || item->HasType(IT_DICT) || item->HasType(IT_ARRAY)) return EmptyItem<PListData>();
    return static_cast<const PListData&>(*item);
}

const PListDict& PListDict::GetDict(std::string_view key) const {
    const PListItem* item = GetItem(key);
    return item && item->HasType(IT_DICT) ? static_cast<const PListDict&>(*item) : EmptyItem<PListDict>();
}

const PListArray& PListDict::GetArray(std::string_view key) const {
    const PListItem* item = GetItem(key);
    return item && item->HasType(IT_ARRAY) ? static_cast<const PListArray&>(*item) : EmptyItem<PListArray>();
}

void PListDict::SetItem(std::string_view key, PListItem* item) {
    if (!item) {
        DeleteItem(key);
    } else if (std::as_const(*this).GetItem(key) != item) {
        Store(m_Body, key, PListSlot(item));
        m_Body->HandedOut = true;
    }
}

void PListDict::SetItem(std::string_view key, const PListItem& item) {
    Store(m_Body, key, PListSlot(item));
}
void PListDict::SetItem(std::string_view key, PListItem&& item) {
    Store(m_Body, key, PListSlot(std::move(item)));
}

void PListDict::SetValue(std::string_view key, std::string_view text) {
    Store(m_Body, key, PListData(text));
}
void PListDict::SetValue(std::string_view key, const int& value) {
    Store(m_Body, key, PListData(value));
}
void PListDict::SetValue(std::string_view key, const long long& value) {
    Store(m_Body, key, PListData(value));
}
void PListDict::SetValue(std::string_view key, const double& value) {
    Store(m_Body, key, PListData(value));
}
void PListDict::SetValue(std::string_view key, const bool& value) {
    Store(m_Body, key, PListData(value));
}

void PListDict::DeleteItem(std::string_view key) {
    if (!HasItem(key)) return;
    ReplacedBody replaced;
    PListDictBody& own = MakeOwn(m_Body, replaced);
    own.Remove(own.Find(key));
}

bool PListDict::HasItem(std::string_view key) const {
    return m_Body && m_Body->Find(key).Entry;
}
std::size_t PListDict::Size() const {
    return m_Body ? m_Body->Size() : 0;
}
void PListDict::Clear() {
    ReleaseBody(std::exchange(m_Body, nullptr));
}

PListDict::const_iterator PListDict::begin() const {
    return m_Body ? const_iterator(&m_Body->First, 0) : const_iterator();
}

PListDict::const_iterator::const_iterator(const PListBlock* block, Mirel::ui32_t index)
    : m_Block(block), m_Index(index) {
    SkipRemoved();
}

PListDict::Entry PListDict::const_iterator::operator*() const {
    const PListEntry& entry = m_Block->Entries()[m_Index];
    return {entry.key.View(), *entry.Slot.Get()};
}

PListDict::const_iterator& PListDict::const_iterator::operator++() {
    ++m_Index;
    SkipRemoved();
    return *this;
}

void PListDict::const_iterator::SkipRemoved() {
    while (m_Block) {
        if (m_Index == m_Block->Used) {
            m_Block = m_Block->Next;
            m_Index = 0;
        } else if (!m_Block->Entries()[m_Index].Slot.Get()) {
            ++m_Index;
        } else {
            break;
        }
    }
}

}  // namespace Velmora
