// Inside of property lists: what the handles point to. Private to the library.
//
// A PListDict or PListArray is a handle to a body with a reference count. Copying the handle shares the body;
// before a change, a body with other owners is replaced by a copy of one level, whose children are shared
// handles again.
//
// A body (or chunk) from which a caller may hold an item to change is marked handed_out. It has exactly one
// owner from then on: copying its handle copies the level, and marked levels below it, at once. So nothing
// that is shared can change.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "VL_PList.h"

namespace Velmora {

using Mirel::byte_t;
using Mirel::ui16_t;
using Mirel::ui32_t;
using Mirel::ui64_t;

enum class BodyKind : byte_t { Dict, Array, Chunk };

struct PListExtra;  // VL_PListIndex.h

/// The head of everything that is shared.
struct PListShared {
    explicit PListShared(BodyKind body_kind) : Kind(body_kind), Extra(nullptr) {}
    PListShared(const PListShared&) = delete;
    PListShared& operator=(const PListShared&) = delete;

    /// Whether the caller is the only owner; what the others did to it has then happened before.
    bool Unique() const noexcept { return Refs.load(std::memory_order_acquire) == 1; }

    std::atomic<ui32_t> Refs{1};
    const BodyKind Kind;
    bool HandedOut = false;
    union {
        PListExtra* Extra;      // what only a larger dictionary has
        PListShared* NextDead;  // once nobody owns it: the list of what is yet to be destroyed
    };
};

/// An item made by a caller, where a stored item is expected; or nothing, where one was removed.
class ExternalItem final : public PListItem {
  public:
    static constexpr ItemType_t OwnType = static_cast<ItemType_t>(15);

    explicit ExternalItem(PListItem* item) : PListItem(OwnType), m_Item(item) {}
    PListItem* Get() const noexcept { return m_Item.get(); }
    PListItem* Release() noexcept { return m_Item.release(); }

    std::string CreateXMLElement() const override { return {}; }
    PListItem* Copy() const override { return nullptr; }
    Result_t EncodeJSON(std::string&) const override { return Mirel::RESULT_STATE; }

  private:
    std::unique_ptr<PListItem> m_Item;
};

/// Access to what the lists keep to themselves.
struct PListInside {
    static PListDictBody*& Body(PListDict& dict) noexcept { return dict.m_Body; }
    static PListArrayBody*& Body(PListArray& array) noexcept { return array.m_Body; }
    /// The body of a list; null for an empty one and for a scalar.
    static PListShared* BodyOf(const PListItem& item) noexcept;
    /// Takes the body out of a list, which is then empty; null as above.
    static PListShared* TakeBody(PListItem& item) noexcept;
    /// Gives a body to an empty list of its kind.
    static void PutBody(PListItem& item, PListShared* body) noexcept;
};

/// Another owner of `body` (may be null): the same body, or a copy where it is marked handed_out.
PListShared* ShareBody(PListShared* body);
/// A copy of one level, with room for `spare` more entries, and of the marked levels below it.
PListShared* CloneBody(const PListShared& body, std::size_t spare);
/// Gives up one owner's share of `body` (may be null) and, with the last one, destroys it and all it alone
/// owns.
void ReleaseBody(PListShared* body) noexcept;

/// Where a stored item stands: in place, or outside when a caller made it. Holds nothing when
/// default-constructed.
class PListSlot {
  public:
    PListSlot() noexcept : PListSlot(static_cast<PListItem*>(nullptr)) {}
    /// Takes over an item made with new.
    explicit PListSlot(PListItem* item) noexcept { Place<ExternalItem>(item); }
    explicit PListSlot(PListData&& data) noexcept { Place<PListData>(std::move(data)); }
    /// An empty list.
    explicit PListSlot(ItemType_t list) noexcept;
    /// A copy.
    explicit PListSlot(const PListItem& item);
    /// The item, which is left empty, unless its body is marked: then a copy.
    explicit PListSlot(PListItem&& item);
    PListSlot(PListSlot&& other) noexcept;
    PListSlot& operator=(PListSlot&& other) noexcept;
    ~PListSlot() {
        // Most items are scalars; a virtual call for each would be felt.
        if (Held()->GetType() <= IT_NULL) {
            As<PListData>()->PListData::~PListData();
        } else {
            std::destroy_at(Held());
        }
    }

    /// Null when nothing is held.
    PListItem* Get() noexcept {
        return Held()->HasType(ExternalItem::OwnType) ? As<ExternalItem>()->Get() : Held();
    }
    const PListItem* Get() const noexcept { return const_cast<PListSlot*>(this)->Get(); }

  private:
    static constexpr std::size_t Room = 32;

    template <class T>
    T* As() noexcept {
        return std::launder(reinterpret_cast<T*>(m_Storage));
    }
    template <class T, class... Arguments>
    void Place(Arguments&&... arguments) {
        static_assert(sizeof(T) <= Room && alignof(T) <= alignof(PListItem));
        ::new (static_cast<void*>(m_Storage)) T(std::forward<Arguments>(arguments)...);
    }
    // Every kind of item has its PListItem at its start.
    PListItem* Held() noexcept { return As<PListItem>(); }

    alignas(PListItem) std::byte m_Storage[Room];
};

/// A key and its item. A removed entry keeps its place until its block is gone; its slot holds nothing.
struct PListEntry {
    CompactText<16> key;
    PListSlot Slot;
};

/// Entries in the order in which they were added; their addresses never change.
struct PListBlock {
    static constexpr std::size_t MaxEntries = 1024;

    explicit PListBlock(std::size_t room) : Capacity(static_cast<ui16_t>(room)) {}

    /// A block on its own; destroyed with Delete.
    static PListBlock* New(std::size_t room);
    static void Delete(PListBlock* block) noexcept;

    // They stand right behind the block.
    PListEntry* Entries() noexcept { return std::launder(reinterpret_cast<PListEntry*>(this + 1)); }
    const PListEntry* Entries() const noexcept { return const_cast<PListBlock*>(this)->Entries(); }

    PListBlock* Next = nullptr;
    PListBlock* Previous = nullptr;
    const ui16_t Capacity;
    ui16_t Used = 0;  // entries constructed, removed ones included
    ui16_t Live = 0;
};

struct PListDictBody : PListShared {
    // Up to here a walk is faster than a hash.
    static constexpr std::size_t WalkLimit = 16;

    struct Place {
        PListBlock* Block = nullptr;
        PListEntry* Entry = nullptr;  // null: not found
    };

    /// A body whose first block has room for `room` entries (at most MaxEntries).
    static PListDictBody* New(std::size_t room);
    static void Delete(PListDictBody* body) noexcept;

    std::size_t Size() const noexcept;
    Place Find(std::string_view key) const noexcept;
    /// Appends an entry whose key is not yet there. What it is made of may be views into this body.
    template <class Key, class Value>
    PListEntry& Add(Key&& key, Value&& value) {
        const bool small = !Extra && First.Used < std::min<std::size_t>(First.Capacity, WalkLimit);
        PListBlock& block = small ? First : PrepareAdd();
        void* memory = block.Entries() + block.Used;
        auto* entry = ::new (memory)
            PListEntry{CompactText<16>(std::forward<Key>(key)), PListSlot(std::forward<Value>(value))};
        if (!small) FinishAdd(block, entry);
        ++block.Used;
        ++block.Live;
        return *entry;
    }
    void Remove(const Place& place) noexcept;

    PListBlock First;  // the last member: its entries follow

  private:
    explicit PListDictBody(std::size_t room) : PListShared(BodyKind::Dict), First(room) {}
    PListBlock& PrepareAdd();
    void FinishAdd(PListBlock& block, PListEntry* entry);
    PListBlock& BlockWithRoom();
    PListExtra& Extended();
    void BuildIndex();
    void Unlink(PListBlock* block) noexcept;
};

/// Consecutive items of an array, shared by copies of it.
struct PListChunk : PListShared {
    static PListChunk* New(std::size_t room);
    static void Delete(PListChunk* chunk) noexcept;

    PListSlot* Slots() noexcept { return std::launder(reinterpret_cast<PListSlot*>(this + 1)); }
    const PListSlot* Slots() const noexcept { return const_cast<PListChunk*>(this)->Slots(); }

    const ui32_t Capacity;
    ui32_t Begin = 0;  // the constructed slots
    ui32_t End = 0;

  private:
    explicit PListChunk(std::size_t room)
        : PListShared(BodyKind::Chunk), Capacity(static_cast<ui32_t>(room)) {}
};

/// The items stand at the positions [begin, end), which only grow; a position's chunk follows from its number
/// alone: chunks of 4, 4, 8, 16 ... items, from position 512 on of 512 items each.
struct PListArrayBody : PListShared {
    static constexpr std::size_t ChunkItems = 512;

    static std::size_t ChunkOf(ui64_t position) noexcept;
    static ui64_t ChunkStart(std::size_t chunk) noexcept;
    static std::size_t ChunkRoom(std::size_t chunk) noexcept;
    /// The place of a position in its chunk.
    static ui32_t Within(ui64_t position) noexcept;

    PListArrayBody() : PListShared(BodyKind::Array) {}

    PListChunk*& ChunkAt(ui64_t position) noexcept { return Chunks[ChunkOf(position) - FirstChunk]; }
    PListSlot& SlotAt(ui64_t position) noexcept {
        const std::size_t chunk = ChunkOf(position);
        return Chunks[chunk - FirstChunk]->Slots()[position - ChunkStart(chunk)];
    }

    ui64_t Begin = 0;
    ui64_t End = 0;
    std::size_t FirstChunk = 0;       // the number of chunks[0]
    std::vector<PListChunk*> Chunks;  // one share each; null in front where the items are gone
};

/// Appends to the array with the handle `handle`; `handed_out` where a caller holds the item, to change it.
void AppendSlot(PListArrayBody*& handle, PListSlot&& slot, bool handed_out);

}  // namespace Velmora
