// The measurements beside a cluster: each prints its figures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

/// One posting at a time at one node, until the feed at another has it; in turns with one plain publish to
/// the engine, until an ordered consumer that is connected where the other node is has it.
struct Turns {
    std::uint16_t PostAt, FeedAt;
    std::string PublishAt, ListenAt;  // the engine's
    std::size_t Count;
};
void MeasureTurns(const Turns& plan);

/// Asynchronous publishing with message ids over one connection to each of the engine's servers.
void MeasureRaw(const std::vector<std::string>& servers, std::size_t messages, std::size_t window);

/// A Redis stream: each poster adds and waits until a replica has it, three consumers of one group read and
/// acknowledge.
void MeasureStream(std::uint16_t port, std::size_t messages, std::size_t posters);

}  // namespace Bench
