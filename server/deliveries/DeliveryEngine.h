// Makes the calls of postings for the queue, as the configuration wants each, and keeps what became of them.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "EventManager.h"
#include "MR_error.h"
#include "MR_mutex.h"
#include "config/Destinations.h"
#include "deliveries/DeliveryBook.h"
#include "deliveries/DeliveryStore.h"
#include "deliveries/Transfer.h"

namespace Server {

/// What the engine has done and holds.
struct DeliveryCounters {
    std::size_t Waiting = 0, Dead = 0, WaitingBytes = 0, InFlight = 0;
    Mirel::ui64_t Retries = 0;  ///< attempts beyond the first
    Mirel::ui64_t Died = 0;     ///< deliveries that ran out of attempts
    Mirel::ui64_t Refused = 0;  ///< not taken, since too many wait
    Mirel::ui64_t Dropped = 0;  ///< dead ones that left to make room
    Mirel::ui64_t Expired = 0;  ///< dropped for their age
    Mirel::ui64_t Unkept = 0;   ///< commits of the store that failed
};

/// All requests are made on one thread. The queue hands them over under its lock, which is why that costs no
/// more than entering them; its own lock is a leaf.
class DeliveryEngine : public EventManager::IListenerCaller, private IDeliveryTaker {
  public:
    struct Options {
        DeliverySettings Settings;
        std::vector<Destination> Destinations;
        Mirel::ui32_t Timeout_ms = 500;    ///< where the destination has none
        Mirel::ui32_t MaxInFlight = 4096;  ///< over all destinations; what none fits leaves the others theirs
    };
    DeliveryEngine(Options options, std::unique_ptr<DeliveryStore> store);
    ~DeliveryEngine() override;

    /// Takes up what the store has kept, and begins. `self` is the server's own URL. Once, when the queue is
    /// there.
    void Start(const Velmora::URL& self);
    /// Other destinations and bounds, for the next attempt of all that waits. The journal stays the same, and
    /// so does "Timeout_ms".
    void TakeAnew(const Options& options);
    /// Waits for calls that are made once, as long as one may take, and ends the thread; what can be kept
    /// stays waiting. Says what is lost.
    void Stop();

    bool TakeRequest(const EventManager::ListenerCall& call, const Velmora::BasicRestEntryCall& request,
                     const std::string& body) override;
    void HandlerRan(const EventManager::ListenerCall& call) override;
    void ListenerDeleted(const std::string& event_name, const EventManager::Listener& listener) override;

    /// To be called before a posting of the calling thread is answered: what has to be kept of its
    /// deliveries is kept then. Costs nothing where there is nothing. Answers why it could not be kept; empty
    /// where it was.
    std::string Settle();
    /// Why what waits is not kept as it should be; empty where it is.
    std::string Trouble() const { return m_Store->Trouble(); }

    std::vector<Delivery> List(const DeliveryFilter& filter, bool& more) const;
    std::optional<Delivery> Find(Mirel::ui64_t id) const;
    /// Nothing: the listener was not called yet.
    std::optional<ListenerStatus> Status(const ListenerKey& key) const;
    /// How many deliveries wait for another attempt, for each listener's id.
    std::map<std::string, std::size_t> Retries() const;
    /// Every listener whose last call failed.
    std::vector<std::pair<ListenerKey, ListenerStatus>> Failing() const;

    enum class Answer { Done, NotFound, Full, NoListener };
    /// Sends a delivery again from its first attempt, or makes a waiting one's next attempt at once. A
    /// handler's is run before the return, as a delivery of its own: `id` is then that one's.
    Answer Resend(Mirel::ui64_t& id);
    /// Takes it off the list; a waiting one has no further attempt.
    bool Dismiss(Mirel::ui64_t id);
    /// Calls one listener; the id of its delivery, 0 where there is no such event or listener.
    Mirel::ui64_t CallAlone(const std::string& event_name, const EventManager::UUID& id,
                            const Velmora::PListDict& payload);

    DeliveryCounters Counters() const;

  private:
    // Deliveries that are ready to go to one destination.
    struct Lane {
        std::shared_ptr<const Destination> To;
        std::deque<Mirel::ui64_t> Ready;
        Mirel::ui32_t InFlight = 0;
    };

    using ListenerIds = std::map<ListenerKey, std::string>;

    void Learn(Delivery delivery) override;
    void LearnEnd(const Delivery& delivery) REQUIRES(m_Lock);
    void Forget(Mirel::ui64_t id) override;
    void ForgetAllBut(const std::set<Mirel::ui64_t>& ids) override;
    bool TakeOver(Delivery delivery) override;
    void KeepAlone(Mirel::ui64_t id) override;
    void Restore(Delivery delivery) REQUIRES(m_Lock);
    void Rule(Delivery& delivery) REQUIRES(m_Lock);
    static std::vector<Lane> LanesOf(const Options& options);
    Mirel::ui64_t SharedId(const Delivery& delivery) REQUIRES(m_Lock);
    Delivery* AddToBook(Delivery delivery) REQUIRES(m_Lock);

    Delivery NewDelivery(const EventManager::ListenerCall& call) const;
    std::size_t LaneOf(const std::string& callback) REQUIRES(m_Lock);
    Mirel::ui32_t TimeoutOf(const Destination& destination) const;
    // Whether it is to be in the store while it waits for another attempt or is dead.
    bool IsKept(const Delivery& delivery) const { return delivery.Attempts > 1 && m_Store->Keeps(); }
    void Keep(Delivery& delivery) REQUIRES(m_Lock);
    bool ComesBack(const Delivery& delivery) const { return delivery.Stored && m_Store->Shared(); }
    void Enter(Delivery delivery) REQUIRES(m_Lock);
    void EnterEnded(Delivery delivery, DeliveryState state) REQUIRES(m_Lock);
    bool MakeRoom(const Delivery& delivery) REQUIRES(m_Lock);
    Answer SendAgain(Delivery& delivery) REQUIRES(m_Lock);
    void Wake();

    void Work();
    void LoadStore() REQUIRES(m_Lock);
    static ListenerIds IdsOfListeners();
    void Relink(const ListenerIds& ids) REQUIRES(m_Lock);
    void EndOfDeleted() REQUIRES(m_Lock);
    void StartDue();
    std::vector<Delivery> TakeDue() REQUIRES(m_Lock);
    bool TakeFrom(Lane& lane, std::vector<Delivery>& due) REQUIRES(m_Lock);
    void StartTransfer(const Delivery& delivery);
    void NotStarted(const Delivery& delivery);
    bool Draining() const;
    void Finish(Transfer& transfer, int code);
    void Apply(Delivery& delivery, const Transfer& transfer, const TransferEnd& end) REQUIRES(m_Lock);
    void Retry(Delivery& delivery, const TransferEnd& end) REQUIRES(m_Lock);
    Mirel::i64_t Backoff_us(const Destination& destination, Mirel::ui32_t attempt) REQUIRES(m_Lock);
    void End(Delivery& delivery, DeliveryState state) REQUIRES(m_Lock);
    void TidyUp();
    void GiveUp();
    void DropOld() REQUIRES(m_Lock);
    void SayWhatWasLost() REQUIRES(m_Lock);
    int Wait_ms() const;

    const Mirel::ui32_t m_Timeout_ms;
    const std::unique_ptr<DeliveryStore> m_Store;
    Velmora::URL m_Self;
    void* const m_Multi;  // libcurl's
    std::thread m_Thread;
    std::atomic<bool> m_Stopping{false}, m_Woken{false};
    std::atomic<Mirel::i64_t> m_EndBy_us{0};

    mutable Mirel::Mutex m_Lock;
    DeliveryBook m_Book GUARDED_BY(m_Lock);
    DeliverySettings m_Settings GUARDED_BY(m_Lock);
    Mirel::ui32_t m_MaxInFlight GUARDED_BY(m_Lock);
    std::vector<Lane> m_Lanes GUARDED_BY(m_Lock);  // the last one is that of what no destination fits
    std::unordered_map<std::string, std::size_t> m_LaneOfCallback GUARDED_BY(m_Lock);
    std::set<std::string> m_Deleted GUARDED_BY(m_Lock);  // ids of listeners whose deliveries are to be ended
    std::multimap<Mirel::i64_t, Mirel::ui64_t> m_Retries GUARDED_BY(m_Lock);  // by when they are due
    std::minstd_rand m_Random GUARDED_BY(m_Lock){std::random_device{}()};
    DeliveryCounters m_Counters GUARDED_BY(m_Lock);
    DeliveryCounters m_Said GUARDED_BY(m_Lock);  // as they were when the log was last told

    // The thread's own.
    std::map<Transfer*, std::unique_ptr<Transfer>> m_Transfers;
    std::vector<std::shared_ptr<void>> m_Done;  // tokens to be let go when what was noted is kept
    Mirel::i64_t m_NextTidying_us = 0;
};

}  // namespace Server
