#include "deliveries/ClusterDeliveries.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <utility>

#include "MR_log.h"
#include "deliveries/DeliveryDocument.h"

namespace Server {

using Cluster::Fate;
using Mirel::AutoMutex;
using Mirel::i64_t;
using Mirel::ui64_t;

namespace {

constexpr std::size_t GoneKept = 20000;
constexpr std::chrono::seconds CommitLimit{8};

bool ReadKey(const std::string& key, ui64_t& id) {
    const auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), id);
    return error == std::errc() && end == key.data() + key.size();
}

// Until it is due; negative: never.
i64_t DelayOf_ms(const std::optional<Delivery>& what) {
    if (!what || what->State != DeliveryState::Waiting) return -1;
    return std::max<i64_t>((what->Next_us - Mirel::Timestamp().Microseconds()) / 1000, 0);
}

}  // namespace

void ClusterDeliveries::Use(Cluster::ICluster& cluster) {
    m_Cluster = &cluster;
    cluster.ShareTasks(*this);
}

// ---- What this node says ----

void ClusterDeliveries::Put(const Delivery& delivery) {
    Add(delivery.Id, delivery);
}

void ClusterDeliveries::PutEnd(const Delivery& delivery) {
    Add(delivery.Id, delivery);
}

void ClusterDeliveries::Remove(ui64_t id) {
    Add(id, std::nullopt);
}

// What it takes the place of is never sent, and its tokens wait for this one.
void ClusterDeliveries::Add(ui64_t id, std::optional<Delivery> what) {
    AutoMutex lock(m_Lock);
    if (!what) MarkGone(id);
    Slot& slot = m_Slots[id];
    if (!slot.Next) slot.Next = Note();
    if (what && what->Token) slot.Next->Tokens.push_back(std::move(what->Token));
    slot.Next->What = std::move(what);
    slot.Next->Ticket = ++m_LastTicket;
}

void ClusterDeliveries::CommitSoon() {
    std::vector<std::pair<ui64_t, std::optional<Delivery>>> ready;
    {
        AutoMutex lock(m_Lock);
        for (auto& [id, slot] : m_Slots) {
            if (slot.Sent || !slot.Next) continue;
            slot.Sent = std::exchange(slot.Next, std::nullopt);
            ready.emplace_back(id, slot.Sent->What);
        }
    }
    for (const auto& [id, what] : ready) Send(id, what);
}

void ClusterDeliveries::Send(ui64_t id, const std::optional<Delivery>& what) {
    const std::string document = what ? DocumentOf(*what) : std::string();
    if (what && document.empty()) return Sent(id, Fate::TooLarge, std::string());
    m_Cluster->PutTask(std::to_string(id), document, DelayOf_ms(what),
                       [this, id](Fate fate, const std::string& why) { Sent(id, fate, why); });
}

// What could not be kept is sent again with the next look, unless something newer is there to be sent.
void ClusterDeliveries::Sent(ui64_t id, Fate fate, const std::string& why) {
    const bool kept = fate == Fate::Stored;
    bool more = false;
    std::optional<Note> done;
    {
        AutoMutex lock(m_Lock);
        Slot& slot = m_Slots[id];
        done = std::exchange(slot.Sent, std::nullopt);
        if (!kept && fate != Fate::TooLarge) {
            ++m_Failures;
            const std::string trouble = "the cluster does not keep them: " + why;
            if (std::exchange(m_Trouble, trouble).empty())
                Mirel::DefaultLogSink().Error("Deliveries are not safe: %s\n", trouble.c_str());
            if (!slot.Next) {
                slot.Next = std::move(done);
            } else {
                for (auto& token : done->Tokens) slot.Next->Tokens.push_back(std::move(token));
            }
            done.reset();
        } else {
            m_Trouble.clear();
            more = slot.Next.has_value();
            if (!more) m_Slots.erase(id);
        }
        m_Kept.NotifyAll();
    }
    if (fate == Fate::TooLarge) {
        Mirel::DefaultLogSink().Error(
            "Delivery %llu is too large for the cluster: or no text: it is this node's alone\n",
            static_cast<unsigned long long>(id));
        m_Taker->KeepAlone(id);
    }
    if (more) CommitSoon();
}

std::string ClusterDeliveries::Trouble() const {
    AutoMutex lock(m_Lock);
    return m_Trouble;
}

bool ClusterDeliveries::HasUpTo(ui64_t ticket) const {
    const auto waits = [ticket](const std::optional<Note>& note) { return note && note->Ticket <= ticket; };
    return std::any_of(m_Slots.begin(), m_Slots.end(), [&](const auto& entry) {
        return waits(entry.second.Sent) || waits(entry.second.Next);
    });
}

bool ClusterDeliveries::Commit() {
    const auto until = std::chrono::steady_clock::now() + CommitLimit;
    ui64_t ticket = 0;
    {
        AutoMutex lock(m_Lock);
        ticket = m_LastTicket;
    }
    for (;;) {
        CommitSoon();
        AutoMutex lock(m_Lock);
        if (!HasUpTo(ticket)) return true;
        if (!m_Kept.WaitUntil(m_Lock, until)) return !HasUpTo(ticket);
    }
}

// ---- What the nodes say ----

void ClusterDeliveries::MarkGone(ui64_t id) {
    if (!m_Gone.insert(id).second) return;
    m_GoneInOrder.push_back(id);
    if (m_GoneInOrder.size() <= GoneKept) return;
    m_Gone.erase(m_GoneInOrder.front());
    m_GoneInOrder.pop_front();
}

bool ClusterDeliveries::IsGone(ui64_t id) {
    AutoMutex lock(m_Lock);
    return m_Gone.contains(id);
}

void ClusterDeliveries::TasksAnew() {
    AutoMutex lock(m_Lock);
    m_Read.clear();
    m_Reading = true;
}

void ClusterDeliveries::TasksRead() {
    std::set<ui64_t> read;
    {
        AutoMutex lock(m_Lock);
        read.swap(m_Read);
        m_Reading = false;
        for (const auto& [id, slot] : m_Slots) read.insert(id);
    }
    m_Taker->ForgetAllBut(read);
}

void ClusterDeliveries::TaskPut(const std::string& key, const std::string& document, bool own) {
    ui64_t id = 0;
    if (!ReadKey(key, id)) return;
    {
        AutoMutex lock(m_Lock);
        if (m_Reading && !document.empty()) m_Read.insert(id);
        if (own || m_Gone.contains(id)) return;
        if (document.empty()) MarkGone(id);
    }
    if (document.empty()) return m_Taker->Forget(id);
    if (std::optional<Delivery> delivery = DeliveryFrom(document, id)) m_Taker->Learn(std::move(*delivery));
}

// What cannot be read is nobody's, and done with.
bool ClusterDeliveries::TaskDue(const std::string& key, const std::string& document,
                                const std::shared_ptr<void>& token) {
    ui64_t id = 0;
    if (!ReadKey(key, id) || IsGone(id)) return true;
    std::optional<Delivery> delivery = DeliveryFrom(document, id);
    if (!delivery || delivery->State != DeliveryState::Waiting) return true;
    delivery->Token = token;
    return m_Taker->TakeOver(std::move(*delivery));
}

}  // namespace Server
