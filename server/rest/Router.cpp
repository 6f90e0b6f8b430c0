// The table of resources, and the search in it.
#include "rest/Router.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "MR_log.h"
#include "rest/ClusterGate.h"
#include "rest/Console.h"

namespace Server {

namespace {

// Whether answering takes one of the queue's locks, which a posting with a slow Python handler may hold.
enum class Waits { Never, ForQueue };
enum class Body { None, JSON, Document, CloudEvent };

// What the caller needs.
enum class Access {
    Usual,  // to read, the role "read" and all events; to change, the role "admin"
    Open,   // nothing
    Post,   // the role "post", and the event that the path names
    Posts,  // the role "post"; for which event is found out later
    Event,  // the role "read", and the event that the path names
    Some,   // the role "read"; what is answered is what the caller may see
};

struct Row {
    Method_t Method;
    std::string_view Pattern;  // rows of one path stand together
    Waits Wait;
    Body Takes;
    std::string_view Query;  // the parameters that are understood, parted by blanks; "*": more than once
    HttpResponse (*Function)(RestCall&);
    Access Needs = Access::Usual;
};

// The busiest path stands first.
constexpr Row Table[] = {
    {Velmora::METH_POST, "/api/v1/events/{event_name}", Waits::ForQueue, Body::JSON, "", PostEvent,
     Access::Post},
    {Velmora::METH_GET, "/api/v1/events/{event_name}", Waits::ForQueue, Body::None, "", GetEvent,
     Access::Event},
    {Velmora::METH_DELETE, "/api/v1/events/{event_name}", Waits::ForQueue, Body::None, "", DeleteEvent},
    {Velmora::METH_GET, "/api/v1/events", Waits::ForQueue, Body::None, "after limit prefix", GetEvents,
     Access::Some},
    {Velmora::METH_POST, "/api/v1/events", Waits::ForQueue, Body::JSON, "", PostEvents},
    {Velmora::METH_DELETE, "/api/v1/events", Waits::ForQueue, Body::None, "", DeleteEvents},
    {Velmora::METH_GET, "/api/v1/events/{event_name}/listeners", Waits::ForQueue, Body::None,
     "after limit prefix", GetListeners, Access::Event},
    {Velmora::METH_POST, "/api/v1/events/{event_name}/listeners", Waits::ForQueue, Body::JSON, "",
     PostListeners},
    {Velmora::METH_DELETE, "/api/v1/events/{event_name}/listeners", Waits::ForQueue, Body::None, "",
     DeleteListeners},
    {Velmora::METH_GET, "/api/v1/events/{event_name}/listeners/{listener_id}", Waits::ForQueue, Body::None,
     "", GetListener, Access::Event},
    {Velmora::METH_DELETE, "/api/v1/events/{event_name}/listeners/{listener_id}", Waits::ForQueue, Body::None,
     "", DeleteListener},
    {Velmora::METH_GET, "/api/v1/cluster", Waits::Never, Body::None, "", GetCluster},
    {Velmora::METH_POST, "/api/v1/cloudevents", Waits::ForQueue, Body::CloudEvent, "", PostCloudEvent,
     Access::Posts},
    {Velmora::METH_GET, "/api/v1/queue", Waits::ForQueue, Body::None, "", GetQueue},
    {Velmora::METH_POST, "/api/v1/queue", Waits::ForQueue, Body::Document, "", PostQueue},
    {Velmora::METH_GET, "/api/v1/config", Waits::Never, Body::None, "", GetConfig},
    {Velmora::METH_PATCH, "/api/v1/config", Waits::Never, Body::JSON, "", PatchConfig},
    {Velmora::METH_GET, "/api/v1/timers", Waits::ForQueue, Body::None, "after limit prefix", GetTimers,
     Access::Some},
    {Velmora::METH_POST, "/api/v1/timers", Waits::ForQueue, Body::JSON, "", PostTimers},
    {Velmora::METH_DELETE, "/api/v1/timers", Waits::ForQueue, Body::None, "", DeleteTimers},
    {Velmora::METH_GET, "/api/v1/timers/{timer_id}", Waits::ForQueue, Body::None, "", GetTimer, Access::Some},
    {Velmora::METH_DELETE, "/api/v1/timers/{timer_id}", Waits::ForQueue, Body::None, "", DeleteTimer},
    {Velmora::METH_GET, "/api/v1/watches", Waits::ForQueue, Body::None, "after limit path prefix", GetWatches,
     Access::Some},
    {Velmora::METH_POST, "/api/v1/watches", Waits::ForQueue, Body::JSON, "", PostWatches},
    {Velmora::METH_DELETE, "/api/v1/watches", Waits::ForQueue, Body::None, "path", DeleteWatches},
    {Velmora::METH_GET, "/api/v1/history", Waits::ForQueue, Body::None, "after event_name* limit", GetHistory,
     Access::Some},
    {Velmora::METH_POST, "/api/v1/events/{event_name}/listeners/{listener_id}/test", Waits::ForQueue,
     Body::JSON, "", TestListener},
    {Velmora::METH_GET, "/api/v1/deliveries", Waits::Never, Body::None,
     "outcome limit event_name listener_id before", GetDeliveries},
    {Velmora::METH_GET, "/api/v1/deliveries/{delivery_id}", Waits::Never, Body::None, "", GetDelivery},
    {Velmora::METH_DELETE, "/api/v1/deliveries/{delivery_id}", Waits::Never, Body::None, "", DeleteDelivery},
    {Velmora::METH_POST, "/api/v1/deliveries/{delivery_id}/resend", Waits::ForQueue, Body::None, "",
     ResendDelivery},
    {Velmora::METH_POST, "/api/v1/handlers/reload", Waits::ForQueue, Body::None, "", PostHandlersReload},
    {Velmora::METH_POST, "/api/v1/reload", Waits::ForQueue, Body::None, "", PostReload},
    {Velmora::METH_GET, "/api/v1/feed", Waits::Never, Body::None, "after event_name*", GetFeed, Access::Some},
    {Velmora::METH_GET, "/api/v1/feed/sse", Waits::Never, Body::None, "after event_name*", GetFeed,
     Access::Some},
    {Velmora::METH_GET, "/healthz", Waits::Never, Body::None, "", GetHealth, Access::Open},
    {Velmora::METH_GET, "/readyz", Waits::Never, Body::None, "", GetReadiness, Access::Open},
    {Velmora::METH_GET, "/metrics", Waits::Never, Body::None, "", GetMetrics, Access::Open},
    {Velmora::METH_GET, "/openapi.json", Waits::Never, Body::None, "", GetOpenApi, Access::Open},
};
constexpr const Row* TableEnd = std::end(Table);

using Segments = std::array<std::string_view, 2>;

// Compares a path, still encoded, with a pattern; what stands for the names in braces goes to `names`. A name
// is never empty and never holds a "/" that is not encoded.
bool Matches(std::string_view pattern, std::string_view path, Segments& names) {
    std::size_t count = 0;
    while (!pattern.empty()) {
        if (pattern.front() == '{') {
            const std::string_view name = path.substr(0, path.find('/'));
            if (name.empty()) return false;
            names[count++] = name;
            path.remove_prefix(name.size());
            pattern.remove_prefix(pattern.find('}') + 1);
            continue;
        }
        const std::string_view literal = pattern.substr(0, pattern.find('{'));
        if (!path.starts_with(literal)) return false;
        path.remove_prefix(literal.size());
        pattern.remove_prefix(literal.size());
    }
    return path.empty();
}

const Row* NextPattern(const Row* route) {
    const std::string_view pattern = route->Pattern;
    return std::find_if(route, TableEnd, [&](const Row& other) { return other.Pattern != pattern; });
}

// The first row of the path's pattern; the table's end where there is none.
const Row* FindPath(std::string_view path, Segments& names) {
    for (const Row* route = Table; route != TableEnd; route = NextPattern(route)) {
        if (Matches(route->Pattern, path, names)) return route;
    }
    return TableEnd;
}

// The row for the method among those of one pattern; null where the path does not take it.
const Row* FindMethod(const Row* first, Method_t method) {
    if (method == Velmora::METH_HEAD) method = Velmora::METH_GET;
    const Row* end = NextPattern(first);
    const Row* route = std::find_if(first, end, [&](const Row& row) { return row.Method == method; });
    return route == end ? nullptr : route;
}

const Row* FirstOf(std::string_view pattern) {
    return std::find_if(Table, TableEnd, [&](const Row& row) { return row.Pattern == pattern; });
}

// Whether there are requests that ask for what is at the pattern, and others that change it.
bool IsRead(std::string_view pattern) {
    return FindMethod(FirstOf(pattern), Velmora::METH_GET) != nullptr;
}

bool IsChanged(std::string_view pattern) {
    const Row* first = FirstOf(pattern);
    return std::any_of(first, NextPattern(first), [](const Row& row) {
        return row.Method != Velmora::METH_GET && row.Needs == Access::Usual;
    });
}

std::string AllowedMethods(const Row* first) {
    std::string allowed;
    for (const Row* route = first; route != NextPattern(first); ++route) {
        allowed += Velmora::MethodToString(route->Method);
        allowed += route->Method == Velmora::METH_GET ? ", HEAD, " : ", ";
    }
    return allowed + "OPTIONS";
}

HttpResponse WithAllow(HttpResponse response, const std::string& allowed) {
    response.Headers.emplace_back("Allow", allowed);
    return response;
}

std::vector<std::string> Words(std::string_view text) {
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        words.emplace_back(word);
        text.remove_prefix(std::min(text.size(), word.size() + 1));
    }
    return words;
}

// In a query "+" is a blank, as every form and every library writes it.
std::optional<std::string> DecodeQueryText(std::string_view text) {
    std::string plain(text);
    std::replace(plain.begin(), plain.end(), '+', ' ');
    return PercentDecode(plain);
}

// Reads the query into the parameters; otherwise the answer. A parameter that is not understood is refused
// rather than passed over: "DELETE /watches?pth=/a" must not remove every watch.
std::optional<HttpResponse> ReadQuery(const Row& row, std::string_view query, QueryParameters& parameters) {
    if (query.empty()) return std::nullopt;
    const std::vector<std::string> known = Words(row.Query);
    while (!query.empty()) {
        const std::string_view pair = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(query.size(), pair.size() + 1));
        if (pair.empty()) continue;
        const std::size_t equals = std::min(pair.find('='), pair.size());
        const std::optional<std::string> name = DecodeQueryText(pair.substr(0, equals));
        if (!name) return Problem(Velmora::STATUS_400_BAD_REQ, "The query holds a malformed percent escape.");
        const bool repeated = std::find(known.begin(), known.end(), *name + '*') != known.end();
        if (!repeated && std::find(known.begin(), known.end(), *name) == known.end()) {
            return BadParameter(*name, "is not known here");
        }
        if (!repeated && FindParameter(parameters, *name) != nullptr)
            return BadParameter(*name, "is given twice");
        std::optional<std::string> value = DecodeQueryText(pair.substr(std::min(equals + 1, pair.size())));
        if (!value) return BadParameter(*name, "holds a malformed percent escape");
        parameters.emplace_back(*name, std::move(*value));
    }
    return std::nullopt;
}

std::optional<HttpResponse> ReadNames(const Segments& segments, HttpRoute& route) {
    for (std::size_t i = 0; i < segments.size() && !segments[i].empty(); ++i) {
        std::optional<std::string> name = PercentDecode(segments[i]);
        if (!name) return Problem(Velmora::STATUS_400_BAD_REQ, "The path holds a malformed percent escape.");
        route.Names[i] = std::move(*name);
    }
    return std::nullopt;
}

HttpResponse AnswerOptions(RestCall& call) {
    Segments names;
    const Row* first = FindPath(call.Request.Path, names);
    return WithAllow(NoContent(), first == TableEnd ? "GET, HEAD, OPTIONS" : AllowedMethods(first));
}

HttpResponse GetConsole(RestCall& call) {
    return *ConsoleAsset(call.Request);
}

// Rows of more than one path.
constexpr Row OptionsRow = {Velmora::METH_OPTIONS, "",          Waits::Never, Body::None, "",
                            AnswerOptions,         Access::Open};
constexpr Row ConsoleRow = {Velmora::METH_GET, "", Waits::Never, Body::None, "", GetConsole, Access::Open};

Role RoleFor(const Row& row) {
    if (row.Needs == Access::Post || row.Needs == Access::Posts) return Role::Post;
    const bool reads = row.Method == Velmora::METH_GET || row.Needs != Access::Usual;
    return reads ? Role::Read : Role::Admin;
}

// Why the caller may not, from the head alone; nothing where it may.
std::optional<HttpResponse> Forbidden(const Row& row, const HttpRoute& route) {
    if (row.Needs == Access::Open) return std::nullopt;
    if (!route.Caller) return Problem(Velmora::STATUS_401_UNAUTHORIZED, "An access token is wanted.");
    const AccessToken& caller = *route.Caller;
    const std::string who = "The token \"" + caller.Name + "\"";
    if (caller.Role < RoleFor(row)) {
        return Problem(Velmora::STATUS_403_FORBIDDEN,
                       who + " has the role \"" + std::string(RoleName(caller.Role)) +
                           "\", and this needs \"" + std::string(RoleName(RoleFor(row))) + "\".");
    }
    const bool names_event = row.Needs == Access::Post || row.Needs == Access::Event;
    if (names_event && !caller.MayUse(route.Names[0])) return EventForbidden(caller, route.Names[0]);
    if (row.Needs == Access::Usual && !caller.Events.empty()) {
        return Problem(Velmora::STATUS_403_FORBIDDEN,
                       who + " is for the events " + caller.EventsText() +
                           " only, and this is about all that the server has.");
    }
    return std::nullopt;
}

// Why no row answers a request: `first` is the first row of its path.
HttpResponse NotServed(const Row* first) {
    if (first == TableEnd) {
        return Problem(Velmora::STATUS_404_NOT_FOUND,
                       "There is no such resource; /openapi.json lists those that there are.");
    }
    return WithAllow(Problem(Velmora::STATUS_405_NOT_ALLOWED, "This resource does not take the method."),
                     AllowedMethods(first));
}

// The row that answers what no row of the table does; null where there is none.
const Row* FindOther(const HttpRequest& request, const Row* first) {
    if (request.Method == Velmora::METH_OPTIONS) {
        return first != TableEnd || request.Path == "*" ? &OptionsRow : nullptr;
    }
    const bool may_read = request.Method == Velmora::METH_GET || request.Method == Velmora::METH_HEAD;
    return may_read && IsConsolePath(request.Path) ? &ConsoleRow : nullptr;
}

}  // namespace

Router::Router(const Config& config) {
    m_Context.StateFile = config.StateFile;
    m_Context.BasePath = config.Http.BasePath;
    m_Context.Timeout_ms = static_cast<Mirel::ui32_t>(config.Timeout_ms);
}

void Router::CountersFrom(std::function<HttpServerCounters()> source) {
    m_Context.ServerCounters = std::move(source);
}

std::optional<HttpResponse> Router::Route(const HttpRequest& head, HttpRoute& route) const {
    Segments names;
    const Row* first = FindPath(head.Path, names);
    const Row* row = first == TableEnd ? nullptr : FindMethod(first, head.Method);
    const bool of_table = row != nullptr;
    if (!of_table) row = FindOther(head, first);
    if (row == nullptr) return NotServed(first);
    route.Row = row;
    route.MayBlock = row->Wait == Waits::ForQueue;
    route.TakesDocument = row->Takes == Body::Document;
    route.TakesAnyType = row->Takes == Body::CloudEvent;
    route.Changes = RoleFor(*row) == Role::Admin;
    if (of_table) {
        if (std::optional<HttpResponse> refused = ReadNames(names, route)) return refused;
        if (std::optional<HttpResponse> refused = Forbidden(*row, route)) return refused;
    }
    if (row->Takes == Body::None && head.HasBody) {
        return Problem(Velmora::STATUS_400_BAD_REQ, "This request takes no body.");
    }
    return of_table ? ReadQuery(*row, head.Query, route.Query) : std::nullopt;
}

HttpResponse Router::Answer(const HttpRequest& request, HttpRoute& route) {
    const Row& row = *static_cast<const Row*>(route.Row);
    RestCall call{request, m_Context, std::move(route.Names), std::move(route.Query), route.Caller.get()};
    HttpResponse response = row.Function(call);
    const bool tagged = row.Method == Velmora::METH_GET && response.Status == Velmora::STATUS_200_OK &&
                        row.Pattern.starts_with(ApiPrefix) && IsChanged(row.Pattern);
    return tagged ? WithETag(request, std::move(response)) : response;
}

// Rows of more than one path have none: they change nothing.
static bool HasPrecondition(const HttpRequest& request, const Row& row) {
    return !request.IfMatch.empty() && row.Method != Velmora::METH_GET && !row.Pattern.empty();
}

// 412 where the request is meant for another state of its resource than there is. What is not there has no
// state, and is answered as ever.
std::optional<HttpResponse> Router::Precondition(const HttpRequest& request, const HttpRoute& route) {
    const Row& row = *static_cast<const Row*>(route.Row);
    if (!HasPrecondition(request, row)) return std::nullopt;
    const Row* reading = FindMethod(FirstOf(row.Pattern), Velmora::METH_GET);
    if (reading == nullptr || !row.Pattern.starts_with(ApiPrefix)) return std::nullopt;
    HttpRequest look;
    look.Path = request.Path;
    HttpRoute reads = route;
    reads.Row = reading;
    const HttpResponse current = Answer(look, reads);
    if (current.Status != Velmora::STATUS_200_OK || MatchesTag(request.IfMatch, current)) return std::nullopt;
    return Problem(Velmora::STATUS_412_PRECOND_FAILED,
                   "The resource is not in the state that If-Match names; nothing was changed.");
}

// Changes of what can be asked for come one after the other, so that no request comes between a precondition
// and its change; the queue's worker and a reload may. Those that cannot wait for the queue do not wait for
// those that can. Postings pass by all of them, but for those that have a precondition.
HttpResponse Router::Dispatch(const HttpRequest& request, HttpRoute& route) {
    const Row& row = *static_cast<const Row*>(route.Row);
    if ((!route.Changes && !HasPrecondition(request, row)) || !IsRead(row.Pattern)) {
        if (auto refused = Precondition(request, route)) return std::move(*refused);
        return Answer(request, route);
    }
    Mirel::Mutex& lock = row.Wait == Waits::Never ? m_QuickChange : m_Change;
    Mirel::AutoMutex one_at_a_time(lock);
    if (auto refused = Precondition(request, route)) return std::move(*refused);
    return Answer(request, route);
}

HttpResponse Router::Handle(const HttpRequest& request, HttpRoute& route) {
    try {
        if (m_Context.Gate != nullptr && route.Changes) {
            // What changes is shared by the nodes, and their engine is waited for.
            if (auto refused = Precondition(request, route)) return std::move(*refused);
            return m_Context.Gate->Change(request, route, [this](const HttpRequest& own, HttpRoute& its) {
                return Dispatch(own, its);
            });
        }
        return Dispatch(request, route);
    } catch (const std::bad_alloc& failure) {
        Mirel::DefaultLogSink().Error("Request %s %s failed: %s\n", Velmora::MethodToString(request.Method),
                                      std::string(request.Path).c_str(), failure.what());
        return NoMemory();
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("Request %s %s failed: %s\n", Velmora::MethodToString(request.Method),
                                      std::string(request.Path).c_str(), failure.what());
        return Problem(Velmora::STATUS_500_SERVER_ERROR,
                       "The request could not be completed; the log says why.");
    }
}

std::vector<RouteInfo> Router::Routes() {
    std::vector<RouteInfo> routes;
    for (const Row& route : Table) {
        std::vector<std::string> query = Words(route.Query);
        for (std::string& parameter : query)
            if (parameter.ends_with('*')) parameter.pop_back();
        RouteInfo info = {Velmora::MethodToString(route.Method), std::string(route.Pattern), std::move(query),
                          route.Takes != Body::None, std::nullopt};
        if (route.Needs != Access::Open) info.Needs = RoleFor(route);
        routes.push_back(std::move(info));
    }
    return routes;
}

}  // namespace Server
