// The clients of a broadcaster, as its thread sees them: WebSocket connections and readers inside the
// process.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "VL_Socket.h"
#include "VL_WebSocket.h"
#include "feed/Frame.h"
#include "feed/FrameLog.h"

namespace Velmora::Feed {

using Time = std::chrono::steady_clock::time_point;
using Milliseconds = std::chrono::milliseconds;

struct ClientLimits {
    Milliseconds Timeout;       // how long a write may make no progress, and a close may take
    Milliseconds PingInterval;  // how long nothing may be heard before a ping, and then before the end
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

  protected:
    void GiveUpPlace() { m_Log.Detach(m_Cursor); }
    bool HasPlace() const { return m_Cursor.Segment != nullptr; }
    /// At the end of a segment that is complete: goes on to the next. False where that is lost.
    bool GoOn(const LogEnd& end);

    FrameLog& m_Log;
    LogCursor m_Cursor;

  private:
    const std::string m_Name;
};

/// A WebSocket connection.
class SocketClient final : public FeedClient {
  public:
    SocketClient(FrameLog& log, SocketStream stream, std::string peer, std::string received,
                 const ClientLimits& limits);

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
    bool ControlDue() const { return !m_Control.empty() && !m_Cursor.InsideFrame() && !m_FramesCommitted; }

    void Digest(std::string_view input, Time now);
    void AnswerPing(std::string_view payload);
    void AnswerClose(std::uint16_t code, Time now);
    void Violated(std::uint16_t code, const char* why, Time now);
    void FallBehind(Time now);
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
