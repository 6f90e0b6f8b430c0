// Reads listeners, timers and watches.
#include "config/QueueShape.h"

#include <algorithm>
#include <limits>

#include "EventManager.h"
#include "MR_text.h"
#include "config/Secrets.h"

namespace Server {

namespace Keys = EventManager::Strings;
using Mirel::i32_t;

namespace {

constexpr std::string_view PythonScheme = "python://";

bool HoldsNul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

bool IsInModuleName(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '.' || static_cast<unsigned char>(c) >= 0x80;
}

// Names parted by dots. What Python makes of bytes beyond ASCII is Python's to say.
bool IsModuleName(std::string_view name) {
    return !name.empty() && name.front() != '.' && name.back() != '.' && name.find("..") == name.npos &&
           std::all_of(name.begin(), name.end(), IsInModuleName);
}

bool IsWebScheme(const std::string& scheme) {
    return Mirel::EqualIgnoringCase(scheme, "http") || Mirel::EqualIgnoringCase(scheme, "https");
}

// Whether the queue takes it, which says nothing of what will answer there.
bool CanBeCalled(const std::string& callback) {
    Velmora::URL url;
    return callback.find("python://") != std::string::npos || url.Parse(callback) || url.ParsePath(callback);
}

// The callback of a listener in a document.
std::optional<std::string> DocumentCallback(Shape& shape, DocumentSoFar& document) {
    auto callback = shape.NonEmptyText(Keys::callback, Need::Required);
    if (callback && !CanBeCalled(*callback)) {
        shape.Blame(Keys::callback,
                    "must be a URL, a path on this server or \"python://\" and a module's name");
    } else if (callback && LacksCredentials(*callback)) {
        shape.Blame(Keys::callback, NeedsSecret);
    } else if (callback && !document.Callbacks.insert(*callback).second) {
        shape.Blame(Keys::callback, "stands twice in this event");
    }
    return callback;
}

std::optional<std::string> RequestCallback(Shape& shape) {
    auto callback = shape.Text(Keys::callback, Need::Required);
    if (callback && HoldsNul(*callback)) shape.Blame(Keys::callback, "must not hold a NUL");
    return callback;
}

TimerTimes ReadTimerTimes(Shape& shape) {
    constexpr i32_t Min = std::numeric_limits<i32_t>::min(), Max = std::numeric_limits<i32_t>::max();
    const std::size_t before = shape.FaultCount();
    TimerTimes times;
    times.Interval_sec = shape.IntegerOrText(Keys::interval_sec, Min, Max).value_or(0);
    const auto start = shape.NonEmptyText(Keys::start_time);
    if (start && (HoldsNul(*start) || !times.Start.DecodeString(start->c_str()))) {
        shape.Blame(Keys::start_time, "must be a time like \"2026-01-31T12:00:00+00:00\"");
    }
    if (!start && times.Interval_sec == 0 && shape.FaultCount() == before) {
        shape.Blame("", "needs a \"start_time\", or an \"interval_sec\" other than 0");
    }
    return times;
}

}  // namespace

std::string NameFault(std::string_view name) {
    if (name.size() > LongestEventName) {
        return "must not be longer than " + std::to_string(LongestEventName) + " bytes";
    }
    if (name == "." || name == "..") return "must not be \".\" or \"..\", which clients take out of a path";
    return std::string();
}

std::optional<std::string> ReadEventName(Shape& shape, const DocumentSoFar* document) {
    auto name = shape.NonEmptyText(Keys::event_name, Need::Required);
    const std::string fault = name && document == nullptr ? NameFault(*name) : std::string();
    if (!fault.empty()) shape.Blame(Keys::event_name, fault);
    return name;
}

bool IsCallable(const std::string& callback) {
    if (callback.starts_with(PythonScheme)) {
        return IsModuleName(std::string_view(callback).substr(PythonScheme.size()));
    }
    Velmora::URL url;
    return url.ParsePath(callback) || (url.Parse(callback) && IsWebScheme(url.Scheme));
}

ListenerEntry ReadListener(Shape& shape, DocumentSoFar* document) {
    ListenerEntry listener;
    listener.Callback = document != nullptr ? DocumentCallback(shape, *document) : RequestCallback(shape);
    listener.Data = shape.Dict(Keys::listener_data);
    if (document != nullptr) shape.Any(Keys::id);
    shape.NothingElse();
    return listener;
}

TimerEntry ReadTimer(Shape& shape, DocumentSoFar* document) {
    TimerEntry timer;
    timer.EventName = ReadEventName(shape, document);
    timer.Times = ReadTimerTimes(shape);
    timer.Data = shape.Dict(Keys::timer_data);
    if (document != nullptr) shape.Any(Keys::id);
    shape.NothingElse();
    return timer;
}

WatchEntry ReadWatch(Shape& shape, DocumentSoFar* document) {
    WatchEntry watch;
    watch.Path = shape.NonEmptyText(Keys::path, Need::Required);
    if (watch.Path && HoldsNul(*watch.Path)) shape.Blame(Keys::path, "must not hold a NUL");
    if (watch.Path && document != nullptr && !document->Paths.insert(*watch.Path).second) {
        shape.Blame(Keys::path, "stands twice in the document (letter case does not count)");
    }
    watch.EventName = ReadEventName(shape, document);
    watch.Once = shape.Boolean(Keys::once).value_or(false);
    watch.Data = shape.Dict(Keys::watch_data);
    shape.NothingElse();
    return watch;
}

}  // namespace Server
