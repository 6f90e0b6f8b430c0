// Percent-encoding undone, and the errors that every room answers with.
#include "http/Http.h"

#include "MR_text.h"
#include "VL_PList.h"

namespace Server {

std::optional<std::string> PercentDecode(std::string_view text) {
    if (text.find('%') == text.npos) return std::string(text);
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const int high = i + 2 < text.size() ? Mirel::HexValue(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? Mirel::HexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0) return std::nullopt;
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return decoded;
}

HttpResponse Problem(Status_t status, const std::string& detail) {
    Velmora::PListDict problem;
    problem.SetValue("type", "about:blank");
    problem.SetValue("title", Velmora::StatusToString(status));
    problem.SetValue("status", static_cast<int>(status));
    problem.SetValue("detail", detail);
    HttpResponse response;
    response.Status = status;
    response.ContentType = "application/problem+json";
    (void)problem.EncodeJSON(response.Body);  // succeeds for every text
    return response;
}

HttpResponse EventForbidden(const AccessToken& caller, const std::string& event_name) {
    return Problem(Velmora::STATUS_403_FORBIDDEN, "The token \"" + caller.Name + "\" is for the events " +
                                                      caller.EventsText() + " only, and \"" + event_name +
                                                      "\" is none of them.");
}

HttpResponse NoMemory() {
    HttpResponse response =
        Problem(Velmora::STATUS_503_NO_SERVICE, "There is not enough memory for this request at the moment.");
    response.Headers.emplace_back("Retry-After", "1");
    return response;
}

}  // namespace Server
