// The history: its memory, and how long reading and trimming keep posters waiting.
#include <malloc.h>

#include <atomic>

#include "Bench.h"
#include "MR_util.h"
#include "Queue.h"

namespace Bench {

using EventManager::IEventQueue;

namespace {

class SteppedClock : public Mirel::Clock {
  public:
    SteppedClock() : m_Now_us(Mirel::Timestamp().Microseconds()) { Mirel::SetClock(this); }
    ~SteppedClock() override { Mirel::SetClock(nullptr); }
    void Step(double seconds) { m_Now_us += static_cast<Mirel::i64_t>(seconds * 1e6); }
    Mirel::i64_t Now_us() override { return m_Now_us; }

  private:
    std::atomic<Mirel::i64_t> m_Now_us;
};

double HeapBytes() {
    const auto info = mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

// As a request posts: every record has data of its own.
void PostTypical(IEventQueue& queue, std::size_t records) {
    const std::string json = [] {
        std::string text;
        (void)TypicalData().EncodeJSON(text);
        return text;
    }();
    for (std::size_t i = 0; i < records; ++i) {
        const PListDict data = Dict(json);
        queue.PostEvent(EventName, &data);
    }
}

double LongestPostingDuring(EventQueue& queue, const std::function<void()>& work) {
    IEventQueue& posting = queue;
    const PListDict data = TypicalData();
    Bystander poster([&] { posting.PostEvent(EventName, &data); }, 2'000'000);
    work();
    return poster.Longest_ns();
}

}  // namespace

void MeasureHistoryBytes(std::size_t records) {
    EventQueue queue(500);
    CreateEvent(queue);
    PostTypical(queue, 1000);
    PListDict history;
    static_cast<IEventQueue&>(queue).GetEventHistory(history);
    std::string json;
    (void)dynamic_cast<const PListArray&>(*std::as_const(history).GetItem("history"))
        .GetItem(0)
        ->EncodeJSON(json);
    history.Clear();

    const double heap = HeapBytes();
    const double resident = ResidentBytes();
    PostTypical(queue, records);
    Print("json_bytes", static_cast<double>(json.size()));
    Print("heap_bytes_per_record", (HeapBytes() - heap) / static_cast<double>(records));
    Print("resident_bytes_per_record", (ResidentBytes() - resident) / static_cast<double>(records));
}

// "…_lock_ns" is what the thread that holds the lock computes meanwhile, at most (all of the call);
// "…_wait_ns" the longest posting of another thread, and "quiet_wait_ns" the same with nothing going on.
void MeasureHistoryLocks(std::size_t records) {
    UseCore(0);
    SteppedClock clock;
    EventQueue queue(500);
    IEventQueue& reading = queue;
    CreateEvent(queue);
    const PListDict data = TypicalData();
    for (std::size_t i = 0; i < records; ++i) reading.PostEvent(EventName, &data);

    Print("quiet_wait_ns", LongestPostingDuring(queue, [] {
              const std::int64_t until = Now_ns() + 20'000'000;
              while (Now_ns() < until) {
              }
          }));
    double reading_ns = 0;
    Print("read_wait_ns", LongestPostingDuring(queue, [&] {
              PListDict history;
              reading_ns = CostOf([&] { reading.GetEventHistory(history); }).Computed_ns;
              const std::int64_t until = Now_ns() + 5'000'000;
              while (Now_ns() < until) {
              }
          }));
    Print("read_lock_ns", reading_ns);

    clock.Step(31);
    double trimming_ns = 0;
    double destroying_ns = 0;
    Print("trim_wait_ns", LongestPostingDuring(queue, [&] {
              trimming_ns = CostOf([&] { Probe::TrimHistory(queue); }).Computed_ns;
              destroying_ns = CostOf([&] { Probe::DestroyTrimmedHistory(queue); }).Computed_ns;
          }));
    Print("trim_lock_ns", trimming_ns);
    Print("destroy_ns", destroying_ns);
}

}  // namespace Bench
