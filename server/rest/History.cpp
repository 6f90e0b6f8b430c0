// What happened: the history of postings.
#include <algorithm>
#include <limits>
#include <utility>

#include "EventManager.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;

namespace {

// Most records that one answer holds (about 25 MB of ordinary ones), however many were asked for.
constexpr std::size_t MostRecords = 100000;

struct Selection {
    Velmora::PListArray Records;
    std::size_t Omitted = 0;  // that the client asked for and the answer has no room for
};

// Which events are asked for; none: all.
using Names = std::vector<std::string>;

// A name that ends in "*" stands for all that begin so.
bool Match(const Names& names, std::string_view name) {
    return std::any_of(names.begin(), names.end(),
                       [name](const std::string& one) { return PatternFits(one, name); });
}

bool Wanted(const Velmora::PListItem* item, const Names& names) {
    if (names.empty()) return true;
    const Velmora::PListDict* record = AsDict(item);
    return record != nullptr && Match(names, record->GetData(Keys::event_name).TextView());
}

// The last records of those events, oldest first.
Selection LastRecords(const Velmora::PListArray& history, const Names& names, std::size_t limit) {
    std::vector<const Velmora::PListItem*> found;  // newest first
    Selection selection;
    for (std::size_t i = history.Size(); i > 0 && found.size() + selection.Omitted < limit; --i) {
        const Velmora::PListItem* item = history.GetItem(i - 1);
        if (!Wanted(item, names)) continue;
        if (found.size() < MostRecords) {
            found.push_back(item);
        } else {
            ++selection.Omitted;
        }
    }
    for (auto item = found.rbegin(); item != found.rend(); ++item) selection.Records.Append(**item);
    return selection;
}

// The first records of those events from where the reading begins. Where the limit leaves some out, the
// reading's last one is the last that was taken, so that the next question goes on there.
Selection FirstRecords(EventManager::HistoryReading& reading, const Names& names, std::size_t limit,
                       const EventManager::PostingId& after) {
    const Velmora::PListArray& history = reading.Records;
    Selection selection;
    EventManager::PostingId last = after;
    limit = std::min(limit, MostRecords);
    for (std::size_t i = reading.Begin; i < history.Size(); ++i) {
        const Velmora::PListItem* item = history.GetItem(i);
        if (!Wanted(item, names)) continue;
        if (selection.Records.Size() == limit) {
            reading.Last = last;
            break;
        }
        selection.Records.Append(*item);
        if (selection.Records.Size() == limit) last = reading.IdAt(i);
    }
    return selection;
}

// The names that are asked for, as far as the caller may have them.
std::optional<HttpResponse> ReadNames(const RestCall& call, Names& names) {
    for (const auto& [key, value] : call.Query)
        if (key == Keys::event_name) names.push_back(value);
    if (call.Caller == nullptr) return std::nullopt;
    std::string refused;
    std::optional<Names> narrowed = call.Caller->Narrowed(names, refused);
    if (!narrowed) return EventForbidden(*call.Caller, refused);
    names = std::move(*narrowed);
    return std::nullopt;
}

}  // namespace

HttpResponse GetHistory(RestCall& call) {
    std::size_t limit = std::numeric_limits<std::size_t>::max();
    if (auto refused = ReadLimit(call, limit)) return std::move(*refused);
    std::optional<EventManager::PostingId> after;
    if (auto refused = ReadAfter(call.Query, after)) return std::move(*refused);
    Names names;
    if (auto refused = ReadNames(call, names)) return std::move(*refused);
    EventManager::HistoryReading reading = EventManager::ReadEventHistory(after ? &*after : nullptr);
    const Selection selection = after ? FirstRecords(reading, names, limit, *after)
                                      : LastRecords(std::as_const(reading.Records), names, limit);
    Velmora::PListDict answer;
    answer.SetItem(Keys::history, selection.Records);
    if (!reading.Last.Epoch.empty()) answer.SetValue("last_id", reading.Last.Text());
    if (reading.Gap) answer.SetValue("gap", true);
    if (selection.Omitted > 0) answer.SetValue("omitted", static_cast<long long>(selection.Omitted));
    return Json(Velmora::STATUS_200_OK, answer);
}

}  // namespace Server
