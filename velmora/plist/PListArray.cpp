// Arrays: handles that take a body of their own before a change.
#include <algorithm>
#include <bit>
#include <cassert>

#include "plist/PListBody.h"

namespace Velmora {

namespace {

PListArrayBody* Share(PListArrayBody* body) {
    return static_cast<PListArrayBody*>(ShareBody(body));
}

// Makes `body` one that nobody else owns. Its chunks may still be shared.
PListArrayBody& MakeOwn(PListArrayBody*& body) {
    if (!body) {
        body = new PListArrayBody;
    } else if (!body->Unique()) {
        auto* own = static_cast<PListArrayBody*>(CloneBody(*body, 0));
        ReleaseBody(std::exchange(body, own));
    }
    return *body;
}

// A chunk with copies of the items at [begin, end). A shared chunk is not marked, nor is anything below it.
PListChunk* CopyChunk(const PListChunk& chunk, ui32_t begin, ui32_t end) {
    PListChunk* copy = PListChunk::New(chunk.Capacity);
    copy->Begin = copy->End = begin;
    for (; copy->End < end; ++copy->End) {
        std::construct_at(copy->Slots() + copy->End, *chunk.Slots()[copy->End].Get());
    }
    return copy;
}

// The items at [begin, end), to be removed from the front of `chunk`: moved, or copied where others own it,
// too.
PListChunk* TakeFront(PListChunk& chunk, ui32_t begin, ui32_t end) {
    if (!chunk.Unique()) return CopyChunk(chunk, begin, end);
    PListChunk* taken = PListChunk::New(chunk.Capacity);
    taken->HandedOut = chunk.HandedOut;
    taken->Begin = taken->End = begin;
    for (; taken->End < end; ++taken->End) {
        std::construct_at(taken->Slots() + taken->End, std::move(chunk.Slots()[taken->End]));
    }
    std::destroy(chunk.Slots() + chunk.Begin, chunk.Slots() + end);
    chunk.Begin = end;
    return taken;
}

PListChunk& MakeOwnChunk(PListArrayBody& body, ui64_t position) {
    PListChunk*& chunk = body.ChunkAt(position);
    if (!chunk->Unique()) {
        PListChunk* own = CopyChunk(*chunk, chunk->Begin, chunk->End);
        ReleaseBody(std::exchange(chunk, own));
    }
    return *chunk;
}

// The chunk in which the next item is to stand.
PListChunk& ChunkForAppend(PListArrayBody& body) {
    const std::size_t number = PListArrayBody::ChunkOf(body.End);
    if (number - body.FirstChunk < body.Chunks.size()) return MakeOwnChunk(body, body.End);
    if (body.Chunks.size() == body.Chunks.capacity()) body.Chunks.reserve(2 * body.Chunks.size() + 1);
    return *body.Chunks.emplace_back(PListChunk::New(PListArrayBody::ChunkRoom(number)));
}

// Forgets the chunks in front of the first item.
void DropChunksBefore(PListArrayBody& body) {
    const std::size_t gone = PListArrayBody::ChunkOf(body.Begin) - body.FirstChunk;
    // Now and then, so that it does not cost a pointer per chunk each time.
    if (gone < 8 || gone < body.Chunks.size() / 2) return;
    body.Chunks.erase(body.Chunks.begin(), body.Chunks.begin() + static_cast<std::ptrdiff_t>(gone));
    body.FirstChunk += gone;
}

}  // namespace

void AppendSlot(PListArrayBody*& handle, PListSlot&& slot, bool handed_out) {
    PListArrayBody& body = MakeOwn(handle);
    PListChunk& chunk = ChunkForAppend(body);
    std::construct_at(chunk.Slots() + chunk.End, std::move(slot));
    ++chunk.End;
    ++body.End;
    if (handed_out) chunk.HandedOut = body.HandedOut = true;
}

// ---- positions
// ---------------------------------------------------------------------------------------------------

// Chunk 0 holds the positions from 0, chunk n the positions from 2^(n+1) for n up to 7, then one per 512
// positions.
std::size_t PListArrayBody::ChunkOf(ui64_t position) noexcept {
    if (position >= ChunkItems) return static_cast<std::size_t>(7 + position / ChunkItems);
    return position < 4 ? 0 : static_cast<std::size_t>(std::bit_width(position) - 2);
}

ui32_t PListArrayBody::Within(ui64_t position) noexcept {
    return static_cast<ui32_t>(position - ChunkStart(ChunkOf(position)));
}

ui64_t PListArrayBody::ChunkStart(std::size_t chunk) noexcept {
    if (chunk > 7) return (chunk - 7) * ChunkItems;
    return chunk == 0 ? 0 : std::size_t{2} << chunk;
}

std::size_t PListArrayBody::ChunkRoom(std::size_t chunk) noexcept {
    if (chunk > 7) return ChunkItems;
    return chunk == 0 ? 4 : std::size_t{2} << chunk;
}

// ---- the array
// ---------------------------------------------------------------------------------------------------

PListArray::PListArray() : PListItem(IT_ARRAY) {}
PListArray::PListArray(const PListArray& other) : PListItem(IT_ARRAY), m_Body(Share(other.m_Body)) {}
PListArray::PListArray(PListArray&& other) noexcept
    : PListItem(IT_ARRAY), m_Body(std::exchange(other.m_Body, nullptr)) {}

PListArray& PListArray::operator=(const PListArray& other) {
    if (this != &other) ReleaseBody(std::exchange(m_Body, Share(other.m_Body)));
    return *this;
}

PListArray& PListArray::operator=(PListArray&& other) noexcept {
    PListArrayBody* body = std::exchange(other.m_Body, nullptr);
    ReleaseBody(std::exchange(m_Body, body));
    return *this;
}

PListArray::~PListArray() {
    if (m_Body) ReleaseBody(m_Body);
}

PListItem* PListArray::Copy() const {
    return new PListArray(*this);
}

void PListArray::Append(PListItem* item) {
    if (item) AppendSlot(m_Body, PListSlot(item), true);
}

void PListArray::Append(const PListItem& item) {
    AppendSlot(m_Body, PListSlot(item), false);
}
void PListArray::Append(PListItem&& item) {
    AppendSlot(m_Body, PListSlot(std::move(item)), false);
}

std::size_t PListArray::Size() const {
    return m_Body ? static_cast<std::size_t>(m_Body->End - m_Body->Begin) : 0;
}

const PListItem* PListArray::GetItem(std::size_t index) const {
    return index < Size() ? m_Body->SlotAt(m_Body->Begin + index).Get() : nullptr;
}

PListItem* PListArray::GetItem(std::size_t index) {
    if (index >= Size()) return nullptr;
    PListArrayBody& body = MakeOwn(m_Body);
    MakeOwnChunk(body, body.Begin + index).HandedOut = true;
    body.HandedOut = true;
    return body.SlotAt(body.Begin + index).Get();
}

void PListArray::DeleteFirst() {
    if (Size() <= 1) return Clear();
    PListArrayBody& body = MakeOwn(m_Body);
    PListChunk*& chunk = body.ChunkAt(body.Begin++);
    const ui32_t begin = PListArrayBody::Within(body.Begin);
    if (begin == 0) {
        ReleaseBody(std::exchange(chunk, nullptr));
    } else if (chunk->Unique()) {
        // With it goes what stayed in front of it while there was a copy.
        std::destroy(chunk->Slots() + chunk->Begin, chunk->Slots() + begin);
        chunk->Begin = begin;
    }
    DropChunksBefore(body);
}

PListArray PListArray::TakeFirst(std::size_t count) {
    if (count >= Size()) return std::move(*this);
    PListArray taken;
    if (count == 0) return taken;
    PListArrayBody& rest = MakeOwn(m_Body);
    taken.m_Body = new PListArrayBody;
    PListArrayBody& front = *taken.m_Body;
    const ui64_t cut = rest.Begin + count;
    const std::size_t whole = PListArrayBody::ChunkOf(cut) - rest.FirstChunk;
    const std::size_t before = PListArrayBody::ChunkOf(rest.Begin) - rest.FirstChunk;  // gone already
    front.Chunks.reserve(whole + 1);
    PListChunk* last = nullptr;
    if (const ui32_t within = PListArrayBody::Within(cut); within > 0)
        last =
            TakeFront(*rest.Chunks[whole], whole == before ? PListArrayBody::Within(rest.Begin) : 0, within);
    // From here on nothing needs memory: both arrays are whole whatever happened.
    front.Chunks.assign(rest.Chunks.begin(), rest.Chunks.begin() + static_cast<std::ptrdiff_t>(whole));
    std::fill_n(rest.Chunks.begin(), whole, nullptr);
    if (last) front.Chunks.push_back(last);
    front.FirstChunk = rest.FirstChunk;
    front.Begin = rest.Begin;
    front.End = rest.Begin = cut;
    front.HandedOut = rest.HandedOut;
    DropChunksBefore(rest);
    return taken;
}

void PListArray::Clear() {
    ReleaseBody(std::exchange(m_Body, nullptr));
}

}  // namespace Velmora
