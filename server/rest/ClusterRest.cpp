// The cluster that this server is a node of: /api/v1/cluster, and its part of /metrics.
#include "rest/ClusterGate.h"
#include "rest/Metrics.h"
#include "rest/Rest.h"

namespace Server {

HttpResponse GetCluster(RestCall& call) {
    if (call.Context.Gate == nullptr) {
        return Problem(Velmora::STATUS_404_NOT_FOUND,
                       "This server is no node of a cluster: its configuration names none.");
    }
    return Json(Velmora::STATUS_200_OK, call.Context.Gate->Of().Describe());
}

void ClusterMetrics(MetricsText& text, const Cluster::Statistics& figures) {
    text.Gauge("velmora_cluster_ready", Mirel::ui64_t{figures.Ready},
               "1 while the engine is there and the registry has been read.");
    text.Gauge("velmora_cluster_holds_timers", Mirel::ui64_t{figures.HoldsTimers},
               "1 while this node fires the timers.");
    text.Gauge("velmora_cluster_registry_revision", figures.Revision, "The registry's revision, as applied.");
    text.Gauge("velmora_cluster_sequence", figures.Sequence, "The last posting that was recorded.");
    text.Gauge("velmora_cluster_lag_postings", figures.Lag, "Postings that are stored, not yet recorded.");
    text.Gauge("velmora_cluster_pending_calls", figures.PendingCalls,
               "Postings whose calls no node has begun.");
    text.Gauge("velmora_cluster_running_calls", figures.RunningCalls, "Postings whose calls run here.");
    text.Gauge("velmora_cluster_pending_publishes", figures.PendingPublishes,
               "Messages that wait for the engine's answer.");
    text.Counter("velmora_cluster_repeated_calls_total", figures.RepeatedCalls,
                 "Postings that were called here and had been handed out before.");
    text.Counter("velmora_cluster_set_aside_total", figures.SetAside,
                 "Postings whose calls were given up after five attempts.");
    text.Counter("velmora_cluster_lost_calls_total", figures.LostCalls,
                 "Postings that the stream dropped before their calls were made.");
    text.Counter("velmora_cluster_malformed_total", figures.Malformed,
                 "Messages of others that post nothing.");
    text.Counter("velmora_cluster_timer_firings_total", figures.TimerFirings,
                 "Due times that were fired here.");
    text.Counter("velmora_cluster_timers_skipped_total", figures.SkippedFirings,
                 "Due times that came to nothing, since they were found too late.");
    text.Counter("velmora_cluster_publish_retries_total", figures.PublishRetries,
                 "Attempts to publish that were repeated.");
    text.Counter("velmora_cluster_changes_decided_anew_total", figures.RefusedChanges,
                 "Changes of the registry that another node's came before.");
    text.Counter("velmora_cluster_reconnects_total", figures.Reconnects, "Reconnections to the engine.");
}

}  // namespace Server
