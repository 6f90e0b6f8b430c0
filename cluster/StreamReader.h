// Reads one stream from a place on, every message once and in order, through whatever happens to the engine.
#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "Engine.h"
#include "LoopThread.h"

namespace Cluster {

/// One message of a stream.
struct StreamMessage {
    natsMsg* Message = nullptr;
    ui64_t Sequence = 0;
    i64_t Time_ns = 0;  // the engine's
};

/// Whoever reads a stream. Called on the reader's thread.
class IStreamUser {
  public:
    virtual ~IStreamUser() = default;
    /// The stream is read for the first time, or was made anew, or has lost its end. Answers the number to
    /// begin with, or 0 for the last message of each subject.
    virtual ui64_t Begin(const StreamFacts& facts) = 0;
    virtual void Receive(const StreamMessage& message) = 0;
    /// Everything up to this number has been received. Comes every few seconds while nothing else does.
    virtual void ReachedEnd(ui64_t last) = 0;
};

class StreamReader {
  public:
    StreamReader(Engine& engine, const std::string& stream, const std::string& subject, IStreamUser& user);
    ~StreamReader() { Stop(); }

    Result_t Start() { return m_Thread.Start("Cluster::Read"); }
    /// Asks it to end; Stop() waits until it has.
    void BeginStop() { m_Thread.End(); }
    void Stop() { m_Thread.EndAndWait(); }

    /// The last number that was received, and how many stood behind it when that was last looked at.
    ui64_t Last() const { return m_Last; }
    ui64_t Lag() const { return m_Lag; }

  private:
    void Run(LoopThread& thread);
    void ReadOn(LoopThread& thread);
    bool LookAtStream(StreamFacts& facts);
    bool LostItsEnd(const StreamFacts& facts);
    bool Subscribe(HeldSubscription& subscription, const StreamFacts& facts);
    bool GoesOn(ui64_t last_then);
    void TakeMessage(HeldMessage message);

    Engine& m_Engine;
    const std::string m_Stream, m_Subject;
    IStreamUser& m_User;
    LoopThread m_Thread;
    i64_t m_Created_ns = 0;
    std::chrono::steady_clock::time_point m_ShortSince;  // the stream's end is before what was received
    bool m_LastPerSubject = false;
    ui64_t m_Newest = 0;  // when it was subscribed: a replica that lags has nothing pending before
    std::atomic<ui64_t> m_Last{0}, m_Lag{0};
};

}  // namespace Cluster
