// One client's connection, from its first byte to its last.
#pragma once

#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>

#include "VL_Socket.h"
#include "http/ConnectionInput.h"
#include "http/ConnectionOutput.h"
#include "http/ConnectionShared.h"
#include "http/ConnectionWaits.h"
#include "http/Coroutine.h"
#include "http/LaterAnswer.h"

namespace Server {

/// Serves the connected, non-blocking socket until its end. On a thread of the pool.
void ServeConnection(ConnectionShared& shared, Velmora::SocketStream stream);

/// Serves one connection. Its coroutine waits for one thing at a time, and whatever ends that goes on with
/// it: only one thread at a time is here, and no lock is needed.
class Connection {
  public:
    /// Throws where the system refuses.
    Connection(ConnectionShared& shared, Velmora::SocketStream stream);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// The whole connection, which lives as long as this.
    Coroutine Serve(std::unique_ptr<Connection> self);
    /// The registry knows the connection from now on by what serves it.
    void Register(std::coroutine_handle<> frame);

  private:
    using Phase = ConnectionLife::Phase;
    using Clock = std::chrono::steady_clock;

    // What a step through the input has come to.
    enum class Step {
        Again,      // there may be more to do
        Input,      // all that is there is used
        Admission,  // the request waits to be let in
        Turn,       // others are to have theirs
        Later,      // the answer is to come
    };

    // Moving bytes and waiting (Connection.cpp).
    void Idle();
    void Begin();
    bool Leaving() const { return m_CloseAfter || m_UpgradeAfter; }
    bool Expired() const { return m_Life.Expired.load(std::memory_order_relaxed); }
    SocketWait Ready(bool writing) { return {m_Socket, m_Stream.WaitsForRoom(writing)}; }
    Velmora::StreamState Flush();
    void AllWritten();
    Velmora::StreamState Read(std::size_t& bytes);
    bool Take(std::size_t bytes);
    bool EndOfInput();
    bool GiveUp(const std::exception& failure);
    void HandOver();
    void Deregister();

    // Answering requests (ConnectionAnswer.cpp).
    Step NextStep();
    Step UseInput();
    Step HeadComplete();
    Step RequestComplete();
    Step Answer();
    Step AnswerAdmitted();
    Step AnswerBusy();
    HttpResponse CallHandler();
    HttpResponse CallHandlerAndLeave();
    Step Upgrade();
    Step Respond(HttpResponse response);
    Step RespondOrWait(HttpResponse response);
    Step RefuseAndClose(HttpResponse response);
    void CountAnswer(Status_t status, std::size_t size);
    void LogAnswer(Status_t status, std::size_t size, Clock::duration took) const;
    void LogChange(const HttpResponse& response) const;
    Step FinishRequest();

    ConnectionShared& m_Shared;
    Velmora::SocketStream m_Stream;
    PolledSocket m_Socket;  // the stream's
    ConnectionLife m_Life;
    bool m_Registered = false;
    ConnectionInput m_Input;
    ConnectionOutput m_Output;

    unsigned m_Answered = 0;  // requests in this turn
    HttpRoute m_Route;        // of the request whose head is there
    FeedPlaces::Place m_FeedPlace;
    std::optional<Velmora::FeedWish> m_FeedWish;  // of a subscriber that is on its way to the feed
    Caller m_FeedCaller;                          // who lets it in
    HttpRequest m_Request;                        // the one that is answered
    std::shared_ptr<LaterAnswer> m_Later;         // the answer to it, where that comes later
    Clock::time_point m_Began;                    // when it was there as a whole; none yet: time_point()
    bool m_CloseAfter = false;
    bool m_UpgradeAfter = false;
};

}  // namespace Server
