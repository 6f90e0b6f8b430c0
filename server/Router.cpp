#include "Router.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "Console.h"
#include "MR_log.h"

namespace Server {

using namespace Velmora;  // methods and statuses

namespace {

// Whether answering takes one of the queue's locks, which a posting with a slow Python handler may hold.
enum class Waits { Never, ForQueue };
enum class Body { None, JSON };

struct Route {
    Method_t Method;
    std::string_view Pattern;  // rows of one path stand together
    Waits Wait;
    Body Takes;
    std::string_view Query;  // the parameters that are understood, parted by blanks
    HttpResponse (*Function)(RestCall&);
};

// The busiest path stands first.
constexpr Route table[] = {
    {METH_POST, "/api/v1/events/{event_name}", Waits::ForQueue, Body::JSON, "", PostEvent},
    {METH_GET, "/api/v1/events/{event_name}", Waits::ForQueue, Body::None, "", GetEvent},
    {METH_DELETE, "/api/v1/events/{event_name}", Waits::ForQueue, Body::None, "", DeleteEvent},
    {METH_GET, "/api/v1/events", Waits::ForQueue, Body::None, "", GetEvents},
    {METH_POST, "/api/v1/events", Waits::ForQueue, Body::JSON, "", PostEvents},
    {METH_DELETE, "/api/v1/events", Waits::ForQueue, Body::None, "", DeleteEvents},
    {METH_GET, "/api/v1/events/{event_name}/listeners", Waits::ForQueue, Body::None, "", GetListeners},
    {METH_POST, "/api/v1/events/{event_name}/listeners", Waits::ForQueue, Body::JSON, "", PostListeners},
    {METH_DELETE, "/api/v1/events/{event_name}/listeners", Waits::ForQueue, Body::None, "", DeleteListeners},
    {METH_GET, "/api/v1/events/{event_name}/listeners/{listener_id}", Waits::ForQueue, Body::None, "",
     GetListener},
    {METH_DELETE, "/api/v1/events/{event_name}/listeners/{listener_id}", Waits::ForQueue, Body::None, "",
     DeleteListener},
    {METH_GET, "/api/v1/queue", Waits::ForQueue, Body::None, "", GetQueue},
    {METH_POST, "/api/v1/queue", Waits::ForQueue, Body::JSON, "", PostQueue},
    {METH_GET, "/api/v1/config", Waits::Never, Body::None, "", GetConfig},
    {METH_PATCH, "/api/v1/config", Waits::Never, Body::JSON, "", PatchConfig},
    {METH_GET, "/api/v1/timers", Waits::ForQueue, Body::None, "", GetTimers},
    {METH_POST, "/api/v1/timers", Waits::ForQueue, Body::JSON, "", PostTimers},
    {METH_DELETE, "/api/v1/timers", Waits::ForQueue, Body::None, "", DeleteTimers},
    {METH_GET, "/api/v1/timers/{timer_id}", Waits::ForQueue, Body::None, "", GetTimer},
    {METH_DELETE, "/api/v1/timers/{timer_id}", Waits::ForQueue, Body::None, "", DeleteTimer},
    {METH_GET, "/api/v1/watches", Waits::ForQueue, Body::None, "path", GetWatches},
    {METH_POST, "/api/v1/watches", Waits::ForQueue, Body::JSON, "", PostWatches},
    {METH_DELETE, "/api/v1/watches", Waits::ForQueue, Body::None, "path", DeleteWatches},
    {METH_GET, "/api/v1/history", Waits::ForQueue, Body::None, "event_name limit", GetHistory},
    {METH_GET, "/api/v1/deliveries", Waits::Never, Body::None, "outcome limit", GetDeliveries},
    {METH_GET, "/api/v1/feed", Waits::Never, Body::None, "", GetFeed},
    {METH_GET, "/healthz", Waits::Never, Body::None, "", GetHealth},
    {METH_GET, "/readyz", Waits::Never, Body::None, "", GetReadiness},
    {METH_GET, "/metrics", Waits::Never, Body::None, "", GetMetrics},
    {METH_GET, "/openapi.json", Waits::Never, Body::None, "", GetOpenApi},
};
constexpr const Route* table_end = std::end(table);

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

const Route* NextPattern(const Route* route) {
    const std::string_view pattern = route->Pattern;
    return std::find_if(route, table_end, [&](const Route& other) { return other.Pattern != pattern; });
}

// The first row of the path's pattern; the table's end where there is none.
const Route* FindPath(std::string_view path, Segments& names) {
    for (const Route* route = table; route != table_end; route = NextPattern(route)) {
        if (Matches(route->Pattern, path, names)) return route;
    }
    return table_end;
}

// The row for the method among those of one pattern; null where the path does not take it.
const Route* FindMethod(const Route* first, Method_t method) {
    if (method == METH_HEAD) method = METH_GET;
    const Route* end = NextPattern(first);
    const Route* route = std::find_if(first, end, [&](const Route& row) { return row.Method == method; });
    return route == end ? nullptr : route;
}

std::string AllowedMethods(const Route* first) {
    std::string allowed;
    for (const Route* route = first; route != NextPattern(first); ++route) {
        allowed += MethodToString(route->Method);
        allowed += route->Method == METH_GET ? ", HEAD, " : ", ";
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

// Reads the query into the call; otherwise the answer. A parameter that is not understood is refused rather
// than passed over: "DELETE /watches?pth=/a" must not remove every watch.
std::optional<HttpResponse> ReadQuery(const Route& route, RestCall& call) {
    const std::vector<std::string> known = Words(route.Query);
    std::string_view query = call.Request.Query;
    while (!query.empty()) {
        const std::string_view pair = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(query.size(), pair.size() + 1));
        if (pair.empty()) continue;
        const std::size_t equals = std::min(pair.find('='), pair.size());
        const std::optional<std::string> name = DecodeQueryText(pair.substr(0, equals));
        if (!name) return Problem(STATUS_400_BAD_REQ, "The query holds a malformed percent escape.");
        if (std::find(known.begin(), known.end(), *name) == known.end()) {
            return BadParameter(*name, "is not known here");
        }
        if (call.Parameter(*name) != nullptr) return BadParameter(*name, "is given twice");
        std::optional<std::string> value = DecodeQueryText(pair.substr(std::min(equals + 1, pair.size())));
        if (!value) return BadParameter(*name, "holds a malformed percent escape");
        call.Query.emplace_back(*name, std::move(*value));
    }
    return std::nullopt;
}

std::optional<HttpResponse> ReadNames(const Segments& segments, RestCall& call) {
    for (std::size_t i = 0; i < segments.size() && !segments[i].empty(); ++i) {
        std::optional<std::string> name = PercentDecode(segments[i]);
        if (!name) return Problem(STATUS_400_BAD_REQ, "The path holds a malformed percent escape.");
        call.Names[i] = std::move(*name);
    }
    return std::nullopt;
}

HttpResponse NotFound(const HttpRequest& request) {
    const bool may_read = request.Method == METH_GET || request.Method == METH_HEAD;
    if (may_read) {
        if (std::optional<HttpResponse> asset = ConsoleAsset(request)) return std::move(*asset);
    }
    return Problem(STATUS_404_NOT_FOUND,
                   "There is no such resource; /openapi.json lists those that there are.");
}

HttpResponse Options(const Route* first) {
    return WithAllow(NoContent(), first == table_end ? "GET, HEAD, OPTIONS" : AllowedMethods(first));
}

}  // namespace

Router::Router(const Config& config) {
    m_Context.StateFile = config.StateFile;
    m_Context.Timeout_ms = static_cast<Mirel::ui32_t>(config.Timeout_ms);
}

void Router::CountersFrom(std::function<HttpServerCounters()> source) {
    m_Context.ServerCounters = std::move(source);
}

bool Router::MayBlock(const HttpRequest& request) const {
    Segments names;
    const Route* first = FindPath(request.Path, names);
    if (first == table_end) return false;
    const Route* route = FindMethod(first, request.Method);
    return route != nullptr && route->Wait == Waits::ForQueue;
}

HttpResponse Router::Dispatch(const HttpRequest& request) {
    Segments names;
    const Route* first = FindPath(request.Path, names);
    if (request.Method == METH_OPTIONS && (first != table_end || request.Path == "*")) return Options(first);
    if (first == table_end) return NotFound(request);
    const Route* route = FindMethod(first, request.Method);
    if (route == nullptr) {
        return WithAllow(Problem(STATUS_405_NOT_ALLOWED, "This resource does not take the method."),
                         AllowedMethods(first));
    }
    if (route->Takes == Body::None && request.HasBody) {
        return Problem(STATUS_400_BAD_REQ, "This request takes no body.");
    }
    RestCall call{request, m_Context, {}, {}};
    if (std::optional<HttpResponse> refused = ReadNames(names, call)) return std::move(*refused);
    if (std::optional<HttpResponse> refused = ReadQuery(*route, call)) return std::move(*refused);
    return route->Function(call);
}

HttpResponse Router::Handle(const HttpRequest& request) {
    try {
        return Dispatch(request);
    } catch (const std::bad_alloc& failure) {
        Mirel::DefaultLogSink().Error("Request %s %s failed: %s\n", MethodToString(request.Method),
                                      std::string(request.Path).c_str(), failure.what());
        return NoMemory();
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("Request %s %s failed: %s\n", MethodToString(request.Method),
                                      std::string(request.Path).c_str(), failure.what());
        return Problem(STATUS_500_SERVER_ERROR, "The request could not be completed; the log says why.");
    }
}

std::vector<RouteInfo> Router::Routes() {
    std::vector<RouteInfo> routes;
    for (const Route& route : table) {
        routes.push_back({MethodToString(route.Method), std::string(route.Pattern), Words(route.Query),
                          route.Takes == Body::JSON});
    }
    return routes;
}

}  // namespace Server
