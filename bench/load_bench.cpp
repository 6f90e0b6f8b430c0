// The load, driven over sockets from core 1 against a server on core 0:
//
//   load_bench fanout PROTOCOL PORT[,PORT...] CLIENTS PUBLISHERS IN_FLIGHT MESSAGES
//   load_bench latency PROTOCOL PORT CLIENTS RATE MILLISECONDS
//   load_bench watch PORT PATH CHANGES      load_bench bare-watch PATH CHANGES      load_bench silent
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "load/Load.h"
#include "support/Bench.h"

namespace {

constexpr std::size_t Payload = 200;

std::vector<std::uint16_t> Ports(const char* list) {
    std::vector<std::uint16_t> ports;
    std::istringstream text(list);
    for (std::string port; std::getline(text, port, ',');)
        ports.push_back(static_cast<std::uint16_t>(std::stoul(port)));
    return ports;
}

int Usage() {
    std::fprintf(stderr, "load_bench fanout|latency|watch|bare-watch|silent …\n");
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace Bench;
    const auto number = [&](int index) { return Number(argc, argv, index, 0); };
    const auto port = [&](int index) { return static_cast<std::uint16_t>(number(index)); };
    const std::string what = argc > 1 ? argv[1] : "";
    UseCore(1);
    RaiseDescriptorLimit();
    if (what == "fanout" && argc == 8)
        MeasureFanOut(ProtocolNamed(argv[2], Payload, false),
                      {Ports(argv[3]), number(4), number(5), number(6), number(7)});
    else if (what == "latency" && argc == 7)
        MeasureLatency(ProtocolNamed(argv[2], Payload, true), {port(3), number(4), number(5), number(6)});
    else if (what == "watch" && argc == 5)
        MeasureWatch(port(2), argv[3], number(4));
    else if (what == "bare-watch" && argc == 4)
        MeasureBareWatch(argv[2], number(3));
    else if (what == "silent")
        BeSilent();
    else
        return Usage();
    return 0;
}
