// Fetches from a durable consumer that several nodes share: what was asked for, and no more.
#pragma once

#include <string>

#include "Engine.h"

namespace Cluster {

/// Whether a message came, and if not, why.
enum class Fetched { Message, Nothing, ConsumerIsAway };

/// What a delivery says of itself.
struct DeliveryFacts {
    ui64_t Sequence = 0;   // in the stream
    ui64_t Delivered = 0;  // so often, this time included
    ui64_t Pending = 0;    // behind it
    i64_t Time_ns = 0;     // of the message, the engine's
};

/// Speaks the engine's protocol itself: the client's own fetching (3.4.1) writes behind the end of its list
/// where messages of an earlier request come with those of the next. For one thread.
class PullSubscription {
  public:
    PullSubscription(Engine& engine, const std::string& stream, const std::string& consumer);

    natsStatus Begin();
    /// Asks for `most` messages: until `wait_ms` is over, or, with 0, for those that are there.
    natsStatus Ask(std::size_t most, i64_t wait_ms);
    /// The next message of whatever was asked for.
    Fetched Next(HeldMessage& message, i64_t wait_ms);

  private:
    Engine& m_Engine;
    const std::string m_Requests;  // the subject for them
    std::string m_Inbox;
    HeldSubscription m_Subscription;
};

/// False where the message is not from a consumer.
bool ReadDelivery(natsMsg* message, DeliveryFacts& facts);

}  // namespace Cluster
