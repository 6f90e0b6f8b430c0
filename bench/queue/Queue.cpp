// The queue filled for a measurement, its feed clients, and a bystander who meets its lock.
#include "Queue.h"

#include <malloc.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <thread>

#include "Bench.h"
#include "Drain.h"
#include "MR_log.h"

namespace EventManager {

void EventQueueProbe::AddEvents(EventQueue& queue, std::size_t count) {
    Mirel::AutoMutex lock(queue.m_EventLock);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = "event." + std::to_string(i);
        queue.m_Events.try_emplace(name, name);
    }
}

void EventQueueProbe::AddTimers(EventQueue& queue, const Timestamp& start, std::size_t count) {
    Mirel::AutoMutex lock(queue.m_TimerLock);
    for (std::size_t i = 0; i < count; ++i) queue.m_Timers.push_back(new Timer(Bench::EventName, 0, start));
}

std::size_t EventQueueProbe::Callers(EventQueue& queue) {
    Mirel::AutoMutex lock(queue.m_EventLock);
    return queue.m_CallerThreads.size();
}

}  // namespace EventManager

namespace Bench {

using EventManager::IEventQueue;

const std::string EventName = "bench.event";

namespace {
constexpr std::size_t BytesAround = 99;  // of a posting, around its data's text
}

void QuietLog() {
    Mirel::DefaultLogSink().Level(Mirel::LOG_ERROR);
}

PListDict Dict(const std::string& json) {
    const auto item = Velmora::PListItem::CreateFromJSON(json);
    const auto* dict = dynamic_cast<const PListDict*>(item.get());
    Check(dict != nullptr, json);
    return *dict;
}

PListDict TypicalData() {
    return Dict(R"({"sensor":"door-17","state":"open","reading":21.5,"battery_percent":87,)"
                R"("note":"opened by outside badge","badge":4711})");
}

PListDict DataForPostingOf(std::size_t bytes) {
    PListDict data;
    data.SetValue("text", std::string(bytes - BytesAround, 'x'));
    return data;
}

void WarmHeap(std::size_t bytes) {
    constexpr std::size_t Piece = 64u << 10;  // of the heap's own memory, not mapped by itself
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    std::vector<std::unique_ptr<char[]>> pieces;
    for (std::size_t taken = 0; taken < bytes; taken += Piece) {
        pieces.push_back(std::make_unique<char[]>(Piece));  // zeroed, and so written to
    }
}

void CreateEvent(EventQueue& queue) {
    Check(static_cast<IEventQueue&>(queue).CreateEvent(EventName, nullptr) == Velmora::STATUS_201_CREATED,
          "creating the event");
}

std::string CreateListener(EventQueue& queue, const std::string& callback, const std::string& data) {
    Mirel::UUID id;
    const PListDict dict = data.empty() ? PListDict() : Dict(data);
    const auto status = static_cast<IEventQueue&>(queue).CreateEventListener(EventName, callback, &dict, id);
    Check(status == Velmora::STATUS_201_CREATED, "creating the listener " + callback);
    return Mirel::UUIDText(id);
}

FeedClients::FeedClients(std::size_t clients, std::size_t messages) {
    RaiseDescriptorLimit();
    std::uint16_t port = 0;
    const int listener = Listen(port);
    int report[2];
    Check(pipe(report) == 0, "pipe");
    m_Process = fork();
    Check(m_Process >= 0, "fork");
    if (m_Process == 0) {
        UseCore(1);
        close(report[0]);
        {
            Drain drain;
            for (std::size_t i = 0; i < clients; ++i) drain.Add(Connect(port));
            drain.ReadMessages(messages, WebSocketFrameSize);
            const std::int64_t end = Now_ns();
            Check(write(report[1], &end, sizeof(end)) == sizeof(end), "write");
        }
        _exit(0);
    }
    close(report[1]);
    m_Report = report[0];
    for (std::size_t i = 0; i < clients; ++i)
        m_Near.push_back(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    close(listener);
}

FeedClients::~FeedClients() {
    close(m_Report);
    waitpid(m_Process, nullptr, 0);
}

void FeedClients::AdoptBy(EventQueue& queue) {
    const std::uint64_t before = Velmora::GetBroadcastCounters().Adopted;
    for (const int near : m_Near) {
        auto session = Velmora::TCPSession::WebSocket(near, "bench");
        static_cast<IEventQueue&>(queue).AdoptWsClient(session);
    }
    Await("adopting", [&] { return Velmora::GetBroadcastCounters().Adopted >= before + m_Near.size(); });
}

std::int64_t FeedClients::AwaitEnd_ns() {
    std::int64_t end = 0;
    Check(read(m_Report, &end, sizeof(end)) == sizeof(end), "the feed's clients did not get everything");
    return end;
}

Cost CostOf(const std::function<void()>& work) {
    const std::int64_t wall = Now_ns();
    const std::int64_t computed = ThreadTime_ns();
    work();
    const auto computed_ns = static_cast<double>(ThreadTime_ns() - computed);
    return {static_cast<double>(Now_ns() - wall), computed_ns};
}

struct Bystander::Shared {
    std::function<void()> Deed;
    std::atomic<bool> Started{false};
    std::atomic<bool> Ended{false};
    double Longest_ns = 0;  // the thread's own until it has ended
    std::thread Thread;

    void Run(std::size_t most) {
        for (std::size_t i = 0; i < most && !Ended; ++i) {
            const std::int64_t before = Now_ns();
            Deed();
            Longest_ns = std::max(Longest_ns, static_cast<double>(Now_ns() - before));
            Started = true;
        }
    }
};

Bystander::Bystander(std::function<void()> deed, std::size_t most) : m_Shared(std::make_unique<Shared>()) {
    m_Shared->Deed = std::move(deed);
    m_Shared->Thread = std::thread([this, most] {
        UseCore(1);
        m_Shared->Run(most);
    });
    Await("the bystander", [this] { return m_Shared->Started.load(); });
}

Bystander::~Bystander() {
    m_Shared->Ended = true;
    if (m_Shared->Thread.joinable()) m_Shared->Thread.join();
}

double Bystander::Longest_ns() {
    m_Shared->Ended = true;
    m_Shared->Thread.join();
    return m_Shared->Longest_ns;
}

}  // namespace Bench
