// Frames that tell a posting's id: what they look like in each form.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "VL_WebSocket.h"

namespace Velmora::Feed {

/// What is sent, as views.
struct PostedText {
    std::string_view Epoch;
    ui64_t Number = 0;
    std::string_view Name;  // the event's
    std::string_view Json;  // the posting
};

/// Appends the frame: a WebSocket text message, or the lines of one server-sent event.
void AppendFrame(std::string& out, FeedWish::Form form, const PostedText& posted);

/// Appends what a client is told first.
void AppendHello(std::string& out, FeedWish::Form form, const PostingSource::Place& place);

/// Appends a comment that says nothing, for a client of server-sent events.
void AppendHeartbeat(std::string& out);

/// Appends the comment that stands for a close frame.
void AppendFarewell(std::string& out, unsigned code, std::string_view reason);

}  // namespace Velmora::Feed
