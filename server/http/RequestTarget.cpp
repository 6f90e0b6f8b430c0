// Splits a target into path and query.
#include "http/RequestTarget.h"

#include <algorithm>

namespace Server {

std::optional<RequestTarget> SplitTarget(std::string_view text) {
    RequestTarget target;
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (text.substr(0, scheme.size()) != scheme) continue;
        target.Path = text.substr(scheme.size() - 1, 1);  // where none follows it is "/"
        text.remove_prefix(scheme.size());
        target.Authority = text.substr(0, text.find_first_of("/?"));
        text.remove_prefix(target.Authority.size());
        if (target.Authority.empty()) return std::nullopt;
        break;
    }
    if (target.Path.empty() && text != "*" && (text.empty() || text[0] != '/')) return std::nullopt;
    const std::size_t mark = std::min(text.find('?'), text.size());
    if (mark > 0) target.Path = text.substr(0, mark);
    if (mark < text.size()) target.Query = text.substr(mark + 1);
    return target;
}

}  // namespace Server
