// What the log says of a start.
#pragma once

#include <string>
#include <vector>

#include "EventManager.h"
#include "config/Config.h"

namespace Server {

/// Where the queue's content came from.
enum class QueueOrigin { StateFile, Configuration, Cluster };

/// What was loaded, a line for each thing: the configuration file (empty: none), the queue with how many it
/// holds of each, the address with what guards it. No secrets.
std::vector<std::string> StartLines(const Config& config, const std::string& config_file,
                                    const std::string& url, QueueOrigin origin,
                                    const EventManager::QueueStatistics& queue);

}  // namespace Server
