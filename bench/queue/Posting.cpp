// What a posting costs its poster, and how fast the feed fans it out.
#include <string>
#include <vector>

#include "Bench.h"
#include "Drain.h"
#include "Queue.h"

namespace Bench {

using EventManager::IEventQueue;

namespace {

constexpr std::size_t Warmup =
    10'000;  // until the heap has grown into huge pages: a fault on every small one costs more
constexpr std::size_t Block =
    16;  // postings timed together: reading the clock costs as much as a third of one
constexpr std::size_t Postings = 300'000;
constexpr std::size_t PostingsToClients = 20'000;  // however many they are, so that rows compare

// Blocks of postings, each timed.
std::vector<double> PostBlocks(IEventQueue& queue, const PListDict& data, std::size_t blocks) {
    std::vector<double> costs;
    costs.reserve(blocks);
    for (std::size_t i = 0; i < blocks; ++i) {
        const std::int64_t before = Now_ns();
        for (std::size_t j = 0; j < Block; ++j) queue.PostEvent(EventName, &data);
        costs.push_back(static_cast<double>(Now_ns() - before) / static_cast<double>(Block));
    }
    return costs;
}

}  // namespace

// The median over blocks, so that what else ran on the core does not count; "mean" is everything.
void MeasurePosting(std::size_t events, std::size_t clients) {
    const std::size_t postings = clients == 0 ? Postings : PostingsToClients;
    const std::size_t blocks = postings / Block;
    std::unique_ptr<FeedClients> readers;
    if (clients > 0) readers = std::make_unique<FeedClients>(clients, Warmup + blocks * Block);
    UseCore(0);
    EventQueue queue(30000);
    CreateEvent(queue);
    Probe::AddEvents(queue, events > 0 ? events - 1 : 0);
    if (readers) readers->AdoptBy(queue);
    const PListDict data = DataForPostingOf(200);
    IEventQueue& posting = queue;
    for (std::size_t i = 0; i < Warmup; ++i) posting.PostEvent(EventName, &data);

    const std::int64_t computed = ThreadTime_ns();
    std::vector<double> costs = PostBlocks(queue, data, blocks);
    Print("mean_ns", static_cast<double>(ThreadTime_ns() - computed) / static_cast<double>(blocks * Block));
    Print("posting_ns", Percentile(costs, 0.5));
    if (readers) readers->AwaitEnd_ns();
}

// From the first posting to the last delivery.
void MeasureFanOut(std::size_t clients, std::size_t messages) {
    FeedClients readers(clients, messages);
    UseCore(0);
    WarmHeap(messages * RecordBytes);
    EventQueue queue(30000);
    CreateEvent(queue);
    readers.AdoptBy(queue);
    const PListDict data = DataForPostingOf(200);
    IEventQueue& posting = queue;
    const std::int64_t start = Now_ns();
    for (std::size_t i = 0; i < messages; ++i) posting.PostEvent(EventName, &data);
    const auto all = static_cast<double>(readers.AwaitEnd_ns() - start);
    Print("deliveries_per_s", static_cast<double>(clients * messages) * 1e9 / all);
}

// What creating one more event costs where there are that many.
void MeasureCreateEvent(std::size_t events) {
    UseCore(0);
    EventQueue queue(500);
    Probe::AddEvents(queue, events);
    IEventQueue& creating = queue;
    std::vector<double> costs;
    for (int i = 0; i < 50; ++i) {
        const std::string name = "further." + std::to_string(i);
        costs.push_back(CostOf([&] { creating.CreateEvent(name, nullptr); }).Wall_ns);
    }
    Print("create_ns", Percentile(costs, 0.5));
}

}  // namespace Bench
