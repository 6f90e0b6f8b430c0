#include "Posting.h"

#include <cstdlib>
#include <string_view>

#include "Names.h"

namespace Cluster {

namespace Keys = EventManager::Strings;

namespace {

constexpr const char* NodeHeader = "Velmora-Node";
constexpr const char* RevisionHeader = "Velmora-Revision";
constexpr const char* EventDataHeader = "Velmora-Event-Data";

const char* HeaderOf(natsMsg* message, const char* key) {
    const char* value = nullptr;
    return natsMsgHeader_Get(message, key, &value) == NATS_OK ? value : nullptr;
}

std::unique_ptr<Velmora::PListItem> DictFrom(const std::string& json, std::size_t depth) {
    auto item = Velmora::PListItem::CreateFromJSON(json, nullptr, depth);
    if (item && !item->HasType(Velmora::IT_DICT)) item.reset();
    return item;
}

// Postings of one second share their timestamp's text.
const Velmora::PListData& TimeOf(i64_t time_ns) {
    thread_local i64_t second = -1;
    thread_local Velmora::PListData text;
    const i64_t now = time_ns / 1000000000;
    if (now != second) {
        text = Velmora::PListData(Mirel::Timestamp::FromMicroseconds(now * 1000000).Text());
        second = now;
    }
    return text;
}

}  // namespace

Sending PostingMessage(const Engine& engine, const std::string& event_name, std::string json,
                       const PListDict& event_data, ui64_t revision) {
    Sending sending;
    sending.Subject = engine.Names().Events + EncodeName(event_name);
    sending.Body = std::move(json);
    sending.Headers.emplace_back(NodeHeader, engine.Of().Node);
    sending.Headers.emplace_back(RevisionHeader, std::to_string(revision));
    if (!event_data.Empty()) {
        std::string text;
        (void)event_data.EncodeJSON(text);
        sending.Headers.emplace_back(EventDataHeader, std::move(text));
    }
    return sending;
}

std::optional<StoredPosting> ReadPosting(const Engine& engine, natsMsg* message, i64_t time_ns,
                                         std::string& why) {
    const std::string_view subject = natsMsg_GetSubject(message);
    const auto name = DecodeName(subject.substr(std::min(subject.size(), engine.Names().Events.size())));
    if (!name) {
        why = "its subject names no event";
        return std::nullopt;
    }
    StoredPosting posting;
    posting.EventName = *name;
    const std::string json(natsMsg_GetData(message),
                           static_cast<std::size_t>(natsMsg_GetDataLength(message)));
    const bool own = HeaderOf(message, NodeHeader) != nullptr;
    const auto data =
        json.empty() ? nullptr
                     : DictFrom(json, own ? Velmora::PListItem::AnyDepth : Velmora::PListItem::UsualDepth);
    if (!json.empty() && !data) {
        why = "its body is no JSON object";
        return std::nullopt;
    }
    posting.Payload.SetValue(Keys::event_name, *name);
    posting.Payload.SetItem(Keys::timestamp, TimeOf(time_ns));
    if (data) posting.Payload.SetItem(Keys::post_data, static_cast<const PListDict&>(*data));
    const char* event_data = HeaderOf(message, EventDataHeader);
    const auto registered = event_data ? DictFrom(event_data, Velmora::PListItem::AnyDepth) : nullptr;
    posting.Payload.SetItem(Keys::event_data,
                            registered ? static_cast<const PListDict&>(*registered) : PListDict());
    const char* revision = HeaderOf(message, RevisionHeader);
    if (revision) posting.Revision = std::strtoull(revision, nullptr, 10);
    return posting;
}

}  // namespace Cluster
