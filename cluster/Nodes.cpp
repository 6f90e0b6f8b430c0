#include "Nodes.h"

#include <string_view>

#include "MR_util.h"

namespace Cluster {

using Mirel::AutoMutex;

namespace {

constexpr i64_t Forgotten_us = i64_t{10} * 60 * 1000000;

i64_t Now_us() {
    return Mirel::Timestamp().Microseconds();
}

}  // namespace

Nodes::Nodes(Engine& engine, Publisher& publisher)
    : m_Engine(engine),
      m_Publisher(publisher),
      m_Reader(engine, engine.Names().Nodes, engine.Names().NodesKeys + ">", *this) {}

ui64_t Nodes::Begin(const StreamFacts&) {
    AutoMutex lock(m_Lock);
    m_Records.clear();
    return 0;
}

void Nodes::Receive(const StreamMessage& message) {
    const std::string_view subject = natsMsg_GetSubject(message.Message);
    const std::string node(subject.substr(std::min(subject.size(), m_Engine.Names().NodesKeys.size())));
    const std::string json(natsMsg_GetData(message.Message),
                           static_cast<std::size_t>(natsMsg_GetDataLength(message.Message)));
    const auto item = Velmora::PListItem::CreateFromJSON(json);
    const auto* record = dynamic_cast<const PListDict*>(item.get());
    if (record == nullptr) return;
    AutoMutex lock(m_Lock);
    m_Records[node] = {*record, message.Time_ns / 1000};
}

void Nodes::Announce(PListDict record) {
    Sending sending;
    sending.Subject = m_Engine.Names().NodesKeys + m_Engine.Of().Node;
    (void)record.EncodeJSON(sending.Body);
    Mirel::UUID id;
    Mirel::GenRandomValue(id);
    sending.Id = Mirel::UUIDText(id);
    const i64_t began = Now_us();
    const Sent sent = m_Publisher.SendAndWait(std::move(sending), std::chrono::steady_clock::now());
    if (sent.What != Sent::Fate::Stored) return;
    const i64_t middle = began + (Now_us() - began) / 2;
    HeldMessage stored;
    jsErrCode code = jsErrCode(0);
    const Streams& names = m_Engine.Names();
    if (Take(stored, js_GetMsg, m_Engine.Context(), names.Nodes.c_str(), sent.Sequence, nullptr, &code) ==
        NATS_OK) {
        m_Offset_us = natsMsg_GetTime(stored.get()) / 1000 - middle;
        m_KnowsTime = true;
    }
}

// What the engine makes for the question says when it was made.
void Nodes::LearnTime() {
    if (m_KnowsTime) return;
    jsConsumerConfig config;
    jsConsumerConfig_Init(&config);
    config.AckPolicy = js_AckNone;
    config.InactiveThreshold = i64_t{5} * 1000000000;
    config.MemoryStorage = true;
    config.Replicas = 1;
    HeldConsumerInfo info;
    jsErrCode code = jsErrCode(0);
    const std::string& stream = m_Engine.Names().Postings;
    const i64_t began = Now_us();
    if (Take(info, js_AddConsumer, m_Engine.Context(), stream.c_str(), &config, nullptr, &code) != NATS_OK)
        return;
    m_Offset_us = info->Created / 1000 - (began + (Now_us() - began) / 2);
    m_KnowsTime = true;
    (void)js_DeleteConsumer(m_Engine.Context(), stream.c_str(), info->Name, nullptr, &code);
}

std::optional<ui64_t> Nodes::CalledUpTo(const std::string& epoch) const {
    std::optional<long long> highest;
    AutoMutex lock(m_Lock);
    for (const auto& [node, record] : m_Records) {
        long long called = 0;
        if (record.Content.GetData("epoch").TextView() != epoch) continue;
        record.Content.GetData("called").GetValue(called);
        highest = std::max(highest.value_or(0), called);
    }
    return highest;
}

i64_t Nodes::EngineTime_us() const {
    return Now_us() + m_Offset_us;
}

Velmora::PListArray Nodes::List() const {
    Velmora::PListArray nodes;
    const i64_t now = EngineTime_us();
    AutoMutex lock(m_Lock);
    for (const auto& [node, record] : m_Records) {
        const i64_t age_us = now - record.Time_us;
        if (age_us > Forgotten_us) continue;
        PListDict entry;
        entry.SetValue("node", node);
        for (const char* key : {"version", "revision", "sequence", "engine"}) {
            if (const Velmora::PListItem* item = std::as_const(record.Content).GetItem(key))
                entry.SetItem(key, *item);
        }
        entry.SetValue("last_seen_sec", static_cast<double>(std::max<i64_t>(age_us, 0)) / 1e6);
        entry.SetValue("alive", age_us < 5000000);
        nodes.Append(entry);
    }
    return nodes;
}

}  // namespace Cluster
