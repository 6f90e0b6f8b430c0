// Fires the registry's timers while this node holds them: each due time once.
#pragma once

#include <atomic>
#include <set>
#include <string>

#include "ClusterQueue.h"
#include "LoopThread.h"
#include "TimerHolder.h"

namespace Cluster {

class TimerFirer {
  public:
    TimerFirer(Engine& engine, Publisher& publisher, Nodes& nodes, ClusterQueue& queue);

    Result_t Start();
    /// Fires no more, and leaves the timers to another node.
    void Stop();

    bool Holds() const { return m_Holder.Holds(); }
    std::string Holder() const { return m_Holder.Holder(); }
    ui64_t Firings() const { return m_Firings; }
    ui64_t Skipped() const { return m_Skipped; }

  private:
    struct Due {
        std::string Id, EventName;
        PListDict Data;
        i64_t Start_us = 0, Interval_us = 0;  // an interval of 0: fires once
        i64_t Fired_us = 0;                   // the last due time that has been fired, or skipped
        i64_t Due_us = 0;                     // the one to fire now
        ui64_t Missed = 0;                    // due times before it that come to nothing
        bool TooLate = false;
    };

    void Run(LoopThread& thread);
    std::vector<Due> FindDue(i64_t now_us) const;
    void Fire(const Due& due);
    void Done(const Due& due);

    Engine& m_Engine;
    Publisher& m_Publisher;
    Nodes& m_Nodes;
    ClusterQueue& m_Queue;
    std::map<std::string, i64_t> m_FiredHere;  // by timer: what the registry may not say yet
    std::atomic<ui64_t> m_Firings{0}, m_Skipped{0};
    TimerHolder m_Holder;
    LoopThread m_Thread;
};

}  // namespace Cluster
