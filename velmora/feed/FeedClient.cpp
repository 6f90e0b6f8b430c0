// Writes one client from the log, reads its frames, and closes it in order.
#include "feed/FeedClient.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "MR_log.h"
#include "feed/CounterSet.h"

namespace Velmora::Feed {

namespace {

// Control frames that wait for a client; one that has us answer more without taking the answers is ended.
constexpr std::size_t MaxControlQueue = 64u << 10;

}  // namespace

FeedClient::FeedClient(FrameLog& log, std::string name)
    : m_Log(log), m_Cursor(log.Attach()), m_Name(std::move(name)) {
    Count(Counters.Clients);
    Count(Counters.Adopted);
}

FeedClient::~FeedClient() {
    Park();
    Uncount(Counters.Clients);
}

bool FeedClient::GoOn(const LogEnd& end) {
    const bool at_end = m_Cursor.Segment->Number < end.Segment && m_Cursor.Offset == m_Cursor.Segment->Size;
    return !at_end || m_Log.Advance(m_Cursor);
}

SocketClient::SocketClient(FrameLog& log, SocketStream stream, std::string peer, std::string received,
                           const ClientLimits& limits)
    : FeedClient(log, std::move(peer)),
      m_Limits(limits),
      m_Stream(std::move(stream)),
      m_Received(std::move(received)) {}

bool SocketClient::Begin(Time now) {
    m_Heard = m_Progress = now;
    if (!m_Stream.Prepare()) {
        Mirel::DefaultLogSink().Error("WebSocket client %s can't be used: %s.\n", Name(),
                                      m_Stream.LastError().c_str());
        return false;
    }
    Mirel::DefaultLogSink().Debug("WebSocket client %s joined.\n", Name());
    if (m_Wish) Greet();
    Digest(std::exchange(m_Received, {}), now);
    return true;
}

FeedClient::Turn SocketClient::TakeTurn(const LogEnd& log_end, Time now) {
    CheckRight(now);
    if (m_Phase == Phase::Gone) return Turn::Gone;
    const LogEnd end = m_Phase == Phase::Draining ? m_Until : log_end;
    m_WasBlocked = std::exchange(m_Blocked, false);
    if (FlushControl(now) && HasPlace() && SendFrames(end, now)) FlushControl(now);
    if (m_Phase == Phase::Draining && !m_Blocked && Outcome(end) == Turn::CaughtUp) {
        StartClosing(CLOSE_GOING_AWAY, "", m_Deadline);
        FlushControl(now);
    }
    if (m_Phase == Phase::Closing) FinishClosing();
    return Outcome(end);
}

// Sends the control frames where that is possible now; false where nothing more can be sent.
bool SocketClient::FlushControl(Time now) {
    if (!ControlDue()) return m_Phase != Phase::Gone && !m_Blocked;
    std::size_t done = 0;
    const std::size_t size = m_Control.size() - m_ControlSent;
    const StreamState state = m_Stream.Write(m_Control.data() + m_ControlSent, size, done);
    if (state == StreamState::Failed || state == StreamState::Closed) return Drop("write"), false;
    m_ControlSent += done;
    Wrote(done, size, now);
    if (m_Blocked) return false;
    m_Control.clear();
    m_ControlSent = 0;
    return true;
}

// Sends frames of the log, at most the rest of one segment; false where nothing more can be sent.
bool SocketClient::SendFrames(const LogEnd& end, Time now) {
    if (m_Wish && !FindNext(end, now)) return false;
    LogCursor& cursor = Current();
    const std::size_t size = Sendable(end);
    if (size > 0) {
        std::size_t done = 0;
        const StreamState state = m_Stream.Write(cursor.Data(), size, done);
        if (state == StreamState::Failed || state == StreamState::Closed) return Drop("write"), false;
        m_FramesCommitted = m_Stream.WriteCommitted() > 0;
        Count(Counters.FramesDelivered, cursor.Move(done, CurrentEnd(end)));
        Count(Counters.BytesDelivered, done);
        Wrote(done, size, now);
    }
    if (m_Wish) SkipUnwanted(end);
    if (m_Phase != Phase::Closing && !m_Blocked && !Replaying() && !GoOn(end)) FallBehind(now);
    if (m_Wish) SkipUnwanted(end);  // in the segment that it may have come to
    return !m_Blocked;
}

// How much of the log is to be offered to the socket: what TLS has committed itself to in any case.
std::size_t SocketClient::Sendable(const LogEnd& end) const {
    const LogCursor& cursor = Current();
    std::size_t size = m_Wish ? WantedRun(end) : cursor.Limit(end) - cursor.Offset;
    if (m_Phase == Phase::Closing) size = cursor.InsideFrame() ? cursor.FrameEnd() - cursor.Offset : 0;
    return std::max(size, m_FramesCommitted ? m_Stream.WriteCommitted() : 0);
}

// Once all is sent: has the client see the end of the connection, and waits for its own where that is
// missing.
void SocketClient::FinishClosing() {
    if (Current().InsideFrame() || m_FramesCommitted) return;
    if (m_Wish) m_Wish->EndReplay();
    Park();
    if (!m_Control.empty()) return;
    m_Stream.EndWriting();
    m_Phase = m_PeerClosed ? Phase::Gone : Phase::Lingering;
}

// `done` of `size` bytes have been written.
void SocketClient::Wrote(std::size_t done, std::size_t size, Time now) {
    m_Blocked = done < size;
    if (done == 0 && m_WasBlocked) return;
    m_Progress = now;
    m_UnsentSeen = -1;
}

FeedClient::Turn SocketClient::Outcome(const LogEnd& end) const {
    if (m_Phase == Phase::Gone) return Turn::Gone;
    if (m_Blocked) return Turn::Blocked;
    if (m_Phase == Phase::Lingering) return Turn::CaughtUp;
    const bool frames =
        HasPlace() && (Replaying() || m_Cursor.Segment->Number < end.Segment || Sendable(end) > 0);
    return frames || !m_Control.empty() ? Turn::More : Turn::CaughtUp;
}

bool SocketClient::WantsTurn() const {
    if (m_Phase == Phase::Open || m_Phase == Phase::Lingering) return !m_Control.empty();
    return true;
}

void SocketClient::CheckPlace(const LogEnd& end, Time now) {
    const bool takes_frames = HasPlace() && (m_Phase == Phase::Open || m_Phase == Phase::Draining);
    if (!takes_frames || !FrameLog::FellOff(m_Cursor, end)) return;
    if (m_Phase == Phase::Draining || !Replaying()) return FallBehind(now);
    m_Log.Detach(m_Cursor);  // what the log has lost comes out of the history
    m_Cursor = m_Log.Attach();
}

void SocketClient::Leave(const LogEnd& until, Time deadline) {
    if (m_Phase != Phase::Open) return;
    m_Phase = Phase::Draining;
    m_Until = until;
    m_Deadline = deadline;
}

void SocketClient::Receive(std::span<char> room, Time now) {
    do {
        std::size_t done = 0;
        const StreamState state = m_Stream.Read(room.data(), room.size(), done);
        if (state == StreamState::Blocked) return;
        if (state != StreamState::Moved) return Drop(state == StreamState::Failed ? "read" : nullptr);
        m_Heard = now;
        m_Pinged = false;
        try {
            Digest({room.data(), done}, now);
        } catch (const std::bad_alloc&) {  // the rest of what it sent is lost
            EndSlow("no memory to answer it");
        }
    } while (m_Stream.HasBuffered() && m_Phase != Phase::Gone);
}

void SocketClient::Digest(std::string_view input, Time now) {
    if (TakesEvents()) return;  // whatever it says
    while (!m_PeerClosed && m_Phase != Phase::Gone) {
        switch (m_Parser.Next(input)) {
            case FrameParser::Found::Nothing:
                return;
            case FrameParser::Found::Ping:
                AnswerPing(m_Parser.Payload());
                break;
            case FrameParser::Found::Pong:
                break;
            case FrameParser::Found::Close:
                return AnswerClose(m_Parser.Code(), now);
            case FrameParser::Found::Violation:
                return Violated(m_Parser.Code(), m_Parser.Reason(), now);
        }
    }
}

void SocketClient::AnswerPing(std::string_view payload) {
    if (m_Phase != Phase::Open && m_Phase != Phase::Draining) return;
    if (m_Control.size() - m_ControlSent > MaxControlQueue)
        return EndSlow("does not take answers to its pings");
    AppendControlFrame(m_Control, OP_PONG, payload);
}

void SocketClient::AnswerClose(std::uint16_t code, Time now) {
    m_PeerClosed = true;
    if (m_Phase == Phase::Lingering) {
        m_Phase = Phase::Gone;
    } else if (m_Phase != Phase::Closing) {
        Mirel::DefaultLogSink().Debug("WebSocket client %s leaves.\n", Name());
        StartClosing(code, "", now + m_Limits.Timeout);
    }
}

void SocketClient::Violated(std::uint16_t code, const char* why, Time now) {
    if (m_Phase != Phase::Open && m_Phase != Phase::Draining) return;
    Count(Counters.ProtocolErrors);
    Mirel::DefaultLogSink().Notice("WebSocket client %s is disconnected: %s.\n", Name(), why);
    StartClosing(code, why, now + m_Limits.Timeout);
}

void SocketClient::FallBehind(Time now) {
    Count(Counters.SlowDisconnects);
    Mirel::DefaultLogSink().Notice("WebSocket client %s is disconnected: too slow for the feed.\n", Name());
    StartClosing(CLOSE_TRY_AGAIN_LATER, "too slow", now + m_Limits.Timeout);
}

// Before each turn: what is posted after the right has ended is not sent.
void SocketClient::CheckRight(Time now) {
    if (!m_Ended || !m_Ended->load(std::memory_order_acquire)) return;
    if (m_Phase != Phase::Open && m_Phase != Phase::Draining) return;
    Mirel::DefaultLogSink().Notice("WebSocket client %s is disconnected: its access was taken back.\n",
                                   Name());
    StartClosing(CLOSE_NOT_ALLOWED, "access taken back", now + m_Limits.Timeout);
}

void SocketClient::StartClosing(std::uint16_t code, const char* reason, Time deadline) {
    TakesEvents() ? AppendFarewell(m_Control, code, reason) : AppendCloseFrame(m_Control, code, reason);
    m_Deadline = m_Phase == Phase::Draining ? std::min(m_Deadline, deadline) : deadline;
    m_Phase = Phase::Closing;
}

void SocketClient::EndSlow(const char* why) {
    Count(Counters.SlowDisconnects);
    Mirel::DefaultLogSink().Notice("WebSocket client %s is disconnected: %s.\n", Name(), why);
    m_Phase = Phase::Gone;
}

void SocketClient::Tick(Time now) {
    CheckRight(now);
    if (m_Phase == Phase::Open) {
        CheckProgress(now);
        CheckAlive(now);
    } else if (m_Phase != Phase::Gone && now >= m_Deadline) {
        if (m_Phase == Phase::Draining) return EndSlow("did not take in time what was pending");
        m_Phase = Phase::Gone;
    }
}

// Progress is also what the kernel sends on while its own buffer is still too full to take more.
void SocketClient::CheckProgress(Time now) {
    if (!m_Blocked) return;
    const long unsent = m_Stream.Unsent();
    if (unsent >= 0 && unsent < m_UnsentSeen) m_Progress = now;
    m_UnsentSeen = unsent;
    if (now - m_Progress >= m_Limits.Timeout) EndSlow("takes nothing");
}

void SocketClient::CheckAlive(Time now) {
    if (m_Phase != Phase::Open) return;
    if (TakesEvents()) return Heartbeat(now);
    if (m_Pinged) {
        if (now - m_PingTime >= m_Limits.PingInterval) EndSlow("does not answer a ping");
    } else if (now - m_Heard >= m_Limits.PingInterval) {
        AppendControlFrame(m_Control, OP_PING, {});
        m_Pinged = true;
        m_PingTime = now;
    }
}

// The connection is over: at the client's wish, or because `why` failed.
void SocketClient::Drop(const char* why) {
    if (m_Phase == Phase::Open || m_Phase == Phase::Draining) {
        if (why)
            Mirel::DefaultLogSink().Notice("WebSocket client %s is lost: %s failed: %s.\n", Name(), why,
                                           m_Stream.LastError().c_str());
        else
            Mirel::DefaultLogSink().Debug("WebSocket client %s has hung up.\n", Name());
    }
    m_Phase = Phase::Gone;
}

ReaderClient::ReaderClient(FrameLog& log, std::unique_ptr<BroadcastReader> reader, std::string name)
    : FeedClient(log, std::move(name)), m_Reader(std::move(reader)) {}

ReaderClient::~ReaderClient() {
    try {
        m_Reader->OnClose();
    } catch (const std::exception& e) {
        Mirel::DefaultLogSink().Error("Reader %s of the feed failed at its close: %s.\n", Name(), e.what());
    }
}

FeedClient::Turn ReaderClient::TakeTurn(const LogEnd& log_end, Time now) {
    const LogEnd end = m_Leaving ? m_Until : log_end;
    if (m_Gone) return Turn::Gone;
    const std::size_t limit = m_Cursor.Limit(end);
    try {
        Read(limit);
    } catch (const std::exception& e) {
        Mirel::DefaultLogSink().Error("Reader %s of the feed is let go, it failed: %s.\n", Name(), e.what());
        return Turn::Gone;
    }
    m_Cursor.Frames = m_Cursor.FrameLimit(end);
    if (!GoOn(end)) CheckPlace(m_Log.End(), now);
    if (m_Gone) return Turn::Gone;
    if (m_Cursor.Segment->Number < end.Segment || m_Cursor.Offset < m_Cursor.Limit(end)) return Turn::More;
    return m_Leaving ? Turn::Gone : Turn::CaughtUp;
}

void ReaderClient::Read(std::size_t limit) {
    while (m_Cursor.Offset < limit) {
        const char* frame = m_Cursor.Data();
        m_Cursor.Offset = m_Cursor.Boundary = m_Cursor.FrameEnd();
        m_Reader->OnPosting(ServerPayload(frame));
    }
}

void ReaderClient::CheckPlace(const LogEnd& end, Time) {
    if (m_Gone || !FrameLog::FellOff(m_Cursor, end)) return;
    Count(Counters.SlowDisconnects);
    Mirel::DefaultLogSink().Notice("Reader %s of the feed is let go: too slow.\n", Name());
    m_Gone = true;
}

void ReaderClient::Leave(const LogEnd& until, Time) {
    if (std::exchange(m_Leaving, true)) return;
    m_Until = until;
}

}  // namespace Velmora::Feed
