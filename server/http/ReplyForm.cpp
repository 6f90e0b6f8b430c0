// Writes status line, headers and body.
#include "http/ReplyForm.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <ctime>

namespace Server {

namespace {

// "Date: …\r\n" of this second, made once a second on each thread.
std::string_view DateLine() {
    thread_local std::time_t second = 0;
    thread_local char line[48];
    thread_local std::size_t length = 0;
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (now.tv_sec != second || length == 0) {
        second = now.tv_sec;
        std::tm parts{};
        gmtime_r(&second, &parts);
        // The names of days and months are English whatever the locale.
        static constexpr const char* Days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
        static constexpr const char* Months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        length = static_cast<std::size_t>(
            std::snprintf(line, sizeof line, "Date: %s, %02d %s %04d %02d:%02d:%02d GMT\r\n",
                          Days[parts.tm_wday], parts.tm_mday, Months[parts.tm_mon], parts.tm_year + 1900,
                          parts.tm_hour, parts.tm_min, parts.tm_sec));
    }
    return {line, std::min(length, sizeof line - 1)};
}

void AppendNumber(std::string& text, std::size_t number) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    text.append(digits, end);
}

// Header values come from names that clients choose: no line may be begun by them.
void AppendField(std::string& text, std::string_view name, std::string_view value) {
    text.append(name).append(": ");
    for (const char c : value) {
        if (c != '\r' && c != '\n' && c != '\0') text += c;
    }
    text.append("\r\n");
}

void AppendStatusLine(std::string& text, Status_t status) {
    text.append("HTTP/1.1 ");
    AppendNumber(text, static_cast<std::size_t>(status));
    text.append(" ").append(Velmora::StatusToString(status)).append("\r\n");
}

}  // namespace

void AppendReplyHead(std::string& text, const HttpResponse& response, ReplyForm form) {
    AppendStatusLine(text, response.Status);
    text.append(DateLine());
    bool cache_control = false;
    for (const auto& [name, value] : response.Headers) {
        AppendField(text, name, value);
        cache_control = cache_control || strcasecmp(name.c_str(), "Cache-Control") == 0;
    }
    if (!cache_control) text.append("Cache-Control: no-store\r\n");
    text.append("X-Content-Type-Options: nosniff\r\n");
    if (!response.ContentType.empty())
        text.append("Content-Type: ").append(response.ContentType).append("\r\n");
    if (!StatusHasNoBody(response.Status) && !form.Endless) {
        text.append("Content-Length: ");
        AppendNumber(text, ReplyBody(response).size());
        text.append("\r\n");
    }
    if (!form.KeepAlive) {
        text.append("Connection: close\r\n");
    } else if (form.Http10) {
        text.append("Connection: keep-alive\r\n");
    }
    text.append("\r\n");
}

}  // namespace Server
