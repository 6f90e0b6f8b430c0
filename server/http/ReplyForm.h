// The text of an answer.
#pragma once

#include <string>

#include "http/Http.h"

namespace Server {

/// What the request and the connection make of an answer.
struct ReplyForm {
    bool HeadOnly = false;  // the request was HEAD
    bool KeepAlive = true;  // the connection stays open for further requests
    bool Http10 = false;    // the client speaks HTTP/1.0
    bool Endless = false;   // the body ends with the connection
};

/// Appends status line and header fields, up to and with the empty line. The body is the caller's to send.
void AppendReplyHead(std::string& text, const HttpResponse& response, ReplyForm form);

/// The bytes of the answer's body.
inline std::string_view ReplyBody(const HttpResponse& response) {
    return response.StaticBody.empty() ? std::string_view(response.Body) : response.StaticBody;
}

/// Whether an answer of this status has no body at all, not even an empty one.
inline bool StatusHasNoBody(Status_t status) {
    return status < 200 || status == Velmora::STATUS_204_NO_CONTENT ||
           status == Velmora::STATUS_304_NOT_MODIFIED;
}

}  // namespace Server
