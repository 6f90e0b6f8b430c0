// What the kernel knows of the process, under the names that all clients of Prometheus give it.
#pragma once

#include "rest/Metrics.h"

namespace Server {

/// Appends the families process_*; those that the kernel does not tell are left out.
void AppendProcessMetrics(MetricsText& text);

}  // namespace Server
