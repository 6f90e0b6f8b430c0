// Times read from a clock that tests may step, and their texts.
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>

#include "MR_util.h"

namespace Mirel {
namespace {

constexpr i64_t Second_us = 1000000;
constexpr i64_t Day_s = 86400;
constexpr i64_t FirstSecond = -62135596800;  // 0001-01-01T00:00:00Z
constexpr i64_t LastSecond = 253402300799;   // 9999-12-31T23:59:59Z

constinit std::atomic<Clock*> g_Clock{nullptr};

i64_t now_us() {
    if (Clock* const clock = g_Clock.load(std::memory_order_acquire)) return clock->Now_us();
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * Second_us + now.tv_nsec / 1000;
}

i64_t FloorDivided(i64_t value, i64_t by) {
    return value / by - (value % by < 0 ? 1 : 0);
}

void PutDigits(char* text, unsigned value, int count) {
    while (count-- > 0) {
        text[count] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
}

// The text of a second within the years 0001 to 9999, and its NUL.
void WriteText(i64_t second, char* text) {
    const i64_t days = FloorDivided(second, Day_s);
    const std::chrono::year_month_day date{std::chrono::sys_days(std::chrono::days(days))};
    const unsigned time = static_cast<unsigned>(second - days * Day_s);
    std::memcpy(text, "0000-00-00T00:00:00+00:00", DateTimeLen + 1);
    PutDigits(text, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    PutDigits(text + 5, static_cast<unsigned>(date.month()), 2);
    PutDigits(text + 8, static_cast<unsigned>(date.day()), 2);
    PutDigits(text + 11, time / 3600, 2);
    PutDigits(text + 14, time / 60 % 60, 2);
    PutDigits(text + 17, time % 60, 2);
}

// Reads a NUL-terminated text from the front. A function that answers false may have taken part of it.
class DateTimeReader {
  public:
    explicit DateTimeReader(const char* text) : m_At(text) {}

    bool Literal(char expected) {
        if (*m_At != expected) return false;
        ++m_At;
        return true;
    }

    // Exactly `count` digits whose value is within the limits.
    bool Number(int count, int least, int most, int& value) {
        value = 0;
        for (int i = 0; i < count; ++i) {
            if (!AtDigit()) return false;
            value = value * 10 + (*m_At++ - '0');
        }
        return value >= least && value <= most;
    }

    // "YYYY-MM-DD" as days since 1970.
    bool Date(i64_t& days) {
        int year, month, day;
        if (!Number(4, 1, 9999, year) || !Literal('-') || !Number(2, 1, 12, month) || !Literal('-') ||
            !Number(2, 1, 31, day)) {
            return false;
        }
        const std::chrono::year_month_day date{std::chrono::year(year),
                                               std::chrono::month(static_cast<unsigned>(month)),
                                               std::chrono::day(static_cast<unsigned>(day))};
        days = std::chrono::sys_days(date).time_since_epoch().count();
        return date.ok();
    }

    // "hh:mm" as minutes.
    bool HoursAndMinutes(int& minutes) {
        int hour, minute;
        if (!Number(2, 0, 23, hour) || !Literal(':') || !Number(2, 0, 59, minute)) return false;
        minutes = hour * 60 + minute;
        return true;
    }

    // ".d…" as microseconds, 0 where there is none.
    bool Fraction(int& microseconds) {
        microseconds = 0;
        if (!Literal('.')) return true;
        if (!AtDigit()) return false;
        for (int weight = 100000; AtDigit(); weight /= 10) microseconds += (*m_At++ - '0') * weight;
        return true;
    }

    // "Z", "+hh:mm" or "-hh:mm" as minutes ahead of UTC.
    bool Offset(int& minutes) {
        minutes = 0;
        if (Literal('Z')) return true;
        const bool behind = Literal('-');
        if (!behind && !Literal('+')) return false;
        if (!HoursAndMinutes(minutes)) return false;
        if (behind) minutes = -minutes;
        return true;
    }

    bool AtEnd() const { return *m_At == '\0'; }

  private:
    bool AtDigit() const { return *m_At >= '0' && *m_At <= '9'; }

    const char* m_At;
};

}  // namespace

void SetClock(Clock* clock) {
    g_Clock.store(clock, std::memory_order_release);
}

Timestamp::Timestamp() : m_Microseconds(now_us()) {}

void Timestamp::AddSeconds(i32_t seconds) {
    using limits = std::numeric_limits<i64_t>;
    const i64_t step = seconds * Second_us;
    if (__builtin_add_overflow(m_Microseconds, step, &m_Microseconds)) {
        m_Microseconds = step < 0 ? limits::min() : limits::max();
    }
}

char* Timestamp::EncodeString(char* buf, ui32_t len) const {
    // Postings follow each other within a second far more often than not: each thread keeps its last text.
    struct LastText {
        i64_t Second = FirstSecond - 1;
        char Text[DateTimeLen + 1] = {};
    };
    constinit thread_local LastText last;

    if (len <= DateTimeLen) {
        if (len > 0) buf[0] = '\0';
        return buf;
    }
    const i64_t second = std::clamp(FloorDivided(m_Microseconds, Second_us), FirstSecond, LastSecond);
    if (second != last.Second) {
        WriteText(second, last.Text);
        last.Second = second;
    }
    std::memcpy(buf, last.Text, sizeof last.Text);
    return buf;
}

std::string Timestamp::Text() const {
    char text[DateTimeLen + 1];
    return std::string(EncodeString(text, sizeof text), DateTimeLen);
}

bool Timestamp::DecodeString(const char* text) {
    if (text == nullptr) return false;
    DateTimeReader reader(text);
    i64_t days;
    int minutes, seconds, microseconds, offset_minutes;
    if (!reader.Date(days) || !reader.Literal('T') || !reader.HoursAndMinutes(minutes) ||
        !reader.Literal(':') || !reader.Number(2, 0, 59, seconds) || !reader.Fraction(microseconds) ||
        !reader.Offset(offset_minutes) || !reader.AtEnd()) {
        return false;
    }
    const i64_t second = days * Day_s + (minutes - offset_minutes) * 60 + seconds;
    if (second < FirstSecond || second > LastSecond) return false;
    m_Microseconds = second * Second_us + microseconds;
    return true;
}

}  // namespace Mirel
