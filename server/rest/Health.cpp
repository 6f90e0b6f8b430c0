// Whether everything is there that the server needs to answer.
#include "rest/Health.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "EventManager.h"
#include "MR_util.h"
#include "deliveries/DeliveryEngine.h"
#include "rest/ClusterGate.h"
#include "rest/Rest.h"

namespace Server {

namespace {

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

CheckOutcome CheckWorker(const EventManager::QueueStatistics& queue) {
    if (!queue.Installed) return {false, "the queue is not there yet"};
    if (!queue.WorkerRunning) return {false, "the worker is not running"};
    if (queue.SinceLastPass_ms > LongestPass_ms) {
        return {false,
                "the worker has been in one pass for " + std::to_string(queue.SinceLastPass_ms) + " ms"};
    }
    return {true, "passing"};
}

CheckOutcome CheckStateFile(const EventManager::QueueStatistics& queue, const std::string& path) {
    if (path.empty()) return {true, "none is configured: nothing is saved"};
    if (queue.LastSaveFailed) return {false, "the last save failed; the log says why"};
    if (::faccessat(AT_FDCWD, DirectoryOf(Mirel::FollowLinks(path)).c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        return {false, std::string("its directory is not writable: ") + std::strerror(errno)};
    }
    return {true, "writable"};
}

CheckOutcome CheckCluster(ClusterGate* gate) {
    if (gate == nullptr) return {true, "none is configured"};
    const Cluster::Statistics figures = gate->Of().Figures();
    return {figures.Ready, figures.Ready ? "in order" : figures.Detail};
}

namespace {

// What is answered as made must be safe.
CheckOutcome CheckDeliveries(const DeliveryEngine* deliveries) {
    const std::string trouble = deliveries == nullptr ? std::string() : deliveries->Trouble();
    return {trouble.empty(), trouble.empty() ? "in order" : trouble};
}

Velmora::PListDict Entry(const CheckOutcome& outcome) {
    Velmora::PListDict entry;
    entry.SetValue("ok", outcome.Ok);
    entry.SetValue("detail", outcome.Detail);
    return entry;
}

}  // namespace

HttpResponse GetHealth(RestCall& call) {
    Velmora::PListDict answer;
    answer.SetValue("status", "alive");
    answer.SetValue("version", VELMORA_VERSION);
    const auto up = std::chrono::steady_clock::now() - call.Context.Started;
    answer.SetValue("uptime_sec",
                    static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(up).count()));
    return Json(Velmora::STATUS_200_OK, answer);
}

HttpResponse GetReadiness(RestCall& call) {
    const EventManager::QueueStatistics queue = EventManager::GetQueueStatistics();
    const CheckOutcome worker = CheckWorker(queue);
    const CheckOutcome state_file = CheckStateFile(queue, call.Context.StateFile);
    const CheckOutcome cluster = CheckCluster(call.Context.Gate);
    const CheckOutcome deliveries = CheckDeliveries(call.Context.Deliveries);
    const bool ready = worker.Ok && state_file.Ok && cluster.Ok && deliveries.Ok;
    Velmora::PListDict checks;
    checks.SetItem("worker", Entry(worker));
    checks.SetItem("state_file", Entry(state_file));
    if (call.Context.Gate != nullptr) checks.SetItem("cluster", Entry(cluster));
    if (call.Context.Deliveries != nullptr) checks.SetItem("deliveries", Entry(deliveries));
    Velmora::PListDict answer;
    answer.SetValue("ready", ready);
    answer.SetItem("checks", checks);
    return Json(ready ? Velmora::STATUS_200_OK : Velmora::STATUS_503_NO_SERVICE, answer);
}

}  // namespace Server
