// The public face of the feed.
#include "VL_WebSocket.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include "MR_log.h"
#include "feed/Broadcaster.h"
#include "feed/CounterSet.h"
#include "feed/NumberedFeeds.h"

namespace Velmora {

namespace {

// Room that a thread keeps from one encoding to the next.
constexpr std::size_t KeptTextRoom = 64u << 10;

// All are asked before the first is waited for, so that their time-outs run at the same time.
void CloseClientsOf(const std::vector<std::shared_ptr<Feed::Broadcaster>>& broadcasters) {
    std::vector<ui64_t> tickets;
    for (const auto& broadcaster : broadcasters) tickets.push_back(broadcaster->AskClose());
    for (std::size_t i = 0; i < tickets.size(); ++i) broadcasters[i]->AwaitClose(tickets[i]);
}

}  // namespace

TCPSession::TCPSession() = default;
TCPSession::TCPSession(TCPSession&&) noexcept = default;
TCPSession& TCPSession::operator=(TCPSession&&) noexcept = default;
TCPSession::~TCPSession() = default;

TCPSession TCPSession::WebSocket(int descriptor, const std::string& peer, std::string_view received) {
    return WebSocket(SocketStream(descriptor), peer, received);
}

TCPSession TCPSession::WebSocket(SocketStream stream, const std::string& peer, std::string_view received) {
    TCPSession session;
    session.m_Connection = std::make_unique<Feed::Connection>();
    session.m_Connection->Socket = std::move(stream);
    session.m_Connection->Name = peer;
    session.m_Connection->Received = received;
    return session;
}

TCPSession TCPSession::Subscriber(SocketStream stream, const std::string& peer, std::string_view received,
                                  FeedWish wish) {
    TCPSession session = WebSocket(std::move(stream), peer, received);
    session.m_Connection->Wish = std::move(wish);
    return session;
}

TCPSession TCPSession::Reader(std::unique_ptr<BroadcastReader> reader, const std::string& name) {
    TCPSession session;
    if (!reader) return session;
    session.m_Connection = std::make_unique<Feed::Connection>();
    session.m_Connection->Reader = std::move(reader);
    session.m_Connection->Name = name;
    return session;
}

void TCPSession::LeaveWhen(std::shared_ptr<const std::atomic<bool>> ended) {
    if (m_Connection) m_Connection->Ended = std::move(ended);
}

bool TCPSession::Empty() const {
    return m_Connection == nullptr;
}

WebSocketBroadcastManager::WebSocketBroadcastManager(ui32_t timeout_ms)
    : WebSocketBroadcastManager(BroadcastOptions{.Timeout_ms = timeout_ms}) {}

WebSocketBroadcastManager::WebSocketBroadcastManager(const BroadcastOptions& options)
    : m_Broadcaster(Feed::Broadcaster::Make(options)),
      m_Numbered(std::make_unique<Feed::NumberedFeeds>(options)) {}

WebSocketBroadcastManager::~WebSocketBroadcastManager() {
    CloseAll();
}

void WebSocketBroadcastManager::AdoptWsClient(TCPSession& session) {
    const std::unique_ptr<Feed::Connection> connection = std::move(session.m_Connection);
    if (!connection) return;
    if (!connection->Wish) return m_Broadcaster->Adopt(*connection);
    const std::shared_ptr<Feed::Broadcaster> numbered = m_Numbered->Obtain(connection->Wish->As);
    if (numbered) return numbered->Adopt(*connection);
    Mirel::DefaultLogSink().Error("WebSocket client %s can't be served: postings have no ids here.\n",
                                  connection->Name.c_str());
}

void WebSocketBroadcastManager::SubscribersFrom(const PostingSource& source) {
    m_Numbered->From(source);
}

void WebSocketBroadcastManager::SendToListeners(const PListDict& dict) {
    if (!m_Broadcaster->HasClients()) return;
    static thread_local std::string text;
    try {
        static_cast<void>(dict.EncodeJSON(text));  // succeeds where there is memory
        m_Broadcaster->Send(text);
    } catch (const std::bad_alloc&) {
        m_Broadcaster->LoseClients();
    }
    if (text.capacity() > KeptTextRoom) std::string().swap(text);
}

void WebSocketBroadcastManager::SendToListeners(const PListDict& dict, const PostingId& id,
                                                std::string_view name) {
    if (!m_Numbered->HasClients()) return SendToListeners(dict);
    static thread_local std::string text;
    try {
        static_cast<void>(dict.EncodeJSON(text));
        if (m_Broadcaster->HasClients()) m_Broadcaster->Send(text);
        m_Numbered->Send({id.Epoch, id.Number, name, text});
    } catch (const std::bad_alloc&) {
        if (m_Broadcaster->HasClients()) m_Broadcaster->LoseClients();
        m_Numbered->LoseClients();
    }
    if (text.capacity() > KeptTextRoom) std::string().swap(text);
}

void WebSocketBroadcastManager::SendText(std::string_view json) {
    if (m_Broadcaster->HasClients()) m_Broadcaster->Send(json);
}

void WebSocketBroadcastManager::CloseAll() {
    std::vector<std::shared_ptr<Feed::Broadcaster>> all = m_Numbered->Present();
    all.push_back(m_Broadcaster);
    CloseClientsOf(all);
}

void DismissWebSocketClients() {
    for (const auto& broadcaster : Feed::Broadcaster::All()) broadcaster->AskLook();
}

void CloseAllWebSocketClients() {
    CloseClientsOf(Feed::Broadcaster::All());
}

BroadcastCounters GetBroadcastCounters() {
    const Feed::CounterSet& now = Feed::Counters;
    Feed::Milliseconds lag{};
    for (const auto& broadcaster : Feed::Broadcaster::All()) lag = std::max(lag, broadcaster->Lag());
    return {.Clients = now.Clients,
            .Adopted = now.Adopted,
            .Postings = now.Postings,
            .FramesDelivered = now.FramesDelivered,
            .BytesDelivered = now.BytesDelivered,
            .SlowDisconnects = now.SlowDisconnects,
            .ProtocolErrors = now.ProtocolErrors,
            .LogBytes = now.LogBytes,
            .Times = now.Times.Read(),
            .Lag_ms = static_cast<ui64_t>(lag.count())};
}

}  // namespace Velmora
