// Which node fires the timers: the one whose record stands in a stream of its own and is renewed every
// second.
#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "MR_mutex.h"
#include "Publisher.h"
#include "StreamReader.h"

namespace Cluster {

/// Takes part in the choice. Clocks may differ between nodes: only how long something is ago is compared.
class TimerHolder : private IStreamUser {
  public:
    TimerHolder(Engine& engine, Publisher& publisher);

    Result_t Start() { return m_Reader.Start(); }
    void Stop() { m_Reader.Stop(); }

    /// Renews the record, or takes it from a node that has not for 3 seconds. Call it every second or so, on
    /// one thread.
    void Renew();
    /// Whether this node may fire now.
    bool Holds() const;
    /// Gives the record up, so that another node need not wait.
    void GiveUp();

    /// The node whose record it is; empty before the first.
    std::string Holder() const;

  private:
    using Clock = std::chrono::steady_clock;

    ui64_t Begin(const StreamFacts& facts) override;
    void Receive(const StreamMessage& message) override;
    void ReachedEnd(ui64_t last) override;
    bool Write(const std::string& holder, ui64_t expected);

    Engine& m_Engine;
    Publisher& m_Publisher;
    const std::string m_Self;  // this run of this node
    mutable Mirel::Mutex m_Lock;
    std::string m_Holder GUARDED_BY(m_Lock);
    ui64_t m_Revision GUARDED_BY(m_Lock) = 0;
    Clock::time_point m_Seen GUARDED_BY(m_Lock) = Clock::now();
    std::atomic<Clock::rep> m_Until{0};
    bool m_Read GUARDED_BY(m_Lock) = false;
    StreamReader m_Reader;
};

}  // namespace Cluster
