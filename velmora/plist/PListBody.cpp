// Bodies: shared, copied, released without recursion.
#include "plist/PListBody.h"

#include <algorithm>
#include <bit>

#include "plist/PListIndex.h"

namespace Velmora {

static_assert(sizeof(PListData) == 32 && sizeof(PListDict) == 24 && sizeof(PListArray) == 24);
static_assert(sizeof(PListEntry) == 48 && sizeof(PListDictBody) == 40);

// ---- handles
// -----------------------------------------------------------------------------------------------------

PListShared* PListInside::BodyOf(const PListItem& item) noexcept {
    if (item.HasType(IT_DICT)) return static_cast<const PListDict&>(item).m_Body;
    if (item.HasType(IT_ARRAY)) return static_cast<const PListArray&>(item).m_Body;
    return nullptr;
}

PListShared* PListInside::TakeBody(PListItem& item) noexcept {
    if (item.HasType(IT_DICT)) return std::exchange(static_cast<PListDict&>(item).m_Body, nullptr);
    if (item.HasType(IT_ARRAY)) return std::exchange(static_cast<PListArray&>(item).m_Body, nullptr);
    return nullptr;
}

void PListInside::PutBody(PListItem& item, PListShared* body) noexcept {
    if (item.HasType(IT_DICT)) {
        static_cast<PListDict&>(item).m_Body = static_cast<PListDictBody*>(body);
    } else {
        static_cast<PListArray&>(item).m_Body = static_cast<PListArrayBody*>(body);
    }
}

// ---- slots
// -------------------------------------------------------------------------------------------------------

PListSlot::PListSlot(ItemType_t list) noexcept {
    if (list == IT_DICT) {
        Place<PListDict>();
    } else {
        Place<PListArray>();
    }
}

PListSlot::PListSlot(const PListItem& item) {
    switch (item.GetType()) {
        case IT_DICT:
            Place<PListDict>(static_cast<const PListDict&>(item));
            break;
        case IT_ARRAY:
            Place<PListArray>(static_cast<const PListArray&>(item));
            break;
        default:
            Place<PListData>(static_cast<const PListData&>(item));
            break;
    }
}

PListSlot::PListSlot(PListItem&& item) {
    const PListShared* body = PListInside::BodyOf(item);
    if (!body || body->HandedOut) {
        std::construct_at(this, std::as_const(item));
    } else if (body->Kind == BodyKind::Dict) {
        Place<PListDict>(std::move(static_cast<PListDict&>(item)));
    } else {
        Place<PListArray>(std::move(static_cast<PListArray&>(item)));
    }
}

PListSlot::PListSlot(PListSlot&& other) noexcept {
    if (other.Held()->HasType(ExternalItem::OwnType)) {
        Place<ExternalItem>(other.As<ExternalItem>()->Release());
        return;
    }
    switch (other.Held()->GetType()) {
        case IT_DICT:
            Place<PListDict>(std::move(*other.As<PListDict>()));
            break;
        case IT_ARRAY:
            Place<PListArray>(std::move(*other.As<PListArray>()));
            break;
        default:
            Place<PListData>(std::move(*other.As<PListData>()));
            break;
    }
}

PListSlot& PListSlot::operator=(PListSlot&& other) noexcept {
    if (this != &other) {
        std::destroy_at(this);
        std::construct_at(this, std::move(other));
    }
    return *this;
}

// ---- memory
// ------------------------------------------------------------------------------------------------------

PListBlock* PListBlock::New(std::size_t room) {
    return ::new (::operator new(sizeof(PListBlock) + room * sizeof(PListEntry))) PListBlock(room);
}

void PListBlock::Delete(PListBlock* block) noexcept {
    std::destroy_n(block->Entries(), block->Used);
    block->~PListBlock();
    ::operator delete(block);
}

PListDictBody* PListDictBody::New(std::size_t room) {
    return ::new (::operator new(sizeof(PListDictBody) + room * sizeof(PListEntry))) PListDictBody(room);
}

void PListDictBody::Delete(PListDictBody* body) noexcept {
    for (PListBlock* block = body->First.Next; block;) PListBlock::Delete(std::exchange(block, block->Next));
    std::destroy_n(body->First.Entries(), body->First.Used);
    body->~PListDictBody();
    ::operator delete(body);
}

PListChunk* PListChunk::New(std::size_t room) {
    return ::new (::operator new(sizeof(PListChunk) + room * sizeof(PListSlot))) PListChunk(room);
}

void PListChunk::Delete(PListChunk* chunk) noexcept {
    std::destroy(chunk->Slots() + chunk->Begin, chunk->Slots() + chunk->End);
    chunk->~PListChunk();
    ::operator delete(chunk);
}

// ---- destruction
// -------------------------------------------------------------------------------------------------

namespace {

// What is to be destroyed stands in a list that runs through the bodies themselves, so that neither a deep
// tree nor a lack of memory is in the way.
class Reaper {
  public:
    // Gives up one share; what thereby loses its last owner is destroyed by Run.
    void Release(PListShared* body) noexcept {
        if (!body) return;
        // The only owner needs no exchange between processors.
        if (!body->Unique() && body->Refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
        if (body->Kind == BodyKind::Dict) delete body->Extra;
        body->NextDead = std::exchange(m_Dead, body);
    }

    void Run() noexcept {
        while (m_Dead) Destroy(std::exchange(m_Dead, m_Dead->NextDead));
    }

  private:
    void Destroy(PListShared* body) noexcept {
        switch (body->Kind) {
            case BodyKind::Dict:
                DestroyDict(static_cast<PListDictBody*>(body));
                break;
            case BodyKind::Array:
                for (PListChunk* chunk : static_cast<PListArrayBody*>(body)->Chunks) Release(chunk);
                delete static_cast<PListArrayBody*>(body);
                break;
            case BodyKind::Chunk:
                DestroyChunk(static_cast<PListChunk*>(body));
                break;
        }
    }

    void DestroyDict(PListDictBody* body) noexcept {
        for (PListBlock* block = &body->First; block; block = block->Next) {
            for (ui32_t i = 0; i < block->Used; ++i) ReleaseBelow(block->Entries()[i].Slot);
        }
        PListDictBody::Delete(body);
    }

    void DestroyChunk(PListChunk* chunk) noexcept {
        for (ui32_t i = chunk->Begin; i < chunk->End; ++i) ReleaseBelow(chunk->Slots()[i]);
        PListChunk::Delete(chunk);
    }

    void ReleaseBelow(PListSlot& slot) noexcept {
        if (PListItem* item = slot.Get()) Release(PListInside::TakeBody(*item));
    }

    PListShared* m_Dead = nullptr;
};

}  // namespace

void ReleaseBody(PListShared* body) noexcept {
    Reaper reaper;
    reaper.Release(body);
    reaper.Run();
}

// ---- copies
// ------------------------------------------------------------------------------------------------------

namespace {

struct BodyRelease {
    void operator()(PListShared* body) const noexcept { ReleaseBody(body); }
};
template <class T>
using BodyPointer = std::unique_ptr<T, BodyRelease>;

// Copies one level at a time; levels below that must be copied, too, wait in a list.
class Cloner {
  public:
    PListShared* Run(const PListShared& body, std::size_t spare) {
        BodyPointer<PListShared> root(CloneLevel(body, spare));
        while (!m_Pending.empty()) {
            const Pending next = m_Pending.back();
            m_Pending.pop_back();
            PListInside::PutBody(*next.List, CloneLevel(*next.Body, 0));
        }
        return root.release();
    }

  private:
    struct Pending {
        const PListShared* Body;
        PListItem* List;  // where the copy belongs
    };

    PListShared* CloneLevel(const PListShared& body, std::size_t spare) {
        if (body.Kind == BodyKind::Dict) return CloneDict(static_cast<const PListDictBody&>(body), spare);
        return CloneArray(static_cast<const PListArrayBody&>(body));
    }

    PListShared* CloneDict(const PListDictBody& body, std::size_t spare) {
        BodyPointer<PListDictBody> copy(
            PListDictBody::New(std::min(body.Size() + spare, PListBlock::MaxEntries)));
        for (const PListBlock* block = &body.First; block; block = block->Next) {
            for (ui32_t i = 0; i < block->Used; ++i) {
                const PListEntry& entry = block->Entries()[i];
                const PListItem* item = entry.Slot.Get();
                if (!item) continue;
                PListEntry& added = copy->Add(CompactText<16>(entry.key), CloneItem(*item));
                CloneBelowLater(*item, *added.Slot.Get());
            }
        }
        return copy.release();
    }

    PListShared* CloneArray(const PListArrayBody& body) {
        BodyPointer<PListArrayBody> copy(new PListArrayBody);
        copy->Begin = body.Begin;
        copy->End = body.End;
        copy->FirstChunk = body.FirstChunk;
        copy->Chunks.reserve(body.Chunks.size() + 1);
        for (PListChunk* chunk : body.Chunks) {
            if (chunk && chunk->HandedOut) {
                copy->Chunks.push_back(CloneChunk(*chunk));
            } else {
                if (chunk) chunk->Refs.fetch_add(1, std::memory_order_relaxed);
                copy->Chunks.push_back(chunk);
            }
        }
        return copy.release();
    }

    PListChunk* CloneChunk(const PListChunk& chunk) {
        BodyPointer<PListChunk> copy(PListChunk::New(chunk.Capacity));
        copy->Begin = copy->End = chunk.Begin;
        for (; copy->End < chunk.End; ++copy->End) {
            const PListItem& item = *chunk.Slots()[copy->End].Get();
            PListSlot* slot = std::construct_at(copy->Slots() + copy->End, CloneItem(item));
            CloneBelowLater(item, *slot->Get());
        }
        return copy.release();
    }

    static bool IsMarked(const PListItem& item) {
        const PListShared* body = PListInside::BodyOf(item);
        return body && body->HandedOut;
    }

    // The item itself; a list whose body must be copied is left empty for now.
    static PListSlot CloneItem(const PListItem& item) {
        return IsMarked(item) ? PListSlot(item.GetType()) : PListSlot(item);
    }

    void CloneBelowLater(const PListItem& item, PListItem& copy) {
        if (IsMarked(item)) m_Pending.push_back({PListInside::BodyOf(item), &copy});
    }

    std::vector<Pending> m_Pending;
};

}  // namespace

PListShared* ShareBody(PListShared* body) {
    if (!body) return nullptr;
    if (body->HandedOut) return CloneBody(*body, 0);
    body->Refs.fetch_add(1, std::memory_order_relaxed);
    return body;
}

PListShared* CloneBody(const PListShared& body, std::size_t spare) {
    return Cloner().Run(body, spare);
}

}  // namespace Velmora
