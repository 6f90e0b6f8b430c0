// The way from requests to a cluster, whose answers come later: no I/O thread waits for the engine.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "Cluster.h"
#include "MR_mutex.h"
#include "MR_thread.h"
#include "http/Http.h"
#include "http/LaterAnswer.h"

namespace Server {

/// A server of a cluster has one, a single server none.
class ClusterGate : private Mirel::Thread {
  public:
    explicit ClusterGate(Cluster::ICluster& cluster) : m_Cluster(cluster) {}
    ~ClusterGate() override;

    Mirel::Result_t Begin() { return Start("Cluster::Change"); }

    Cluster::ICluster& Of() { return m_Cluster; }

    /// Posts the request's body, which is known to be a JSON object or empty.
    HttpResponse Post(const HttpRequest& request, const std::string& event_name);

    using Answer = std::function<HttpResponse(const HttpRequest&, HttpRoute&)>;
    /// Lets `answer`, which may wait for the engine, answer the request on a thread of its own.
    HttpResponse Change(const HttpRequest& request, const HttpRoute& route, Answer answer);

  private:
    // A request that outlives its connection's buffers.
    struct Waiting {
        std::string Path, Query, Body;
        HttpRequest Request;
        HttpRoute Route;
        Answer Function;
        std::shared_ptr<LaterAnswer> Later;
    };

    Mirel::Result_t ThreadInit() override { return Mirel::RESULT_OK; }
    Mirel::Result_t ThreadBody() override;
    Mirel::Result_t ThreadFini(Mirel::Result_t result) override { return result; }
    Mirel::Result_t ThreadStop() override;
    HttpResponse AnswerOf(Waiting& waiting);

    Cluster::ICluster& m_Cluster;
    Mirel::Mutex m_Lock;
    Mirel::Condition m_Come;
    std::deque<std::unique_ptr<Waiting>> m_Waiting GUARDED_BY(m_Lock);
    bool m_Ending GUARDED_BY(m_Lock) = false;
};

}  // namespace Server
