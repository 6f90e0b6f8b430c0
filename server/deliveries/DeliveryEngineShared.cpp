// What the engine has in common with those of other servers: whatever waits or is dead is known to all, and
// each attempt is made by the one that the store hands it to.
#include <functional>
#include <utility>

#include "deliveries/DeliveryEngine.h"

namespace Server {

using Mirel::AutoMutex;
using Mirel::ui32_t;
using Mirel::ui64_t;

namespace {

constexpr int ListenerBits = 22;
constexpr std::size_t LanesFull = 2;  // of what its destination may have in flight: taken over and not begun

bool HasEnded(DeliveryState state) {
    return state == DeliveryState::Ok || state == DeliveryState::Failed;
}

ui64_t HashOf(const std::string& text) {
    ui64_t hash = 14695981039346656037u;
    for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
    return hash >> (64 - ListenerBits);
}

}  // namespace

// Of the posting's number and the listener: whichever server calls, and however often, receivers see the same
// id.
ui64_t DeliveryEngine::SharedId(const Delivery& delivery) {
    if (!delivery.PostingId.empty()) {
        const ui64_t number = EventManager::LastPostingOfThread().Number;
        return number << ListenerBits | HashOf(delivery.PostingId + delivery.ListenerId);
    }
    const auto dice = std::uniform_int_distribution<ui64_t>(0, (ui64_t{1} << ListenerBits) - 1)(m_Random);
    return (m_Book.NewestId() >> ListenerBits) << ListenerBits | dice;
}

Delivery* DeliveryEngine::AddToBook(Delivery delivery) {
    if (m_Store->Shared()) delivery.Id = SharedId(delivery);
    return m_Book.Add(std::move(delivery));
}

void DeliveryEngine::Restore(Delivery delivery) {
    m_Book.Remove(delivery.Id);
    Rule(delivery);
    delivery.Stored = true;
    m_Book.Restore(std::move(delivery));
}

// What this server is at it will say itself.
void DeliveryEngine::Learn(Delivery delivery) {
    AutoMutex lock(m_Lock);
    const Delivery* const known = m_Book.Find(delivery.Id);
    if (known != nullptr && (known->Running || known->Token)) return;
    HasEnded(delivery.State) ? LearnEnd(delivery) : Restore(std::move(delivery));
}

void DeliveryEngine::LearnEnd(const Delivery& delivery) {
    Delivery* const known = m_Book.Find(delivery.Id);
    if (known == nullptr || HasEnded(known->State)) return;
    known->Attempt = delivery.Attempt;
    known->Time_us = delivery.Time_us;
    known->Duration_ms = delivery.Duration_ms;
    known->Status = delivery.Status;
    known->Reason = delivery.Reason;
    known->Answer = delivery.Answer;
    known->Stored = false;
    const DeliveryState before = std::exchange(known->State, delivery.State);
    m_Book.StateChanged(*known, before);
}

void DeliveryEngine::Forget(ui64_t id) {
    AutoMutex lock(m_Lock);
    Delivery* const known = m_Book.Find(id);
    if (known == nullptr || HasEnded(known->State)) return;
    known->Stored = false;
    known->Dismissed = known->Running;
    if (!known->Running) m_Book.Remove(id);
}

void DeliveryEngine::ForgetAllBut(const std::set<ui64_t>& ids) {
    AutoMutex lock(m_Lock);
    for (const DeliveryState state : {DeliveryState::Waiting, DeliveryState::Dead}) {
        for (const ui64_t id : m_Book.InState(state)) {
            const Delivery& known = *m_Book.Find(id);
            if (known.Stored && !known.Running && !known.Token && !ids.contains(id)) m_Book.Remove(id);
        }
    }
}

bool DeliveryEngine::TakeOver(Delivery delivery) {
    {
        AutoMutex lock(m_Lock);
        const Delivery* const known = m_Book.Find(delivery.Id);
        const Lane& lane = m_Lanes[LaneOf(delivery.Callback)];
        const bool full = lane.Ready.size() + lane.InFlight >= LanesFull * lane.To->MaxInFlight;
        if (m_Stopping || full || (known != nullptr && (known->Running || known->Token))) return false;
        const ui64_t id = delivery.Id;
        delivery.Next_us = 0;
        Restore(std::move(delivery));
        m_Lanes[m_Book.Find(id)->Lane].Ready.push_back(id);
    }
    Wake();
    return true;
}

// Too large for the store, or the like.
void DeliveryEngine::KeepAlone(ui64_t id) {
    {
        AutoMutex lock(m_Lock);
        Delivery* const known = m_Book.Find(id);
        if (known == nullptr) return;
        known->Stored = false;
        if (known->State == DeliveryState::Waiting) m_Retries.emplace(known->Next_us, id);
    }
    Wake();
}

}  // namespace Server
