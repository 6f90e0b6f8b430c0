// The module's own figures, one measurement a process:
//
//   queue_bench posting EVENTS CLIENTS      fanout CLIENTS MESSAGES      create-event EVENTS
//   queue_bench python                      history-bytes RECORDS        history-locks RECORDS
//   queue_bench save BYTES                  start                        timers TIMERS DUE
//   queue_bench restore EVENTS
//   queue_bench listener-cost URL           callers URL CALLS IN_FLIGHT
//   queue_bench waiting-callers URL CALLERS waiting-threads PORT THREADS
#include <cstdio>
#include <functional>
#include <map>
#include <string>

#include "queue/Queue.h"
#include "support/Bench.h"

int main(int argc, char** argv) {
    using namespace Bench;
    const auto number = [&](int index, std::size_t otherwise) {
        return Number(argc, argv, index + 1, otherwise);
    };
    const std::string url = argc > 2 ? argv[2] : "";
    const std::map<std::string, std::function<void()>> measurements = {
        {"posting", [&] { MeasurePosting(number(1, 1), number(2, 0)); }},
        {"fanout", [&] { MeasureFanOut(number(1, 10), number(2, 10000)); }},
        {"create-event", [&] { MeasureCreateEvent(number(1, 1000)); }},
        {"python", [] { MeasurePython(); }},
        {"history-bytes", [&] { MeasureHistoryBytes(number(1, 100000)); }},
        {"history-locks", [&] { MeasureHistoryLocks(number(1, 1000000)); }},
        {"save", [&] { MeasureSave(number(1, 10000)); }},
        {"start", [] { MeasureStart(); }},
        {"restore", [&] { MeasureRestore(number(1, 100000)); }},
        {"timers", [&] { MeasureTimers(number(1, 100000), number(2, 0)); }},
        {"listener-cost", [&] { MeasureListenerCost(url); }},
        {"callers", [&] { MeasureCallers(url, number(2, 2000), number(3, 64)); }},
        {"waiting-callers", [&] { MeasureWaitingCallers(url, number(2, 10000)); }},
        {"waiting-threads", [&] { MeasureWaitingThreads(number(1, 0), number(2, 10000)); }},
    };
    const auto found = measurements.find(argc > 1 ? argv[1] : "");
    if (found == measurements.end()) {
        std::fprintf(stderr, "queue_bench: no such measurement; they are:");
        for (const auto& [name, measure] : measurements) std::fprintf(stderr, " %s", name.c_str());
        std::fprintf(stderr, "\n");
        return 1;
    }
    QuietLog();
    found->second();
    return 0;
}
