// The feed thread's loop over all clients.
#include "feed/FeedLoop.h"

#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <thread>
#include <utility>

#include "MR_log.h"
#include "feed/CounterSet.h"

namespace Velmora::Feed {

namespace {

constexpr std::size_t ReceiveRoom = 16u << 10;  // a whole TLS record
constexpr std::size_t ThreadStack = 256u << 10;
// Being woken costs a poster ten times what its posting does. Where new frames come so soon after the loop
// has gone to sleep, it naps instead, and sleeps until it is woken once a nap has brought nothing.
constexpr std::chrono::microseconds SoonWoken{100};
constexpr std::chrono::microseconds Nap{50};
constexpr Milliseconds AfterFailure{10};
constexpr int EventsAtOnce = 256;
// How finely a time-out is kept, as a part of it, and at most.
constexpr int TicksInLimit = 4;
constexpr Milliseconds LongestHurriedTick{250};

// How long the thread may compute before others have their turn. Whoever wants little at a time is let in at
// once: the frames leave before what posted them goes on, which is 5 to 10 us sooner.
constexpr std::chrono::nanoseconds Slice = std::chrono::microseconds(100);

// As the kernel wants them (sched_setattr(2)); the C library has no name for them yet.
struct SchedulingAttributes {
    std::uint32_t Size;
    std::uint32_t Policy;
    std::uint64_t Flags;
    std::int32_t Nice;
    std::uint32_t Priority;
    std::uint64_t Runtime_ns;
    std::uint64_t Deadline_ns;
    std::uint64_t Period_ns;
};

// A wish: Linux knows it since 6.12, earlier ones take no notice. Policies other than the usual are kept.
void AskForShortSlices() {
    SchedulingAttributes attributes{};
    if (syscall(SYS_sched_getattr, 0, &attributes, sizeof(attributes), 0) != 0) return;
    if (attributes.Policy != SCHED_OTHER) return;
    attributes.Runtime_ns = static_cast<std::uint64_t>(Slice.count());
    static_cast<void>(syscall(SYS_sched_setattr, 0, &attributes, 0));
}

Milliseconds TickOf(Milliseconds limit, Milliseconds longest) {
    return std::clamp(limit / TicksInLimit, Milliseconds(1), longest);
}

Milliseconds CalmTick(const FeedClient& client, const ClientLimits& limits) {
    return std::max(client.Calm(limits), Milliseconds(1));
}

}  // namespace

FeedLoop::FeedLoop(FrameLog& log, const ClientLimits& limits)
    : m_Log(log), m_Limits(limits), m_Room(ReceiveRoom) {
    StackSize(ThreadStack);
}

FeedLoop::~FeedLoop() {
    static_cast<void>(ThreadStop());
    WaitUntilFinished();
    if (m_Epoll >= 0) close(m_Epoll);
    if (m_Wake >= 0) close(m_Wake);
}

bool FeedLoop::Run() {
    m_Epoll = epoll_create1(EPOLL_CLOEXEC);
    m_Wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event wake{};
    wake.events = EPOLLIN | EPOLLET;  // by its edges, so that it need not be read
    if (m_Epoll < 0 || m_Wake < 0 || epoll_ctl(m_Epoll, EPOLL_CTL_ADD, m_Wake, &wake) != 0) {
        Mirel::DefaultLogSink().Error("WebSocket feed can't be started: %s.\n", std::strerror(errno));
        return false;
    }
    const Mirel::Result_t started = Start("WebSocket::Feed");
    if (started.Failure())
        Mirel::DefaultLogSink().Error("WebSocket feed can't be started: %s\n", started.Message());
    return started.Success();
}

bool FeedLoop::Adopt(std::unique_ptr<FeedClient>& client) {
    {
        Mirel::AutoMutex lock(m_Lock);
        if (m_Ended) return false;
        m_Inbox.push_back(std::move(client));
        m_HasOrders = true;
    }
    Wake();
    return true;
}

void FeedLoop::Wake() {
    const std::uint64_t one = 1;
    // Fails only where the count is at its limit, and then the thread has been woken.
    static_cast<void>(!write(m_Wake, &one, sizeof(one)));
}

void FeedLoop::AskLook() {
    {
        Mirel::AutoMutex lock(m_Lock);
        m_LookAsked = true;
        m_HasOrders = true;
    }
    Wake();
}

std::uint64_t FeedLoop::AskClose() {
    std::uint64_t ticket = 0;
    {
        Mirel::AutoMutex lock(m_Lock);
        ticket = ++m_CloseAsked;
        m_HasOrders = true;
    }
    Wake();
    return ticket;
}

void FeedLoop::AwaitClose(std::uint64_t ticket) {
    Mirel::AutoMutex lock(m_Lock);
    while (m_CloseDone < ticket && !m_Ended) m_Closed.Wait(m_Lock);
}

Mirel::Result_t FeedLoop::ThreadInit() {
    AskForShortSlices();
    // OpenSSL writes to its socket in a way that raises the signal when the client has gone.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return Mirel::RESULT_OK;
}

Mirel::Result_t FeedLoop::ThreadStop() {
    {
        Mirel::AutoMutex lock(m_Lock);
        m_Stopping = true;
        m_HasOrders = true;
    }
    Wake();
    return Mirel::RESULT_OK;
}

Mirel::Result_t FeedLoop::ThreadBody() {
    m_End = m_Log.End();
    for (;;) {
        try {
            if (!MakePass()) return Mirel::RESULT_OK;
        } catch (const std::exception& failure) {
            Mirel::DefaultLogSink().Error("WebSocket feed: %s; trying again.\n", failure.what());
            m_HasOrders = true;  // some may not have been carried out
            std::this_thread::sleep_for(AfterFailure);
        }
    }
}

// False when the loop is to end.
bool FeedLoop::MakePass() {
    m_Now = std::chrono::steady_clock::now();
    if (m_HasOrders && !TakeOrders()) return false;
    LookAtLog();
    LookFurther();
    GiveTurns();
    if (LookedAtAll()) {
        m_LooksBehindSince = Time();
    } else if (m_LooksBehindSince == Time()) {
        m_LooksBehindSince = m_Now;
    }
    if (m_BatchBegan != Time() && LookedAtAll()) CountTimes();
    if (m_Now >= m_TickAt) TickClients();
    if (m_AnyGone) BuryGone();
    if (m_Closing != 0) AnswerClosers();
    Await();
    return true;
}

Mirel::Result_t FeedLoop::ThreadFini(Mirel::Result_t result) {
    m_Clients.clear();
    m_Log.Detach(m_Looked);
    std::vector<std::unique_ptr<FeedClient>> late;  // destroyed after the lock
    Mirel::AutoMutex lock(m_Lock);
    late.swap(m_Inbox);
    m_Ended = true;
    m_Closed.NotifyAll();
    return result;
}

// Carries out what other threads have asked for; false when that is to end.
bool FeedLoop::TakeOrders() {
    std::vector<std::unique_ptr<FeedClient>> newcomers;
    std::uint64_t ticket = 0;
    {
        Mirel::AutoMutex lock(m_Lock);
        m_HasOrders = false;
        if (m_Stopping) return false;
        newcomers.swap(m_Inbox);
        if (std::exchange(m_LookAsked, false)) m_TickAt = m_Now;
        if (m_CloseAsked > std::max(m_CloseDone, m_Closing)) ticket = m_CloseAsked;
    }
    LookAtLog();  // the places of the newcomers are at most there
    for (auto& client : newcomers) {
        try {
            Welcome(std::move(client));
        } catch (const std::exception& failure) {
            Mirel::DefaultLogSink().Error("A WebSocket client can't be served: %s.\n", failure.what());
        }
    }
    if (ticket == 0) return true;
    m_Closing = ticket;
    UnparkAll();  // what comes up to here is theirs
    for (auto& client : m_Clients) {
        client->CloseTicket = ticket;
        client->Leave(m_End, m_Now + m_Limits.Timeout);
        if (client->Standing == Turn::CaughtUp) GiveTurn(*client);
    }
    HurryTick();
    return true;
}

void FeedLoop::Welcome(std::unique_ptr<FeedClient> client) {
    if (m_Clients.size() == m_Clients.capacity()) {  // no client is lost between the lists for want of memory
        const std::size_t room = std::max<std::size_t>(16, 2 * m_Clients.size());
        m_Ready.reserve(room);
        m_Turn.reserve(room);
        m_Clients.reserve(room);
    }
    if (!client->Begin(m_Now)) return;
    if (client->Descriptor() >= 0) {
        epoll_event event{};
        event.events = client->Polled = client->Interest();
        event.data.ptr = client.get();
        if (epoll_ctl(m_Epoll, EPOLL_CTL_ADD, client->Descriptor(), &event) != 0) {
            Mirel::DefaultLogSink().Error("WebSocket client %s can't be watched: %s.\n", client->Name(),
                                          std::strerror(errno));
            return;
        }
        client->Receive(m_Room, m_Now);  // what TLS may have read already
    }
    Introduce(*client);
    m_TickAt = std::min(m_TickAt, m_Now + CalmTick(*client, m_Limits));
    m_Clients.push_back(std::move(client));
    GiveTurn(*m_Clients.back());
}

// Learns what is new in the log, and for whom.
void FeedLoop::LookAtLog() {
    const LogEnd before = std::exchange(m_End, m_Log.End(&m_BatchBegan));
    const Time asleep = std::exchange(m_AsleepSince, Time());
    if (m_End == before) {
        m_Naps = m_Naps && !(m_Ready.empty() && LookedAtAll());
        return;
    }
    m_Naps = m_Naps || m_Now - asleep < SoonWoken;
    if (m_End.First != before.First) {
        if (m_Looked.Segment && FrameLog::FellOff(m_Looked, m_End)) {
            UnparkAll();  // they have fallen off with it
            m_Log.Detach(m_Looked);
            m_Looked = m_Log.Attach();
        }
        for (auto& client : m_Clients) client->CheckPlace(m_End, m_Now);
        HurryTick();
    }
    for (FeedClient* client : m_Eager) MakeReady(*client);
}

void FeedLoop::MakeReady(FeedClient& client) {
    if (client.Standing != Turn::CaughtUp) return;
    client.Standing = Turn::More;
    m_Ready.push_back(&client);
}

// Looks who wants what has come of those who want events of certain names only, to the end of one segment.
// They have no place of their own while nothing is there for them: with a thousand of them, each going on to
// the next segment by itself would cost more than what they get.
void FeedLoop::LookFurther() {
    if (LookedAtAll()) return;
    const bool at_end = m_Looked.Segment->Number < m_End.Segment && m_Looked.Offset == m_Looked.Segment->Size;
    if (at_end && !m_Log.Advance(m_Looked)) return;  // lost meanwhile, which the next look at the log finds
    const std::uint64_t limit = m_Looked.FrameLimit(m_End);
    while (m_Looked.Frames < limit) {
        const auto [begin, end] = m_ByName.equal_range(m_Looked.Segment->Notes[m_Looked.Frames].Hash);
        for (auto found = begin; found != end; ++found) {
            FeedClient& client = *found->second;
            if (client.CanPark() && !client.HasPlace()) client.Unpark(m_Log.Share(m_Looked));
            MakeReady(client);
        }
        m_Looked.SkipTo(m_Looked.Frames + 1);
    }
}

bool FeedLoop::LookedAtAll() const {
    if (!m_Looked.Segment) return true;
    if (m_Looked.Segment->Number != m_End.Segment) return m_Looked.Segment->Number > m_End.Segment;
    return m_Looked.Frames >= m_End.Frames;
}

// How far the client may go.
LogEnd FeedLoop::EndFor(const FeedClient& client) const {
    if (!client.Named) return m_End;
    return {m_End.First, m_Looked.Segment->Number, m_Looked.Offset, m_Looked.Frames};
}

void FeedLoop::UnparkAll() {
    for (auto& client : m_Clients)
        if (client->Named && client->CanPark() && !client->HasPlace()) client->Unpark(m_Log.Share(m_Looked));
}

// Where it is looked for when frames have come. May fail, and then it is as before.
void FeedLoop::Introduce(FeedClient& client) {
    const auto hashes = client.Filter() ? client.Filter()->OnlyNames() : std::vector<std::uint64_t>();
    if (hashes.empty()) return m_Eager.push_back(&client);
    if (!m_Looked.Segment) m_Looked = m_Log.Attach();
    client.Named = true;
    try {
        for (const std::uint64_t hash : hashes) m_ByName.emplace(hash, &client);
    } catch (...) {
        Forget(client);
        throw;
    }
}

// Of those who want certain names only.
void FeedLoop::Forget(FeedClient& client) {
    if (!client.Named) return;
    for (const std::uint64_t hash : client.Filter()->OnlyNames()) {
        for (auto [found, end] = m_ByName.equal_range(hash); found != end;)
            found = found->second == &client ? m_ByName.erase(found) : std::next(found);
    }
    if (m_ByName.empty()) m_Log.Detach(m_Looked);
}

void FeedLoop::GiveTurns() {
    m_Turn.swap(m_Ready);
    for (FeedClient* client : m_Turn) {
        client->Standing = Turn::CaughtUp;  // is in no list now
        GiveTurn(*client);
    }
    m_Turn.clear();
}

// To a client that is not in the list of those that are ready.
void FeedLoop::GiveTurn(FeedClient& client) {
    try {
        client.Standing = client.TakeTurn(EndFor(client), m_Now);
    } catch (const std::exception& failure) {
        Mirel::DefaultLogSink().Error("WebSocket client %s is lost: %s.\n", client.Name(), failure.what());
        client.Standing = Turn::Gone;
    }
    if (client.Standing == Turn::Gone) {
        m_AnyGone = true;
        return;
    }
    if (client.Standing == Turn::CaughtUp) {
        client.BehindSince = Time();
        if (client.Named && client.CanPark()) client.Park();
    } else if (client.BehindSince == Time()) {
        client.BehindSince = m_Now;
    }
    if (client.Standing == Turn::More) m_Ready.push_back(&client);
    if (client.Hurried()) HurryTick();
    // Once its buffer has been full, a client that is behind will fill it again: it stays watched until it
    // has caught up, instead of changing what epoll reports twice for every bufferful.
    if (client.Standing != Turn::More) UpdatePoll(client);
}

void FeedLoop::UpdatePoll(FeedClient& client) {
    const std::uint32_t interest = client.Interest();
    if (interest == client.Polled || client.Descriptor() < 0) return;
    epoll_event event{};
    event.events = client.Polled = interest;
    event.data.ptr = &client;
    if (epoll_ctl(m_Epoll, EPOLL_CTL_MOD, client.Descriptor(), &event) != 0)
        Mirel::DefaultLogSink().Error("WebSocket client %s can't be watched: %s.\n", client.Name(),
                                      std::strerror(errno));
}

void FeedLoop::TickClients() {
    bool hurried = false;
    Milliseconds calm = TickOf(m_Limits.PingInterval, m_Limits.PingInterval);
    Time behind = m_LooksBehindSince;
    for (auto& client : m_Clients) {
        client->Tick(m_Now);
        if (client->BehindSince != Time() && (behind == Time() || client->BehindSince < behind))
            behind = client->BehindSince;
        if (client->WantsTurn() && client->Standing != Turn::More) GiveTurn(*client);
        hurried = hurried || client->Hurried();
        calm = std::min(calm, CalmTick(*client, m_Limits));
    }
    m_BehindSince.store(behind, std::memory_order_relaxed);
    if (hurried) calm = std::min(calm, TickOf(m_Limits.Timeout, LongestHurriedTick));
    m_TickAt = m_Now + calm;
}

// All that is new has been offered to everybody who was ready for it.
void FeedLoop::CountTimes() {
    Counters.Times.Count(std::chrono::steady_clock::now() - std::exchange(m_BatchBegan, Time()));
}

Milliseconds FeedLoop::Lag() const {
    const Time since = m_BehindSince.load(std::memory_order_relaxed);
    if (since == Time()) return {};
    return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now() - since);
}

// There is a client whose time-out runs.
void FeedLoop::HurryTick() {
    m_TickAt = std::min(m_TickAt, m_Now + TickOf(m_Limits.Timeout, LongestHurriedTick));
}

void FeedLoop::BuryGone() {
    m_AnyGone = false;
    // Many leave at once: each is found among the others once for all.
    std::erase_if(m_Eager, [](const FeedClient* client) { return client->Standing == Turn::Gone; });
    if (!m_ByName.empty()) {
        for (const auto& client : m_Clients)
            if (client->Standing == Turn::Gone) Forget(*client);
    }
    std::erase_if(m_Clients, [](const auto& client) { return client->Standing == Turn::Gone; });
}

// Tells those who have asked for the close once the last client that it concerned is gone.
void FeedLoop::AnswerClosers() {
    for (const auto& client : m_Clients)
        if (client->CloseTicket != 0) return;
    Mirel::AutoMutex lock(m_Lock);
    m_CloseDone = std::exchange(m_Closing, 0);
    m_Closed.NotifyAll();
}

// Waits for sockets, new frames, orders and the next tick; not at all while a client is ready.
void FeedLoop::Await() {
    int timeout_ms = 0;
    const bool idle = m_Ready.empty() && LookedAtAll();
    if (idle && m_Naps) {
        std::this_thread::sleep_for(Nap);
    } else if (idle && m_Log.PrepareToWait(m_End)) {
        m_AsleepSince = m_Now;
        const auto wait = std::chrono::ceil<Milliseconds>(m_TickAt - m_Now).count();
        timeout_ms = m_Clients.empty() ? -1 : static_cast<int>(std::clamp<long>(wait, 0, 3600 * 1000));
    }
    epoll_event events[EventsAtOnce];
    const int count = epoll_wait(m_Epoll, events, EventsAtOnce, timeout_ms);
    if (count > 0) m_Now = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i)
        if (events[i].data.ptr) HandleEvent(events[i].data.ptr, events[i].events);
    if (m_AnyGone) BuryGone();
}

void FeedLoop::HandleEvent(void* whom, std::uint32_t events) {
    FeedClient& client = *static_cast<FeedClient*>(whom);
    if ((events & ~static_cast<std::uint32_t>(EPOLLOUT)) != 0) client.Receive(m_Room, m_Now);
    const bool in_list = client.Standing == Turn::More;
    if (!in_list && (client.Standing == Turn::Blocked || client.WantsTurn())) GiveTurn(client);
}

}  // namespace Velmora::Feed
