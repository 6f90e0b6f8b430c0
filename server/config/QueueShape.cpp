// Reads timers' times and watches' paths.
#include "config/QueueShape.h"

#include <limits>

#include "EventManager.h"

namespace Server {

namespace Keys = EventManager::Strings;
using Mirel::i32_t;

namespace {

bool HoldsNul(const std::string& text) {
    return text.find('\0') != std::string::npos;
}

}  // namespace

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

std::optional<std::string> ReadWatchPath(Shape& shape) {
    auto path = shape.NonEmptyText(Keys::path, Need::Required);
    if (path && HoldsNul(*path)) shape.Blame(Keys::path, "must not hold a NUL");
    return path;
}

}  // namespace Server
