// velmora-server: starts everything in order, waits for a signal, and ends everything in order.
#include <malloc.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <thread>

#include "Cluster.h"
#include "EventManager.h"
#include "MR_log.h"
#include "VL_HTTP.h"
#include "VL_Python.h"
#include "VL_WebSocket.h"
#include "config/CommandLine.h"
#include "config/Config.h"
#include "config/StateFile.h"
#include "config/Tokens.h"
#include "deliveries/ClusterDeliveries.h"
#include "deliveries/DeliveryEngine.h"
#include "deliveries/DeliveryJournal.h"
#include "http/HttpServer.h"
#include "rest/ClusterGate.h"
#include "rest/Handlers.h"
#include "rest/Router.h"
#include "service/Reload.h"
#include "service/ServiceManager.h"
#include "service/StartLog.h"

namespace {

using namespace std::chrono_literals;
using Mirel::Result_t;
using Server::Config;
using Server::ConfigFault;

constexpr Mirel::ui32_t JoinLimit_ms = 10000;     // for the cluster's registry, when the server starts
constexpr Mirel::ui32_t RequestsLimit_ms = 5000;  // for requests in progress, when the server ends
constexpr Mirel::ui32_t PostingsLimit_ms = 5000;  // for what Python handlers have posted, then

int Fail(const std::string& reason) {
    std::fprintf(stderr, "velmora-server: %s\n", reason.c_str());
    return 1;
}

std::string FaultText(const ConfigFault& fault) {
    return Mirel::EscapeForLog((fault.Pointer.empty() ? "" : fault.Pointer + ": ") + fault.What);
}

int Refuse(const std::vector<ConfigFault>& faults) {
    const std::string more =
        faults.size() > 1 ? " (and " + std::to_string(faults.size() - 1) + " more: see --check)" : "";
    return Fail("Cannot use the configuration: " + FaultText(faults[0]) + more);
}

// Everything that can be found out without serving; one line for each fault and warning.
int Check(const Config& config, std::vector<ConfigFault> faults) {
    std::vector<ConfigFault> warnings;
    Server::CheckMachine(config, faults, warnings);
    for (const ConfigFault& fault : faults) Fail(FaultText(fault));
    for (const ConfigFault& warning : warnings) Fail("warning: " + FaultText(warning));
    if (faults.empty()) std::puts("The configuration is fine.");
    return faults.empty() ? 0 : 1;
}

int HashToken() {
    std::string token, fault;
    std::getline(std::cin, token);
    const std::optional<std::string> hash = Server::HashOfToken(token, fault);
    if (!hash) return Fail("Cannot hash the token: " + fault);
    std::puts(hash->c_str());
    return 0;
}

void SetUpLog(const Config& config) {
    // Lives as long as any thread may log, which is longer than main().
    static Mirel::ILogSink* sink = nullptr;
    const Mirel::LogReader reader = Mirel::LogReaderOf(STDERR_FILENO);
    if (config.LogAsJSON) {
        sink = new Mirel::JSONLogSink(STDERR_FILENO, reader);
    } else {
        sink = new Mirel::TextLogSink(STDERR_FILENO, reader);
    }
    Mirel::SetDefaultLogSink(sink);
    Mirel::DefaultLogSink().Level(config.LogLevel);
}

// As many descriptors as the system allows this process: every client is one.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        Mirel::DefaultLogSink().Warn("Cannot raise the limit of descriptors: %s\n", std::strerror(errno));
    }
}

sem_t ending;
std::atomic<int> ending_signal{0};

void OnEnding(int number) {
    ending_signal = number;
    sem_post(&ending);
}

std::atomic<bool> reload_wanted{false};
bool reload_left_behind = false;  // by Run(), behind a handler that does not return

void OnReload(int) {
    reload_wanted = true;
    sem_post(&ending);
}

void OnNothing(int) {}

void Handle(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
}

// Nothing is blocked or ignored: programs that Python handlers start would inherit that, and could not be
// ended.
void SetUpSignals() {
    sem_init(&ending, 0, 0);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);  // whatever this process has inherited itself
    // A peer that has gone and a file that may not grow are found where they are written to.
    for (const int number : {SIGPIPE, SIGXFSZ}) Handle(number, OnNothing);
    Handle(SIGHUP, OnReload);
    for (const int number : {SIGINT, SIGTERM}) Handle(number, OnEnding);
}

// Until a signal has come, or until then; 0: as long as it takes.
void WaitUntilWoken(std::chrono::microseconds limit) {
    if (limit.count() == 0) {
        sem_wait(&ending);
        return;
    }
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const auto ns = std::chrono::nanoseconds(limit).count() + until.tv_nsec;
    until.tv_sec += ns / 1000000000;
    until.tv_nsec = ns % 1000000000;
    sem_clockwait(&ending, CLOCK_MONOTONIC, &until);
}

// How long to wait for a signal before something has to be looked at; 0: as long as it takes.
std::chrono::microseconds LookInterval(const Server::Watchdog& watchdog, const Server::Reload& reload) {
    const std::chrono::microseconds one = watchdog.Interval(), other = reload.LookInterval();
    return one.count() == 0 || other.count() == 0 ? std::max(one, other) : std::min(one, other);
}

void WaitForSignal(const Server::ServiceManager& manager, Server::Reload& reload) {
    Server::Watchdog watchdog(manager);
    while (ending_signal == 0) {
        WaitUntilWoken(LookInterval(watchdog, reload));
        if (reload_wanted.exchange(false)) reload.Start();
        reload.LookAtIdentity();
        watchdog.Look();
    }
    reload.End();
    manager.Tell("STOPPING=1");
    const int number = ending_signal;
    // The next one ends the process at once.
    for (const int next : {SIGINT, SIGTERM}) Handle(next, SIG_DFL);
    Mirel::DefaultLogSink().Notice("Ending on signal %d (%s)\n", number, strsignal(number));
}

// The end takes too long: a Python handler that never returns holds what the rest waits for.
void OnEndLimit(int) {
    static constexpr char Text[] = "velmora-server: the orderly end took too long, giving up\n";
    const ssize_t written = write(STDERR_FILENO, Text, sizeof Text - 1);
    _exit(written < 0 ? 2 : 1);
}

void LimitEnd(Mirel::ui32_t limit_ms) {
    Handle(SIGALRM, OnEndLimit);
    itimerval limit{};
    limit.it_value = {static_cast<time_t>(limit_ms / 1000), static_cast<suseconds_t>(limit_ms % 1000 * 1000)};
    setitimer(ITIMER_REAL, &limit, nullptr);
}

void WaitForCallers(Mirel::i32_t timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms) + 1s;
    while (Velmora::GetRequestCounters().Running > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
}

// The order is that of who might still cause work for whom.
int End(Server::HttpServer& server, const Config& config, Server::DeliveryEngine* deliveries,
        Cluster::ICluster* node) {
    LimitEnd(config.EndTimeout_ms);
    server.Stop(RequestsLimit_ms);
    if (node) node->BeginEnd();
    const Result_t stopped = EventManager::StopEventQueue();
    if (stopped.Failure())
        Mirel::DefaultLogSink().Error("Stopping the queue failed: %s\n", stopped.Message());
    Velmora::StopHandlerPostings(PostingsLimit_ms);
    if (deliveries != nullptr) deliveries->Stop();
    WaitForCallers(config.Timeout_ms);
    if (node) node->End();
    Velmora::CloseAllWebSocketClients();
    const Result_t saved = EventManager::SaveEventQueue();
    if (saved.Failure()) return Fail(std::string("Saving the state failed: ") + saved.Message());
    Mirel::DefaultLogSink().Notice("Ended\n");
    return stopped.Success() ? 0 : 1;
}

// A node's queue is the cluster's; what the configuration holds is for an empty cluster.
Result_t StartNode(const Config& config, Mirel::ui16_t port, Server::ClusterDeliveries* deliveries,
                   std::unique_ptr<Cluster::ICluster>& node) {
    const Result_t handlers = Server::SetUpHandlers(config);
    if (handlers.Failure()) return handlers;
    Cluster::Settings settings = config.Node;
    settings.MostCallers = config.MaxCallers / 2 + 1;  // each posting may have many listeners
    const Result_t made = Cluster::MakeNode(settings, static_cast<Mirel::ui32_t>(config.Timeout_ms), node);
    if (made.Failure()) return made;
    if (deliveries != nullptr) deliveries->Use(*node);
    const Velmora::PListDict dict = config.ForEventQueue(port, Velmora::PListDict());
    const Result_t started = EventManager::StartEventQueue(node->Queue(), dict, nullptr);
    if (started.Success()) node->Join(config.EventManager, JoinLimit_ms);
    return started;
}

// What a single server has saved, or GET /api/v1/queue has answered, into the cluster.
int ImportState(const Config& config, const std::string& file) {
    if (!config.Node.IsConfigured()) return Fail("--import-state: the configuration names no \"Cluster\"");
    std::optional<Velmora::PListDict> document;
    const Result_t read = Server::ReadStateFile(file, document);
    if (read.Failure()) return Fail(read.Message());
    if (!document) return Fail("--import-state: \"" + file + "\" is not there, or is empty");
    std::unique_ptr<Cluster::ICluster> node;
    const Result_t made = Cluster::MakeNode(config.Node, static_cast<Mirel::ui32_t>(config.Timeout_ms), node);
    if (made.Failure()) return Fail(made.Message());
    Velmora::PListDict state;
    const Result_t imported = node->Import(*document, JoinLimit_ms, state);
    node->End();
    if (imported.Failure()) return Fail(imported.Message());
    const std::vector<std::string> left_out = Server::LeftOut(*document, state);
    for (const std::string& entry : left_out) Fail("left out: " + Mirel::EscapeForLog(entry));
    if (left_out.empty()) std::puts("The cluster has everything that the file holds.");
    return left_out.empty() ? 0 : 1;
}

// Restores without limits, which would cut what was saved under higher ones; then they are set. What was left
// out for another reason is kept before the first save takes the file's place.
Result_t StartQueue(const Config& config, Mirel::ui16_t port, Server::QueueOrigin& origin) {
    std::optional<Velmora::PListDict> document;
    const Result_t read = Server::ReadStateFile(config.StateFile, document);
    if (read.Failure()) return read;
    origin = document ? Server::QueueOrigin::StateFile : Server::QueueOrigin::Configuration;
    const Result_t handlers = Server::SetUpHandlers(config);
    if (handlers.Failure()) return handlers;
    const auto restored = [&] {
        EventManager::IEventQueue& queue = EventManager::GlobalEventQueue();
        queue.SetMaxListeners(config.MaxListeners);
        queue.SetMaxWatches(config.MaxWatches);
        if (!document) return Mirel::RESULT_OK;
        Velmora::PListDict state;
        queue.GetQueueState(state);
        return Server::KeepStateFileBefore(config.StateFile, Server::LeftOut(*document, state));
    };
    const Velmora::PListDict dict = config.ForEventQueue(port, document ? *document : config.EventManager);
    const Result_t started = EventManager::RestoreEventQueue(dict, restored);
    if (started.Success()) return started;
    return started.WithMessage(std::string("Cannot start the event queue: ") + started.Message());
}

// Until the restored watches are the kernel's and timers fire; or not, which /readyz then says.
void WaitForWorker() {
    while (ending_signal == 0) {
        const EventManager::QueueStatistics queue = EventManager::GetQueueStatistics();
        if (queue.WorkerRunning || queue.WorkerEnded) return;
        std::this_thread::sleep_for(1ms);
    }
}

void SayWhatWasLoaded(const Config& config, const std::string& config_file, const std::string& url,
                      Server::QueueOrigin origin) {
    const EventManager::QueueStatistics queue = EventManager::GetQueueStatistics();
    for (const std::string& line : Server::StartLines(config, config_file, url, origin, queue))
        Mirel::DefaultLogSink().Notice("%s\n", line.c_str());
}

// What makes the calls where the configuration asks for it; null where the queue does. Never destroyed: calls
// may come as long as the process runs.
Result_t MakeDeliveries(const Config& config, Server::DeliveryEngine*& deliveries,
                        Server::ClusterDeliveries*& shared) {
    deliveries = nullptr;
    shared = nullptr;
    if (!config.Deliveries.On) return Mirel::RESULT_OK;
    auto store = std::make_unique<Server::DeliveryStore>();
    if (config.Node.IsConfigured()) {
        store.reset(shared = new Server::ClusterDeliveries);
    } else if (!config.Deliveries.Journal.empty()) {
        auto journal = std::make_unique<Server::DeliveryJournal>();
        const Result_t opened = journal->Open(config.Deliveries.Journal);
        if (opened.Failure()) return opened;
        store = std::move(journal);
    }
    const auto timeout_ms = static_cast<Mirel::ui32_t>(config.Timeout_ms);
    static Server::DeliveryEngine* made = nullptr;
    made = new Server::DeliveryEngine({config.Deliveries, config.Destinations, timeout_ms, config.MaxCallers},
                                      std::move(store));
    deliveries = made;
    EventManager::UseListenerCaller(made);
    return Mirel::RESULT_OK;
}

// Where the journal is stays as it was at the start.
void TakeDeliveriesAnew(Server::Reload& reload, Server::DeliveryEngine* deliveries) {
    if (deliveries == nullptr) return;
    reload.AlsoTakes(
        {"/Destinations", "/Deliveries/Keep", "/Deliveries/KeepBytes", "/Deliveries/MaxWaiting",
         "/Deliveries/MaxWaitingBytes", "/Deliveries/MaxAge_sec", "/Limits/MaxCallers"},
        [deliveries](const Config& config) {
            deliveries->TakeAnew({config.Deliveries, config.Destinations,
                                  static_cast<Mirel::ui32_t>(config.Timeout_ms), config.MaxCallers});
        });
}

// When the queue is there: what was kept is for its listeners.
void StartDeliveries(Server::DeliveryEngine* deliveries, const Server::HttpServer& server) {
    if (deliveries == nullptr) return;
    Velmora::URL self;
    (void)self.Parse(server.Url());
    deliveries->Start(self);
}

// Bind, restore the queue, serve: a restored timer that calls the server itself finds it.
int Run(const Config& config, const Server::CommandLine& command_line) {
    static const Server::ServiceManager manager;  // a reload may outlive this
    Server::Router router(config);
    Server::HttpServer server(config.Http, router);
    router.CountersFrom([&server] { return server.Counters(); });
    const Result_t bound = server.Bind();
    if (bound.Failure()) return Fail(bound.Message());
    const auto reload = std::make_shared<Server::Reload>(command_line, config, server, manager);
    router.ReloadWith(reload.get());

    const Result_t locked = Server::LockStateFile(config.StateFile);
    if (locked.Failure()) return Fail(locked.Message());
    Velmora::SetMaxCallers(config.MaxCallers);
    Server::DeliveryEngine* deliveries = nullptr;
    Server::ClusterDeliveries* shared = nullptr;
    const Result_t made = MakeDeliveries(config, deliveries, shared);
    if (made.Failure()) return Fail(made.Message());
    router.DeliveriesFrom(deliveries);
    TakeDeliveriesAnew(*reload, deliveries);
    Server::QueueOrigin origin = Server::QueueOrigin::Cluster;
    std::unique_ptr<Cluster::ICluster> node;
    const Result_t started = config.Node.IsConfigured() ? StartNode(config, server.Port(), shared, node)
                                                        : StartQueue(config, server.Port(), origin);
    if (started.Failure()) return Fail(started.Message());
    StartDeliveries(deliveries, server);
    std::unique_ptr<Server::ClusterGate> gate;
    if (node) {
        gate = std::make_unique<Server::ClusterGate>(*node);
        if (const Result_t begun = gate->Begin(); begun.Failure()) return Fail(begun.Message());
        router.GoThrough(*gate);
    }

    const Result_t serving = server.Serve();
    if (serving.Failure()) {
        const Result_t stopped = EventManager::StopEventQueue();
        return Fail(stopped.Success() ? serving.Message() : stopped.Message());
    }
    WaitForWorker();
    SayWhatWasLoaded(config, command_line.ConfigFile, server.Url(), origin);
    std::printf("Listening on %s\n", server.Url().c_str());
    std::fflush(stdout);
    manager.Tell("READY=1\nSTATUS=Listening on " + server.Url());
    WaitForSignal(manager, *reload);
    const int status = End(server, config, deliveries, node.get());
    reload_left_behind = reload->Running();
    return status;
}

// All threads share one arena: the history is written by whoever posts and freed by the worker, and the main
// arena grows in larger steps, and into huge pages where they are asked for, than those of other threads do.
void SetUpMemory() {
    mallopt(M_ARENA_MAX, 1);
}

}  // namespace

int main(int argc, char** argv) {
    SetUpMemory();
    Server::CommandLine command_line;
    if (const std::optional<int> status = Server::ReadCommandLine(argc, argv, command_line)) return *status;
    if (command_line.HashToken) return HashToken();
    std::vector<ConfigFault> faults;
    Config config = Server::LoadConfig(command_line.ConfigFile, faults);
    command_line.ApplyTo(config);
    if (command_line.Check) return Check(config, std::move(faults));
    if (!faults.empty()) return Refuse(faults);
    if (command_line.PrintConfig) {
        std::puts(Server::PrintConfig(config).c_str());
        return 0;
    }
    SetUpLog(config);
    if (!command_line.ImportState.empty()) return ImportState(config, command_line.ImportState);
    SetUpSignals();
    RaiseDescriptorLimit();
    int status = 1;
    try {
        status = Run(config, command_line);
    } catch (const std::exception& failure) {
        Fail(std::string("Given up: ") + failure.what());
    }
    std::fflush(stdout);
    // Threads that were left behind (a caller that does not end, a reload) must not find the process half
    // taken down.
    if (Velmora::GetRequestCounters().Running > 0 || reload_left_behind) _exit(status);
    return status;
}
