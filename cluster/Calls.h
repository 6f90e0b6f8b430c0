// Calls the listeners of postings that this node has fetched: each posting goes to one node, and to another
// one where that does not say in time that the calls have ended.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "Engine.h"
#include "LoopThread.h"
#include "MR_mutex.h"
#include "Posting.h"
#include "PullSubscription.h"

namespace Cluster {

/// Whoever calls. On the thread of the calls.
class ICaller {
  public:
    virtual ~ICaller() = default;
    /// Until this node knows the registry of that revision. False where it does not within a moment.
    virtual bool KnowsRevision(ui64_t revision) = 0;
    /// How far the calls have ended in the stream of that time, as far as any node has told. Nothing where no
    /// node has told of that stream.
    virtual std::optional<ui64_t> CalledUpTo(i64_t stream_created_ns) = 0;
    /// Whether the process may call now: otherwise the posting waits.
    virtual bool HasRoom() = 0;
    /// `number` is the posting's. `token` is let go when all calls have ended.
    virtual void Call(const PListDict& payload, ui64_t number, const std::shared_ptr<void>& token) = 0;
};

class Calls {
  public:
    Calls(Engine& engine, ICaller& caller);
    ~Calls();

    Result_t Start();
    /// Asks it to fetch no more; StopFetching() waits until it does not.
    void BeginStop() { m_Fetch.End(); }
    void StopFetching();
    /// Says what has been done.
    void Stop();

    /// All calls up to this posting of the stream have ended.
    ui64_t Floor() const { return m_Floor; }
    i64_t StreamCreated() const { return m_StreamCreated; }
    ui64_t Running() const { return m_Running; }
    ui64_t Pending() const { return m_Pending; }
    ui64_t Repeated() const { return m_Repeated; }
    ui64_t SetAside() const { return m_SetAside; }
    ui64_t Lost() const { return m_Lost; }

  private:
    // Number and time of a message: a stream that is made anew begins its numbers again.
    using Place = std::pair<ui64_t, i64_t>;

    void Fetch(LoopThread& thread);
    bool MakeConsumer();
    void FetchFrom(LoopThread& thread, PullSubscription& consumer);
    bool FetchSome(LoopThread& thread, PullSubscription& consumer);
    ui64_t Handle(LoopThread& thread, HeldMessage message);
    void Begin(LoopThread& thread, natsMsg* message, const DeliveryFacts& facts);
    bool TakenUp(const std::string& reply, const DeliveryFacts& facts);
    void Answer(const std::string& to, const char* what) const;
    void Ended(const Place& place);
    void Report(LoopThread& thread);
    void AckEnded();
    void SayInProgress();
    void LookAtConsumer();
    void CountLost(const StreamFacts& facts);
    bool IsRepeated(const DeliveryFacts& facts) const;
    std::size_t Room() const;

    Engine& m_Engine;
    ICaller& m_Caller;
    mutable Mirel::Mutex m_Lock;
    std::map<Place, std::string> m_Open GUARDED_BY(m_Lock);  // and where its delivery is answered
    std::vector<Place> m_Ended GUARDED_BY(m_Lock);
    std::set<Place> m_Acked GUARDED_BY(m_Lock);  // the last ones: an acknowledgement can be lost
    std::deque<Place> m_AckedInOrder GUARDED_BY(m_Lock);
    std::atomic<ui64_t> m_Running{0}, m_Pending{0}, m_Repeated{0}, m_SetAside{0}, m_Lost{0};
    std::atomic<ui64_t> m_Floor{0};      // calls up to there have ended
    std::atomic<ui64_t> m_Delivered{0};  // the last one that a node has been given, as far as is known here
    std::atomic<ui64_t> m_AnewUpTo{0};   // what a consumer that was made anew may bring once more
    std::atomic<i64_t> m_StreamCreated{0};
    std::atomic<bool> m_ConsumerGone{false};
    LoopThread m_Report, m_Fetch;
};

}  // namespace Cluster
