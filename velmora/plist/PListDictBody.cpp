#include <algorithm>

#include "plist/PListBody.h"
#include "plist/PListIndex.h"

namespace Velmora {

namespace {

constexpr std::size_t kSecondBlock = 8;

}  // namespace

std::size_t PListDictBody::Size() const noexcept {
    return extra ? extra->live : first.live;
}

PListDictBody::Place PListDictBody::Find(std::string_view key) const noexcept {
    if (extra && extra->indexed) {
        const auto found = extra->index.find(key);
        return found == extra->index.end() ? Place{} : found->place;
    }
    for (auto* block = const_cast<PListBlock*>(&first); block; block = block->next) {
        PListEntry* entry = block->Entries();
        for (PListEntry* end = entry + block->used; entry != end; ++entry) {
            if (entry->key.View() == key && entry->slot.Get()) return {block, entry};
        }
    }
    return {};
}

PListExtra& PListDictBody::Extra() {
    if (!extra) extra = new PListExtra(&first);
    return *extra;
}

PListBlock& PListDictBody::BlockWithRoom() {
    PListBlock* last = extra ? extra->last : &first;
    if (last->used < last->capacity) return *last;
    PListBlock* added = PListBlock::New(std::clamp(Size(), kSecondBlock, PListBlock::kMaxEntries));
    try {
        Extra().last = added;
    } catch (...) {
        PListBlock::Delete(added);
        throw;
    }
    added->previous = last;
    last->next = added;
    return *added;
}

void PListDictBody::BuildIndex() {
    extra->index.clear();
    extra->index.reserve(2 * kWalkLimit);
    for (PListBlock* block = &first; block; block = block->next) {
        for (PListEntry* entry = block->Entries(); entry != block->Entries() + block->used; ++entry) {
            if (entry->slot.Get()) extra->Insert(block, entry);
        }
    }
    extra->indexed = true;
}

PListBlock& PListDictBody::PrepareAdd() {
    PListBlock& block = BlockWithRoom();
    if (Size() >= kWalkLimit && !Extra().indexed) BuildIndex();
    return block;
}

void PListDictBody::FinishAdd(PListBlock& block, PListEntry* entry) {
    if (extra && extra->indexed) {
        try {
            extra->Insert(&block, entry);
        } catch (...) {
            std::destroy_at(entry);
            throw;
        }
    }
    if (extra) ++extra->live;
}

void PListDictBody::Remove(const Place& place) noexcept {
    auto [block, entry] = place;
    if (extra) {
        if (extra->indexed) extra->index.erase(extra->index.find(entry->key.View()));
        --extra->live;
    }
    --block->live;
    // Emptied first and destroyed last: the item may be large, and it may hold the text that is this key.
    const PListSlot removed = std::exchange(entry->slot, PListSlot());
    entry->key = {};
    if (!block->next) {
        while (block->used > 0 && !block->Entries()[block->used - 1].slot.Get()) {
            std::destroy_at(block->Entries() + --block->used);
        }
    }
    if (block->live == 0 && block != &first) Unlink(block);
}

void PListDictBody::Unlink(PListBlock* block) noexcept {
    block->previous->next = block->next;
    if (block->next) {
        block->next->previous = block->previous;
    } else {
        extra->last = block->previous;
    }
    PListBlock::Delete(block);
}

}  // namespace Velmora
