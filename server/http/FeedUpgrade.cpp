// Answers an upgrade and hands the connection's stream to the queue's feed.
#include "http/FeedUpgrade.h"

#include <openssl/evp.h>

#include <utility>

#include "EventManager.h"
#include "VL_WebSocket.h"
#include "http/AccessPolicy.h"

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
    if (ListHas(head, Field::WebSocketProtocol, FeedProtocol)) {
        text.append("Sec-WebSocket-Protocol: ").append(FeedProtocol).append("\r\n");
    }
    return text.append("\r\n");
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

void HandOverToFeed(Velmora::SocketStream stream, const std::string& peer, std::string_view received) {
    Velmora::TCPSession session = Velmora::TCPSession::WebSocket(std::move(stream), peer, received);
    EventManager::GlobalEventQueue().AdoptWsClient(session);
}

}  // namespace Server
