// Keeps deliveries in a cluster, where they belong to all its nodes.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Cluster.h"
#include "MR_mutex.h"
#include "deliveries/DeliveryStore.h"

namespace Server {

/// One document for each delivery, under its id: whole while it waits or is dead; how it ended, so that every
/// node that knows it shows that; or nothing. Of one delivery one document is on its way at a time, and what
/// was noted meanwhile follows it.
class ClusterDeliveries : public DeliveryStore, private Cluster::ITaskUser {
  public:
    ClusterDeliveries() = default;

    /// Before the node joins.
    void Use(Cluster::ICluster& cluster);

    bool Keeps() const override { return true; }
    bool Shared() const override { return true; }
    void Tell(IDeliveryTaker& taker) override { m_Taker = &taker; }
    void Put(const Delivery& delivery) override;
    void PutEnd(const Delivery& delivery) override;
    void Remove(Mirel::ui64_t id) override;
    bool Commit() override;
    void CommitSoon() override;
    std::string Trouble() const override;
    Mirel::ui64_t Failures() const override { return m_Failures; }

  private:
    struct Note {
        std::optional<Delivery> What;  // nothing: it is gone
        std::vector<std::shared_ptr<void>> Tokens;
        Mirel::ui64_t Ticket = 0;
    };
    struct Slot {
        std::optional<Note> Next, Sent;
    };

    void TasksAnew() override;
    void TasksRead() override;
    void TaskPut(const std::string& key, const std::string& document, bool own) override;
    bool TaskDue(const std::string& key, const std::string& document,
                 const std::shared_ptr<void>& token) override;

    void Add(Mirel::ui64_t id, std::optional<Delivery> what);
    void Send(Mirel::ui64_t id, const std::optional<Delivery>& what);
    void Sent(Mirel::ui64_t id, Cluster::Fate fate, const std::string& why);
    void MarkGone(Mirel::ui64_t id) REQUIRES(m_Lock);
    bool IsGone(Mirel::ui64_t id);
    bool HasUpTo(Mirel::ui64_t ticket) const REQUIRES(m_Lock);

    Cluster::ICluster* m_Cluster = nullptr;
    IDeliveryTaker* m_Taker = nullptr;
    std::atomic<Mirel::ui64_t> m_Failures{0};
    mutable Mirel::Mutex m_Lock;  // a leaf
    Mirel::Condition m_Kept;
    std::map<Mirel::ui64_t, Slot> m_Slots GUARDED_BY(m_Lock);
    std::set<Mirel::ui64_t> m_Gone GUARDED_BY(m_Lock);  // the last ones: a document may still be under way
    std::deque<Mirel::ui64_t> m_GoneInOrder GUARDED_BY(m_Lock);
    std::set<Mirel::ui64_t> m_Read GUARDED_BY(m_Lock);  // since TasksAnew()
    bool m_Reading GUARDED_BY(m_Lock) = false;
    std::string m_Trouble GUARDED_BY(m_Lock);
    Mirel::ui64_t m_LastTicket GUARDED_BY(m_Lock) = 0;
};

}  // namespace Server
