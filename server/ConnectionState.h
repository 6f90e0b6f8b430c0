// One connection's state, and the steps in which it is served.
#pragma once

#include <cstddef>
#include <exception>
#include <memory>

#include "Connection.h"
#include "ConnectionInput.h"
#include "ConnectionOutput.h"

namespace Server {

/// Serves one connection. It has at most one operation under way at any time, and that operation owns it; so
/// only one thread at a time is here, and no lock is needed.
class Connection : public AdmissionWaiter, public SocketWaiter {
  public:
    using Owner = std::unique_ptr<Connection>;
    using Phase = ConnectionLife::Phase;

    Connection(ConnectionShared& shared, Velmora::SocketStream stream);
    ~Connection() override;
    /// To be called once, before Run(). Throws where the system refuses.
    void Open();
    /// Does what can be done without waiting, then waits for one thing, or ends with `self`.
    static void Run(Owner self);

  private:
    // What the connection waits for.
    enum class Next { Again, Read, Write, Admission, Turn, Gone };

    // Moving bytes and waiting (Connection.cpp).
    Next Advance();
    Next Proceed();
    Next GiveUp(const std::exception& failure);
    Next Handshake();
    void Idle();
    void Begin();
    Next ReadRequests();
    Next Receive();
    Next EndOfInput();
    Next Flush();
    Next Blocked(bool writing) const;
    Next AllWritten();
    void HandOver();
    Next Drain();
    static Owner WaitFor(Owner self, SocketPoll::For what);
    void Ready(std::unique_ptr<SocketWaiter> self) override;
    void Deregister();

    // Answering requests (ConnectionAnswer.cpp).
    Next UseInput();
    Next HeadComplete();
    Next RequestComplete();
    Next Answer();
    HttpResponse CallHandler();
    HttpResponse CallHandlerAndLeave();
    void Resume(std::unique_ptr<AdmissionWaiter> self, bool admitted) override;
    static void Continue(Owner self, bool admitted);
    Next Upgrade();
    Next Respond(HttpResponse response);
    Next RefuseAndClose(HttpResponse response);
    Next FinishRequest();

    ConnectionShared& m_Shared;
    ConnectionLife m_Life;
    Velmora::SocketStream m_Stream;
    ConnectionInput m_Input;
    ConnectionOutput m_Output;
    bool m_Registered = false;
    bool m_Polled = false;
    std::size_t m_PollPlace = 0;  // while it is

    bool m_Readable = true;   // there may be more to read without waiting
    unsigned m_Answered = 0;  // requests in this turn
    HttpRequest m_Request;    // the one that is answered
    bool m_CloseAfter = false;
    bool m_UpgradeAfter = false;
    std::size_t m_Drained = 0;
};

}  // namespace Server
