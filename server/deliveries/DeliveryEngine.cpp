#include "deliveries/DeliveryEngine.h"

#include <curl/curl.h>

#include <algorithm>
#include <new>
#include <utility>

#include "VL_Python.h"

namespace Server {

using EventManager::ListenerCall;
using Mirel::AutoMutex;
using Mirel::i64_t;
using Mirel::ui32_t;
using Mirel::ui64_t;

namespace {

constexpr std::size_t LanesRemembered = 10000;

// Of the calling thread: whether it has entered what must be kept, its last delivery, and whether what it
// calls is no posting.
thread_local bool t_unsettled = false;
thread_local ui64_t t_last_delivery = 0;
thread_local bool t_alone = false;

constexpr const char* NotAllowed = "The configuration does not allow this destination";

i64_t Now_us() {
    return Mirel::Timestamp().Microseconds();
}

// It leaves the others what they may have, as far as that is less than half of all.
Destination AsEver(const DeliveryEngine::Options& options) {
    ui32_t others = 0;
    for (const Destination& destination : options.Destinations) others += destination.MaxInFlight;
    Destination destination;
    destination.VerifyPeer = false;
    destination.MaxInFlight = options.MaxInFlight - std::min(others, options.MaxInFlight / 2);
    return destination;
}

// What is called while it lives is no posting.
class Alone {
  public:
    Alone() { t_alone = true; }
    ~Alone() { t_alone = false; }
    Alone(const Alone&) = delete;
    Alone& operator=(const Alone&) = delete;
};

}  // namespace

DeliveryEngine::DeliveryEngine(Options options, std::unique_ptr<DeliveryStore> store)
    : m_Timeout_ms(options.Timeout_ms),
      m_Store(std::move(store)),
      m_Multi((curl_global_init(CURL_GLOBAL_ALL), curl_multi_init())),
      m_Book(options.Settings),
      m_Settings(options.Settings),
      m_MaxInFlight(options.MaxInFlight),
      m_Lanes(LanesOf(options)) {
    if (m_Multi == nullptr) throw std::bad_alloc();
    m_Store->Tell(*this);
}

std::vector<DeliveryEngine::Lane> DeliveryEngine::LanesOf(const Options& options) {
    std::vector<Lane> lanes;
    const auto add = [&](const Destination& to) {
        lanes.push_back({std::make_shared<const Destination>(to), {}, 0});
    };
    for (const Destination& destination : options.Destinations) add(destination);
    add(AsEver(options));
    return lanes;
}

DeliveryEngine::~DeliveryEngine() {
    Stop();
    curl_multi_cleanup(m_Multi);
}

// ---- What the queue and the REST interface ask for ----

void DeliveryEngine::Wake() {
    if (!m_Woken.exchange(true)) curl_multi_wakeup(m_Multi);
}

std::size_t DeliveryEngine::LaneOf(const std::string& callback) {
    const auto known = m_LaneOfCallback.find(callback);
    if (known != m_LaneOfCallback.end()) return known->second;
    if (m_LaneOfCallback.size() >= LanesRemembered) m_LaneOfCallback.clear();
    const auto first = std::find_if(m_Lanes.begin(), m_Lanes.end() - 1,
                                    [&](const Lane& lane) { return Fits(*lane.To, callback); });
    const auto lane = static_cast<std::size_t>(first - m_Lanes.begin());
    m_LaneOfCallback.emplace(callback, lane);
    return lane;
}

ui32_t DeliveryEngine::TimeoutOf(const Destination& destination) const {
    return destination.Timeout_ms != 0 ? destination.Timeout_ms : m_Timeout_ms;
}

Delivery DeliveryEngine::NewDelivery(const ListenerCall& call) const {
    Delivery delivery;
    if (!t_alone) delivery.PostingId = EventManager::LastPostingOfThread().Text();
    delivery.EventName = call.EventName;
    delivery.ListenerId = Mirel::UUIDText(call.Called.id);
    delivery.Callback = call.Called.callback;
    delivery.Made_us = Now_us();
    delivery.Timeout_ms = m_Timeout_ms;
    delivery.Token = call.Token;
    return delivery;
}

void DeliveryEngine::EnterEnded(Delivery delivery, DeliveryState state) {
    delivery.State = state;
    delivery.Attempt = 1;
    delivery.Time_us = Now_us();
    delivery.Token.reset();
    m_Book.CountAttempt(delivery, state == DeliveryState::Ok);
    const Delivery* const entered = AddToBook(std::move(delivery));
    t_last_delivery = entered != nullptr ? entered->Id : 0;
}

bool DeliveryEngine::MakeRoom(const Delivery& delivery) {
    std::vector<ui64_t> dropped;
    const bool room = m_Book.MakeRoom(delivery, dropped);
    for (const ui64_t id : dropped) m_Store->Remove(id);
    m_Counters.Dropped += dropped.size();
    return room;
}

// The destination that there is now rules the next attempt.
void DeliveryEngine::Rule(Delivery& delivery) {
    delivery.Lane = LaneOf(delivery.Callback);
    if (delivery.State != DeliveryState::Waiting) return;
    const Destination& destination = *m_Lanes[delivery.Lane].To;
    delivery.Attempts = destination.Attempts;
    delivery.Timeout_ms = TimeoutOf(destination);
}

void DeliveryEngine::Enter(Delivery delivery) {
    Rule(delivery);
    m_Book.AddListener({delivery.EventName, delivery.Callback}, delivery.ListenerId);
    if (!m_Lanes[delivery.Lane].To->Allow) {
        delivery.Reason = NotAllowed;
        return EnterEnded(std::move(delivery), DeliveryState::Failed);
    }
    if (!MakeRoom(delivery)) {
        ++m_Counters.Refused;
        delivery.Reason = "Too many deliveries wait already";
        return EnterEnded(std::move(delivery), DeliveryState::Failed);
    }
    Delivery& entered = *AddToBook(std::move(delivery));
    t_last_delivery = entered.Id;
    // What has a token is made elsewhere if this process dies, and need not be kept yet.
    if (IsKept(entered) && !entered.Token) Keep(entered), t_unsettled = true;
    if (!ComesBack(entered)) m_Lanes[entered.Lane].Ready.push_back(entered.Id);
}

void DeliveryEngine::Keep(Delivery& delivery) {
    delivery.Stored = true;
    m_Store->Put(delivery);
}

bool DeliveryEngine::TakeRequest(const ListenerCall& call, const Velmora::BasicRestEntryCall& request,
                                 const std::string& body) {
    Delivery delivery = NewDelivery(call);
    delivery.Method = request.Method;
    delivery.Body = std::make_shared<const std::string>(body);
    {
        AutoMutex lock(m_Lock);
        Enter(std::move(delivery));
    }
    Wake();
    return true;
}

void DeliveryEngine::HandlerRan(const ListenerCall& call) {
    const Velmora::HandlerReport& report = Velmora::LastHandlerReport();
    const bool ok = report.Outcome == Velmora::HandlerOutcome::Ok;
    Delivery delivery = NewDelivery(call);
    std::string payload;
    (void)call.Payload.EncodeJSON(payload);
    delivery.Body = std::make_shared<const std::string>(std::move(payload));
    delivery.Duration_ms = static_cast<ui32_t>(report.Duration_us / 1000);
    delivery.Reason = report.Reason;
    if (!ok && delivery.Reason.empty()) delivery.Reason = HandlerOutcomeName(report.Outcome);
    if (!ok) delivery.Traceback = report.Traceback;
    AutoMutex lock(m_Lock);
    m_Book.AddListener({delivery.EventName, delivery.Callback}, delivery.ListenerId);
    EnterEnded(std::move(delivery), ok ? DeliveryState::Ok : DeliveryState::Failed);
}

// The thread ends its deliveries: the queue is not to wait for that.
void DeliveryEngine::ListenerDeleted(const std::string& event_name, const EventManager::Listener& listener) {
    const ListenerKey key(event_name, listener.callback);
    AutoMutex lock(m_Lock);
    m_Book.RemoveListener(key);
    m_Store->RemoveStatus(key);
    if (m_Book.Waiting() == 0) return;
    m_Deleted.insert(Mirel::UUIDText(listener.id));
    Wake();
}

std::string DeliveryEngine::Settle() {
    if (!std::exchange(t_unsettled, false) || m_Store->Commit()) return {};
    const std::string why = m_Store->Trouble();
    return why.empty() ? "they could not be kept in time" : why;
}

std::vector<Delivery> DeliveryEngine::List(const DeliveryFilter& filter, bool& more) const {
    AutoMutex lock(m_Lock);
    std::vector<Delivery> copies;
    for (const Delivery* delivery : m_Book.List(filter, more)) copies.push_back(*delivery);
    return copies;
}

std::optional<Delivery> DeliveryEngine::Find(ui64_t id) const {
    AutoMutex lock(m_Lock);
    const Delivery* const found = m_Book.Find(id);
    return found != nullptr ? std::optional<Delivery>(*found) : std::nullopt;
}

std::optional<ListenerStatus> DeliveryEngine::Status(const ListenerKey& key) const {
    AutoMutex lock(m_Lock);
    const ListenerStatus* const status = m_Book.Status(key);
    return status != nullptr ? std::optional<ListenerStatus>(*status) : std::nullopt;
}

std::map<std::string, std::size_t> DeliveryEngine::Retries() const {
    AutoMutex lock(m_Lock);
    return m_Book.Retries();
}

std::vector<std::pair<ListenerKey, ListenerStatus>> DeliveryEngine::Failing() const {
    std::vector<std::pair<ListenerKey, ListenerStatus>> failing;
    AutoMutex lock(m_Lock);
    for (const auto& [key, status] : m_Book.Statuses()) {
        if (status.Last == DeliveryState::Failed) failing.emplace_back(key, status);
    }
    return failing;
}

// Where an attempt is under way, or about to be, there is nothing to do.
DeliveryEngine::Answer DeliveryEngine::SendAgain(Delivery& delivery) {
    if (delivery.Running || delivery.Token) return Answer::Done;
    const DeliveryState before = delivery.State;
    const bool ended = before == DeliveryState::Ok || before == DeliveryState::Failed;
    if (ended && !MakeRoom(delivery)) return Answer::Full;
    if (before != DeliveryState::Waiting) delivery.Attempt = 0;
    delivery.State = DeliveryState::Waiting;
    delivery.LastTry = delivery.Dismissed = false;
    delivery.Next_us = 0;
    Rule(delivery);
    m_Book.StateChanged(delivery, before);
    if (IsKept(delivery)) Keep(delivery), t_unsettled = true;
    if (!ComesBack(delivery)) m_Lanes[delivery.Lane].Ready.push_back(delivery.Id);
    return Answer::Done;
}

DeliveryEngine::Answer DeliveryEngine::Resend(ui64_t& id) {
    std::optional<Delivery> handler;
    {
        AutoMutex lock(m_Lock);
        Delivery* const delivery = m_Book.Find(id);
        if (delivery == nullptr) return Answer::NotFound;
        if (!delivery->IsPython()) {
            const Answer answer = SendAgain(*delivery);
            Wake();
            return answer;
        }
        handler = *delivery;
    }
    EventManager::UUID listener;
    Mirel::UUIDFromText(handler->ListenerId, listener);
    const auto payload =
        Velmora::PListItem::CreateFromJSON(*handler->Body, nullptr, Velmora::PListItem::AnyDepth);
    const Velmora::PListDict* const dict = payload ? AsDict(payload.get()) : nullptr;
    id = dict != nullptr ? CallAlone(handler->EventName, listener, *dict) : 0;
    return id != 0 ? Answer::Done : Answer::NoListener;
}

bool DeliveryEngine::Dismiss(ui64_t id) {
    AutoMutex lock(m_Lock);
    Delivery* const delivery = m_Book.Find(id);
    if (delivery == nullptr) return false;
    if (std::exchange(delivery->Stored, false)) m_Store->Remove(id), t_unsettled = true;
    if (delivery->Running) {
        delivery->Dismissed = true;
    } else {
        m_Book.Remove(id);
    }
    return true;
}

ui64_t DeliveryEngine::CallAlone(const std::string& event_name, const EventManager::UUID& id,
                                 const Velmora::PListDict& payload) {
    const Alone alone;
    t_last_delivery = 0;
    return EventManager::CallEventListener(event_name, id, payload) ? t_last_delivery : 0;
}

DeliveryCounters DeliveryEngine::Counters() const {
    AutoMutex lock(m_Lock);
    DeliveryCounters counters = m_Counters;
    counters.Waiting = m_Book.Waiting();
    counters.Dead = m_Book.Dead();
    counters.WaitingBytes = m_Book.Bytes();
    counters.Unkept = m_Store->Failures();
    return counters;
}

}  // namespace Server
