// Appends frames, lends what a cursor has not had, and forgets what all have had.
#include "feed/FrameLog.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "feed/CounterSet.h"
#include "feed/FeedFilter.h"
#include "feed/Frame.h"

namespace Velmora::Feed {

namespace {

// What a client gets at most in one go, and so how long the others wait for their turn. Measured: half of it
// costs a tenth of the throughput, and twice as much gains nothing.
constexpr std::size_t UsualSegmentSize = 64u << 10;
constexpr std::size_t SmallestSegmentSize = 256;
// What is kept to be used anew: memory that the system has to find first costs a posting ten times as much.
constexpr std::size_t MaxSpare = 64;
// Room for notes and for names: for the smallest frames, and as a part of the frames' own.
constexpr std::size_t NotePart = 64;
constexpr std::size_t NamePart = 4;

char* TakeMemory(std::size_t size) {
    // Populated: a page fault for every few frames would cost several times as much.
    void* memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    return static_cast<char*>(memory);
}

void PutFrame(LogSegment& segment, std::string_view text) {
    char* out = segment.Bytes + segment.Size;
    const std::size_t header = WriteServerHeader(out, OP_TEXT, text.size());
    std::memcpy(out + header, text.data(), text.size());
    segment.Size += header + text.size();
    ++segment.Frames;
}

}  // namespace

LogSegment::LogSegment(std::size_t capacity, std::size_t notes, std::size_t names)
    : LogSegment(capacity, notes, names, TakeMemory(notes * sizeof(FrameNote) + capacity + names)) {}

// One piece of memory for all: whoever posts waits for it.
LogSegment::LogSegment(std::size_t capacity, std::size_t notes, std::size_t names, char* memory)
    : NoteRoom(notes),
      NameRoom(names),
      Capacity(capacity),
      Notes(notes > 0 ? reinterpret_cast<FrameNote*>(memory) : nullptr),
      Bytes(memory + notes * sizeof(FrameNote)),
      Names(Bytes + capacity) {}

bool LogSegment::Put(std::string_view frame, std::uint64_t number, std::string_view name,
                     std::uint64_t hash) {
    const FrameNote* before = Frames > 0 ? &Notes[Frames - 1] : nullptr;
    const bool known = before != nullptr && before->Hash == hash && NameOf(*before) == name;
    if (Frames == NoteRoom || Capacity - Size < frame.size()) return false;
    if (!known && NameRoom - NamesSize < name.size()) return false;
    std::memcpy(Bytes + Size, frame.data(), frame.size());
    Size += frame.size();
    FrameNote& note = Notes[Frames++];
    note = {number, Size, hash, known ? before->NameAt : NamesSize, name.size()};
    if (known) return true;
    std::copy(name.begin(), name.end(), Names + NamesSize);
    NamesSize += name.size();
    return true;
}

LogSegment::~LogSegment() {
    munmap(Bytes - NoteRoom * sizeof(FrameNote), Memory());
}

std::size_t LogCursor::FrameEnd() const {
    if (Segment->Notes) return Segment->Notes[Frames].End;
    return Boundary + ServerFrameSize(Segment->Bytes + Boundary);
}

std::size_t LogCursor::Limit(const LogEnd& end) const {
    return Segment->Number < end.Segment ? Segment->Size : end.Size;
}

std::uint64_t LogCursor::FrameLimit(const LogEnd& end) const {
    if (Segment->Number > end.Segment) return 0;  // it has come to the log after that
    return Segment->Number < end.Segment ? Segment->Frames : end.Frames;
}

void LogCursor::SkipTo(std::uint64_t frame) {
    Frames = frame;
    Offset = Boundary = frame == 0 ? 0 : Segment->Notes[frame - 1].End;
}

std::uint64_t LogCursor::Move(std::size_t count, const LogEnd& end) {
    const std::uint64_t before = Frames;
    Offset += count;
    if (Offset == Limit(end)) {  // the usual case, without a look at the frames
        Boundary = Offset;
        Frames = FrameLimit(end);
    }
    while (Boundary < Offset) {
        const std::size_t next = FrameEnd();
        if (next > Offset) break;
        Boundary = next;
        ++Frames;
    }
    return Frames - before;
}

FrameLog::FrameLog(std::size_t limit, std::optional<FeedWish::Form> form)
    : m_Limit(limit),
      m_SegmentSize(std::clamp(limit / 8, SmallestSegmentSize, UsualSegmentSize)),
      m_Form(form) {
    Mirel::AutoMutex lock(m_Lock);
    Push(NewSegment(m_SegmentSize));
}

FrameLog::~FrameLog() {
    Uncount(Counters.LogBytes, m_Bytes);
}

bool FrameLog::Append(std::string_view text) {
    const std::size_t size = ServerHeaderSize(text.size()) + text.size();
    SegmentPtr own;  // a long frame is put together before the lock is taken
    if (size > m_SegmentSize) {
        own = std::make_shared<LogSegment>(size);
        PutFrame(*own, text);
    }
    std::vector<SegmentPtr> dropped;  // freed after the lock
    Mirel::AutoMutex lock(m_Lock);
    if (!HasReaders()) return false;
    if (own) {
        Push(std::move(own));
    } else {
        if (m_Segments.back()->Capacity - m_Segments.back()->Size < size) Push(NewSegment(m_SegmentSize));
        PutFrame(*m_Segments.back(), text);
    }
    return FinishAppend(dropped);
}

// The frame is put together before the lock is taken; its memory is kept from one to the next.
bool FrameLog::Append(const PostedText& posted) {
    static thread_local std::string frame;
    frame.clear();
    AppendFrame(frame, *m_Form, posted);
    const std::uint64_t hash = NameHash(posted.Name);
    SegmentPtr own;
    if (frame.size() > m_SegmentSize || posted.Name.size() > m_SegmentSize / NamePart) {
        own = std::make_shared<LogSegment>(frame.size(), 1, posted.Name.size());
        own->Put(frame, posted.Number, posted.Name, hash);
    }
    std::vector<SegmentPtr> dropped;  // freed after the lock
    Mirel::AutoMutex lock(m_Lock);
    if (!HasReaders()) return false;
    if (own) {
        Push(std::move(own));
    } else if (!m_Segments.back()->Put(frame, posted.Number, posted.Name, hash)) {
        Push(NewSegment(m_SegmentSize));
        m_Segments.back()->Put(frame, posted.Number, posted.Name, hash);
    }
    if (frame.capacity() > m_SegmentSize) std::string().swap(frame);
    return FinishAppend(dropped);
}

// True when the thread that waits for frames has to be woken.
bool FrameLog::FinishAppend(std::vector<SegmentPtr>& dropped) {
    while (m_Bytes > m_Limit && m_Segments.size() > 1) dropped.push_back(PopFront());
    // The clock is read once for a batch: each posting would pay for it otherwise.
    if (m_First == decltype(m_First)()) m_First = std::chrono::steady_clock::now();
    const bool wake = m_Waited;
    m_Waited = false;
    return wake;
}

std::shared_ptr<LogSegment> FrameLog::LooseSegment(std::size_t bytes, std::size_t frames, std::size_t names) {
    return std::make_shared<LogSegment>(bytes, frames, names);
}

std::shared_ptr<LogSegment> FrameLog::Last() {
    Mirel::AutoMutex lock(m_Lock);
    return m_Segments.back();
}

LogCursor FrameLog::Attach() {
    Mirel::AutoMutex lock(m_Lock);
    m_Readers.fetch_add(1, std::memory_order_release);
    const SegmentPtr& last = m_Segments.back();
    ++last->Readers;
    return {last, last->Size, last->Size, last->Frames};
}

LogCursor FrameLog::Share(const LogCursor& cursor) {
    m_Readers.fetch_add(1, std::memory_order_release);
    cursor.Segment->Readers.fetch_add(1, std::memory_order_relaxed);
    return cursor;
}

void FrameLog::Detach(LogCursor& cursor) {
    const SegmentPtr segment = std::move(cursor.Segment);
    cursor = {};
    if (!segment) return;
    m_Readers.fetch_sub(1, std::memory_order_release);
    if (segment->Readers.fetch_sub(1, std::memory_order_acq_rel) > 1) return;
    Mirel::AutoMutex lock(m_Lock);
    LetGo();
}

bool FrameLog::Advance(LogCursor& cursor) {
    SegmentPtr old = cursor.Segment;  // where it was dropped, freed after the lock
    Mirel::AutoMutex lock(m_Lock);
    const std::uint64_t next = old->Number + 1;
    const std::uint64_t first = m_Segments.front()->Number;
    if (next < first) return false;
    cursor = {m_Segments[next - first], 0, 0, 0};
    ++cursor.Segment->Readers;
    --old->Readers;
    LetGo();
    return true;
}

bool FrameLog::FellOff(const LogCursor& cursor, const LogEnd& end) {
    const LogSegment& segment = *cursor.Segment;
    if (segment.Number >= end.First) return false;
    return segment.Number + 1 < end.First || cursor.Offset < segment.Size;
}

LogEnd FrameLog::End(std::chrono::steady_clock::time_point* first) {
    Mirel::AutoMutex lock(m_Lock);
    m_Waited = false;
    if (first != nullptr && m_First != decltype(m_First)()) *first = std::exchange(m_First, {});
    return EndLocked();
}

bool FrameLog::PrepareToWait(const LogEnd& seen) {
    Mirel::AutoMutex lock(m_Lock);
    m_Waited = EndLocked() == seen;
    return m_Waited;
}

LogEnd FrameLog::EndLocked() const {
    const LogSegment& last = *m_Segments.back();
    return {m_Segments.front()->Number, last.Number, last.Size, last.Frames};
}

void FrameLog::Push(SegmentPtr segment) {
    const std::size_t capacity = segment->Capacity;
    segment->Number = m_NextNumber;
    m_Segments.push_back(std::move(segment));  // may fail, and then nothing has been counted
    ++m_NextNumber;
    m_Bytes += capacity;
    Count(Counters.LogBytes, capacity);
}

FrameLog::SegmentPtr FrameLog::PopFront() {
    SegmentPtr front = std::move(m_Segments.front());
    m_Segments.pop_front();
    m_Bytes -= front->Capacity;
    Uncount(Counters.LogBytes, front->Capacity);
    return front;
}

FrameLog::SegmentPtr FrameLog::NewSegment(std::size_t capacity) {
    if (m_Spare.empty()) {
        if (!m_Form) return std::make_shared<LogSegment>(capacity);
        return std::make_shared<LogSegment>(capacity, capacity / NotePart, capacity / NamePart);
    }
    SegmentPtr segment = std::move(m_Spare.back());
    m_Spare.pop_back();
    segment->Size = 0;
    segment->Frames = 0;
    segment->NamesSize = 0;
    return segment;
}

// Of what every cursor has passed.
void FrameLog::LetGo() {
    while (m_Segments.size() > 1 && m_Segments.front()->Readers == 0) {
        SegmentPtr front = PopFront();
        if (front->Capacity == m_SegmentSize && m_Spare.size() < MaxSpare)
            m_Spare.push_back(std::move(front));
    }
}

}  // namespace Velmora::Feed
