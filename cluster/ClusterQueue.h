// The event queue of a node: the module's queue, whose registry, postings and timers are the cluster's.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "EventManager.h"
#include "Nodes.h"
#include "Posting.h"
#include "Registry.h"

namespace Cluster {

using Mirel::i32_t;

/// Operations that change the registry wait until the engine has stored the change and it is applied here;
/// where it is not, they answer false or STATUS_503_NO_SERVICE, and TakeFailure() says why. Getters answer
/// what this node knows.
class ClusterQueue : public EventManager::EventQueue, private IRegistryUser {
  public:
    ClusterQueue(Mirel::ui32_t timeout_ms, Engine& engine, Publisher& publisher, Nodes& nodes);
    ~ClusterQueue() override;

    Registry& Documents() { return m_Registry; }

    /// From now on changes go to the cluster. Before, they are the module's own.
    void Join() { m_Joined = true; }
    /// Gives a cluster that has never had one the document.
    void Seed(const PListDict& document);
    /// Adds a document, whose timers are added once however often it is given.
    void Import(const PListDict& document);

    using Done = std::function<void(const Outcome&)>;
    void Post(const std::string& event_name, std::string json, const std::string& id, Done done);
    static Outcome TakeFailure();

    /// What the readers bring.
    void BeginPostings(const std::string& epoch, ui64_t before) { BeginEpoch(epoch, before); }
    void Record(const PListDict& payload, ui64_t number) { RecordPosting(payload, number); }
    bool Call(const PListDict& payload, const Velmora::PostingId& id, const std::shared_ptr<void>& token) {
        PostingOfThread(id);
        return CallListenersOf(payload, token);
    }
    void CountTimer(bool fired) { fired ? CountTimerPosting() : CountExpiredTimer(); }

    /// Makes the kernel's watches those of the registry, and takes from the registry what the kernel refuses.
    void ReconcileWatches();

    void GetQueueState(PListDict& state) const override;
    void SetQueueState(const PListDict& config) override;
    i32_t GetMaxListeners() const override;
    void SetMaxListeners(i32_t max) override;
    void SetEventState(const PListDict& state) override;
    Velmora::Status_t CreateEvent(const std::string& event_name, PListDict* event_data) override;
    void DeleteAllEvents() override;
    bool PostEvent(const std::string& event_name, const PListDict* value) override;
    bool DeleteEvent(const std::string& event_name) override;
    Velmora::Status_t CreateEventListener(const std::string& event_name, const std::string& callback,
                                          const PListDict* listener_data, Mirel::UUID& callback_id) override;
    bool DeleteListenersForEvent(const std::string& event_name) override;
    bool DeleteEventListener(const std::string& event_name, const Mirel::UUID& id) override;
    void SetTimerState(const PListDict& state) override;
    bool CreateTimer(const std::string& event_name, const Mirel::Timestamp& timestamp,
                     const i64_t& interval_sec, const PListDict* timer_data, Mirel::UUID& timer_id) override;
    void DeleteAllTimers() override;
    bool DeleteTimer(const Mirel::UUID& timer_id) override;
    i32_t GetMaxWatches() const override;
    void SetMaxWatches(i32_t max) override;
    void GetWatchState(PListDict& state) const override;
    void SetWatchState(const PListDict& state) override;
    bool CreateWatch(const std::string& path, const std::string& event_name, const PListDict* watch_data,
                     const bool& once) override;
    void DeleteAllWatches() override;
    bool DeleteWatch(const std::string& path) override;

  protected:
    void FireTimers() override {}  // one node does, whose worker's passes are no matter
    Mirel::Timestamp HistoryTime() const override;

  private:
    void Apply(const std::string& key, const PListDict* before, const PListDict* after) override;
    void ApplyEvent(const PListDict* before, const PListDict* after);
    void ApplyListeners(const std::string& name, const PListDict& before, const PListDict& after);
    void ApplyTimer(const PListDict* before, const PListDict* after);
    void ApplyWatch(const PListDict* before, const PListDict* after);

    Velmora::Status_t Change(const Decide& decide);
    bool Changed(const Decide& decide);
    Publisher::Time Deadline() const;
    bool IsTooLong(const std::string& name) const;
    i32_t Limit(const std::string& name) const;
    void SetLimit(const std::string& name, i32_t value);
    bool FindEvent(const std::string& name, PListDict& data) const;
    void ApplyState(const PListDict& state, const std::function<std::string(std::size_t)>& timer_id);

    Engine& m_Engine;
    Publisher& m_Publisher;
    Nodes& m_Nodes;
    std::atomic<bool> m_Joined{false};
    std::map<std::string, int> m_WatchAttempts;  // of ReconcileWatches alone
    Registry m_Registry;
};

}  // namespace Cluster
