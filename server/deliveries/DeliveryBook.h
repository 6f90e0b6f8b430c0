// The deliveries of the process and the status of its listeners, within bounds.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/Destinations.h"
#include "deliveries/Delivery.h"
#include "deliveries/DeliveryStore.h"

namespace Server {

/// Which deliveries are asked for; what is empty does not matter.
struct DeliveryFilter {
    std::string EventName;
    std::string ListenerId;
    std::string Outcome;       ///< a state's name, or "slow"; empty: whatever was called at least once
    Mirel::ui64_t Before = 0;  ///< only ids below; 0: all
    std::size_t Limit = 256;
};

/// Not synchronised. What waits or is dead is bounded for each lane, so that none takes the place of another.
class DeliveryBook {
  public:
    explicit DeliveryBook(const DeliverySettings& settings) : m_Settings(settings) {}

    /// All there are, for their lanes to be set; TakeAnew() is called then.
    std::vector<Delivery*> All();
    /// Other bounds, and other lanes.
    void TakeAnew(const DeliverySettings& settings);

    /// Makes room for a delivery that waits: the oldest dead ones of its lane go, and their ids are added to
    /// `dropped`. False, and nothing has gone, where what waits leaves none.
    bool MakeRoom(const Delivery& delivery, std::vector<Mirel::ui64_t>& dropped);
    /// Enters a delivery with its own id, or with the next one where it has none. Null where it has ended,
    /// and no ended ones are kept.
    Delivery* Add(Delivery delivery);
    /// Enters one that was kept, with its own id.
    void Restore(Delivery delivery);
    void Restore(const ListenerKey& key, ListenerStatus status);
    /// Null where there is none.
    Delivery* Find(Mirel::ui64_t id);
    const Delivery* Find(Mirel::ui64_t id) const;
    /// An attempt has ended: `delivery` says how. Counts it for its listener, if that is still there.
    void CountAttempt(const Delivery& delivery, bool ok);
    /// The delivery's state is another one than `before`: ended ones beyond the most that are kept leave.
    void StateChanged(Delivery& delivery, DeliveryState before);
    void Remove(Mirel::ui64_t id);

    /// There is such a listener.
    void AddListener(const ListenerKey& key, const std::string& id);
    void RemoveListener(const ListenerKey& key) { m_Statuses.erase(key); }

    /// Newest first. `more` says whether there are further ones behind the last.
    std::vector<const Delivery*> List(const DeliveryFilter& filter, bool& more) const;
    /// The id of the newest; 0 where there is none.
    Mirel::ui64_t NewestId() const { return m_Deliveries.empty() ? 0 : m_Deliveries.rbegin()->first; }
    /// The ids of those in that state.
    std::vector<Mirel::ui64_t> InState(DeliveryState state) const;
    /// The ids of those that wait or are dead and were made before that time.
    std::vector<Mirel::ui64_t> MadeBefore(Mirel::i64_t us) const;
    /// Null where it was not called yet.
    const ListenerStatus* Status(const ListenerKey& key) const;
    std::map<ListenerKey, ListenerStatus>& Statuses() { return m_Statuses; }
    const std::map<ListenerKey, ListenerStatus>& Statuses() const { return m_Statuses; }
    /// How many wait for another attempt, for each listener's id.
    std::map<std::string, std::size_t> Retries() const;

    std::size_t Waiting() const { return m_Waiting; }
    std::size_t Dead() const { return m_Dead; }
    std::size_t Bytes() const { return m_Bytes; }

  private:
    // Of one lane: those that wait or are dead.
    struct Share {
        std::size_t Number = 0, Bytes = 0, DeadBytes = 0;
        std::set<Mirel::ui64_t> Dead;
    };

    bool Matches(const Delivery& delivery, const DeliveryFilter& filter) const;
    Share& ShareOf(const Delivery& delivery);
    void Count(const Delivery& delivery, DeliveryState state, int sign);
    void DropEnded();

    DeliverySettings m_Settings;
    Mirel::ui64_t m_LastId = 0;
    std::map<Mirel::ui64_t, Delivery> m_Deliveries;
    std::deque<Mirel::ui64_t> m_Ended;  // in the order in which they ended
    std::map<ListenerKey, ListenerStatus> m_Statuses;
    std::vector<Share> m_Shares;
    std::size_t m_Waiting = 0, m_Dead = 0, m_Bytes = 0;  // the bytes of both
    std::size_t m_EndedBytes = 0;
};

}  // namespace Server
