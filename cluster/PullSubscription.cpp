#include "PullSubscription.h"

#include <cstdlib>
#include <string_view>
#include <vector>

namespace Cluster {

PullSubscription::PullSubscription(Engine& engine, const std::string& stream, const std::string& consumer)
    : m_Engine(engine), m_Requests("$JS.API.CONSUMER.MSG.NEXT." + stream + "." + consumer) {}

natsStatus PullSubscription::Begin() {
    natsInbox* inbox = nullptr;
    natsStatus status = natsInbox_Create(&inbox);
    if (status != NATS_OK) return status;
    m_Inbox = inbox;
    natsInbox_Destroy(inbox);
    return Take(m_Subscription, natsConnection_SubscribeSync, m_Engine.Connection(), m_Inbox.c_str());
}

natsStatus PullSubscription::Ask(std::size_t most, i64_t wait_ms) {
    const std::string batch = "{\"batch\":" + std::to_string(most);
    const std::string request = wait_ms == 0
                                    ? batch + ",\"no_wait\":true}"
                                    : batch + ",\"expires\":" + std::to_string(wait_ms * 1000000) + "}";
    return natsConnection_PublishRequestString(m_Engine.Connection(), m_Requests.c_str(), m_Inbox.c_str(),
                                               request.c_str());
}

// Instead of a message there may be a status: 404 and 408 (nothing is there, the time is over), 409 (too many
// requests, or the consumer was deleted), 503 (nobody answers for it).
Fetched PullSubscription::Next(HeldMessage& message, i64_t wait_ms) {
    if (Take(message, natsSubscription_NextMsg, m_Subscription.get(), wait_ms) != NATS_OK)
        return Fetched::Nothing;
    const char* status = nullptr;
    if (natsMsg_GetDataLength(message.get()) > 0 ||
        natsMsgHeader_Get(message.get(), "Status", &status) != NATS_OK)
        return Fetched::Message;
    const std::string_view text = status;
    return text == "404" || text == "408" ? Fetched::Nothing : Fetched::ConsumerIsAway;
}

// $JS.ACK.STREAM.CONSUMER.DELIVERED.SEQUENCE.OF_CONSUMER.TIME.PENDING; newer servers put domain and account
// before the stream, and may put something behind.
bool ReadDelivery(natsMsg* message, DeliveryFacts& facts) {
    const char* const reply = natsMsg_GetReply(message);
    std::string_view left = reply == nullptr ? "" : reply;
    if (!left.starts_with("$JS.ACK.")) return false;
    std::vector<std::string> tokens;
    for (;;) {
        const std::size_t end = left.find('.');
        tokens.emplace_back(left.substr(0, end));
        if (end == left.npos) break;
        left.remove_prefix(end + 1);
    }
    if (tokens.size() < 9) return false;
    const std::size_t first = tokens.size() == 9 ? 4 : 6;
    const auto number = [&](std::size_t index) { return std::strtoull(tokens[index].c_str(), nullptr, 10); };
    if (tokens.size() < first + 5) return false;
    facts.Delivered = number(first);
    facts.Sequence = number(first + 1);
    facts.Time_ns = static_cast<i64_t>(number(first + 3));
    facts.Pending = number(first + 4);
    return true;
}

}  // namespace Cluster
