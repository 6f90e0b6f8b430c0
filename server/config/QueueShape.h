// Members that queue state documents and requests have in common, as strictly wherever they come from.
#pragma once

#include <optional>
#include <string>

#include "MR_types.h"
#include "MR_util.h"
#include "config/Shape.h"

namespace Server {

/// When a timer fires: first at `Start`, or where there is an interval (not 0) that long after its creation.
struct TimerTimes {
    Mirel::Timestamp Start;
    Mirel::i64_t Interval_sec = 0;
};

/// Takes "start_time" and "interval_sec". An interval fits into 32 bits, since of a longer one the queue
/// would apply these bits only, and a start time is read also where the interval makes it unused. Whatever is
/// wrong is a fault, and that neither is there.
TimerTimes ReadTimerTimes(Shape& shape);

/// Takes the path of a watch, which must be there and hold no NUL: the kernel would watch what stands before
/// it.
std::optional<std::string> ReadWatchPath(Shape& shape);

}  // namespace Server
