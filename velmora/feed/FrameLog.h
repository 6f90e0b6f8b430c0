// The log of ready-made frames that all clients of one broadcaster are written from.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "MR_mutex.h"
#include "feed/NumberedFrame.h"

namespace Velmora::Feed {

/// What is known of a frame that tells its id. Written once, before its frame is published.
struct FrameNote {
    std::uint64_t Number;  // the posting's
    std::size_t End;       // where in the segment the frame ends
    std::uint64_t Hash;    // the name's
    std::size_t NameAt;    // where in the segment's names its event's stands
    std::size_t NameSize;
};

/// A piece of the log: whole frames, one after the other. Bytes that have once been written never change
/// while anyone reads the segment.
struct LogSegment {
    /// Takes its memory from the system at once. std::bad_alloc where there is none.
    /// `notes` and `names` are how many notes there is room for, and bytes for names; 0 where the frames tell
    /// no ids.
    explicit LogSegment(std::size_t capacity, std::size_t notes = 0, std::size_t names = 0);
    ~LogSegment();
    LogSegment(const LogSegment&) = delete;
    LogSegment& operator=(const LogSegment&) = delete;

    const std::size_t NoteRoom;
    const std::size_t NameRoom;
    const std::size_t Capacity;
    FrameNote* const Notes;  // null where the frames tell no ids
    char* const Bytes;
    char* const Names;
    std::uint64_t Number = 0;  // consecutive over the life of the log
    // Changed under the log's lock, and final once a later segment exists. Others learn what they may read of
    // the last segment from a LogEnd.
    std::size_t Size = 0;
    std::uint64_t Frames = 0;
    // Cursors in the segment. The first to come takes the log's lock; whoever holds one may make another.
    std::atomic<std::size_t> Readers{0};

    /// Appends a frame with its note. False, and nothing done, where there is no room.
    bool Put(std::string_view frame, std::uint64_t number, std::string_view name, std::uint64_t hash);
    std::string_view NameOf(const FrameNote& note) const { return {Names + note.NameAt, note.NameSize}; }

    std::size_t NamesSize = 0;  // changed with Size

  private:
    LogSegment(std::size_t capacity, std::size_t notes, std::size_t names, char* memory);
    std::size_t Memory() const { return NoteRoom * sizeof(FrameNote) + Capacity + NameRoom; }
};

/// How far the log went at one time.
struct LogEnd {
    std::uint64_t First = 0;    // number of the oldest segment that is kept
    std::uint64_t Segment = 0;  // number of the last one
    std::size_t Size = 0;       // bytes in the last one
    std::uint64_t Frames = 0;   // frames in the last one
    friend bool operator==(const LogEnd&, const LogEnd&) = default;
};

/// How far one client has come. Belongs to one thread at a time.
struct LogCursor {
    std::shared_ptr<LogSegment> Segment;
    std::size_t Offset = 0;    // bytes of the segment that the client has taken
    std::size_t Boundary = 0;  // where the frame begins that the offset is in, or the next one
    std::uint64_t Frames = 0;  // frames of the segment that the client has taken whole

    bool InsideFrame() const { return Offset != Boundary; }
    const char* Data() const { return Segment->Bytes + Offset; }
    /// End of the frame that the offset is inside of.
    std::size_t FrameEnd() const;
    /// What of the cursor's segment may be read by `end`.
    std::size_t Limit(const LogEnd& end) const;
    std::uint64_t FrameLimit(const LogEnd& end) const;
    /// Goes on to the frame with that index in the segment, or behind the last one.
    void SkipTo(std::uint64_t frame);
    /// Goes `count` bytes on within the limit and answers how many frames that completed.
    std::uint64_t Move(std::size_t count, const LogEnd& end);
};

/// Frames in the order in which they were appended, kept until every cursor has passed them and within a
/// limit in bytes: what is beyond it is dropped from the front, and cursors there fall off.
///
/// Append() and HasReaders() may be called from any thread, all else too, but each cursor by one thread only.
class FrameLog {
  public:
    /// `limit` is in bytes, the room of all segments together. A single frame longer than it is kept alone.
    /// `form`: that of frames that tell ids; nothing where they do not.
    explicit FrameLog(std::size_t limit, std::optional<FeedWish::Form> form = std::nullopt);
    ~FrameLog();
    FrameLog(const FrameLog&) = delete;
    FrameLog& operator=(const FrameLog&) = delete;

    bool HasReaders() const { return m_Readers.load(std::memory_order_acquire) > 0; }

    /// Appends `text` as one text frame (nothing where there is no cursor). True when the thread that waits
    /// for frames has to be woken: at most once for each PrepareToWait().
    bool Append(std::string_view text);
    /// The same for a log whose frames tell ids.
    bool Append(const PostedText& posted);
    std::optional<FeedWish::Form> Form() const { return m_Form; }

    /// A segment outside of the log with these frames' bytes to come.
    static std::shared_ptr<LogSegment> LooseSegment(std::size_t bytes, std::size_t frames, std::size_t names);
    /// The last segment.
    std::shared_ptr<LogSegment> Last();

    /// A cursor behind the last frame.
    LogCursor Attach();
    /// Another cursor where this one stands. Takes no lock.
    LogCursor Share(const LogCursor& cursor);
    /// Gives the cursor up; its segment may be used anew. Takes the lock for the last of a segment only.
    void Detach(LogCursor& cursor);
    /// Puts a cursor that has taken all of its segment at the start of the next, which must exist. False when
    /// that has been dropped: the cursor fell off.
    bool Advance(LogCursor& cursor);
    /// True for a cursor that can't get what it has not taken.
    static bool FellOff(const LogCursor& cursor, const LogEnd& end);

    /// How far the log goes now; ends what PrepareToWait() began. Where frames have come since it was asked
    /// with `first`, that is set to when the first of them came.
    LogEnd End(std::chrono::steady_clock::time_point* first = nullptr);
    /// True when nothing has been appended since `seen`; the next Append() then answers true.
    bool PrepareToWait(const LogEnd& seen);

  private:
    using SegmentPtr = std::shared_ptr<LogSegment>;

    LogEnd EndLocked() const REQUIRES(m_Lock);
    bool FinishAppend(std::vector<SegmentPtr>& dropped) REQUIRES(m_Lock);
    void Push(SegmentPtr segment) REQUIRES(m_Lock);
    SegmentPtr PopFront() REQUIRES(m_Lock);
    SegmentPtr NewSegment(std::size_t capacity) REQUIRES(m_Lock);
    void LetGo() REQUIRES(m_Lock);

    const std::size_t m_Limit;
    const std::size_t m_SegmentSize;
    const std::optional<FeedWish::Form> m_Form;
    std::atomic<std::size_t> m_Readers{0};

    mutable Mirel::Mutex m_Lock;
    std::deque<SegmentPtr> m_Segments GUARDED_BY(m_Lock);  // never empty
    std::vector<SegmentPtr> m_Spare GUARDED_BY(m_Lock);    // to be used anew
    std::uint64_t m_NextNumber GUARDED_BY(m_Lock) = 0;
    std::size_t m_Bytes GUARDED_BY(m_Lock) = 0;  // room of m_Segments
    std::chrono::steady_clock::time_point m_First
        GUARDED_BY(m_Lock);                    // of the frames that nobody has looked at
    bool m_Waited GUARDED_BY(m_Lock) = false;  // a thread sleeps until the next frame
};

}  // namespace Velmora::Feed
