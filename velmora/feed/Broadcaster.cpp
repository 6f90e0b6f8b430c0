// Posts into the log, and starts the loop for the first client.
#include "feed/Broadcaster.h"

#include <algorithm>
#include <new>
#include <utility>

#include "MR_log.h"
#include "feed/CounterSet.h"

namespace Velmora::Feed {

namespace {

struct Registry {
    Mirel::Mutex Lock;
    std::vector<std::weak_ptr<Broadcaster>> Known GUARDED_BY(Lock);
};

// Never destroyed: a broadcaster may be a static object of its own.
Registry& TheRegistry() {
    static auto& all = *new Registry;
    return all;
}

ClientLimits LimitsOf(const BroadcastOptions& options) {
    return {Milliseconds(std::max(options.Timeout_ms, 1u)),
            Milliseconds(std::max(options.PingInterval_ms, 1u)),
            Milliseconds(std::max(options.HeartbeatInterval_ms, 1u))};
}

}  // namespace

Broadcaster::Broadcaster(const BroadcastOptions& options, const PostingSource* source,
                         std::optional<FeedWish::Form> form)
    : m_Limits(LimitsOf(options)), m_Log(options.LogLimit, form) {
    if (form) m_Replays.emplace(*source, *form);
}

std::shared_ptr<Broadcaster> Broadcaster::Make(const BroadcastOptions& options, const PostingSource* source,
                                               std::optional<FeedWish::Form> form) {
    auto broadcaster = std::make_shared<Broadcaster>(options, source, form);
    Registry& all = TheRegistry();
    Mirel::AutoMutex lock(all.Lock);
    std::erase_if(all.Known, [](const auto& known) { return known.expired(); });
    all.Known.push_back(broadcaster);
    return broadcaster;
}

std::vector<std::shared_ptr<Broadcaster>> Broadcaster::All() {
    std::vector<std::shared_ptr<Broadcaster>> present;
    Registry& all = TheRegistry();
    Mirel::AutoMutex lock(all.Lock);
    for (const auto& known : all.Known)
        if (auto broadcaster = known.lock()) present.push_back(std::move(broadcaster));
    return present;
}

void Broadcaster::Adopt(Connection& connection) {
    // Every later posting is the client's as soon as it is made.
    std::unique_ptr<FeedClient> client = MakeClient(connection);
    const std::shared_ptr<FeedLoop> loop = ObtainLoop();
    if (!loop || !loop->Adopt(client))
        Mirel::DefaultLogSink().Error("WebSocket client %s can't be served.\n", client->Name());
}

std::unique_ptr<FeedClient> Broadcaster::MakeClient(Connection& from) {
    if (from.Reader)
        return std::make_unique<ReaderClient>(m_Log, std::move(from.Reader), std::move(from.Name));
    auto client = std::make_unique<SocketClient>(m_Log, std::move(from.Socket), std::move(from.Name),
                                                 std::move(from.Received), m_Limits);
    client->LeaveWhen(std::move(from.Ended));
    // What comes between its place in the log, which it has now, and the one in the history, it gets from
    // there.
    if (from.Wish) client->Subscribe(*from.Wish, *m_Replays);
    return client;
}

void Broadcaster::Send(std::string_view json) {
    Append(json);
}

void Broadcaster::Send(const PostedText& posted) {
    Append(posted);
}

template <class Frame>
void Broadcaster::Append(const Frame& frame) {
    try {
        if (m_Log.Append(frame)) PresentLoop()->Wake();
        Count(Counters.Postings);
    } catch (const std::bad_alloc&) {
        LoseClients();
    }
}

Milliseconds Broadcaster::Lag() {
    const std::shared_ptr<FeedLoop> loop = PresentLoop();
    return loop ? loop->Lag() : Milliseconds();
}

void Broadcaster::LoseClients() {
    Mirel::DefaultLogSink().Error(
        "No memory to broadcast a posting: the WebSocket clients are disconnected.\n");
    AskClose();
}

void Broadcaster::AskLook() {
    if (const std::shared_ptr<FeedLoop> loop = PresentLoop()) loop->AskLook();
}

std::uint64_t Broadcaster::AskClose() {
    const std::shared_ptr<FeedLoop> loop = PresentLoop();
    return loop ? loop->AskClose() : 0;
}

void Broadcaster::AwaitClose(std::uint64_t ticket) {
    if (ticket != 0) PresentLoop()->AwaitClose(ticket);
}

std::shared_ptr<FeedLoop> Broadcaster::PresentLoop() {
    Mirel::AutoMutex lock(m_Lock);
    return m_Loop;
}

// Null when no thread can be had; the next client tries again.
std::shared_ptr<FeedLoop> Broadcaster::ObtainLoop() {
    Mirel::AutoMutex lock(m_Lock);
    if (m_Loop) return m_Loop;
    auto loop = std::make_shared<FeedLoop>(m_Log, m_Limits);
    if (loop->Run()) m_Loop = std::move(loop);
    return m_Loop;
}

}  // namespace Velmora::Feed
