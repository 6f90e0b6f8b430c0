// Keeps deliveries in an SQLite file.
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "MR_error.h"
#include "MR_mutex.h"
#include "deliveries/DeliveryStore.h"

struct sqlite3;

namespace Server {

/// What is noted by many threads is written by the first that asks for it, in one transaction for all of
/// them; the others wait for that one.
class DeliveryJournal : public DeliveryStore {
  public:
    DeliveryJournal() = default;
    ~DeliveryJournal() override;

    /// Opens or creates the file. A failure's message is one clear line for the operator.
    Mirel::Result_t Open(const std::string& path);

    bool Keeps() const override { return true; }
    void Put(const Delivery& delivery) override;
    void Remove(Mirel::ui64_t id) override;
    void PutStatus(const ListenerKey& key, const ListenerStatus& status) override;
    void RemoveStatus(const ListenerKey& key) override;
    bool Commit() override;
    void Load(std::vector<Delivery>& deliveries, std::map<ListenerKey, ListenerStatus>& statuses) override;

    std::string Trouble() const override;
    Mirel::ui64_t Failures() const override { return m_Failures; }

  private:
    // Nothing: to be removed.
    struct Changes {
        std::map<Mirel::ui64_t, std::optional<Delivery>> Deliveries;
        std::map<ListenerKey, std::optional<ListenerStatus>> Statuses;
        bool Empty() const { return Deliveries.empty() && Statuses.empty(); }
    };

    bool Execute(const char* sql) REQUIRES(m_Writing);
    Mirel::i64_t Version() REQUIRES(m_Writing);
    bool Write(const Changes& changes) REQUIRES(m_Writing);
    void GiveBack(Changes changes);
    void Failed() REQUIRES(m_Writing);

    std::string m_Path;
    Mirel::Mutex m_Writing;  // taken before m_Noting
    sqlite3* m_Database GUARDED_BY(m_Writing) = nullptr;
    std::atomic<Mirel::ui64_t> m_Failures{0};
    mutable Mirel::Mutex m_Noting;
    Changes m_Noted GUARDED_BY(m_Noting);
    std::string m_Trouble GUARDED_BY(m_Noting);
};

}  // namespace Server
