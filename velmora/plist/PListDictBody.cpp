// A dictionary's entries in blocks, in the order in which they were added.
#include <algorithm>

#include "plist/PListBody.h"
#include "plist/PListIndex.h"

namespace Velmora {

namespace {

constexpr std::size_t SecondBlock = 8;

}  // namespace

std::size_t PListDictBody::Size() const noexcept {
    return Extra ? Extra->Live : First.Live;
}

PListDictBody::Place PListDictBody::Find(std::string_view key) const noexcept {
    if (Extra && Extra->Indexed) {
        const auto found = Extra->Index.find(key);
        return found == Extra->Index.end() ? Place{} : found->Place;
    }
    for (auto* block = const_cast<PListBlock*>(&First); block; block = block->Next) {
        PListEntry* entry = block->Entries();
        for (PListEntry* end = entry + block->Used; entry != end; ++entry) {
            if (entry->key.View() == key && entry->Slot.Get()) return {block, entry};
        }
    }
    return {};
}

PListExtra& PListDictBody::Extended() {
    if (!Extra) Extra = new PListExtra(&First);
    return *Extra;
}

PListBlock& PListDictBody::BlockWithRoom() {
    PListBlock* last = Extra ? Extra->Last : &First;
    if (last->Used < last->Capacity) return *last;
    PListBlock* added = PListBlock::New(std::clamp(Size(), SecondBlock, PListBlock::MaxEntries));
    try {
        Extended().Last = added;
    } catch (...) {
        PListBlock::Delete(added);
        throw;
    }
    added->Previous = last;
    last->Next = added;
    return *added;
}

void PListDictBody::BuildIndex() {
    Extra->Index.clear();
    Extra->Index.reserve(2 * WalkLimit);
    for (PListBlock* block = &First; block; block = block->Next) {
        for (PListEntry* entry = block->Entries(); entry != block->Entries() + block->Used; ++entry) {
            if (entry->Slot.Get()) Extra->Insert(block, entry);
        }
    }
    Extra->Indexed = true;
}

PListBlock& PListDictBody::PrepareAdd() {
    PListBlock& block = BlockWithRoom();
    if (Size() >= WalkLimit && !Extended().Indexed) BuildIndex();
    return block;
}

void PListDictBody::FinishAdd(PListBlock& block, PListEntry* entry) {
    if (Extra && Extra->Indexed) {
        try {
            Extra->Insert(&block, entry);
        } catch (...) {
            std::destroy_at(entry);
            throw;
        }
    }
    if (Extra) ++Extra->Live;
}

void PListDictBody::Remove(const Place& place) noexcept {
    auto [block, entry] = place;
    if (Extra) {
        if (Extra->Indexed) Extra->Index.erase(Extra->Index.find(entry->key.View()));
        --Extra->Live;
    }
    --block->Live;
    // Emptied first and destroyed last: the item may be large, and it may hold the text that is this key.
    const PListSlot removed = std::exchange(entry->Slot, PListSlot());
    entry->key = {};
    if (!block->Next) {
        while (block->Used > 0 && !block->Entries()[block->Used - 1].Slot.Get()) {
            std::destroy_at(block->Entries() + --block->Used);
        }
    }
    if (block->Live == 0 && block != &First) Unlink(block);
}

void PListDictBody::Unlink(PListBlock* block) noexcept {
    block->Previous->Next = block->Next;
    if (block->Next) {
        block->Next->Previous = block->Previous;
    } else {
        Extra->Last = block->Previous;
    }
    PListBlock::Delete(block);
}

}  // namespace Velmora
