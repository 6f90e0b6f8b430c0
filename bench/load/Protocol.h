// How the server, a Node.js peer and the brokers are spoken to, so that one driver serves them all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Drain.h"

namespace Bench {

struct Protocol {
    std::string Subscribe;     // sent by every receiving connection
    std::string SubscribeEnd;  // the answer to it ends with this
    std::string PublisherHello;
    std::string PublisherHelloEnd;
    std::string Publish;  // one publication; the text between the marks "T=" and "." is the time of sending
    std::string PublishBatchEnd;  // follows the last publication of a batch
    std::size_t Batch = 1;        // publications that are answered together
    std::size_t (*AnswerSize)(std::string_view begin) =
        nullptr;  // of a batch's answer; 0: not enough bytes yet
    MessageSize DeliverySize = nullptr;
};

/// "ws" (REST and WebSocket), "redis" or "nats", with a payload of about `payload` bytes; what is delivered
/// is `payload` bytes exactly with the brokers, and the server's posting is as long as that.
Protocol ProtocolNamed(const std::string& name, std::size_t payload, bool with_time);

/// Digits of the time in a publication, and its mark.
inline constexpr std::size_t TimeDigits = 19;
inline constexpr char TimeMark[] = "T=";

/// Connected and past the exchange of greetings.
int ConnectWith(std::uint16_t port, const std::string& hello, const std::string& end);

}  // namespace Bench
