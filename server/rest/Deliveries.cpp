// Deliveries: what became of each call to a listener, and how listeners do.
#include <algorithm>
#include <charconv>
#include <utility>

#include "EventManager.h"
#include "MR_log.h"
#include "deliveries/DeliveryDocument.h"
#include "deliveries/DeliveryEngine.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;
using Mirel::ui64_t;

namespace {

bool Failed(const Velmora::RequestOutcome& outcome) {
    return outcome.Failure != Velmora::RequestFailure::None || !Velmora::StatusIsSuccess(outcome.Status);
}

// Half of the time that a call may take at most: the ones to look at before they fail.
bool Slow(const Velmora::RequestOutcome& outcome, Mirel::ui32_t timeout_ms) {
    return outcome.Duration_ms >= timeout_ms / 2;
}

std::string ReasonFor(const Velmora::RequestOutcome& outcome) {
    if (!outcome.Reason.empty() || !Failed(outcome)) return outcome.Reason;
    return std::string("Answered with ") + Velmora::StatusToString(outcome.Status) + ".";
}

Velmora::PListDict DeliveryEntry(const Velmora::RequestOutcome& outcome, bool slow) {
    Velmora::PListDict entry;
    entry.SetValue("sequence", static_cast<long long>(outcome.Sequence));
    entry.SetValue("time", outcome.Time.Text());
    entry.SetValue("method", Velmora::MethodToString(outcome.Method));
    entry.SetValue("url", outcome.Url);
    entry.SetValue("status", static_cast<int>(outcome.Status));
    entry.SetValue("duration_ms", static_cast<long long>(outcome.Duration_ms));
    entry.SetValue("outcome", Failed(outcome) ? "failed" : "ok");
    entry.SetValue("slow", slow);
    entry.SetValue("reason", ReasonFor(outcome));
    return entry;
}

// What is kept where the queue makes its calls itself.
HttpResponse Outcomes(const RestCall& call) {
    std::size_t limit = Velmora::RequestOutcomesKept;
    if (auto refused = ReadLimit(call, limit)) return std::move(*refused);
    const std::string* wanted = call.Parameter("outcome");
    if (wanted != nullptr && *wanted != "ok" && *wanted != "failed" && *wanted != "slow") {
        return BadParameter("outcome", "must be \"ok\", \"failed\" or \"slow\"");
    }
    Velmora::PListArray deliveries;
    for (const Velmora::RequestOutcome& outcome : Velmora::GetRequestOutcomes()) {
        if (deliveries.Size() >= limit) break;
        const bool slow = Slow(outcome, call.Context.Timeout_ms);
        const bool matches =
            wanted == nullptr || (*wanted == "slow" ? slow : (*wanted == "failed") == Failed(outcome));
        if (matches) deliveries.Append(DeliveryEntry(outcome, slow));
    }
    Velmora::PListDict answer;
    answer.SetItem("deliveries", deliveries);
    return Json(Velmora::STATUS_200_OK, answer);
}

std::string TimeText(Mirel::i64_t us) {
    return Mirel::Timestamp::FromMicroseconds(us).Text();
}

std::string UrlOf(const std::string& callback) {
    Velmora::URL url;
    if (!url.Parse(callback)) return callback;
    return url.ComposeSchemeAndHost(false) + url.Path + (url.HasQueryToken ? '?' + url.QueryString : "");
}

// What those of the plain form have comes first, under the same names.
Velmora::PListDict Entry(const Delivery& delivery) {
    Velmora::PListDict entry;
    const auto number = [](auto value) { return static_cast<long long>(value); };
    entry.SetValue("sequence", number(delivery.Id));
    entry.SetValue("time", TimeText(delivery.Time_us != 0 ? delivery.Time_us : delivery.Made_us));
    entry.SetValue("method", delivery.IsPython() ? "CALL" : Velmora::MethodToString(delivery.Method));
    entry.SetValue("url", UrlOf(delivery.Callback));
    entry.SetValue("status", delivery.Status);
    entry.SetValue("duration_ms", number(delivery.Duration_ms));
    entry.SetValue("outcome", DeliveryStateName(delivery.State));
    entry.SetValue("slow", delivery.Slow());
    entry.SetValue("reason", delivery.Reason);
    entry.SetValue("id", std::to_string(delivery.Id));
    if (!delivery.PostingId.empty()) entry.SetValue("posting_id", delivery.PostingId);
    entry.SetValue(Keys::event_name, delivery.EventName);
    entry.SetValue(Keys::listener_id, delivery.ListenerId);
    entry.SetValue("attempt", number(delivery.Attempt));
    entry.SetValue("attempts", number(delivery.Attempts));
    if (delivery.State == DeliveryState::Waiting && !delivery.Running && delivery.Next_us != 0) {
        entry.SetValue("next_time", TimeText(delivery.Next_us));
    }
    return entry;
}

Velmora::PListDict WholeEntry(const Delivery& delivery) {
    Velmora::PListDict entry = Entry(delivery);
    entry.SetValue("callback", UrlOf(delivery.Callback));
    entry.SetValue("body", AsText(*delivery.Body));
    entry.SetValue("answer", AsText(delivery.Answer));
    if (!delivery.Traceback.empty()) entry.SetValue("traceback", AsText(delivery.Traceback));
    return entry;
}

Velmora::PListDict StatusEntry(const ListenerStatus& status, std::size_t retries) {
    Velmora::PListDict entry;
    const auto number = [](auto value) { return static_cast<long long>(value); };
    entry.SetValue("outcome", DeliveryStateName(status.Last));
    entry.SetValue("time", TimeText(status.Time_us));
    entry.SetValue("reason", status.Reason);
    if (status.Success_us != 0) entry.SetValue("last_success", TimeText(status.Success_us));
    entry.SetValue("failures_in_a_row", number(status.FailuresInRow));
    entry.SetValue("retries_waiting", number(retries));
    entry.SetValue("calls", number(status.Calls));
    entry.SetValue("failures", number(status.Failures));
    ui64_t sum = 0, worst = 0;
    for (const Mirel::ui32_t duration : status.Durations_ms) {
        sum += duration;
        worst = std::max<ui64_t>(worst, duration);
    }
    const std::size_t count = std::max<std::size_t>(status.Durations_ms.size(), 1);
    entry.SetValue("duration_mean_ms", number(sum / count));
    entry.SetValue("duration_worst_ms", number(worst));
    return entry;
}

bool ReadId(const std::string& text, ui64_t& id) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    return error == std::errc() && end == text.data() + text.size() && id != 0;
}

HttpResponse NoSuchDelivery(const RestCall& call) {
    return Problem(Velmora::STATUS_404_NOT_FOUND, "There is no delivery \"" + call.Names[0] + "\".");
}

HttpResponse NotKept() {
    return Problem(Velmora::STATUS_409_CONFLICT,
                   "Deliveries are kept where the configuration has \"Deliveries\" or \"Destinations\".");
}

HttpResponse Accepted(ui64_t id) {
    Velmora::PListDict answer;
    answer.SetValue("id", std::to_string(id));
    return Json(Velmora::STATUS_202_ACCEPTED, answer);
}

std::optional<HttpResponse> ReadFilter(const RestCall& call, DeliveryFilter& filter) {
    if (auto refused = ReadLimit(call, filter.Limit)) return refused;
    filter.Limit = std::min<std::size_t>(filter.Limit, 1000);
    const auto text = [&](const std::string& name) {
        const std::string* value = call.Parameter(name);
        return value != nullptr ? *value : std::string();
    };
    filter.EventName = text(Keys::event_name);
    EventManager::UUID listener;
    filter.ListenerId = text(Keys::listener_id);
    if (!filter.ListenerId.empty() && !Mirel::UUIDFromText(filter.ListenerId, listener)) {
        return BadParameter(Keys::listener_id, "must be a listener's id");
    }
    if (!filter.ListenerId.empty()) filter.ListenerId = Mirel::UUIDText(listener);
    filter.Outcome = text("outcome");
    const std::string& outcome = filter.Outcome;
    if (call.Parameter("outcome") != nullptr && outcome != "ok" && outcome != "failed" && outcome != "slow" &&
        outcome != "dead" && outcome != "waiting") {
        return BadParameter("outcome", "must be \"ok\", \"failed\", \"slow\", \"waiting\" or \"dead\"");
    }
    if (call.Parameter("before") != nullptr && !ReadId(text("before"), filter.Before)) {
        return BadParameter("before", "must be the id of a delivery");
    }
    return std::nullopt;
}

}  // namespace

HttpResponse GetDeliveries(RestCall& call) {
    if (call.Context.Deliveries == nullptr) {
        for (const std::string& name : {Keys::event_name, Keys::listener_id, std::string("before")}) {
            if (call.Parameter(name) != nullptr) return NotKept();
        }
        return Outcomes(call);
    }
    DeliveryFilter filter;
    if (auto refused = ReadFilter(call, filter)) return std::move(*refused);
    bool more = false;
    const std::vector<Delivery> found = call.Context.Deliveries->List(filter, more);
    Velmora::PListArray deliveries, failing;
    for (const Delivery& delivery : found) deliveries.Append(Entry(delivery));
    const std::map<std::string, std::size_t> retries = call.Context.Deliveries->Retries();
    for (const auto& [key, status] : call.Context.Deliveries->Failing()) {
        const auto waiting = retries.find(status.ListenerId);
        Velmora::PListDict entry;
        entry.SetValue(Keys::event_name, key.first);
        entry.SetValue(Keys::listener_id, status.ListenerId);
        entry.SetValue(Keys::callback, UrlOf(key.second));
        entry.SetItem("status", StatusEntry(status, waiting == retries.end() ? 0 : waiting->second));
        failing.Append(entry);
    }
    Velmora::PListDict answer;
    answer.SetItem("deliveries", deliveries);
    answer.SetItem("failing", failing);
    if (more && !found.empty()) answer.SetValue("next_before", std::to_string(found.back().Id));
    return Json(Velmora::STATUS_200_OK, answer);
}

HttpResponse GetDelivery(RestCall& call) {
    ui64_t id = 0;
    if (call.Context.Deliveries == nullptr) return NotKept();
    if (!ReadId(call.Names[0], id)) return NoSuchDelivery(call);
    const std::optional<Delivery> delivery = call.Context.Deliveries->Find(id);
    return delivery ? Json(Velmora::STATUS_200_OK, WholeEntry(*delivery)) : NoSuchDelivery(call);
}

HttpResponse DeleteDelivery(RestCall& call) {
    ui64_t id = 0;
    if (call.Context.Deliveries == nullptr) return NotKept();
    if (!ReadId(call.Names[0], id) || !call.Context.Deliveries->Dismiss(id)) return NoSuchDelivery(call);
    auto unsafe = SettleDeliveries(call, "The delivery was dismissed", call.Names[0]);
    return unsafe ? std::move(*unsafe) : NoContent();
}

HttpResponse ResendDelivery(RestCall& call) {
    ui64_t id = 0;
    if (call.Context.Deliveries == nullptr) return NotKept();
    if (!ReadId(call.Names[0], id)) return NoSuchDelivery(call);
    switch (call.Context.Deliveries->Resend(id)) {
        case DeliveryEngine::Answer::NotFound:
            return NoSuchDelivery(call);
        case DeliveryEngine::Answer::Full:
            return Problem(Velmora::STATUS_409_CONFLICT, "Too many deliveries wait already.");
        case DeliveryEngine::Answer::NoListener:
            return Problem(Velmora::STATUS_409_CONFLICT, "The listener is not there any more.");
        case DeliveryEngine::Answer::Done:
            break;
    }
    auto unsafe = SettleDeliveries(call, "The delivery is sent again", std::to_string(id));
    return unsafe ? std::move(*unsafe) : Accepted(id);
}

HttpResponse TestListener(RestCall& call) {
    if (call.Context.Deliveries == nullptr) return NotKept();
    Velmora::PListDict payload;
    if (!call.Request.Body.empty()) {
        Velmora::PListDict data;
        if (auto refused = ReadBody(call, data)) return std::move(*refused);
        payload.SetItem(Keys::post_data, data);
    }
    EventManager::UUID listener;
    const bool is_id = Mirel::UUIDFromText(call.Names[1], listener);
    const ui64_t id = is_id ? call.Context.Deliveries->CallAlone(call.Names[0], listener, payload) : 0;
    if (id == 0) {
        return Problem(
            Velmora::STATUS_404_NOT_FOUND,
            "The event \"" + call.Names[0] + "\" has no listener with the id \"" + call.Names[1] + "\".");
    }
    auto unsafe = SettleDeliveries(call, "The listener is called", std::to_string(id));
    return unsafe ? std::move(*unsafe) : Accepted(id);
}

std::optional<HttpResponse> SettleDeliveries(RestCall& call, const std::string& done, const std::string& id) {
    if (call.Context.Deliveries == nullptr) return std::nullopt;
    const std::string why = call.Context.Deliveries->Settle();
    if (why.empty()) return std::nullopt;
    Velmora::PListDict problem;
    problem.SetValue("type", "about:blank");
    problem.SetValue("title", Velmora::StatusToString(Velmora::STATUS_503_NO_SERVICE));
    problem.SetValue("status", static_cast<int>(Velmora::STATUS_503_NO_SERVICE));
    problem.SetValue("code", "deliveries-not-kept");
    problem.SetValue("detail", done + ", but deliveries are not safe if the server ends now: " + why + ".");
    problem.SetValue("id", id);
    HttpResponse response = Json(Velmora::STATUS_503_NO_SERVICE, problem);
    response.ContentType = "application/problem+json";
    return response;
}

Velmora::PListArray WithListenerStatus(const RestCall& call, const Velmora::PListArray& listeners) {
    const DeliveryEngine* const engine = call.Context.Deliveries;
    if (engine == nullptr) return listeners;
    const std::map<std::string, std::size_t> retries = engine->Retries();
    Velmora::PListArray complete;
    for (const Velmora::PListItem& item : listeners) {
        Velmora::PListDict entry = *AsDict(&item);
        const auto waiting = retries.find(entry.GetData(Keys::id).Text());
        const auto status = engine->Status({call.Names[0], entry.GetData(Keys::callback).Text()});
        if (status) {
            entry.SetItem("status", StatusEntry(*status, waiting == retries.end() ? 0 : waiting->second));
        }
        complete.Append(entry);
    }
    return complete;
}

}  // namespace Server
