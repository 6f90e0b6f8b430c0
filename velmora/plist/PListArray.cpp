#include <algorithm>
#include <bit>
#include <cassert>

#include "plist/PListBody.h"

namespace Velmora {

namespace {

PListArrayBody* Share(PListArrayBody* body) {
    return static_cast<PListArrayBody*>(ShareBody(body));
}

/// Makes `body` one that nobody else owns. Its chunks may still be shared.
PListArrayBody& MakeOwn(PListArrayBody*& body) {
    if (!body) {
        body = new PListArrayBody;
    } else if (!body->Unique()) {
        auto* own = static_cast<PListArrayBody*>(CloneBody(*body, 0));
        ReleaseBody(std::exchange(body, own));
    }
    return *body;
}

/// A chunk with copies of the items at [begin, end). A shared chunk is not marked, nor is anything below it.
PListChunk* CopyChunk(const PListChunk& chunk, ui32_t begin, ui32_t end) {
    PListChunk* copy = PListChunk::New(chunk.capacity);
    copy->begin = copy->end = begin;
    for (; copy->end < end; ++copy->end) {
        std::construct_at(copy->Slots() + copy->end, *chunk.Slots()[copy->end].Get());
    }
    return copy;
}

/// The items at [begin, end), to be removed from the front of `chunk`: moved, or copied where others own it,
/// too.
PListChunk* TakeFront(PListChunk& chunk, ui32_t begin, ui32_t end) {
    if (!chunk.Unique()) return CopyChunk(chunk, begin, end);
    PListChunk* taken = PListChunk::New(chunk.capacity);
    taken->handed_out = chunk.handed_out;
    taken->begin = taken->end = begin;
    for (; taken->end < end; ++taken->end) {
        std::construct_at(taken->Slots() + taken->end, std::move(chunk.Slots()[taken->end]));
    }
    std::destroy(chunk.Slots() + chunk.begin, chunk.Slots() + end);
    chunk.begin = end;
    return taken;
}

PListChunk& MakeOwnChunk(PListArrayBody& body, ui64_t position) {
    PListChunk*& chunk = body.ChunkAt(position);
    if (!chunk->Unique()) {
        PListChunk* own = CopyChunk(*chunk, chunk->begin, chunk->end);
        ReleaseBody(std::exchange(chunk, own));
    }
    return *chunk;
}

/// The chunk in which the next item is to stand.
PListChunk& ChunkForAppend(PListArrayBody& body) {
    const std::size_t number = PListArrayBody::ChunkOf(body.end);
    if (number - body.first_chunk < body.chunks.size()) return MakeOwnChunk(body, body.end);
    if (body.chunks.size() == body.chunks.capacity()) body.chunks.reserve(2 * body.chunks.size() + 1);
    return *body.chunks.emplace_back(PListChunk::New(PListArrayBody::ChunkRoom(number)));
}

/// Forgets the chunks in front of the first item.
void DropChunksBefore(PListArrayBody& body) {
    const std::size_t gone = PListArrayBody::ChunkOf(body.begin) - body.first_chunk;
    // Now and then, so that it does not cost a pointer per chunk each time.
    if (gone < 8 || gone < body.chunks.size() / 2) return;
    body.chunks.erase(body.chunks.begin(), body.chunks.begin() + static_cast<std::ptrdiff_t>(gone));
    body.first_chunk += gone;
}

}  // namespace

void AppendSlot(PListArrayBody*& handle, PListSlot&& slot, bool handed_out) {
    PListArrayBody& body = MakeOwn(handle);
    PListChunk& chunk = ChunkForAppend(body);
    std::construct_at(chunk.Slots() + chunk.end, std::move(slot));
    ++chunk.end;
    ++body.end;
    if (handed_out) chunk.handed_out = body.handed_out = true;
}

// ---- positions
// ---------------------------------------------------------------------------------------------------

// Chunk 0 holds the positions from 0, chunk n the positions from 2^(n+1) for n up to 7, then one per 512
// positions.
std::size_t PListArrayBody::ChunkOf(ui64_t position) noexcept {
    if (position >= kChunkItems) return static_cast<std::size_t>(7 + position / kChunkItems);
    return position < 4 ? 0 : static_cast<std::size_t>(std::bit_width(position) - 2);
}

ui32_t PListArrayBody::Within(ui64_t position) noexcept {
    return static_cast<ui32_t>(position - ChunkStart(ChunkOf(position)));
}

ui64_t PListArrayBody::ChunkStart(std::size_t chunk) noexcept {
    if (chunk > 7) return (chunk - 7) * kChunkItems;
    return chunk == 0 ? 0 : std::size_t{2} << chunk;
}

std::size_t PListArrayBody::ChunkRoom(std::size_t chunk) noexcept {
    if (chunk > 7) return kChunkItems;
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
    return m_Body ? static_cast<std::size_t>(m_Body->end - m_Body->begin) : 0;
}

const PListItem* PListArray::GetItem(std::size_t index) const {
    return index < Size() ? m_Body->SlotAt(m_Body->begin + index).Get() : nullptr;
}

PListItem* PListArray::GetItem(std::size_t index) {
    if (index >= Size()) return nullptr;
    PListArrayBody& body = MakeOwn(m_Body);
    MakeOwnChunk(body, body.begin + index).handed_out = true;
    body.handed_out = true;
    return body.SlotAt(body.begin + index).Get();
}

void PListArray::DeleteFirst() {
    if (Size() <= 1) return Clear();
    PListArrayBody& body = MakeOwn(m_Body);
    PListChunk*& chunk = body.ChunkAt(body.begin++);
    const ui32_t begin = PListArrayBody::Within(body.begin);
    if (begin == 0) {
        ReleaseBody(std::exchange(chunk, nullptr));
    } else if (chunk->Unique()) {
        // With it goes what stayed in front of it while there was a copy.
        std::destroy(chunk->Slots() + chunk->begin, chunk->Slots() + begin);
        chunk->begin = begin;
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
    const ui64_t cut = rest.begin + count;
    const std::size_t whole = PListArrayBody::ChunkOf(cut) - rest.first_chunk;
    const std::size_t before = PListArrayBody::ChunkOf(rest.begin) - rest.first_chunk;  // gone already
    front.chunks.reserve(whole + 1);
    PListChunk* last = nullptr;
    if (const ui32_t within = PListArrayBody::Within(cut); within > 0)
        last =
            TakeFront(*rest.chunks[whole], whole == before ? PListArrayBody::Within(rest.begin) : 0, within);
    // From here on nothing needs memory: both arrays are whole whatever happened.
    front.chunks.assign(rest.chunks.begin(), rest.chunks.begin() + static_cast<std::ptrdiff_t>(whole));
    std::fill_n(rest.chunks.begin(), whole, nullptr);
    if (last) front.chunks.push_back(last);
    front.first_chunk = rest.first_chunk;
    front.begin = rest.begin;
    front.end = rest.begin = cut;
    front.handed_out = rest.handed_out;
    DropChunksBefore(rest);
    return taken;
}

void PListArray::Clear() {
    ReleaseBody(std::exchange(m_Body, nullptr));
}

}  // namespace Velmora
