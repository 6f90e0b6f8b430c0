// What /readyz looks at.
#pragma once

#include <string>

#include "EventManager.h"

namespace Server {

/// How long one pass of the worker may take before the server calls itself not ready. A pass waits half a
/// second at most; the rest is work, a slow Python handler's included.
inline constexpr Mirel::ui64_t LongestPass_ms = 5000;

class ClusterGate;

struct CheckOutcome {
    bool Ok;
    std::string Detail;  // for people; names no path, since whoever asks needs no token
};

/// Whether the worker passes, so that timers and watches fire.
CheckOutcome CheckWorker(const EventManager::QueueStatistics& queue);

/// Whether the next save can be expected to succeed. An empty path is fine: nothing is to be saved.
CheckOutcome CheckStateFile(const EventManager::QueueStatistics& queue, const std::string& path);

/// Whether the cluster's engine is there and its registry has been read; fine without a cluster.
CheckOutcome CheckCluster(ClusterGate* gate);

}  // namespace Server
