// Writes frames that tell ids: WebSocket messages and server-sent events.
#include "feed/NumberedFrame.h"

#include <algorithm>
#include <charconv>

#include "feed/Frame.h"

namespace Velmora::Feed {

namespace {

// How long a browser waits before it comes back.
constexpr std::string_view Retry = "retry: 2000\n";
// The type of the first event; those of postings are their events' names.
constexpr std::string_view HelloType = "velmora.hello";

void AppendId(std::string& out, std::string_view epoch, ui64_t number) {
    char digits[24];
    char* const end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    out.append(epoch).append(1, '-').append(static_cast<const char*>(digits),
                                            static_cast<std::size_t>(end - digits));
}

void AppendTextMessage(std::string& out, std::string_view payload) {
    char header[MaxServerHeader];
    out.append(header, WriteServerHeader(header, OP_TEXT, payload.size()));
    out.append(payload);
}

// A line holds no line's end: what would be one is percent-encoded.
void AppendLine(std::string& out, std::string_view name) {
    for (const char c : name) {
        if (c == '\n')
            out.append("%0A");
        else if (c == '\r')
            out.append("%0D");
        else if (c == '\0')
            out.append("%00");
        else
            out.append(1, c);
    }
    out.append(1, '\n');
}

void AppendEvent(std::string& out, const PostedText& posted) {
    out.append("id: ");
    AppendId(out, posted.Epoch, posted.Number);
    out.append("\nevent: ");
    AppendLine(out, posted.Name);
    out.append("data: ").append(posted.Json).append("\n\n");
}

void AppendMessage(std::string& out, const PostedText& posted) {
    static thread_local std::string text;
    text.assign("{\"id\":\"");
    AppendId(text, posted.Epoch, posted.Number);
    text.append("\",\"posting\":").append(posted.Json).append(1, '}');
    AppendTextMessage(out, text);
    if (text.capacity() > (64u << 10)) std::string().swap(text);
}

}  // namespace

void AppendFrame(std::string& out, FeedWish::Form form, const PostedText& posted) {
    form == FeedWish::Form::EventStream ? AppendEvent(out, posted) : AppendMessage(out, posted);
}

void AppendHello(std::string& out, FeedWish::Form form, const PostingSource::Place& place) {
    std::string text = "{\"id\":\"";
    AppendId(text, place.Last.Epoch, place.Last.Number);
    text.append("\",\"gap\":").append(place.Gap ? "true}" : "false}");
    if (form == FeedWish::Form::Numbered) return AppendTextMessage(out, text);
    // The line "id" is what a browser comes back with: where it stands before it has got what it has missed.
    out.append(Retry).append("id: ");
    AppendId(out, place.Last.Epoch, place.After);
    out.append("\nevent: ").append(HelloType).append("\ndata: ").append(text).append("\n\n");
}

void AppendHeartbeat(std::string& out) {
    out.append(":\n\n");
}

void AppendFarewell(std::string& out, unsigned code, std::string_view reason) {
    out.append(": closed ").append(std::to_string(code)).append(" ").append(reason).append("\n\n");
}

}  // namespace Velmora::Feed
