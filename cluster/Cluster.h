// Several servers as one: what the process that runs a node configures, asks and is told.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "EventManager.h"

/// Several servers that share postings, registry, timers and calls over an engine (NATS with JetStream).
namespace Cluster {

using EventManager::PListDict;
using Mirel::i64_t;
using Mirel::Result_t;
using Mirel::ui64_t;

/// What a node is told by its configuration.
struct Settings {
    std::string Name;  ///< of the cluster: first token of its subjects; empty: there is no cluster
    std::string Node;  ///< of this node, another one for each
    std::vector<std::string> Servers;  ///< URLs of the engine's servers
    std::string User, Password;        ///< empty: none
    std::string CredentialsFile;       ///< as the engine's tools write it; empty: none
    bool UseTLS = false;
    std::string CAFile;             ///< whom to trust; empty: whom the system does
    std::string CertFile, KeyFile;  ///< this node's own; empty: none
    int Replicas = 1;               ///< of everything that the engine stores
    i64_t MaxAge_sec = 600;         ///< of postings
    i64_t MaxBytes = i64_t{1} << 30;
    i64_t TimerLateness_sec = 60;  ///< later than that, a due time is skipped
    i64_t DeliveriesAge_sec = 0;   ///< how long waiting and dead deliveries are kept; 0: nobody has any
    ui64_t MostCallers = 512;      ///< calls that run at the same time, before further postings wait
    i64_t Patience_ms = 10000;     ///< with the engine, for a posting or a change

    bool IsConfigured() const { return !Name.empty(); }
};

/// What became of a posting or a change.
enum class Fate {
    Stored,
    NoSuchEvent,
    TooLarge,     ///< for the engine
    Unavailable,  ///< the engine did not take it, and will not
    MayBeStored,  ///< the engine gave no answer
};

struct Outcome {
    Fate What = Fate::Stored;
    Velmora::PostingId Id;  ///< of a stored posting
    std::string Why;        ///< for people
};

/// For /metrics, /readyz and GET /cluster.
struct Statistics {
    bool Connected = false;       ///< to one of the engine's servers
    bool Ready = false;           ///< connected, and the registry has been read
    std::string Detail;           ///< why not
    bool HoldsTimers = false;     ///< this node fires the timers
    ui64_t Revision = 0;          ///< of the registry, applied here
    ui64_t Sequence = 0;          ///< of the last posting, recorded here
    ui64_t Lag = 0;               ///< postings that are stored and not recorded here
    ui64_t PendingCalls = 0;      ///< postings whose calls nobody has begun
    ui64_t RunningCalls = 0;      ///< postings whose calls run here
    ui64_t PendingPublishes = 0;  ///< that wait for the engine's answer
    ui64_t RepeatedCalls = 0;     ///< postings called here that had been handed out before
    ui64_t SetAside = 0;          ///< postings whose calls were given up
    ui64_t Malformed = 0;         ///< messages of others that post nothing
    ui64_t LostCalls = 0;         ///< postings that the stream dropped before their calls
    ui64_t TimerFirings = 0;      ///< by this node
    ui64_t SkippedFirings = 0;    ///< due times that were too late, or came with a later one
    ui64_t PublishRetries = 0;    ///< attempts that were repeated
    ui64_t RefusedChanges = 0;    ///< that were decided anew, since another node came first
    ui64_t Reconnects = 0;
};

/// Does what the nodes have put off. Told on threads of the node's, which are not to wait for long.
class ITaskUser {
  public:
    virtual ~ITaskUser() = default;

    /// All tasks there are come now, and what has been known of others' before counts no more once
    /// TasksRead() comes.
    virtual void TasksAnew() = 0;
    virtual void TasksRead() = 0;
    /// What the newest put of `key` says, by whichever node (`own`: by this one); empty: it is gone.
    virtual void TaskPut(const std::string& key, const std::string& document, bool own) = 0;
    /// The task is due, and this node's as long as `token` is held: let go, it is done with that document.
    /// What is held when the process dies is another node's some seconds later. False: not now, but offered
    /// again.
    virtual bool TaskDue(const std::string& key, const std::string& document,
                         const std::shared_ptr<void>& token) = 0;
};

/// One node of a cluster, as its process sees it. All operations may be called from any thread.
class ICluster {
  public:
    virtual ~ICluster() = default;

    /// The node's queue, for StartEventQueue(), which takes it over. Answers the same each time.
    virtual EventManager::EventQueue* Queue() = 0;
    /// Waits for the registry, at most `limit_ms`, and gives an empty cluster the document. Where the engine
    /// is away the node goes on without, and catches up later.
    virtual void Join(const PListDict& seed, Mirel::ui32_t limit_ms) = 0;

    /// Adds a queue state document to the registry, in place of Join(): for a process that goes on to end.
    /// The same document is added once, however often. `state` is everything that is there then.
    virtual Result_t Import(const PListDict& document, Mirel::ui32_t limit_ms, PListDict& state) = 0;

    using Done = std::function<void(const Outcome&)>;
    /// Posts JSON text (empty: without data). `done` is called once, on any thread, perhaps at once. `key`
    /// (may be empty) is the poster's: the same one posts once within two minutes.
    virtual void Post(const std::string& event_name, std::string json, const std::string& key, Done done) = 0;
    /// Why the calling thread's last change of the registry was not made, once; Stored where it was, or was
    /// refused for a reason that its own answer tells.
    virtual Outcome TakeFailure() = 0;

    /// From Join() on; where the settings have "DeliveriesAge_sec".
    virtual void ShareTasks(ITaskUser& user) = 0;
    using TaskDone = std::function<void(Fate fate, const std::string& why)>;
    /// Stores a task in the place of what `key` had. It is due after `delay_ms`; never where that is
    /// negative. `done` is called once, on any thread, perhaps at once.
    virtual void PutTask(const std::string& key, const std::string& document, i64_t delay_ms,
                         TaskDone done) = 0;

    virtual Statistics Figures() const = 0;
    /// The nodes, the engine and the timers' holder.
    virtual PListDict Describe() const = 0;

    /// No more calls and timers; those that run go on.
    virtual void BeginEnd() = 0;
    /// Tells the engine what has been done, and leaves it.
    virtual void End() = 0;
};

/// Makes a node. It connects in the background. RESULT_STATE in a build without the engine's client.
Result_t MakeNode(const Settings& settings, Mirel::ui32_t timeout_ms, std::unique_ptr<ICluster>& node);

/// Connects and looks for everything that a node needs; makes and changes nothing. One line for each fault.
std::vector<std::string> CheckEngine(const Settings& settings);

}  // namespace Cluster
