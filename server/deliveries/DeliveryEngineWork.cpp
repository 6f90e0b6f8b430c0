// The engine's thread: attempts begin when they are due, and what becomes of each.
#include <curl/curl.h>

#include <algorithm>
#include <new>
#include <utility>

#include "MR_log.h"
#include "deliveries/DeliveryEngine.h"

namespace Server {

using Mirel::AutoMutex;
using Mirel::DefaultLogSink;
using Mirel::i64_t;
using Mirel::ui32_t;
using Mirel::ui64_t;
using Velmora::RequestFailure;

namespace {

constexpr i64_t us_per_ms = 1000, us_per_sec = 1000000;
constexpr i64_t LongestBackoff_us = 3600 * us_per_sec, LongestRetryAfter_sec = 24 * 3600;
constexpr int Gone = 410;
constexpr const char* NotAllowed = "The configuration does not allow this destination";

i64_t Now_us() {
    return Mirel::Timestamp().Microseconds();
}

bool IsSuccess(const TransferEnd& end) {
    return end.Failure == RequestFailure::None && end.Status >= 200 && end.Status < 300;
}

// What another attempt may change.
bool IsPassing(const TransferEnd& end) {
    if (end.Failure != RequestFailure::None) return end.Failure != RequestFailure::Parameter;
    return end.Status == 408 || end.Status == 425 || end.Status == 429 || end.Status >= 500;
}

void CountEnd(const Transfer& transfer, const Delivery& delivery, const TransferEnd& end) {
    Velmora::RequestOutcome outcome;
    outcome.Method = delivery.Method;
    outcome.Status = static_cast<Velmora::Status_t>(end.Status);
    outcome.Duration_ms = end.Duration_ms;
    outcome.Failure = end.Failure;
    outcome.Reason = end.Reason;
    Velmora::CountRequestEnded(transfer.Url(), outcome);
}

void SayDead(const Delivery& delivery) {
    DefaultLogSink().Error("Delivery %llu of event \"%s\" is dead after attempt %u of %u: %s\n",
                           static_cast<unsigned long long>(delivery.Id),
                           Mirel::EscapeForLog(delivery.EventName).c_str(), delivery.Attempt,
                           delivery.Attempts, delivery.Reason.c_str());
}

}  // namespace

void DeliveryEngine::Work() {
    while (!m_Stopping || Draining()) {
        m_Woken = false;
        StartDue();
        int running = 0, left = 0;
        curl_multi_perform(m_Multi, &running);
        while (const CURLMsg* message = curl_multi_info_read(m_Multi, &left)) {
            void* transfer = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
            Finish(*static_cast<Transfer*>(transfer), message->data.result);
        }
        TidyUp();
        m_Store->CommitSoon();
        m_Done.clear();
        curl_multi_poll(m_Multi, nullptr, 0, Wait_ms(), nullptr);
    }
}

// Until the next retry is due, or it is time to tidy up.
int DeliveryEngine::Wait_ms() const {
    AutoMutex lock(m_Lock);
    i64_t until = m_NextTidying_us;
    if (!m_Stopping && !m_Retries.empty()) until = std::min(until, m_Retries.begin()->first);
    return static_cast<int>(std::clamp<i64_t>((until - Now_us()) / us_per_ms + 1, 0, 1000));
}

// Whether there is still something to wait for at the end.
bool DeliveryEngine::Draining() const {
    if (Now_us() >= m_EndBy_us) return false;
    if (!m_Transfers.empty()) return true;
    AutoMutex lock(m_Lock);
    return std::any_of(m_Lanes.begin(), m_Lanes.end(), [](const Lane& lane) { return !lane.Ready.empty(); });
}

// No further attempt is made where the listener is gone; a first one goes on.
void DeliveryEngine::EndOfDeleted() {
    if (m_Deleted.empty()) return;
    for (const ui64_t id : m_Book.InState(DeliveryState::Waiting)) {
        Delivery& delivery = *m_Book.Find(id);
        if (!m_Deleted.contains(delivery.ListenerId)) continue;
        delivery.LastTry = true;
        const bool ours = !ComesBack(delivery) || delivery.Token;
        if ((ours && delivery.Attempt == 0) || delivery.Running) continue;
        delivery.Reason = "The listener was deleted";
        End(delivery, DeliveryState::Failed);
    }
    m_Deleted.clear();
}

// True: one was taken off the lane's list.
bool DeliveryEngine::TakeFrom(Lane& lane, std::vector<Delivery>& due) {
    if (lane.Ready.empty() || lane.InFlight >= lane.To->MaxInFlight) return false;
    if (m_Counters.InFlight >= m_MaxInFlight) return false;
    Delivery* const delivery = m_Book.Find(lane.Ready.front());
    lane.Ready.pop_front();
    // It was dismissed, or sent again while it waited; or it can wait for the next start.
    if (delivery == nullptr || delivery->Running || delivery->State != DeliveryState::Waiting) return true;
    if (delivery->Next_us > Now_us()) return true;
    if (m_Stopping && delivery->Stored) return true;
    if (!lane.To->Allow) {  // it was when the delivery was kept
        delivery->Reason = NotAllowed;
        End(*delivery, DeliveryState::Failed);
        return true;
    }
    delivery->Running = true;
    if (delivery->Attempt++ > 0) ++m_Counters.Retries;
    ++lane.InFlight;
    ++m_Counters.InFlight;
    due.push_back(*delivery);
    return true;
}

std::vector<Delivery> DeliveryEngine::TakeDue() {
    const i64_t now = Now_us();
    while (!m_Stopping && !m_Retries.empty() && m_Retries.begin()->first <= now) {
        const ui64_t id = m_Retries.begin()->second;
        m_Retries.erase(m_Retries.begin());
        const Delivery* const delivery = m_Book.Find(id);
        if (delivery != nullptr && delivery->Next_us <= now) m_Lanes[delivery->Lane].Ready.push_back(id);
    }
    std::vector<Delivery> due;
    for (Lane& lane : m_Lanes) {
        while (TakeFrom(lane, due)) {
        }
    }
    return due;
}

void DeliveryEngine::StartDue() {
    std::vector<Delivery> due;
    {
        AutoMutex lock(m_Lock);
        EndOfDeleted();
        due = TakeDue();
    }
    for (const Delivery& delivery : due) {
        try {
            StartTransfer(delivery);
        } catch (const std::bad_alloc&) {
            NotStarted(delivery);
        }
    }
}

void DeliveryEngine::StartTransfer(const Delivery& delivery) {
    std::shared_ptr<const Destination> destination;
    {
        AutoMutex lock(m_Lock);
        destination = m_Lanes[delivery.Lane].To;
    }
    auto made = std::make_unique<Transfer>(delivery, destination, m_Self, TimeoutOf(*destination));
    Transfer& transfer = *made;
    m_Transfers.emplace(&transfer, std::move(made));
    Velmora::CountRequestStarted();
    if (transfer.Handle() == nullptr) return Finish(transfer, CURLE_COULDNT_CONNECT);
    if (curl_multi_add_handle(m_Multi, transfer.Handle()) != CURLM_OK) Finish(transfer, CURLE_OUT_OF_MEMORY);
}

// There is no memory for it: the same attempt is made a second later.
void DeliveryEngine::NotStarted(const Delivery& taken) {
    AutoMutex lock(m_Lock);
    --m_Counters.InFlight;
    --m_Lanes[taken.Lane].InFlight;
    Delivery* const delivery = m_Book.Find(taken.Id);
    if (delivery == nullptr) return;
    delivery->Running = false;
    --delivery->Attempt;
    delivery->Next_us = Now_us() + us_per_sec;
    m_Retries.emplace(delivery->Next_us, delivery->Id);
}

void DeliveryEngine::Finish(Transfer& transfer, int code) {
    const TransferEnd end = transfer.End(code);
    const auto owned = m_Transfers.extract(&transfer);
    if (transfer.Handle() != nullptr) curl_multi_remove_handle(m_Multi, transfer.Handle());
    AutoMutex lock(m_Lock);
    --m_Counters.InFlight;
    Delivery& delivery = *m_Book.Find(transfer.Id());  // what is running stays
    --m_Lanes[delivery.Lane].InFlight;
    CountEnd(transfer, delivery, end);
    Apply(delivery, transfer, end);
}

void DeliveryEngine::Apply(Delivery& delivery, const Transfer& transfer, const TransferEnd& end) {
    const bool ok = IsSuccess(end);
    delivery.Running = false;
    delivery.Status = end.Status;
    delivery.Duration_ms = end.Duration_ms;
    delivery.Time_us = Now_us();
    delivery.Answer = end.Answer;
    delivery.Reason = end.Reason;
    if (!ok && end.Status != 0) {
        const char* const text = Velmora::StatusToString(static_cast<Velmora::Status_t>(end.Status));
        delivery.Reason = std::string("Answered with ") + text + ".";
        DefaultLogSink().Error("Callback to \"%s\" failed: %d (%s)\n",
                               transfer.Url().ComposeSchemeAndHost(false).c_str(), end.Status, text);
    }
    m_Book.CountAttempt(delivery, ok);
    if (delivery.Dismissed) return m_Book.Remove(delivery.Id);
    if (ok) return End(delivery, DeliveryState::Ok);
    const bool once = delivery.Attempts == 1 || delivery.LastTry;
    if (!once && IsPassing(end) && delivery.Attempt < delivery.Attempts) return Retry(delivery, end);
    End(delivery, once || end.Status == Gone ? DeliveryState::Failed : DeliveryState::Dead);
}

void DeliveryEngine::Retry(Delivery& delivery, const TransferEnd& end) {
    const Destination& destination = *m_Lanes[delivery.Lane].To;
    const i64_t asked = std::clamp<i64_t>(end.RetryAfter_sec, 0, LongestRetryAfter_sec) * us_per_sec;
    delivery.Next_us = Now_us() + std::max(asked, Backoff_us(destination, delivery.Attempt));
    if (IsKept(delivery)) Keep(delivery);
    if (!ComesBack(delivery)) m_Retries.emplace(delivery.Next_us, delivery.Id);
    if (delivery.Token) m_Done.push_back(std::move(delivery.Token));
}

// Half of the wait is fixed and half is dice: what failed together does not come back together.
i64_t DeliveryEngine::Backoff_us(const Destination& destination, ui32_t attempt) {
    const ui32_t doublings = std::min(attempt - 1, 24u);
    const i64_t full = std::min(LongestBackoff_us, destination.Backoff_ms * us_per_ms << doublings);
    return full / 2 + std::uniform_int_distribution<i64_t>(0, full)(m_Random);
}

void DeliveryEngine::End(Delivery& delivery, DeliveryState state) {
    const DeliveryState before = std::exchange(delivery.State, state);
    if (state == DeliveryState::Dead && IsKept(delivery)) {
        Keep(delivery);
    } else if (std::exchange(delivery.Stored, false)) {
        m_Store->PutEnd(delivery);
    }
    if (delivery.Token) m_Done.push_back(std::move(delivery.Token));
    if (state == DeliveryState::Dead) SayDead(delivery), ++m_Counters.Died;
    m_Book.StateChanged(delivery, before);  // and it may be gone
}

}  // namespace Server
