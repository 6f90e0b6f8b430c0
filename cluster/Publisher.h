// Sends messages to streams and answers for each what became of it, repeating under the same id what stays
// without an answer.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Engine.h"
#include "LoopThread.h"
#include "MR_mutex.h"

namespace Cluster {

/// A message for a stream.
struct Sending {
    std::string Subject, Body;
    std::string Id;  // of the message: the stream takes each once within two minutes
    std::vector<std::pair<std::string, std::string>> Headers;
    std::optional<ui64_t> ExpectedLast;  // the stream's last number, or the message is refused
};

/// What became of it.
struct Sent {
    enum class Fate { Stored, Refused, TooLarge, Unavailable, MayBeStored };

    Fate What = Fate::Stored;
    ui64_t Sequence = 0;
    std::string Why;
};

class Publisher {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Done = std::function<void(const Sent&)>;

    explicit Publisher(Engine& engine);
    ~Publisher();

    Result_t Start();
    /// What waits is answered as unavailable.
    void Stop();

    /// `done` is called once, on any thread, and must be quick.
    void Send(Sending sending, Time deadline, Done done);
    /// The same, waiting.
    Sent SendAndWait(Sending sending, Time deadline);

    ui64_t Pending() const { return m_Count; }
    ui64_t Retries() const { return m_Retries; }

  private:
    struct Waiting {
        Sending Message;
        Time Deadline;
        Done Answer;
        bool MayBeStored = false;
    };
    using WaitingPointer = std::unique_ptr<Waiting>;

    static void OnAck(jsCtx*, natsMsg* message, jsPubAck* ack, jsPubAckErr* error, void* self);
    void Attempt(WaitingPointer waiting);
    void Failed(WaitingPointer waiting, natsStatus status, int code, const std::string& why);
    void Finish(WaitingPointer waiting, const Sent& sent);
    void Retry(LoopThread& thread);
    WaitingPointer TakeWaiting(natsMsg* message);

    Engine& m_Engine;
    HeldContext m_Context;
    LoopThread m_Thread;
    Mirel::Mutex m_Lock;
    std::map<natsMsg*, WaitingPointer> m_Sent GUARDED_BY(m_Lock);
    std::vector<WaitingPointer> m_Again GUARDED_BY(m_Lock);
    bool m_Stopped GUARDED_BY(m_Lock) = false;
    std::atomic<ui64_t> m_Count{0}, m_Retries{0};
};

}  // namespace Cluster
