#include "deliveries/DeliveryBook.h"

#include <algorithm>
#include <utility>

namespace Server {

using Mirel::ui64_t;

namespace {

constexpr std::size_t DurationsKept = 100;

bool Stays(DeliveryState state) {
    return state == DeliveryState::Waiting || state == DeliveryState::Dead;
}

}  // namespace

const char* DeliveryStateName(DeliveryState state) {
    constexpr const char* Names[] = {"waiting", "ok", "failed", "dead"};
    return Names[static_cast<std::size_t>(state)];
}

DeliveryBook::Share& DeliveryBook::ShareOf(const Delivery& delivery) {
    if (m_Shares.size() <= delivery.Lane) m_Shares.resize(delivery.Lane + 1);
    return m_Shares[delivery.Lane];
}

void DeliveryBook::Count(const Delivery& delivery, DeliveryState state, int sign) {
    const std::size_t bytes = delivery.Bytes();
    const auto add = [sign](std::size_t& count, std::size_t by) {
        count = sign > 0 ? count + by : count - by;
    };
    if (!Stays(state)) return add(m_EndedBytes, bytes);
    Share& share = ShareOf(delivery);
    add(share.Number, 1);
    add(share.Bytes, bytes);
    add(m_Bytes, bytes);
    add(state == DeliveryState::Waiting ? m_Waiting : m_Dead, 1);
    if (state == DeliveryState::Waiting) return;
    add(share.DeadBytes, bytes);
    sign > 0 ? (void)share.Dead.insert(delivery.Id) : (void)share.Dead.erase(delivery.Id);
}

std::vector<Delivery*> DeliveryBook::All() {
    std::vector<Delivery*> all;
    for (auto& [id, delivery] : m_Deliveries) all.push_back(&delivery);
    return all;
}

void DeliveryBook::TakeAnew(const DeliverySettings& settings) {
    m_Settings = settings;
    m_Shares.clear();
    m_Waiting = m_Dead = m_Bytes = m_EndedBytes = 0;
    for (const auto& [id, delivery] : m_Deliveries) Count(delivery, delivery.State, 1);
    DropEnded();
}

bool DeliveryBook::MakeRoom(const Delivery& delivery, std::vector<ui64_t>& dropped) {
    Share& share = ShareOf(delivery);
    const std::size_t bytes = delivery.Bytes();
    const auto fits = [&](std::size_t number, std::size_t held) {
        return number < m_Settings.MaxWaiting && held + bytes <= m_Settings.MaxWaitingBytes;
    };
    if (!fits(share.Number - share.Dead.size(), share.Bytes - share.DeadBytes)) return false;
    while (!fits(share.Number, share.Bytes)) {
        dropped.push_back(*share.Dead.begin());
        Remove(dropped.back());
    }
    return true;
}

// Ids begin at the time of day, so that no restart gives one twice.
Delivery* DeliveryBook::Add(Delivery delivery) {
    if (m_LastId == 0) m_LastId = static_cast<ui64_t>(Mirel::Timestamp().Microseconds());
    if (delivery.Id == 0) delivery.Id = ++m_LastId;
    while (delivery.Id <= NewestId() && m_Deliveries.contains(delivery.Id)) ++delivery.Id;
    const ui64_t id = delivery.Id;
    Count(delivery, delivery.State, 1);
    Delivery& entered = m_Deliveries.emplace_hint(m_Deliveries.end(), id, std::move(delivery))->second;
    if (Stays(entered.State)) return &entered;
    m_Ended.push_back(id);
    DropEnded();
    return Find(id);
}

void DeliveryBook::Restore(Delivery delivery) {
    m_LastId = std::max({m_LastId, delivery.Id, static_cast<ui64_t>(Mirel::Timestamp().Microseconds())});
    Count(delivery, delivery.State, 1);
    m_Deliveries.emplace(delivery.Id, std::move(delivery));
}

void DeliveryBook::Restore(const ListenerKey& key, ListenerStatus status) {
    m_Statuses.emplace(key, std::move(status));
}

Delivery* DeliveryBook::Find(ui64_t id) {
    const auto found = m_Deliveries.find(id);
    return found == m_Deliveries.end() ? nullptr : &found->second;
}

const Delivery* DeliveryBook::Find(ui64_t id) const {
    const auto found = m_Deliveries.find(id);
    return found == m_Deliveries.end() ? nullptr : &found->second;
}

void DeliveryBook::AddListener(const ListenerKey& key, const std::string& id) {
    m_Statuses[key].ListenerId = id;
}

void DeliveryBook::CountAttempt(const Delivery& delivery, bool ok) {
    const auto found = m_Statuses.find({delivery.EventName, delivery.Callback});
    if (found == m_Statuses.end() || found->second.ListenerId != delivery.ListenerId) return;
    ListenerStatus& status = found->second;
    status.Last = ok ? DeliveryState::Ok : DeliveryState::Failed;
    status.Reason = delivery.Reason;
    status.Time_us = delivery.Time_us;
    status.FailuresInRow = ok ? 0 : status.FailuresInRow + 1;
    if (ok) status.Success_us = delivery.Time_us;
    if (!ok) ++status.Failures;
    ++status.Calls;
    status.Durations_ms.push_back(delivery.Duration_ms);
    if (status.Durations_ms.size() > DurationsKept) status.Durations_ms.pop_front();
    status.Changed = true;
}

void DeliveryBook::DropEnded() {
    while (m_Ended.size() > m_Settings.Keep || m_EndedBytes > m_Settings.KeepBytes) Remove(m_Ended.front());
}

void DeliveryBook::StateChanged(Delivery& delivery, DeliveryState before) {
    if (before == delivery.State) return;
    Count(delivery, before, -1);
    Count(delivery, delivery.State, 1);
    if (Stays(before) == Stays(delivery.State)) return;
    if (!Stays(before)) {
        m_Ended.erase(std::find(m_Ended.begin(), m_Ended.end(), delivery.Id));
        return;
    }
    m_Ended.push_back(delivery.Id);
    DropEnded();
}

void DeliveryBook::Remove(ui64_t id) {
    const auto found = m_Deliveries.find(id);
    if (found == m_Deliveries.end()) return;
    const Delivery& delivery = found->second;
    Count(delivery, delivery.State, -1);
    if (!Stays(delivery.State)) m_Ended.erase(std::find(m_Ended.begin(), m_Ended.end(), id));
    m_Deliveries.erase(found);
}

bool DeliveryBook::Matches(const Delivery& delivery, const DeliveryFilter& filter) const {
    if (!filter.EventName.empty() && delivery.EventName != filter.EventName) return false;
    if (!filter.ListenerId.empty() && delivery.ListenerId != filter.ListenerId) return false;
    if (filter.Outcome.empty()) return delivery.Attempt > 0;
    if (filter.Outcome == "slow") return delivery.Attempt > 0 && delivery.Slow();
    if (filter.Outcome == "failed" && delivery.State == DeliveryState::Dead) return true;
    return filter.Outcome == DeliveryStateName(delivery.State);
}

std::vector<const Delivery*> DeliveryBook::List(const DeliveryFilter& filter, bool& more) const {
    std::vector<const Delivery*> found;
    more = false;
    auto at = filter.Before == 0 ? m_Deliveries.end() : m_Deliveries.lower_bound(filter.Before);
    while (at != m_Deliveries.begin()) {
        --at;
        if (!Matches(at->second, filter)) continue;
        if (found.size() >= filter.Limit) {
            more = true;
            break;
        }
        found.push_back(&at->second);
    }
    return found;
}

std::vector<ui64_t> DeliveryBook::InState(DeliveryState state) const {
    std::vector<ui64_t> ids;
    for (const auto& [id, delivery] : m_Deliveries) {
        if (delivery.State == state) ids.push_back(id);
    }
    return ids;
}

// Ids ascend with the time.
std::vector<ui64_t> DeliveryBook::MadeBefore(Mirel::i64_t us) const {
    std::vector<ui64_t> ids;
    for (const auto& [id, delivery] : m_Deliveries) {
        if (!Stays(delivery.State)) continue;
        if (delivery.Made_us >= us) break;
        ids.push_back(id);
    }
    return ids;
}

const ListenerStatus* DeliveryBook::Status(const ListenerKey& key) const {
    const auto found = m_Statuses.find(key);
    return found == m_Statuses.end() || found->second.Calls == 0 ? nullptr : &found->second;
}

std::map<std::string, std::size_t> DeliveryBook::Retries() const {
    std::map<std::string, std::size_t> retries;
    if (m_Waiting == 0) return retries;
    for (const auto& [id, delivery] : m_Deliveries) {
        if (delivery.State == DeliveryState::Waiting && delivery.Attempt > 0) ++retries[delivery.ListenerId];
    }
    return retries;
}

}  // namespace Server
