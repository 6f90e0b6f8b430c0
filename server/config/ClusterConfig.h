// The part of the configuration that makes a server a node of a cluster.
#pragma once

#include <filesystem>
#include <vector>

#include "Cluster.h"
#include "VL_PList.h"
#include "config/Shape.h"

namespace Server {

/// Reads the dictionary "Cluster"; relative paths are relative to `directory`.
Cluster::Settings ReadCluster(const Velmora::PListDict& dict, const std::filesystem::path& directory,
                              std::vector<Fault>& faults);

/// What is in force, secrets hidden.
Velmora::PListDict ClusterInForce(const Cluster::Settings& settings);

}  // namespace Server
