// Refuses by the head: its form, who asks, what for, and with how much.
#include "http/RefuseHead.h"

#include "MR_text.h"
#include "http/FeedUpgrade.h"

namespace Server {

namespace {

bool IsJson(std::string_view content_type) {
    content_type = content_type.substr(0, content_type.find(';'));
    while (!content_type.empty() && content_type.back() == ' ') content_type.remove_suffix(1);
    return Mirel::EqualIgnoringCase(content_type, Velmora::Strings::MIME_json);
}

}  // namespace

HttpRequest RequestOf(const RequestHead& head) {
    HttpRequest request;
    request.Method = *head.Method;
    request.Path = head.Parts->Path;
    request.Query = head.Parts->Query;
    request.ContentType = head[Field::ContentType];
    request.IfNoneMatch = head[Field::IfNoneMatch];
    request.IfMatch = head[Field::IfMatch];
    request.CloudEvent = &head.CloudEvent;
    request.IdempotencyKey = head[Field::IdempotencyKey];
    request.HasBody = head.HasBody;
    return request;
}

bool AsksForFeed(const HttpRequest& request) {
    return request.Method == Velmora::METH_GET &&
           (request.Path == FeedPath || request.Path == EventStreamPath);
}

std::optional<HttpResponse> RefuseHead(const RequestHead& head, const AccessPolicy& policy,
                                       const HttpHandler& handler, HttpRoute& route) {
    if (!head.Parts) return Problem(Velmora::STATUS_400_BAD_REQ, "The request's target must be a path.");
    const RequestTarget& target = *head.Parts;
    if (auto refusal = policy.Check(head, target.Path, target.Authority, route.Caller)) return refusal;
    if (!head.Method) return Problem(Velmora::STATUS_501_NOT_IMPLEMENTED, "This method is not known.");
    const HttpRequest request = RequestOf(head);
    if (auto refusal = handler.Route(request, route)) return refusal;
    if (AsksForFeed(request)) {
        const bool events = WantsEventStream(head) && !head.HasBody;
        if (auto refusal = events ? std::nullopt : RefuseUpgrade(head)) return refusal;
        std::optional<Velmora::FeedWish> wish;
        if (auto refusal = ReadFeedWish(head, route, wish)) return refusal;
    }
    if (head.HasBody && !route.TakesAnyType && !IsJson(head[Field::ContentType])) {
        return Problem(Velmora::STATUS_415_MEDIA_TYPE, "A body must be application/json.");
    }
    if (head.Has(Field::Expect) && !ListHas(head, Field::Expect, "100-continue")) {
        return Problem(Velmora::STATUS_417_EXPECTATION, "Only 100-continue can be expected.");
    }
    return std::nullopt;
}

}  // namespace Server
