// The functions that answer requests, one for each row of the router's table, and what they share.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VL_PList.h"
#include "VL_WebSocket.h"
#include "config/Shape.h"
#include "http/Http.h"
#include "http/HttpServer.h"

namespace Server {

class ClusterGate;
class DeliveryEngine;
class Reload;

/// What the handlers know of the process around them.
struct RestContext {
    // Set before the first request.
    std::string StateFile;  // empty: none
    std::string BasePath;   // what a proxy puts in front of paths; empty: nothing
    Mirel::ui32_t Timeout_ms = 500;
    std::function<HttpServerCounters()> ServerCounters;
    ClusterGate* Gate = nullptr;           // null: a single server
    DeliveryEngine* Deliveries = nullptr;  // null: the queue makes its calls itself
    Reload* Reloading = nullptr;           // null: nothing is read anew
    std::chrono::steady_clock::time_point Started = std::chrono::steady_clock::now();

    // Counted by any thread.
    std::atomic<Mirel::ui64_t> RestPostings{0};
};

/// The value of the parameter; null where it was not given.
const std::string* FindParameter(const QueryParameters& query, std::string_view name);

/// One request that matched a row.
struct RestCall {
    const HttpRequest& Request;
    RestContext& Context;
    std::array<std::string, 2> Names;  // the path's variable segments, decoded
    QueryParameters Query;
    const AccessToken* Caller;  // null where the row wants no token

    bool MaySee(std::string_view event_name) const { return Caller == nullptr || Caller->MayUse(event_name); }
    const std::string* Parameter(std::string_view name) const { return FindParameter(Query, name); }
};

/// Prefix of everything that needs the token.
inline constexpr std::string_view ApiPrefix = "/api/v1";

// Answers.

HttpResponse Json(Status_t status, const Velmora::PListDict& document);
HttpResponse Created(const std::string& location, const Velmora::PListDict& document);
HttpResponse NoContent();
/// 202: the event was posted under the id.
HttpResponse Posted(const std::string& event_name, const std::string& id);
/// 204 where something was removed, else 404 with the detail.
HttpResponse Removed(bool found, const std::string& otherwise);
/// A problem that says what is wrong where in the body: "errors": [{"pointer", "detail"}].
HttpResponse Problem(Status_t status, const std::string& detail, const std::vector<Fault>& faults);
/// The same for a query parameter: "errors": [{"parameter", "detail"}].
HttpResponse BadParameter(const std::string& name, const std::string& what);
/// Adds an ETag made of the body's bytes and, where the client has that very body, answers 304 in its place.
HttpResponse WithETag(const HttpRequest& request, HttpResponse response);

/// Whether the field If-Match names the tag of the response (which has one) as a strong one.
bool MatchesTag(std::string_view if_match, const HttpResponse& response);

/// Everything but unreserved characters percent-encoded.
std::string PercentEncode(std::string_view text);
/// "/api/v1" and the segments, encoded.
std::string ApiPath(std::initializer_list<std::string_view> segments);
/// Appends the text as a JSON string.
void AppendJsonString(std::string& json, const std::string& text);

/// A list in a document.
struct ListForm {
    const std::string& List;    // the document's key for it
    const std::string& Key;     // the entries' own key, by which pages are in order
    const std::string& Prefix;  // the member that the query parameter "prefix" is about
};
/// A document's list, as far as the caller may see what belongs to events, and where the query parameters
/// "limit", "after" and "prefix" are given one page of it.
HttpResponse AnswerList(const RestCall& call, const Velmora::PListDict& state, const ListForm& form);
/// The list's first entry that has the value; null where there is none.
const Velmora::PListDict* FindEntry(const Velmora::PListDict& owner, const std::string& list,
                                    const std::string& key, std::string_view value);

// Requests.

/// Reads the body as a dictionary into `body`; otherwise the answer: 400 for what is not JSON or nested
/// deeper than `max_depth`, 422 for another value.
std::optional<HttpResponse> ReadBody(const RestCall& call, Velmora::PListDict& body,
                                     std::size_t max_depth = Velmora::PListItem::UsualDepth);
/// Reads the query parameter "limit"; `limit` is left alone where it was not given.
std::optional<HttpResponse> ReadLimit(const RestCall& call, std::size_t& limit);
/// Reads the query parameter "after", a posting's id; `after` is left alone where it was not given.
std::optional<HttpResponse> ReadAfter(const QueryParameters& query, std::optional<Velmora::PostingId>& after);

// The rows of the table.

HttpResponse GetQueue(RestCall& call);
HttpResponse PostQueue(RestCall& call);
HttpResponse GetConfig(RestCall& call);
HttpResponse PatchConfig(RestCall& call);

HttpResponse GetCluster(RestCall& call);

HttpResponse GetEvents(RestCall& call);
HttpResponse PostEvents(RestCall& call);
HttpResponse DeleteEvents(RestCall& call);
HttpResponse GetEvent(RestCall& call);
HttpResponse PostEvent(RestCall& call);
HttpResponse DeleteEvent(RestCall& call);

HttpResponse PostCloudEvent(RestCall& call);
/// Posts the event with the data (may be null), of which `json` is the text, and answers 202 or 404.
HttpResponse PostNamed(RestCall& call, const std::string& name, const Velmora::PListDict* data,
                       std::string_view json);

HttpResponse GetListeners(RestCall& call);
HttpResponse PostListeners(RestCall& call);
HttpResponse DeleteListeners(RestCall& call);
HttpResponse GetListener(RestCall& call);
HttpResponse DeleteListener(RestCall& call);

HttpResponse GetTimers(RestCall& call);
HttpResponse PostTimers(RestCall& call);
HttpResponse DeleteTimers(RestCall& call);
HttpResponse GetTimer(RestCall& call);
HttpResponse DeleteTimer(RestCall& call);

HttpResponse GetWatches(RestCall& call);
HttpResponse PostWatches(RestCall& call);
HttpResponse DeleteWatches(RestCall& call);

HttpResponse GetHistory(RestCall& call);
HttpResponse GetDeliveries(RestCall& call);
HttpResponse GetDelivery(RestCall& call);
HttpResponse DeleteDelivery(RestCall& call);
HttpResponse ResendDelivery(RestCall& call);
HttpResponse TestListener(RestCall& call);
/// Waits until what was posted by this thread is kept as safely as the configuration asks. Where it is not,
/// the answer, which says that `done` all the same; `id` is that of the posting or delivery.
std::optional<HttpResponse> SettleDeliveries(RestCall& call, const std::string& done, const std::string& id);
/// The entries of an event's listeners, with "status" added to those that were called already.
Velmora::PListArray WithListenerStatus(const RestCall& call, const Velmora::PListArray& listeners);
HttpResponse GetFeed(RestCall& call);
HttpResponse PostHandlersReload(RestCall& call);
HttpResponse PostReload(RestCall& call);

HttpResponse GetHealth(RestCall& call);
HttpResponse GetReadiness(RestCall& call);
HttpResponse GetMetrics(RestCall& call);
HttpResponse GetOpenApi(RestCall& call);

}  // namespace Server
