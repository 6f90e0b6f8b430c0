// Answers an upgrade and hands the connection's stream to the queue's feed.
#include "http/FeedUpgrade.h"

#include <openssl/evp.h>

#include <algorithm>
#include <utility>

#include "EventManager.h"
#include "MR_text.h"
#include "VL_WebSocket.h"
#include "http/AccessPolicy.h"
#include "http/ReplyForm.h"

namespace Server {

namespace {

HttpResponse UpgradeWanted(const std::string& detail) {
    HttpResponse response = Problem(Velmora::STATUS_426_UPGRADE, detail);
    response.Headers.emplace_back("Upgrade", "websocket");
    response.Headers.emplace_back("Connection", "Upgrade");
    response.Headers.emplace_back("Sec-WebSocket-Version", "13");
    return response;
}

// 16 bytes in base64: 22 characters of the alphabet and two of padding.
bool KeyIsValid(std::string_view key) {
    static constexpr std::string_view Alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    return key.size() == 24 && key.substr(22) == "==" &&
           key.substr(0, 22).find_first_not_of(Alphabet) == key.npos;
}

std::string AcceptKey(std::string_view key) {
    const std::string text = std::string(key) + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha1(), nullptr) != 1) length = 0;
    unsigned char encoded[2 * EVP_MAX_MD_SIZE];
    const int size = EVP_EncodeBlock(encoded, digest, static_cast<int>(length));
    return {reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(size)};
}

}  // namespace

std::optional<HttpResponse> RefuseUpgrade(const RequestHead& head) {
    if (!ListHas(head, Field::Upgrade, "websocket") || !ListHas(head, Field::Connection, "upgrade") ||
        head.Http10) {
        return UpgradeWanted("The feed is a WebSocket: ask for an upgrade.");
    }
    if (head[Field::WebSocketVersion] != "13")
        return UpgradeWanted("Version 13 of WebSocket is spoken here.");
    if (head.HasBody || head.Count(Field::WebSocketKey) != 1 || !KeyIsValid(head[Field::WebSocketKey])) {
        return Problem(Velmora::STATUS_400_BAD_REQ, "Sec-WebSocket-Key must be 16 bytes in base64.");
    }
    return std::nullopt;
}

std::string SwitchingProtocols(const RequestHead& head) {
    std::string text =
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "X-Content-Type-Options: nosniff\r\nCache-Control: no-store\r\nSec-WebSocket-Accept: ";
    text.append(AcceptKey(head[Field::WebSocketKey])).append("\r\n");
    if (ListHas(head, Field::WebSocketProtocol, NumberedFeedProtocol)) {
        text.append("Sec-WebSocket-Protocol: ").append(NumberedFeedProtocol).append("\r\n");
    } else if (ListHas(head, Field::WebSocketProtocol, FeedProtocol)) {
        text.append("Sec-WebSocket-Protocol: ").append(FeedProtocol).append("\r\n");
    }
    return text.append("\r\n");
}

namespace {

// Of an epoch that there never is: whoever asks so learns that something is missing.
const Velmora::PostingId Unknown = {"?", 0};

// A media type of the list may bear parameters.
bool AcceptsEventStream(std::string_view accept) {
    while (!accept.empty()) {
        std::string_view type = accept.substr(0, accept.find(','));
        accept.remove_prefix(std::min(type.size() + 1, accept.size()));
        type = type.substr(0, type.find(';'));
        while (!type.empty() && type.front() == ' ') type.remove_prefix(1);
        while (!type.empty() && type.back() == ' ') type.remove_suffix(1);
        if (Mirel::EqualIgnoringCase(type, "text/event-stream")) return true;
    }
    return false;
}

// Without ids a client is sent every posting.
std::optional<HttpResponse> RefuseEverything(const Caller& caller) {
    if (!caller || caller->Events.empty()) return std::nullopt;
    return Problem(Velmora::STATUS_403_FORBIDDEN,
                   "The token \"" + caller->Name + "\" is for the events " + caller->EventsText() +
                       " only: ask for the subprotocol " + std::string(NumberedFeedProtocol) +
                       " or for server-sent events.");
}

// The names of events that are wanted, as far as they may be had.
std::optional<HttpResponse> Narrow(const Caller& caller, std::vector<std::string>& names) {
    if (!caller) return std::nullopt;
    std::string refused;
    std::optional<std::vector<std::string>> narrowed = caller->Narrowed(names, refused);
    if (!narrowed) return EventForbidden(*caller, refused);
    names = std::move(*narrowed);
    return std::nullopt;
}

}  // namespace

bool WantsEventStream(const RequestHead& head) {
    if (head.Parts->Path == EventStreamPath) return true;
    return !head.Has(Field::Upgrade) && AcceptsEventStream(head[Field::Accept]);
}

std::optional<HttpResponse> ReadFeedWish(const RequestHead& head, const HttpRoute& route,
                                         std::optional<Velmora::FeedWish>& wish) {
    const QueryParameters& query = route.Query;
    const bool events = WantsEventStream(head);
    if (!events && !ListHas(head, Field::WebSocketProtocol, NumberedFeedProtocol)) {
        if (query.empty()) return RefuseEverything(route.Caller);
        return Problem(Velmora::STATUS_400_BAD_REQ,
                       "The query parameter \"" + query.front().first + "\" is only for the subprotocol " +
                           std::string(NumberedFeedProtocol) + " and for server-sent events.");
    }
    wish.emplace();
    if (events) wish->As = Velmora::FeedWish::Form::EventStream;
    for (const auto& [name, value] : query) {
        if (name == "event_name") {
            wish->Names.push_back(value);
        } else if (!(wish->After = Velmora::PostingId::FromText(value))) {
            return Problem(Velmora::STATUS_400_BAD_REQ,
                           "The query parameter \"after\" must be the id of a posting: EPOCH-NUMBER.");
        }
    }
    // What a browser has come to since it was told the address.
    if (events && !head[Field::LastEventId].empty())
        wish->After = Velmora::PostingId::FromText(head[Field::LastEventId]).value_or(Unknown);
    return Narrow(route.Caller, wish->Names);
}

std::string EventStreamHead(const std::vector<std::pair<std::string, std::string>>& more) {
    HttpResponse response;
    response.Headers = more;
    response.Headers.emplace_back("X-Accel-Buffering", "no");  // a proxy is to pass on what there is
    response.ContentType = "text/event-stream";
    std::string text;
    AppendReplyHead(text, response, {.KeepAlive = false, .Endless = true});
    return text;
}

FeedPlaces::Place FeedPlaces::Take() {
    Place place(this);
    const std::size_t on_their_way = m_OnTheirWay.fetch_add(1) + 1;
    // One that arrives is counted as a client before it is no longer on its way: twice, but never not at all.
    if (on_their_way + Velmora::GetBroadcastCounters().Clients > m_Most) place.reset();
    return place;
}

HttpResponse FeedIsFull(std::size_t most) {
    HttpResponse response =
        Problem(Velmora::STATUS_503_NO_SERVICE,
                "As many clients as may be are on the feed (\"MaxFeedClients\": " + std::to_string(most) +
                    "); try again later.");
    response.Headers.emplace_back("Retry-After", "5");
    return response;
}

void HandOverToFeed(Velmora::SocketStream stream, const std::string& peer, std::string_view received,
                    std::optional<Velmora::FeedWish> wish, const Caller& caller) {
    using Velmora::TCPSession;
    TCPSession session = wish ? TCPSession::Subscriber(std::move(stream), peer, received, std::move(*wish))
                              : TCPSession::WebSocket(std::move(stream), peer, received);
    if (caller) session.LeaveWhen(caller->Ended);
    EventManager::GlobalEventQueue().AdoptWsClient(session);
}

}  // namespace Server
