// HTTP listeners: what they cost the poster, how many are called a second, what waiting ones need.
#include <sys/socket.h>
#include <unistd.h>

#include <pthread.h>

#include <thread>

#include "Bench.h"
#include "Queue.h"

namespace Bench {

using EventManager::IEventQueue;

namespace {

constexpr std::size_t SinglePostings = 400;
constexpr std::size_t StackSize = 256 * 1024;

const char* const ListenerData = R"({"priority":1})";

std::size_t Running() {
    return Velmora::GetRequestCounters().Running;
}

void AwaitIdle(EventQueue& queue) {
    Await("callers to end", [&] {
        Probe::Reap(queue);
        return Probe::Callers(queue) == 0;
    });
}

void CheckAllAnswered(std::size_t calls) {
    const auto counters = Velmora::GetRequestCounters();
    Check(counters.AnsweredByClass[2] == calls, "not every call was answered with success");
}

}  // namespace

// Postings one at a time, each with one listener that answers at once, and the same without it.
void MeasureListenerCost(const std::string& url) {
    UseCore(0);
    EventQueue queue(5000);
    IEventQueue& posting = queue;
    CreateEvent(queue);
    const PListDict data = TypicalData();
    std::vector<double> without;
    for (std::size_t i = 0; i < SinglePostings; ++i)
        without.push_back(CostOf([&] { posting.PostEvent(EventName, &data); }).Wall_ns);
    CreateListener(queue, url, ListenerData);
    std::vector<double> with;
    for (std::size_t i = 0; i < SinglePostings; ++i) {
        with.push_back(CostOf([&] { posting.PostEvent(EventName, &data); }).Wall_ns);
        AwaitIdle(queue);
    }
    CheckAllAnswered(SinglePostings);
    Print("poster_us", (Percentile(with, 0.5) - Percentile(without, 0.5)) / 1e3);
}

// At most `in_flight` at a time, counted from their posting on (the threads start later, and a listener's
// backlog would overflow meanwhile), reaped as the worker does.
void MeasureCallers(const std::string& url, std::size_t calls, std::size_t in_flight) {
    UseCore(0);
    EventQueue queue(5000);
    IEventQueue& posting = queue;
    CreateEvent(queue);
    CreateListener(queue, url, ListenerData);
    const PListDict data = TypicalData();
    const std::int64_t start = Now_ns();
    for (std::size_t i = 0; i < calls; ++i) {
        while (Probe::Callers(queue) >= in_flight) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));  // the core is the callers'
            Probe::Reap(queue);
        }
        posting.PostEvent(EventName, &data);
    }
    AwaitIdle(queue);
    const auto all = static_cast<double>(Now_ns() - start);
    CheckAllAnswered(calls);
    Print("calls_per_s", static_cast<double>(calls) * 1e9 / all);
}

// Memory per caller while all wait for a listener that takes connections and never answers. The process
// ends without waiting for them.
void MeasureWaitingCallers(const std::string& url, std::size_t callers) {
    RaiseDescriptorLimit();
    EventQueue queue(100000);
    IEventQueue& posting = queue;
    CreateEvent(queue);
    CreateListener(queue, url, ListenerData);
    const PListDict data = TypicalData();
    posting.PostEvent(EventName, &data);  // what is set up once
    Await("the first caller", [] { return Running() == 1; });
    const double before = ResidentBytes();
    for (std::size_t i = 0; i < callers; ++i) {
        while (Running() + 200 < i) std::this_thread::yield();  // no more than the listener's backlog takes
        posting.PostEvent(EventName, &data);
    }
    Await("callers to wait", [&] { return Running() == callers + 1; });
    std::this_thread::sleep_for(
        std::chrono::milliseconds(300));  // until the last ones have sent their request
    Print("bytes_per_caller", (ResidentBytes() - before) / static_cast<double>(callers));
    _exit(0);
}

// The same of a bare thread with its request's text and one blocking socket.
void MeasureWaitingThreads(std::size_t port, std::size_t callers) {
    RaiseDescriptorLimit();
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, StackSize);
    const auto wait = [](void* argument) -> void* {
        const std::string request(400, 'r');
        const int connection = Connect(static_cast<std::uint16_t>(reinterpret_cast<std::size_t>(argument)));
        SendAll(connection, request.data(), request.size());
        char byte = 0;
        recv(connection, &byte, 1, 0);
        return nullptr;
    };
    const double before = ResidentBytes();
    for (std::size_t i = 0; i < callers; ++i) {
        pthread_t thread{};
        errno = pthread_create(&thread, &attributes, wait, reinterpret_cast<void*>(port));
        Check(errno == 0, "pthread_create");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // until they wait
    Print("bytes_per_thread", (ResidentBytes() - before) / static_cast<double>(callers));
    _exit(0);
}

}  // namespace Bench
