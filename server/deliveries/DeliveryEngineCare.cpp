// The engine's beginning and end, and what it does once a second.
#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <utility>

#include "MR_log.h"
#include "deliveries/DeliveryEngine.h"

namespace Server {

using Mirel::AutoMutex;
using Mirel::DefaultLogSink;
using Mirel::i64_t;
using Mirel::ui32_t;
using Mirel::ui64_t;

namespace {

constexpr i64_t us_per_ms = 1000, us_per_sec = 1000000;

}  // namespace

void DeliveryEngine::Start(const Velmora::URL& self) {
    m_Self = self;
    const ListenerIds ids =
        IdsOfListeners();  // asks the queue: before the lock, which the queue's goes before
    {
        AutoMutex lock(m_Lock);
        LoadStore();
        Relink(ids);
    }
    m_Thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "Deliveries");
        Work();
    });
}

// What is under way ends as it began; all else goes to its new lane, in order.
void DeliveryEngine::TakeAnew(const Options& options) {
    {
        AutoMutex lock(m_Lock);
        m_Settings = options.Settings;
        m_MaxInFlight = options.MaxInFlight;
        const std::vector<Lane> before = std::exchange(m_Lanes, LanesOf(options));
        m_LaneOfCallback.clear();
        for (Delivery* const delivery : m_Book.All()) {
            Rule(*delivery);
            if (delivery->Running) ++m_Lanes[delivery->Lane].InFlight;
        }
        m_Book.TakeAnew(m_Settings);
        for (const Lane& lane : before) {
            for (const ui64_t id : lane.Ready) {
                if (const Delivery* delivery = m_Book.Find(id)) m_Lanes[delivery->Lane].Ready.push_back(id);
            }
        }
    }
    Wake();
}

void DeliveryEngine::LoadStore() {
    std::vector<Delivery> deliveries;
    std::map<ListenerKey, ListenerStatus> statuses;
    m_Store->Load(deliveries, statuses);
    for (auto& [key, status] : statuses) m_Book.Restore(key, std::move(status));
    for (Delivery& delivery : deliveries) {
        if (m_Book.Find(delivery.Id) != nullptr) continue;
        if (delivery.State == DeliveryState::Waiting) m_Retries.emplace(delivery.Next_us, delivery.Id);
        Restore(std::move(delivery));
    }
    if (deliveries.empty()) return;
    DefaultLogSink().Notice("Deliveries taken up from the journal: %zu waiting, %zu dead\n", m_Book.Waiting(),
                            m_Book.Dead());
}

DeliveryEngine::ListenerIds DeliveryEngine::IdsOfListeners() {
    namespace Keys = EventManager::Strings;
    Velmora::PListDict state;
    EventManager::GlobalEventQueue().GetEventState(state);
    ListenerIds ids;
    for (const Velmora::PListItem& event : std::as_const(state).GetArray(Keys::event_list)) {
        const std::string name = AsDict(&event)->GetData(Keys::event_name).Text();
        for (const Velmora::PListItem& item : AsDict(&event)->GetArray(Keys::listener_list)) {
            ids[{name, AsDict(&item)->GetData(Keys::callback).Text()}] =
                AsDict(&item)->GetData(Keys::id).Text();
        }
    }
    return ids;
}

// Listeners have got new ids, and some may be gone.
void DeliveryEngine::Relink(const ListenerIds& ids) {
    for (const DeliveryState state_of : {DeliveryState::Waiting, DeliveryState::Dead}) {
        for (const ui64_t id : m_Book.InState(state_of)) {
            Delivery& delivery = *m_Book.Find(id);
            const auto listener = ids.find({delivery.EventName, delivery.Callback});
            if (listener == ids.end()) continue;
            delivery.ListenerId = listener->second;
            m_Book.AddListener(listener->first, listener->second);
        }
    }
    auto& statuses = m_Book.Statuses();
    for (auto entry = statuses.begin(); entry != statuses.end();) {
        const auto listener = ids.find(entry->first);
        if (listener != ids.end()) {
            entry++->second.ListenerId = listener->second;
        } else {
            m_Store->RemoveStatus(entry->first);
            entry = statuses.erase(entry);
        }
    }
}

void DeliveryEngine::DropOld() {
    const i64_t oldest = Mirel::Timestamp().Microseconds() - i64_t{m_Settings.MaxAge_sec} * us_per_sec;
    for (const ui64_t id : m_Book.MadeBefore(oldest)) {
        const Delivery& delivery = *m_Book.Find(id);
        if (delivery.Running) continue;
        if (delivery.Stored) m_Store->Remove(id);
        m_Book.Remove(id);
        ++m_Counters.Expired;
    }
}

// At most once a second each.
void DeliveryEngine::SayWhatWasLost() {
    const auto say = [](ui64_t now, ui64_t& said, const char* line) {
        if (now != said) DefaultLogSink().Warn(line, static_cast<unsigned long long>(now - said));
        said = now;
    };
    say(m_Counters.Expired, m_Said.Expired, "Dropped %llu deliveries that were older than \"MaxAge_sec\"\n");
    say(m_Counters.Dropped, m_Said.Dropped, "Dropped %llu dead deliveries to make room for others\n");
    say(m_Counters.Refused, m_Said.Refused, "Did not make %llu deliveries, since too many wait already\n");
}

// Journals the listeners' status, drops what is too old, and says what went.
void DeliveryEngine::TidyUp() {
    const i64_t now = Mirel::Timestamp().Microseconds();
    if (now < m_NextTidying_us) return;
    m_NextTidying_us = now + us_per_sec;
    AutoMutex lock(m_Lock);
    for (auto& [key, status] : m_Book.Statuses()) {
        if (std::exchange(status.Changed, false)) m_Store->PutStatus(key, status);
    }
    DropOld();
    SayWhatWasLost();
}

void DeliveryEngine::Stop() {
    if (!m_Thread.joinable()) return;
    constexpr ui32_t Longest_ms = 10000;
    ui32_t timeout_ms = m_Timeout_ms;
    {
        AutoMutex lock(m_Lock);
        for (const Lane& lane : m_Lanes) timeout_ms = std::max(timeout_ms, lane.To->Timeout_ms);
    }
    m_EndBy_us =
        Mirel::Timestamp().Microseconds() + std::min(timeout_ms, Longest_ms) * us_per_ms + us_per_sec;
    m_Stopping = true;
    curl_multi_wakeup(m_Multi);
    m_Thread.join();
    GiveUp();
    m_NextTidying_us = 0;
    TidyUp();
    const bool kept = m_Store->Commit();
    AutoMutex lock(m_Lock);
    std::size_t lost = 0;
    for (const ui64_t id : m_Book.InState(DeliveryState::Waiting)) {
        const Delivery& delivery = *m_Book.Find(id);
        lost += (!delivery.Stored || !kept) && !delivery.Token;
    }
    if (lost > 0) DefaultLogSink().Warn("%zu deliveries that waited for an attempt are lost\n", lost);
}

void DeliveryEngine::GiveUp() {
    for (const auto& [transfer, owned] : m_Transfers) {
        if (transfer->Handle() != nullptr) curl_multi_remove_handle(m_Multi, transfer->Handle());
        Velmora::RequestOutcome outcome;
        outcome.Failure = Velmora::RequestFailure::Transfer;
        outcome.Reason = "Given up at the end of the server";
        Velmora::CountRequestEnded(transfer->Url(), outcome);
    }
    m_Transfers.clear();
}

}  // namespace Server
