// The live queue under measurement, with its phases in reach.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "EventManager.h"

namespace EventManager {

/// The parts of a pass, and the registries themselves, where filling them call by call would take too long.
struct EventQueueProbe {
    static void UseStateFile(EventQueue& queue, const std::string& path) { queue.UseStateFile(path); }
    static Result_t Save(EventQueue& queue) { return queue.SaveState(); }
    static void TrimHistory(EventQueue& queue) { queue.TrimHistory(); }
    static void DestroyTrimmedHistory(EventQueue& queue) { queue.DestroyTrimmedHistory(); }
    static void FireTimers(EventQueue& queue) { queue.FireTimers(); }
    static void Reap(EventQueue& queue) { queue.ReapCallersAndTrimHistory(); }
    static void AddEvents(EventQueue& queue, std::size_t count);
    static void AddTimers(EventQueue& queue, const Timestamp& start, std::size_t count);
    static std::size_t Callers(EventQueue& queue);
};

}  // namespace EventManager

namespace Bench {

using EventManager::EventQueue;
using Probe = EventManager::EventQueueProbe;
using Velmora::PListArray;
using Velmora::PListDict;

extern const std::string EventName;

/// Logs errors only, as an operator's server does not log every posting.
void QuietLog();

/// `json` as a dictionary.
PListDict Dict(const std::string& json);

/// What a sensor would post; the whole posting is then 214 bytes of JSON.
PListDict TypicalData();
/// Such that a posting is as many bytes of JSON.
PListDict DataForPostingOf(std::size_t bytes);

/// Takes memory, writes to all of it and gives it back to the heap, which keeps it: what follows finds memory
/// as a process does that has run for a while. A page that the machine has to find first costs up to 12 us.
void WarmHeap(std::size_t bytes);
/// What a posting leaves in the history, at most.
constexpr std::size_t RecordBytes = 400;

/// Creates the event `EventName`.
void CreateEvent(EventQueue& queue);
std::string CreateListener(EventQueue& queue, const std::string& callback, const std::string& data);

/// A process of its own on the other core, forked before this one has a thread, that connects `clients` times
/// and reads until each connection has got that many frames. The near ends are adopted by a queue.
class FeedClients {
  public:
    FeedClients(std::size_t clients, std::size_t messages);
    ~FeedClients();
    FeedClients(const FeedClients&) = delete;
    FeedClients& operator=(const FeedClients&) = delete;

    void AdoptBy(EventQueue& queue);
    /// When the last message was read, on the common clock.
    std::int64_t AwaitEnd_ns();

  private:
    std::vector<int> m_Near;
    int m_Report = -1;
    int m_Process = -1;
};

/// Runs `work` and answers how long it took, in nanoseconds of wall-clock and of this thread's computing
/// time.
struct Cost {
    double Wall_ns;
    double Computed_ns;
};
Cost CostOf(const std::function<void()>& work);

/// Another thread that does one thing over and over while the object lives, and knows the longest it took.
class Bystander {
  public:
    /// `most`: it is not done more often than that.
    Bystander(std::function<void()> deed, std::size_t most);
    ~Bystander();
    /// Ends it.
    double Longest_ns();

  private:
    struct Shared;
    std::unique_ptr<Shared> m_Shared;
};

// The measurements: each prints its figures. Arguments stand in queue_bench.cpp.
void MeasurePosting(std::size_t events, std::size_t clients);
void MeasureFanOut(std::size_t clients, std::size_t messages);
void MeasurePython();
void MeasureHistoryBytes(std::size_t records);
void MeasureHistoryLocks(std::size_t records);
void MeasureSave(std::size_t bytes);
void MeasureStart();
void MeasureRestore(std::size_t events);
void MeasureTimers(std::size_t timers, std::size_t due);
void MeasureListenerCost(const std::string& url);
void MeasureCallers(const std::string& url, std::size_t calls, std::size_t in_flight);
void MeasureWaitingCallers(const std::string& url, std::size_t callers);
void MeasureWaitingThreads(std::size_t port, std::size_t callers);
void MeasureCreateEvent(std::size_t events);

}  // namespace Bench
