// One node: the connection to the engine and everything that uses it, in the order in which it is started.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Calls.h"
#include "Cluster.h"
#include "ClusterQueue.h"
#include "Engine.h"
#include "LoopThread.h"
#include "Nodes.h"
#include "Publisher.h"
#include "StreamReader.h"
#include "Tasks.h"
#include "TimerFirer.h"

namespace Cluster {

class Node : public ICluster, private IStreamUser, private ICaller {
  public:
    Node(const Settings& settings, Mirel::ui32_t timeout_ms);
    ~Node() override;

    Result_t Start();

    EventManager::EventQueue* Queue() override { return m_Queue; }
    void Join(const PListDict& seed, Mirel::ui32_t limit_ms) override;
    Result_t Import(const PListDict& document, Mirel::ui32_t limit_ms, PListDict& state) override;
    void Post(const std::string& event_name, std::string json, const std::string& key, Done done) override;
    Outcome TakeFailure() override { return ClusterQueue::TakeFailure(); }
    void ShareTasks(ITaskUser& user) override { m_Tasks.Use(user); }
    void PutTask(const std::string& key, const std::string& document, i64_t delay_ms,
                 TaskDone done) override {
        m_Tasks.Put(key, document, delay_ms, std::move(done));
    }
    Statistics Figures() const override;
    PListDict Describe() const override;
    void BeginEnd() override;
    void End() override;

  private:
    // The postings' stream.
    ui64_t Begin(const StreamFacts& facts) override;
    void Receive(const StreamMessage& message) override;
    void ReachedEnd(ui64_t) override { m_PostingsRead = true; }
    ui64_t StartOfHistory(const StreamFacts& facts) const;

    bool KnowsRevision(ui64_t revision) override;
    std::optional<ui64_t> CalledUpTo(i64_t stream_created_ns) override;
    bool HasRoom() override;
    void Call(const PListDict& payload, ui64_t number, const std::shared_ptr<void>& token) override;

    void Watch(LoopThread& thread);
    std::string WhyNotReady() const;

    Engine m_Engine;
    Publisher m_Publisher;
    Nodes m_Nodes;
    ClusterQueue* const m_Queue;  // the module's, which never lets it go
    StreamReader m_Postings;
    Calls m_Calls;
    TimerFirer m_Timers;
    Tasks m_Tasks;
    LoopThread m_Watch;

    mutable Mirel::Mutex m_Lock;
    std::string m_Epoch GUARDED_BY(m_Lock), m_Trouble GUARDED_BY(m_Lock);
    std::string m_Leader GUARDED_BY(m_Lock);
    PListDict m_Seed;
    std::atomic<bool> m_MaySeed{false}, m_PostingsRead{false};
    std::atomic<ui64_t> m_Malformed{0};
};

}  // namespace Cluster
