// One HTTP request and its answer, as the server's connections and its REST handlers pass them to each other.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VL_HTTP.h"
#include "http/AccessTokens.h"

namespace Server {

using Velmora::Method_t;
using Velmora::Status_t;

/// Names and values of header fields, as they came.
using HeaderFields = std::vector<std::pair<std::string_view, std::string_view>>;

/// A whole request. All views point into the connection's buffers and live until the handler returns.
struct HttpRequest {
    Method_t Method = Velmora::METH_GET;
    std::string_view Path;         // as received, without the query: "/api/v1/events/a%2Fb"
    std::string_view Query;        // as received, without the "?": "limit=10&event_name=x"
    std::string_view ContentType;  // empty where the request names none
    std::string_view IfNoneMatch;
    std::string_view IfMatch;
    const HeaderFields* CloudEvent = nullptr;  // those whose names begin with "ce-"; null: not known
    std::string_view IdempotencyKey;
    std::string_view Body;
    bool HasBody = false;  // a Content-Length above 0 or chunks came with it
};

/// Query parameters, decoded, in the order in which they were given.
using QueryParameters = std::vector<std::pair<std::string, std::string>>;

/// Where a request goes: what its handler found out from the head. It holds no views, since the head may move
/// while the body comes in.
struct HttpRoute {
    const void* Row = nullptr;  // the handler's own note of what answers it
    /// Whether answering may wait for the event queue (and so for a slow Python handler). Such requests are
    /// admitted only while an I/O thread stays free for everything else.
    bool MayBlock = false;
    bool TakesAnyType = false;         // the body need not be application/json
    bool TakesDocument = false;        // the body may be as long as a queue state document
    std::array<std::string, 2> Names;  // the path's variable segments, decoded
    QueryParameters Query;
    Server::Caller Caller;  // found out before the handler is asked; null where that was not needed
    bool Changes = false;   // whether it is a change that the log is to tell who made
};

class LaterAnswer;

/// What is answered. Content-Length, Date, Connection and the security headers are the connection's to add;
/// for HEAD the connection leaves the body out.
struct HttpResponse {
    Status_t Status = Velmora::STATUS_200_OK;
    std::string_view ContentType;  // lives as long as the program; empty: no body
    std::string Body;
    std::vector<std::pair<std::string, std::string>> Headers;  // Location, Allow, ETag, Retry-After …

    /// Bytes that live as long as the program, sent in place of Body without a copy (the console's files).
    std::string_view StaticBody;

    /// Not null: none of the above counts, and the answer comes later.
    std::shared_ptr<LaterAnswer> Later;
};

/// Percent-decoding of one path segment or query value to bytes; nothing for a malformed escape.
std::optional<std::string> PercentDecode(std::string_view text);

/// The answer to a failed request: application/problem+json (RFC 9457) with type, title, status and detail.
HttpResponse Problem(Status_t status, const std::string& detail);

/// The refusal (403) of a caller whose token is not for the event.
HttpResponse EventForbidden(const AccessToken& caller, const std::string& event_name);

/// What is answered where the memory does not suffice for a request.
HttpResponse NoMemory();

/// Answers requests. Called on the I/O threads, from several at once.
class HttpHandler {
  public:
    virtual ~HttpHandler() = default;

    /// Looks at a request without its body, once for each: fills the (empty) route, or answers what no body
    /// could change: that there is no such resource or method, or that it takes no body. May throw
    /// std::bad_alloc.
    virtual std::optional<HttpResponse> Route(const HttpRequest& head, HttpRoute& route) const = 0;
    /// Answers it, once it is whole. Takes what it needs out of the route. Must not throw.
    virtual HttpResponse Handle(const HttpRequest& request, HttpRoute& route) = 0;
};

}  // namespace Server
