// Times: texts both ways, against the C library's.
#include <gtest/gtest.h>
#include <time.h>

#include <limits>
#include <sstream>
#include <string>
#include <utility>

#include "MR_util.h"
#include "Testing.h"

using Mirel::i64_t;
using Mirel::Timestamp;

namespace {

constexpr i64_t Day_us = 86400LL * 1000000;

Timestamp At(i64_t microseconds) {
    return Timestamp::FromMicroseconds(microseconds);
}

// The C library's idea of the same text.
std::string ExpectedText(i64_t second) {
    const time_t time = second;
    tm fields{};
    gmtime_r(&time, &fields);
    char text[100];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d+00:00", fields.tm_year + 1900,
             fields.tm_mon + 1, fields.tm_mday, fields.tm_hour, fields.tm_min, fields.tm_sec);
    return text;
}

}  // namespace

TEST(Timestamp, KeepsEverySecondThroughItsText) {
    const i64_t first = -62135596800, last = 253402300799;
    for (i64_t second = first; second <= last; second += 86399) {  // every day, at ever other times
        const std::string text = At(second * 1000000 + 999999).Text();
        Timestamp back = At(0);
        ASSERT_TRUE(back.DecodeString(text.c_str())) << text;
        ASSERT_EQ(back.Microseconds(), second * 1000000) << text;
        ASSERT_EQ(text, ExpectedText(second));
    }
}

TEST(Timestamp, ReadsAnyOffsetAndFraction) {
    const std::pair<const char*, i64_t> cases[] = {{"1970-01-01T00:00:00Z", 0},
                                                   {"1970-01-01T23:59:00+23:59", 0},
                                                   {"1969-12-31T00:01:00-23:59", 0},
                                                   {"1970-01-02T05:30:00+05:30", Day_us},
                                                   {"1970-01-01T00:00:01.5Z", 1500000},
                                                   {"1970-01-01T00:00:00.000001+00:00", 1},
                                                   {"1970-01-01T00:00:00.1234569999999999999999Z", 123456},
                                                   {"1969-12-31T23:59:59.999999Z", -1},
                                                   {"0001-01-01T00:00:00Z", -719162 * Day_us}};
    for (const auto& [text, microseconds] : cases) {
        Timestamp time = At(42);
        EXPECT_TRUE(time.DecodeString(text)) << text;
        EXPECT_EQ(time.Microseconds(), microseconds) << text;
    }
}

TEST(Timestamp, RefusesEverythingElseAndStaysAsItWas) {
    std::istringstream refused(
        ";now;2026-01-31;2026-02-31T00:00:00Z;2025-02-29T00:00:00Z;2100-02-29T00:00:00Z;2026-13-01T00:00:00Z;"
        "2026-00-01T00:00:00Z;2026-01-00T00:00:00Z;0000-01-01T00:00:00Z;2026-01-31T24:00:00Z;"
        "2026-01-31T00:60:00Z;2026-01-31T23:59:60Z;2026-01-31T23:59:61Z;2026-01-31T00:00:00;"
        "2026-01-31T00:00:00z;2026-01-31 00:00:00Z;2026-01-31T00:00:00.Z;2026-01-31T00:00:00,5Z;"
        "2026-01-31T00:00:00+24:00;2026-01-31T00:00:00+00:60;2026-01-31T00:00:00+0000;"
        "2026-01-31T00:00:00+00:00 ;2026-01-31T00:00:00ZZ; 2026-01-31T00:00:00Z;+026-01-31T00:00:00Z;"
        "12026-01-31T00:00:00Z;2026-1-31T00:00:00Z;0001-01-01T00:00:00+00:01;9999-12-31T23:59:59-00:01");
    Timestamp time = At(42);
    for (std::string text; std::getline(refused, text, ';');)
        EXPECT_FALSE(time.DecodeString(text.c_str())) << text;
    EXPECT_FALSE(time.DecodeString(nullptr));
    EXPECT_EQ(time.Microseconds(), 42);
}

TEST(Timestamp, EncodesIntoTheBufferItIsGiven) {
    char buf[64] = "unchanged";
    EXPECT_EQ(At(0).EncodeString(buf, 0), buf);
    EXPECT_STREQ(buf, "unchanged");
    EXPECT_STREQ(At(0).EncodeString(buf, 25), "");
    EXPECT_STREQ(At(0).EncodeString(buf, 26), "1970-01-01T00:00:00+00:00");
    EXPECT_STREQ(At(-1).EncodeString(buf, sizeof buf), "1969-12-31T23:59:59+00:00");

    using limits = std::numeric_limits<i64_t>;
    Timestamp latest = At(limits::max() - 1), earliest = At(limits::min() + 1);
    latest.AddSeconds(1);
    earliest.AddSeconds(-1);
    EXPECT_EQ(latest.Microseconds(), limits::max());
    EXPECT_EQ(latest.Text(), "9999-12-31T23:59:59+00:00");
    EXPECT_EQ(earliest.Microseconds(), limits::min());
    EXPECT_EQ(earliest.Text(), "0001-01-01T00:00:00+00:00");
}

TEST(Timestamp, IsNowByTheProcessesClock) {
    const time_t before = time(nullptr);
    const i64_t now = Timestamp().Microseconds() / 1000000;
    EXPECT_GE(now, before);
    EXPECT_LE(now, time(nullptr) + 1);  // which may lag by a tick

    const Testing::SteppedClock clock("2026-03-01T12:00:00+00:00");
    Timestamp later;
    EXPECT_EQ(later, Timestamp());
    later.AddSeconds(-43200);
    EXPECT_LT(later, Timestamp());
    EXPECT_EQ(later.Text(), "2026-03-01T00:00:00+00:00");
}
