// The protocols' texts, and where their messages end.
#include "Protocol.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>

#include "Bench.h"

namespace Bench {

namespace {

constexpr std::size_t JsonAround = 99;  // of a posting, around its data's text
constexpr std::size_t NatsBatch = 64;

// "HTTP/1.1 202 …" with a Content-Length.
std::size_t HttpAnswerSize(std::string_view begin) {
    const std::size_t head = begin.find("\r\n\r\n");
    if (head == begin.npos) return 0;
    Check(begin.substr(0, 10) == "HTTP/1.1 2", std::string(begin.substr(0, head)));
    std::size_t length = begin.find("ontent-Length: ");
    if (length == begin.npos || length > head) length = begin.find("ontent-length: ");
    Check(length != begin.npos && length < head, "an answer without a length");
    return head + 4 + std::strtoul(begin.data() + length + 15, nullptr, 10);
}

// The length of "+OK", ":3" and the like.
std::size_t LineSize(std::string_view begin) {
    const std::size_t end = begin.find("\r\n");
    return end == begin.npos ? 0 : end + 2;
}

// *3 $7 message $2 ev $N …
std::size_t RedisDeliverySize(std::string_view begin) {
    const std::size_t length = begin.rfind("$", begin.size() < 64 ? begin.size() : 64);
    const std::size_t head = begin.find("\r\n", length);
    if (begin.size() < 48 || head == begin.npos) return 0;
    return head + 2 + std::strtoul(begin.data() + length + 1, nullptr, 10) + 2;
}

// MSG ev 1 N
std::size_t NatsDeliverySize(std::string_view begin) {
    const std::size_t head = begin.find("\r\n");
    if (head == begin.npos) return 0;
    return head + 2 + std::strtoul(begin.data() + begin.rfind(' ', head) + 1, nullptr, 10) + 2;
}

std::string PaddedText(std::size_t size, bool with_time) {
    std::string text(size, 'x');
    if (with_time) text.replace(0, 2 + TimeDigits, TimeMark + std::string(TimeDigits, '0'));
    return text;
}

Protocol WebSocket(std::size_t payload, bool with_time) {
    const std::string body = R"({"text":")" + PaddedText(payload - JsonAround, with_time) + R"("})";
    Protocol protocol;
    protocol.Subscribe =
        "GET /api/v1/feed HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    protocol.SubscribeEnd = "\r\n\r\n";
    protocol.Publish =
        "POST /api/v1/events/bench.event HTTP/1.1\r\nHost: 127.0.0.1\r\n"
        "Content-Type: application/json\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\n\r\n" + body;
    protocol.AnswerSize = HttpAnswerSize;
    protocol.DeliverySize = WebSocketFrameSize;
    return protocol;
}

Protocol Redis(std::size_t payload, bool with_time) {
    Protocol protocol;
    protocol.Subscribe = "*2\r\n$9\r\nSUBSCRIBE\r\n$2\r\nev\r\n";
    protocol.SubscribeEnd = ":1\r\n";
    protocol.Publish = "*3\r\n$7\r\nPUBLISH\r\n$2\r\nev\r\n$" + std::to_string(payload) + "\r\n" +
                       PaddedText(payload, with_time) + "\r\n";
    protocol.AnswerSize = LineSize;
    protocol.DeliverySize = RedisDeliverySize;
    return protocol;
}

Protocol Nats(std::size_t payload, bool with_time) {
    const std::string hello = R"(CONNECT {"verbose":false,"pedantic":false})"
                              "\r\n";
    Protocol protocol;
    protocol.Subscribe = hello + "SUB ev 1\r\nPING\r\n";
    protocol.SubscribeEnd = "PONG\r\n";
    protocol.PublisherHello = hello + "PING\r\n";
    protocol.PublisherHelloEnd = "PONG\r\n";
    protocol.Publish = "PUB ev " + std::to_string(payload) + "\r\n" + PaddedText(payload, with_time) + "\r\n";
    protocol.PublishBatchEnd = "PING\r\n";
    protocol.Batch = NatsBatch;
    protocol.AnswerSize = LineSize;
    protocol.DeliverySize = NatsDeliverySize;
    return protocol;
}

}  // namespace

Protocol ProtocolNamed(const std::string& name, std::size_t payload, bool with_time) {
    if (name == "redis") return Redis(payload, with_time);
    if (name == "nats") return Nats(payload, with_time);
    return WebSocket(payload, with_time);
}

int ConnectWith(std::uint16_t port, const std::string& hello, const std::string& end) {
    const int connection = Connect(port);
    if (hello.empty()) return connection;
    SendAll(connection, hello.data(), hello.size());
    std::string answer;
    char byte = 0;
    while (answer.size() < end.size() || answer.compare(answer.size() - end.size(), end.size(), end) != 0) {
        Check(recv(connection, &byte, 1, 0) == 1, "the greeting ended with: " + answer);
        answer += byte;
    }
    return connection;
}

}  // namespace Bench
