// The clients of a broadcaster, as its thread sees them: WebSocket connections and readers inside the
// process.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "VL_Socket.h"
#include "VL_WebSocket.h"
#include "feed/FeedFilter.h"
#include "feed/Frame.h"
#include "feed/FrameLog.h"
#include "feed/Replays.h"

namespace Velmora::Feed {

using Time = std::chrono::steady_clock::time_point;
using Milliseconds = std::chrono::milliseconds;

struct ClientLimits {
    Milliseconds Timeout;           // how long a write may make no progress, and a close may take
    Milliseconds PingInterval;      // how long nothing may be heard before a ping, and then before the end
    Milliseconds Heartbeat{15000};  // how long nothing may be sent before a comment, to who sends nothing
};

/// One client of the log. Made on any thread, which makes every later posting its own; all else happens on
/// the broadcaster's thread.
class FeedClient {
  public:
    /// What has become of a turn.
    enum class Turn {
        More,      // another turn has something to do
        CaughtUp,  // until there are new frames
        Blocked,   // until the socket tells that it takes more
        Gone,      // to be destroyed
    };

    FeedClient(FrameLog& log, std::string name);
    virtual ~FeedClient();
    FeedClient(const FeedClient&) = delete;
    FeedClient& operator=(const FeedClient&) = delete;

    /// Before all else; false (and the reason in the log) where the client is of no use.
    virtual bool Begin(Time now) = 0;
    /// Gives the client what it has not got up to `end`, at most the rest of one segment.
    virtual Turn TakeTurn(const LogEnd& end, Time now) = 0;
    /// The log goes from `end.First` now: ends a client that has been left behind.
    virtual void CheckPlace(const LogEnd& end, Time now) = 0;
    /// Has the client leave once it has got everything up to `until`, at `deadline` in any case.
    virtual void Leave(const LogEnd& until, Time deadline) = 0;
    /// Looks at what time brings. To be called often enough, see Hurried().
    virtual void Tick(Time) {}
    /// The socket has something to read.
    virtual void Receive(std::span<char> /*room*/, Time) {}

    /// True where a turn has something to do beside new frames.
    virtual bool WantsTurn() const { return false; }
    /// True where a deadline is running that is counted in ClientLimits::Timeout.
    virtual bool Hurried() const { return false; }
    /// What it wants, where that is less than everything.
    virtual const FeedFilter* Filter() const { return nullptr; }
    /// True where it has come up to whatever it was given, and would have nothing to do but to go on with the
    /// log: it may give its place up.
    virtual bool CanPark() const { return false; }
    /// Gives its place up, and gets one anew.
    void Park() { m_Log.Detach(m_Cursor); }
    void Unpark(LogCursor place) { m_Cursor = std::move(place); }
    bool HasPlace() const { return m_Cursor.Segment != nullptr; }
    /// How often time is to be looked at while nothing hurries.
    virtual Milliseconds Calm(const ClientLimits& limits) const { return limits.PingInterval / 4; }
    /// What the socket is to be watched for; its descriptor, -1 where there is none.
    virtual std::uint32_t Interest() const { return 0; }
    virtual int Descriptor() const { return -1; }

    /// For the log.
    const char* Name() const { return m_Name.c_str(); }

    // The broadcaster's own notes.
    Turn Standing = Turn::CaughtUp;
    Time BehindSince;               // when a turn first left something over; none: Time()
    std::uint32_t Polled = 0;       // the events that epoll reports
    std::uint64_t CloseTicket = 0;  // the order to close that the client is leaving for
    bool Named = false;             // wants events of certain names only

  protected:
    /// At the end of a segment that is complete: goes on to the next. False where that is lost.
    bool GoOn(const LogEnd& end);

    FrameLog& m_Log;
    LogCursor m_Cursor;

  private:
    const std::string m_Name;
};

/// How far a subscriber has come in what it has missed, and what it wants at all.
struct Subscription {
    Subscription(const FeedWish& wish, Replays& replays);
    ~Subscription();
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    const FeedWish::Form Form;
    const FeedFilter Filter;
    PostingSource::Place Place;  // After: the number that it has come to
    bool Replaying = true;       // it is not level with the log yet
    LogCursor Replay;            // in what it has missed; has no segment between two
    bool Live = false;           // what the log has for it is all behind Place.After

    /// Before anything is asked of `Source`, on the broadcaster's thread.
    void BeginReplay();
    void EndReplay();

    Replays& Source;

  private:
    bool m_Entered = false;
};

/// A connection: a WebSocket, or one that takes server-sent events.
class SocketClient final : public FeedClient {
  public:
    SocketClient(FrameLog& log, SocketStream stream, std::string peer, std::string received,
                 const ClientLimits& limits);

    /// Has it leave once `*ended` (may be null) is true. Before Begin().
    void LeaveWhen(std::shared_ptr<const std::atomic<bool>> ended) { m_Ended = std::move(ended); }
    /// Makes a subscriber of it, before Begin(). Its place in the log is there before the one in the history.
    void Subscribe(const FeedWish& wish, Replays& replays);

    bool Begin(Time now) override;
    Turn TakeTurn(const LogEnd& end, Time now) override;
    void CheckPlace(const LogEnd& end, Time now) override;
    void Leave(const LogEnd& until, Time deadline) override;
    void Tick(Time now) override;
    void Receive(std::span<char> room, Time now) override;
    bool WantsTurn() const override;
    bool Hurried() const override { return m_Blocked || m_Phase != Phase::Open; }
    std::uint32_t Interest() const override { return m_Stream.Interest(m_Blocked); }
    int Descriptor() const override { return m_Stream.Descriptor(); }
    const FeedFilter* Filter() const override { return m_Wish ? &m_Wish->Filter : nullptr; }
    bool CanPark() const override { return m_Phase == Phase::Open && !Replaying(); }
    Milliseconds Calm(const ClientLimits& limits) const override;

  private:
    enum class Phase {
        Open,
        Draining,   // gets what is pending up to m_Until, then a close frame
        Closing,    // the close frame is queued, behind the rest of a frame that is partly sent
        Lingering,  // the close frame is sent; waits for the client to close
        Gone,
    };

    bool FlushControl(Time now);
    bool SendFrames(const LogEnd& end, Time now);
    std::size_t Sendable(const LogEnd& end) const;
    void FinishClosing();
    void Wrote(std::size_t done, std::size_t size, Time now);
    Turn Outcome(const LogEnd& end) const;
    bool ControlDue() const { return !m_Control.empty() && !Current().InsideFrame() && !m_FramesCommitted; }

    // A subscriber's (Subscription.cpp).
    bool TakesEvents() const { return m_Wish && m_Wish->Form == FeedWish::Form::EventStream; }
    bool Replaying() const { return m_Wish && m_Wish->Replaying; }
    bool InReplay() const { return m_Wish && m_Wish->Replay.Segment; }
    const LogCursor& Current() const { return InReplay() ? m_Wish->Replay : m_Cursor; }
    LogCursor& Current() { return InReplay() ? m_Wish->Replay : m_Cursor; }
    LogEnd CurrentEnd(const LogEnd& end) const;
    void Greet();
    bool FindNext(const LogEnd& end, Time now);
    bool NextReplay(Time now);
    void SkipUnwanted(const LogEnd& end);
    bool WantsAll() const { return m_Wish->Filter.All() && (m_Wish->Live || InReplay()); }
    bool Wanted(const FrameNote& note) const;
    std::size_t WantedRun(const LogEnd& end) const;
    void Heartbeat(Time now);

    void Digest(std::string_view input, Time now);
    void AnswerPing(std::string_view payload);
    void AnswerClose(std::uint16_t code, Time now);
    void Violated(std::uint16_t code, const char* why, Time now);
    void FallBehind(Time now);
    void CheckRight(Time now);
    void StartClosing(std::uint16_t code, const char* reason, Time deadline);
    void EndSlow(const char* why);
    void CheckProgress(Time now);
    void CheckAlive(Time now);
    void Drop(const char* why);

    const ClientLimits m_Limits;
    SocketStream m_Stream;
    FrameParser m_Parser;
    std::string m_Received;  // before the client was adopted; empty once read
    Phase m_Phase = Phase::Open;

    std::string m_Control;           // control frames to be sent between two others
    std::size_t m_ControlSent = 0;   // bytes of them that are
    bool m_FramesCommitted = false;  // TLS is in the middle of sending frames of the log
    bool m_PeerClosed = false;       // has sent its close frame
    LogEnd m_Until;                  // Draining: goes no further
    Time m_Deadline;                 // not Open: the end in any case

    bool m_Blocked = false;
    bool m_WasBlocked = false;  // before the present turn
    Time m_Progress;            // when the last write went forward, or was blocked first
    long m_UnsentSeen = -1;     // what the kernel held for the blocked client when last looked at
    Time m_Heard;               // when the client last sent something
    bool m_Pinged = false;      // and not heard since
    Time m_PingTime;
    std::unique_ptr<Subscription> m_Wish;              // a subscriber's
    std::shared_ptr<const std::atomic<bool>> m_Ended;  // whether what let it in was taken back; null: never
};

/// A reader inside the process.
class ReaderClient final : public FeedClient {
  public:
    ReaderClient(FrameLog& log, std::unique_ptr<BroadcastReader> reader, std::string name);
    ~ReaderClient() override;

    bool Begin(Time) override { return true; }
    Turn TakeTurn(const LogEnd& end, Time now) override;
    void CheckPlace(const LogEnd& end, Time now) override;
    void Leave(const LogEnd& until, Time deadline) override;
    bool WantsTurn() const override { return m_Leaving || m_Gone; }

  private:
    void Read(std::size_t limit);

    const std::unique_ptr<BroadcastReader> m_Reader;
    bool m_Leaving = false;
    bool m_Gone = false;
    LogEnd m_Until;
};

}  // namespace Velmora::Feed
