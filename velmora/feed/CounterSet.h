// What all broadcasters of the process count, behind GetBroadcastCounters().
#pragma once

#include <atomic>
#include <cstdint>

#include "MR_histogram.h"

namespace Velmora::Feed {

/// Each counter is changed from any thread, at most once for a batch of frames; see BroadcastCounters.
struct CounterSet {
    using Counter = std::atomic<std::uint64_t>;
    Counter Clients{0};
    Counter Adopted{0};
    Counter Postings{0};
    Counter FramesDelivered{0};
    Counter BytesDelivered{0};
    Counter SlowDisconnects{0};
    Counter ProtocolErrors{0};
    Counter LogBytes{0};
    Mirel::Histogram Times;
};

constinit inline CounterSet Counters;

inline void Count(CounterSet::Counter& counter, std::uint64_t by = 1) {
    counter.fetch_add(by, std::memory_order_relaxed);
}
inline void Uncount(CounterSet::Counter& counter, std::uint64_t by = 1) {
    counter.fetch_sub(by, std::memory_order_relaxed);
}

}  // namespace Velmora::Feed
