#include "Publisher.h"

#include <algorithm>
#include <new>

#include "MR_log.h"

namespace Cluster {

using Mirel::AutoMutex;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr i64_t AttemptLimit_ms = 2500;
constexpr milliseconds RetryEvery{150};
constexpr ui64_t MostWaiting = 50000;
constexpr int WrongLastSequence = 10071, TooLargeForStream = 10054;

HeldMessage MessageOf(const Sending& sending) {
    HeldMessage message;
    const char* body = sending.Body.data();
    if (Take(message, natsMsg_Create, sending.Subject.c_str(), nullptr, body,
             static_cast<int>(sending.Body.size())) != NATS_OK)
        throw std::bad_alloc();
    bool set = natsMsgHeader_Set(message.get(), "Nats-Msg-Id", sending.Id.c_str()) == NATS_OK;
    for (const auto& [key, value] : sending.Headers)
        set = set && natsMsgHeader_Set(message.get(), key.c_str(), value.c_str()) == NATS_OK;
    if (sending.ExpectedLast) {
        const std::string last = std::to_string(*sending.ExpectedLast);
        set = set && natsMsgHeader_Set(message.get(), "Nats-Expected-Last-Sequence", last.c_str()) == NATS_OK;
    }
    if (!set) throw std::bad_alloc();
    return message;
}

// The engine has no room for it, now or ever; what else it answers may change.
bool IsTooLarge(natsStatus status, int code) {
    return status == NATS_MAX_PAYLOAD || code == TooLargeForStream;
}

}  // namespace

Publisher::Publisher(Engine& engine)
    : m_Engine(engine), m_Thread([this](LoopThread& thread) { Retry(thread); }) {}

Publisher::~Publisher() {
    Stop();
}

Result_t Publisher::Start() {
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = AttemptLimit_ms;
    options.PublishAsync.AckHandler = OnAck;
    options.PublishAsync.AckHandlerClosure = this;
    jsCtx* context = nullptr;
    const natsStatus status = natsConnection_JetStream(&context, m_Engine.Connection(), &options);
    m_Context.reset(context);
    if (status != NATS_OK) return Mirel::RESULT_NETWORK.WithMessage("JetStream: " + ReasonOf(status));
    return m_Thread.Start("Cluster::Publish");
}

void Publisher::Stop() {
    m_Thread.EndAndWait();
    std::vector<WaitingPointer> left;
    {
        AutoMutex lock(m_Lock);
        m_Stopped = true;
        for (auto& [message, waiting] : m_Sent) left.push_back(std::move(waiting));
        for (WaitingPointer& waiting : m_Again) left.push_back(std::move(waiting));
        m_Sent.clear();
        m_Again.clear();
    }
    for (WaitingPointer& waiting : left) {
        const bool maybe = waiting->MayBeStored;
        Finish(std::move(waiting),
               {maybe ? Sent::Fate::MayBeStored : Sent::Fate::Unavailable, 0, "this node is ending"});
    }
}

void Publisher::Send(Sending sending, Time deadline, Done done) {
    auto waiting = std::make_unique<Waiting>();
    waiting->Message = std::move(sending);
    waiting->Deadline = deadline;
    waiting->Answer = std::move(done);
    if (++m_Count > MostWaiting)
        return Finish(std::move(waiting),
                      {Sent::Fate::Unavailable, 0, "too many messages wait for the engine"});
    Attempt(std::move(waiting));
}

void Publisher::Attempt(WaitingPointer waiting) {
    HeldMessage held = MessageOf(waiting->Message);
    natsMsg* const message = held.release();
    {
        AutoMutex lock(m_Lock);
        if (!m_Stopped) m_Sent[message] = std::move(waiting);
    }
    if (waiting) {
        natsMsg_Destroy(message);
        return Finish(std::move(waiting), {Sent::Fate::Unavailable, 0, "this node is ending"});
    }
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = AttemptLimit_ms;
    natsMsg* given = message;
    // While it reconnects, the client would keep the message and send it later.
    const natsStatus status =
        m_Engine.Connected() ? js_PublishMsgAsync(m_Context.get(), &given, &options) : NATS_NOT_YET_CONNECTED;
    if (status == NATS_OK) return;
    const std::string why =
        status == NATS_NOT_YET_CONNECTED ? "no server of the engine can be reached" : ReasonOf(status);
    WaitingPointer back = TakeWaiting(message);
    if (given) natsMsg_Destroy(given);
    if (back) Failed(std::move(back), status, 0, why);
}

Publisher::WaitingPointer Publisher::TakeWaiting(natsMsg* message) {
    AutoMutex lock(m_Lock);
    const auto found = m_Sent.find(message);
    if (found == m_Sent.end()) return nullptr;
    WaitingPointer waiting = std::move(found->second);
    m_Sent.erase(found);
    return waiting;
}

void Publisher::OnAck(jsCtx*, natsMsg* message, jsPubAck* ack, jsPubAckErr* error, void* self) {
    const HeldMessage held(message);
    Publisher& own = *static_cast<Publisher*>(self);
    WaitingPointer waiting = own.TakeWaiting(message);
    if (!waiting) return;
    if (ack) return own.Finish(std::move(waiting), {Sent::Fate::Stored, ack->Sequence, {}});
    const natsStatus status = error ? error->Err : NATS_ERR;
    const int code = error ? static_cast<int>(error->ErrCode) : 0;
    const std::string why = error && error->ErrText ? error->ErrText : natsStatus_GetText(status);
    if (status == NATS_TIMEOUT) waiting->MayBeStored = true;
    own.Failed(std::move(waiting), status, code, why);
}

void Publisher::Failed(WaitingPointer waiting, natsStatus status, int code, const std::string& why) {
    if (code == WrongLastSequence) return Finish(std::move(waiting), {Sent::Fate::Refused, 0, why});
    if (IsTooLarge(status, code)) return Finish(std::move(waiting), {Sent::Fate::TooLarge, 0, why});
    if (Clock::now() >= waiting->Deadline) {
        const bool maybe = waiting->MayBeStored;
        return Finish(std::move(waiting),
                      {maybe ? Sent::Fate::MayBeStored : Sent::Fate::Unavailable, 0, why});
    }
    ++m_Retries;
    AutoMutex lock(m_Lock);
    m_Again.push_back(std::move(waiting));
}

void Publisher::Finish(WaitingPointer waiting, const Sent& sent) {
    --m_Count;
    waiting->Answer(sent);
}

void Publisher::Retry(LoopThread& thread) {
    while (!thread.Stopping()) {
        thread.Rest(RetryEvery);
        std::vector<WaitingPointer> again;
        {
            AutoMutex lock(m_Lock);
            again.swap(m_Again);
        }
        for (WaitingPointer& waiting : again) Attempt(std::move(waiting));
    }
}

Sent Publisher::SendAndWait(Sending sending, Time deadline) {
    struct Answer {
        Mirel::Mutex Lock;
        Mirel::Condition Come;
        std::optional<Sent> What GUARDED_BY(Lock);
    };
    const auto answer = std::make_shared<Answer>();
    Send(std::move(sending), deadline, [answer](const Sent& sent) {
        AutoMutex lock(answer->Lock);
        answer->What = sent;
        answer->Come.NotifyAll();
    });
    AutoMutex lock(answer->Lock);
    while (!answer->What) answer->Come.Wait(answer->Lock);
    return *answer->What;
}

}  // namespace Cluster
