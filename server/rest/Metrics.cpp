// Every number of /metrics, with its name and its help.
#include "rest/Metrics.h"

#include <cstdio>

#include "EventManager.h"
#include "MR_log.h"
#include "VL_HTTP.h"
#include "VL_Python.h"
#include "VL_WebSocket.h"
#include "deliveries/DeliveryEngine.h"
#include "rest/ClusterGate.h"
#include "rest/ProcessMetrics.h"
#include "rest/Rest.h"

namespace Server {

using Mirel::ui64_t;

void MetricsText::Family(std::string_view name, Kind kind, std::string_view help) {
    m_Family = name;
    m_Text.append("# HELP ").append(name).append(1, ' ').append(help).append(1, '\n');
    constexpr const char* Kinds[] = {" counter\n", " gauge\n", " histogram\n"};
    m_Text.append("# TYPE ").append(name).append(Kinds[static_cast<int>(kind)]);
}

void MetricsText::Line(std::string_view label, std::string_view value, const std::string& number,
                       std::string_view suffix) {
    m_Text.append(m_Family).append(suffix);
    if (!label.empty()) m_Text.append(1, '{').append(label).append("=\"").append(value).append("\"}");
    m_Text.append(1, ' ').append(number).append(1, '\n');
}

void MetricsText::Sample(ui64_t number, std::string_view label, std::string_view value) {
    Line(label, value, std::to_string(number));
}

void MetricsText::Sample(double number) {
    Line({}, {}, std::to_string(number));
}

void MetricsText::Counter(std::string_view name, ui64_t number, std::string_view help) {
    Family(name, Kind::Counter, help);
    Sample(number);
}

void MetricsText::Gauge(std::string_view name, ui64_t number, std::string_view help) {
    Family(name, Kind::Gauge, help);
    Sample(number);
}

void MetricsText::Gauge(std::string_view name, double number, std::string_view help) {
    Family(name, Kind::Gauge, help);
    Sample(number);
}

namespace {

// Without zeros at the end: 0.0025.
std::string Seconds(double number) {
    char text[32];
    const int size = std::snprintf(text, sizeof text, "%.9g", number);
    return std::string(text, static_cast<std::size_t>(size));
}

}  // namespace

void MetricsText::Histogram(std::string_view name, const Mirel::HistogramCounts& counts,
                            std::string_view help) {
    Family(name, Kind::Histogram, help);
    ui64_t below = 0;
    for (std::size_t i = 0; i < counts.Counts.size(); ++i) {
        below += counts.Counts[i];
        const bool last = i == counts.Bounds_us.size();
        Line("le", last ? "+Inf" : Seconds(static_cast<double>(counts.Bounds_us[i]) / 1e6),
             std::to_string(below), "_bucket");
    }
    Line({}, {}, Seconds(static_cast<double>(counts.Sum_ns) / 1e9), "_sum");
    Line({}, {}, std::to_string(below), "_count");
}

namespace {

using Kind = MetricsText::Kind;

constexpr double us_per_sec = 1e6, ms_per_sec = 1e3;

void Postings(MetricsText& text, const EventManager::QueueStatistics& queue, ui64_t rest) {
    const ui64_t known = rest + queue.TimerPostings + queue.WatchPostings;
    text.Family("velmora_postings_total", Kind::Counter, "Postings of existing events, by what posted them.");
    text.Sample(rest, "source", "rest");
    text.Sample(queue.TimerPostings, "source", "timer");
    text.Sample(queue.WatchPostings, "source", "watch");
    // The counters are not read at one instant: what is posted between two of them must not turn this one
    // negative.
    text.Sample(queue.Postings > known ? queue.Postings - known : 0, "source", "other");
}

void Queue(MetricsText& text, const EventManager::QueueStatistics& queue) {
    text.Gauge("velmora_events", queue.Events, "Registered events.");
    text.Gauge("velmora_listeners", queue.Listeners, "Registered listeners, over all events.");
    text.Gauge("velmora_timers", queue.Timers, "Waiting timers.");
    text.Counter("velmora_timers_expired_total", queue.ExpiredTimers,
                 "Timers that were found more than 10 seconds late and did not fire.");
    text.Gauge("velmora_watches", queue.Watches, "Filesystem watches.");
    text.Gauge("velmora_history_records", queue.HistoryRecords, "Postings kept in the history.");
    text.Counter("velmora_saves_total", queue.Saves, "Saves of the state file that succeeded.");
    text.Counter("velmora_failed_saves_total", queue.FailedSaves, "Saves of the state file that failed.");
    text.Histogram("velmora_save_duration_seconds", queue.SaveTimes,
                   "Time that a save of the state file took, failed ones included.");
    text.Gauge("velmora_worker_running", ui64_t{queue.WorkerRunning}, "1 while the worker's thread runs.");
    text.Counter("velmora_worker_passes_total", queue.Passes, "Passes of the worker.");
    text.Family("velmora_worker_pass_seconds_total", Kind::Counter,
                "Time that the passes took, without their waits.");
    text.Sample(static_cast<double>(queue.PassTime_us) / us_per_sec);
    text.Gauge("velmora_worker_last_pass_seconds", static_cast<double>(queue.LastPass_us) / us_per_sec,
               "Time that the last pass took, without its wait.");
    text.Gauge("velmora_worker_since_last_pass_seconds",
               static_cast<double>(queue.SinceLastPass_ms) / ms_per_sec,
               "Time since the end of the last pass.");
}

void Feed(MetricsText& text) {
    const Velmora::BroadcastCounters feed = Velmora::GetBroadcastCounters();
    text.Gauge("velmora_feed_clients", feed.Clients, "Clients on the feed.");
    text.Counter("velmora_feed_adopted_total", feed.Adopted, "Clients that came to the feed.");
    text.Counter("velmora_feed_postings_total", feed.Postings, "Postings that were encoded for the feed.");
    text.Counter("velmora_feed_frames_total", feed.FramesDelivered, "Frames delivered, over all clients.");
    text.Counter("velmora_feed_bytes_total", feed.BytesDelivered, "Bytes delivered, over all clients.");
    text.Counter("velmora_feed_slow_disconnects_total", feed.SlowDisconnects,
                 "Clients that were disconnected because they did not keep up.");
    text.Counter("velmora_feed_protocol_errors_total", feed.ProtocolErrors,
                 "Clients that were disconnected because they broke the protocol.");
    text.Histogram(
        "velmora_feed_send_duration_seconds", feed.Times,
        "Time from a posting to when it was handed to the kernel for every client that takes it; the "
        "first of each batch is counted.");
    text.Gauge("velmora_feed_lag_seconds", static_cast<double>(feed.Lag_ms) / ms_per_sec,
               "Time for which the client that is the furthest behind has not caught up.");
    text.Gauge("velmora_feed_log_bytes", feed.LogBytes,
               "Bytes kept for clients that have not taken them yet.");
}

void Deliveries(MetricsText& text, const EventManager::QueueStatistics& queue) {
    const Velmora::RequestCounters calls = Velmora::GetRequestCounters();
    text.Gauge("velmora_callers_running", calls.Running, "Calls to listeners that are under way.");
    text.Gauge("velmora_callers_unreaped", queue.CallersUnreaped,
               "Callers that the worker has not reaped yet.");
    text.Family("velmora_deliveries_total", Kind::Counter, "Calls to listeners that ended, by how.");
    constexpr const char* Classes[] = {"other", "1xx", "2xx", "3xx", "4xx", "5xx"};
    for (std::size_t i = 0; i < std::size(Classes); ++i) {
        text.Sample(calls.AnsweredByClass[i], "outcome", Classes[i]);
    }
    text.Sample(calls.FailedResolve, "outcome", "resolve");
    text.Sample(calls.FailedConnect, "outcome", "connect");
    text.Sample(calls.FailedTLS, "outcome", "tls");
    text.Sample(calls.FailedTimeout, "outcome", "timeout");
    text.Sample(calls.FailedTransfer, "outcome", "transfer");
    text.Sample(calls.FailedResources, "outcome", "resources");
    text.Sample(calls.FailedParameter, "outcome", "parameter");
    text.Histogram("velmora_delivery_duration_seconds", calls.Times, "Time that a call to a listener took.");
    text.Histogram("velmora_handler_duration_seconds", queue.HandlerTimes,
                   "Time that a Python handler took, the wait for the interpreter included.");
}

void Handlers(MetricsText& text) {
    const Velmora::HandlerCounters handlers = Velmora::GetHandlerCounters();
    text.Family("velmora_handler_calls_total", Kind::Counter, "Calls of Python handlers, by how they ended.");
    for (std::size_t i = 0; i < std::size(handlers.Calls); ++i) {
        const auto outcome = static_cast<Velmora::HandlerOutcome>(i);
        text.Sample(handlers.Calls[i], "outcome", Velmora::HandlerOutcomeName(outcome));
    }
    text.Counter("velmora_slow_handlers_total", handlers.Slow,
                 "Calls of Python handlers that took longer than SlowHandler_ms.");
    text.Family("velmora_handler_reloads_total", Kind::Counter,
                "Python modules that were to be loaded anew, by whether they were.");
    text.Sample(handlers.Reloads, "outcome", "ok");
    text.Sample(handlers.FailedReloads, "outcome", "failed");
    text.Family("velmora_handler_postings_total", Kind::Counter,
                "What Python handlers have posted with velmora.post, by what became of it.");
    text.Sample(handlers.Posted, "outcome", "posted");
    text.Sample(handlers.PostedNowhere, "outcome", "no_event");
    text.Sample(handlers.PostingsRefused, "outcome", "refused");
    text.Gauge("velmora_handler_postings_waiting", handlers.PostingsWaiting,
               "What Python handlers have posted and is not made yet.");
}

void Engine(MetricsText& text, const DeliveryCounters& engine) {
    text.Gauge("velmora_deliveries_waiting", ui64_t{engine.Waiting},
               "Deliveries that wait for an attempt or its end.");
    text.Gauge("velmora_deliveries_dead", ui64_t{engine.Dead},
               "Deliveries that ran out of attempts, not yet sent again or dismissed.");
    text.Gauge("velmora_deliveries_waiting_bytes", ui64_t{engine.WaitingBytes},
               "Bytes of those that wait and those that are dead.");
    text.Counter("velmora_delivery_retries_total", engine.Retries, "Attempts beyond the first.");
    text.Counter("velmora_deliveries_died_total", engine.Died, "Deliveries that ran out of attempts.");
    text.Counter("velmora_deliveries_refused_total", engine.Refused,
                 "Deliveries that were not made because too many waited.");
    text.Counter("velmora_deliveries_dropped_total", engine.Dropped,
                 "Dead deliveries that were dropped to make room for others.");
    text.Counter("velmora_delivery_journal_failures_total", engine.Unkept,
                 "Writes of the journal that failed and are tried again.");
    text.Counter("velmora_deliveries_expired_total", engine.Expired,
                 "Deliveries that were dropped for their age.");
}

void Connections(MetricsText& text, const HttpServerCounters& server) {
    text.Gauge("velmora_http_connections", server.Connections,
               "Open connections, without those on the feed.");
    text.Counter("velmora_http_connections_total", server.Accepted, "Connections that were accepted.");
    text.Counter("velmora_http_requests_total", server.Requests, "Requests that were read.");
    text.Family("velmora_http_responses_total", Kind::Counter, "Answers, by the class of their status.");
    constexpr const char* Classes[] = {"other", "1xx", "2xx", "3xx", "4xx", "5xx"};
    for (std::size_t i = 0; i < std::size(Classes); ++i) {
        text.Sample(server.AnsweredByClass[i], "class", Classes[i]);
    }
    text.Histogram("velmora_http_request_duration_seconds", server.RequestTimes,
                   "Time from a request's last byte to its answer.");
    text.Family("velmora_http_refused_total", Kind::Counter,
                "What was turned away because the server was full.");
    text.Sample(server.RefusedBusy, "reason", "busy");
    text.Sample(server.RefusedConnections, "reason", "connections");
    text.Sample(server.RefusedFeedClients, "reason", "feed_clients");
}

}  // namespace

HttpResponse GetMetrics(RestCall& call) {
    const EventManager::QueueStatistics queue = EventManager::GetQueueStatistics();
    MetricsText text;
    text.Family("velmora_build_info", Kind::Gauge, "Always 1; the version is in the label.");
    text.Sample(ui64_t{1}, "version", VELMORA_VERSION);
    const std::chrono::duration<double> up = std::chrono::steady_clock::now() - call.Context.Started;
    text.Gauge("velmora_uptime_seconds", up.count(), "Time since the server started.");
    text.Counter("velmora_log_entries_lost_total", Mirel::LostLogEntries(),
                 "Log entries that could not be written, say to a full disk.");
    AppendProcessMetrics(text);
    Postings(text, queue, call.Context.RestPostings.load(std::memory_order_relaxed));
    Queue(text, queue);
    Feed(text);
    Deliveries(text, queue);
    Handlers(text);
    if (call.Context.Gate != nullptr) ClusterMetrics(text, call.Context.Gate->Of().Figures());
    if (call.Context.Deliveries != nullptr) Engine(text, call.Context.Deliveries->Counters());
    if (call.Context.ServerCounters) Connections(text, call.Context.ServerCounters());

    HttpResponse response;
    response.ContentType = "text/plain; version=0.0.4; charset=utf-8";
    response.Body = text.Text();
    return response;
}

}  // namespace Server
