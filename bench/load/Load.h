// The measurements over sockets: each prints its figures.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Protocol.h"

namespace Bench {

/// `messages` published by `publishers` connections with `in_flight` in all, until every one of `clients` has
/// all of them. Where there are several ports, publications go to the first and clients to each in turn.
struct FanOut {
    std::vector<std::uint16_t> Ports;
    std::size_t Clients;
    std::size_t Publishers;
    std::size_t InFlight;
    std::size_t Messages;
};
void MeasureFanOut(const Protocol& protocol, const FanOut& plan);

/// Published at a steady rate; from before the sending to after the receiving, over all deliveries.
struct Steady {
    std::uint16_t Port;
    std::size_t Clients;
    std::size_t Rate;
    std::size_t Milliseconds;
};
void MeasureLatency(const Protocol& protocol, const Steady& plan);

/// A file is changed, until the feed's client has the posting; and until a bare reader of the kernel's
/// stream, on the other core, has the record.
void MeasureWatch(std::uint16_t port, const std::string& path, std::size_t changes);
void MeasureBareWatch(const std::string& path, std::size_t changes);

/// Takes connections and never answers; prints its port and ends with its standard input.
void BeSilent();

}  // namespace Bench
