// What a cluster stands beside: the bare engine, and Redis streams.
//
//   cluster_bench turns PORT_A PORT_B URL_A URL_B COUNT
//   cluster_bench raw MESSAGES WINDOW URL...      cluster_bench stream PORT MESSAGES POSTERS
#include <cstdio>
#include <string>

#include "cluster/Measures.h"
#include "support/Bench.h"

int main(int argc, char** argv) {
    using namespace Bench;
    const auto number = [&](int index) { return Number(argc, argv, index, 0); };
    const auto port = [&](int index) { return static_cast<std::uint16_t>(number(index)); };
    const std::string what = argc > 1 ? argv[1] : "";
    if (what == "turns" && argc == 7)
        MeasureTurns({port(2), port(3), argv[4], argv[5], number(6)});
    else if (what == "raw" && argc > 4)
        MeasureRaw({argv + 4, argv + argc}, number(2), number(3));
    else if (what == "stream" && argc == 5)
        MeasureStream(port(2), number(3), number(4));
    else
        return std::fprintf(stderr, "cluster_bench turns|raw|stream …\n"), 1;
    return 0;
}
