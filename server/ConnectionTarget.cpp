#include "ConnectionTarget.h"

#include <algorithm>
#include <string>

namespace Server {

namespace {

bool is_json(std::string_view content_type) {
    content_type = content_type.substr(0, content_type.find(';'));
    while (!content_type.empty() && content_type.back() == ' ') content_type.remove_suffix(1);
    return SameLetters(content_type, Velmora::Strings::MIME_json);
}

}  // namespace

std::optional<RequestTarget> SplitTarget(std::string_view text) {
    RequestTarget target;
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (text.substr(0, scheme.size()) != scheme) continue;
        text.remove_prefix(scheme.size());
        target.Authority = text.substr(0, text.find_first_of("/?"));
        text.remove_prefix(target.Authority.size());
        if (target.Authority.empty()) return std::nullopt;
        if (text.empty() || text[0] == '?') target.Path = "/";
        break;
    }
    if (target.Path.empty() && text != "*" && (text.empty() || text[0] != '/')) return std::nullopt;
    const std::size_t mark = std::min(text.find('?'), text.size());
    if (mark > 0) target.Path = text.substr(0, mark);
    if (mark < text.size()) target.Query = text.substr(mark + 1);
    return target;
}

std::optional<HttpResponse> RefuseHead(const RequestHead& head, const AccessPolicy& policy) {
    const std::optional<RequestTarget> target = SplitTarget(head.Target);
    if (!target) return Problem(Velmora::STATUS_400_BAD_REQ, "The request's target must be a path.");
    if (auto refusal = policy.Check(head, target->Path, target->Authority)) return refusal;
    if (!head.Method) return Problem(Velmora::STATUS_501_NOT_IMPLEMENTED, "This method is not known.");
    if (head.HasBody && !is_json(head[Field::ContentType])) {
        return Problem(Velmora::STATUS_415_MEDIA_TYPE, "A body must be application/json.");
    }
    if (head.Has(Field::Expect) && !ListHas(head[Field::Expect], "100-continue")) {
        return Problem(Velmora::STATUS_417_EXPECTATION, "Only 100-continue can be expected.");
    }
    return std::nullopt;
}

}  // namespace Server
