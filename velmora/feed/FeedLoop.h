// The thread that writes one broadcaster's log to its clients.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "MR_mutex.h"
#include "MR_thread.h"
#include "feed/FeedClient.h"
#include "feed/FrameLog.h"

namespace Velmora::Feed {

/// Owns the clients of one log and gives each in turn what it has not got. The public operations may be
/// called from any thread; the order of locks is this object's, then the log's.
class FeedLoop final : private Mirel::Thread {
  public:
    FeedLoop(FrameLog& log, const ClientLimits& limits);
    /// Ends the thread; clients that are left are closed without more ado.
    ~FeedLoop() override;

    /// Starts the thread. False, with the reason in the log, when it can't be had.
    bool Run();

    /// Takes the client over. False, and nothing taken, where the thread has ended by a failure.
    bool Adopt(std::unique_ptr<FeedClient>& client);

    /// How long the client that is the furthest behind has not caught up, as the last look found it.
    Milliseconds Lag() const;

    /// There are new frames. To be called where FrameLog::Append() said so.
    void Wake();

    /// Has all clients look at once at what time and others bring.
    void AskLook();

    /// Has all present clients leave, and answers a ticket to wait for that with.
    std::uint64_t AskClose();
    void AwaitClose(std::uint64_t ticket);

  private:
    using Turn = FeedClient::Turn;

    Mirel::Result_t ThreadInit() override;
    Mirel::Result_t ThreadBody() override;
    Mirel::Result_t ThreadFini(Mirel::Result_t result) override;
    Mirel::Result_t ThreadStop() override;

    bool MakePass();
    bool TakeOrders();
    void Welcome(std::unique_ptr<FeedClient> client);
    void LookAtLog();
    void MakeReady(FeedClient& client);
    void LookFurther();
    bool LookedAtAll() const;
    LogEnd EndFor(const FeedClient& client) const;
    void UnparkAll();
    void Introduce(FeedClient& client);
    void Forget(FeedClient& client);
    void GiveTurns();
    void GiveTurn(FeedClient& client);
    void UpdatePoll(FeedClient& client);
    void TickClients();
    void CountTimes();
    void HurryTick();
    void BuryGone();
    void AnswerClosers();
    void Await();
    void HandleEvent(void* whom, std::uint32_t events);

    // Immutable after construction, or self-synchronised.
    FrameLog& m_Log;
    const ClientLimits m_Limits;
    int m_Epoll = -1;
    int m_Wake = -1;
    std::atomic<bool> m_HasOrders{false};
    std::atomic<Time> m_BehindSince{Time()};  // of the client that is the furthest behind; none: Time()

    Mirel::Mutex m_Lock;
    Mirel::Condition m_Closed;
    std::vector<std::unique_ptr<FeedClient>> m_Inbox GUARDED_BY(m_Lock);
    bool m_LookAsked GUARDED_BY(m_Lock) = false;
    std::uint64_t m_CloseAsked GUARDED_BY(m_Lock) = 0;
    std::uint64_t m_CloseDone GUARDED_BY(m_Lock) = 0;
    bool m_Stopping GUARDED_BY(m_Lock) = false;
    bool m_Ended GUARDED_BY(m_Lock) = false;

    // The thread's own.
    std::vector<std::unique_ptr<FeedClient>> m_Clients;
    std::vector<FeedClient*> m_Eager;  // those that may want whatever comes
    std::unordered_multimap<std::uint64_t, FeedClient*>
        m_ByName;                      // the others, by the hashes of what they want
    LogCursor m_Looked;                // how far was looked for these; has no segment where there are none
    Time m_LooksBehindSince;           // when that first was not all of the log; none: Time()
    std::vector<FeedClient*> m_Ready;  // those whose standing is More
    std::vector<FeedClient*> m_Turn;   // of the present round
    LogEnd m_End;                      // of the log, when last looked at
    Time m_Now;
    Time m_BatchBegan;  // the oldest frame that is new to this pass; none: Time()
    Time m_TickAt;
    Time m_AsleepSince;   // with the log to wake it
    bool m_Naps = false;  // frames come so fast that it looks for them itself
    bool m_AnyGone = false;
    std::uint64_t m_Closing = 0;  // the last order to close that is being carried out; 0 when none is
    std::vector<char> m_Room;     // for what a client sends
};

}  // namespace Velmora::Feed
