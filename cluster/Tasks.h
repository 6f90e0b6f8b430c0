// What the nodes have put off: a stream with the newest document of each task, and one consumer that hands
// each to one node when it is due.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "LoopThread.h"
#include "MR_mutex.h"
#include "Nodes.h"
#include "Publisher.h"
#include "PullSubscription.h"
#include "StreamReader.h"

namespace Cluster {

/// A task that is not due yet is refused with the time that is left, so that the engine brings it then. One
/// that a node works at is acknowledged when its token is let go; what was put in its place has taken its
/// message out of the stream by then.
class Tasks : private IStreamUser {
  public:
    Tasks(Engine& engine, Publisher& publisher, Nodes& nodes);
    ~Tasks();

    /// Before Start().
    void Use(ITaskUser& user) { m_User = &user; }
    /// Does nothing where nobody uses it.
    Result_t Start();
    /// Asks it to take no more; StopFetching() waits until it does not.
    void BeginStop() { m_Fetch.End(); }
    void StopFetching() { m_Fetch.EndAndWait(); }
    /// What is not done is another node's, at once.
    void Stop();

    void Put(const std::string& key, const std::string& document, i64_t delay_ms, ICluster::TaskDone done);

  private:
    // What this node works at: numbers of messages, and where their delivery is answered. Tokens share it.
    struct Open {
        Mirel::Mutex Lock;
        std::map<ui64_t, std::string> Replies GUARDED_BY(Lock);
        Engine* Answering GUARDED_BY(Lock) = nullptr;  // null: it has ended
    };

    ui64_t Begin(const StreamFacts& facts) override;
    void Receive(const StreamMessage& message) override;
    void ReachedEnd(ui64_t last) override;

    void Fetch(LoopThread& thread);
    bool FetchSome(LoopThread& thread, PullSubscription& consumer);
    bool MakeConsumer();
    void Handle(natsMsg* message);
    void Offer(natsMsg* message, ui64_t number);
    void SayInProgress();
    static void End(Open& open, ui64_t number, const std::string& answer);
    static void Answer(Engine& engine, const std::string& to, const std::string& what);
    std::string KeyOf(natsMsg* message) const;

    Engine& m_Engine;
    Publisher& m_Publisher;
    Nodes& m_Nodes;
    ITaskUser* m_User = nullptr;
    const std::string m_Self;  // this run of this node
    std::atomic<ui64_t> m_Puts{0};
    const std::shared_ptr<Open> m_Open = std::make_shared<Open>();
    bool m_Reading = false;                                // the reader's: not told yet that all is read
    std::chrono::steady_clock::time_point m_NextProgress;  // the fetching thread's
    StreamReader m_Reader;
    LoopThread m_Fetch;
};

}  // namespace Cluster
