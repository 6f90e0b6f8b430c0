// Answers with lists of events, listeners, timers and watches: whole, or a page.
#include <algorithm>
#include <limits>
#include <utility>

#include "EventManager.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;

namespace {

// What a page is made of: the entry's own key, and the entry.
using Entries = std::vector<std::pair<std::string, const Velmora::PListItem*>>;

bool Visible(const RestCall& call, const Velmora::PListDict& entry) {
    return !entry.HasItem(Keys::event_name) || call.MaySee(entry.GetData(Keys::event_name).TextView());
}

Entries Wanted(const RestCall& call, const Velmora::PListArray& list, const ListForm& form) {
    const std::string* prefix = call.Parameter("prefix");
    Entries entries;
    for (const Velmora::PListItem& item : list) {
        const Velmora::PListDict* entry = AsDict(&item);
        if (entry == nullptr || !Visible(call, *entry)) continue;
        if (prefix != nullptr && !entry->GetData(form.Prefix).TextView().starts_with(*prefix)) continue;
        entries.emplace_back(entry->GetData(form.Key).Text(), &item);
    }
    return entries;
}

// Pages are in the order of the keys, which stays as it is while entries come and go.
void CutToPage(const RestCall& call, std::size_t limit, Entries& entries, bool& more) {
    const auto by_key = [](const auto& one, const auto& other) { return one.first < other.first; };
    std::sort(entries.begin(), entries.end(), by_key);
    if (const std::string* after = call.Parameter("after")) {
        const auto behind =
            std::upper_bound(entries.begin(), entries.end(),
                             std::pair(*after, static_cast<const Velmora::PListItem*>(nullptr)), by_key);
        entries.erase(entries.begin(), behind);
    }
    more = entries.size() > limit;
    if (more) entries.resize(limit);
}

}  // namespace

HttpResponse AnswerList(const RestCall& call, const Velmora::PListDict& state, const ListForm& form) {
    std::size_t limit = std::numeric_limits<std::size_t>::max();
    if (auto refused = ReadLimit(call, limit)) return std::move(*refused);
    const bool paged = call.Parameter("limit") != nullptr || call.Parameter("after") != nullptr;
    const bool all = call.Caller == nullptr || call.Caller->Events.empty();
    if (all && !paged && call.Parameter("prefix") == nullptr) return Json(Velmora::STATUS_200_OK, state);
    const Velmora::PListArray& list = state.GetArray(form.List);
    Entries entries = Wanted(call, list, form);
    bool more = false;
    if (paged) CutToPage(call, limit, entries, more);
    Velmora::PListArray shown;
    for (const auto& [key, item] : entries) shown.Append(*item);
    Velmora::PListDict answer;
    answer.SetItem(form.List, shown);
    if (more && !entries.empty()) answer.SetValue("next_after", entries.back().first);
    return Json(Velmora::STATUS_200_OK, answer);
}

const Velmora::PListDict* FindEntry(const Velmora::PListDict& owner, const std::string& list,
                                    const std::string& key, std::string_view value) {
    for (const Velmora::PListItem& item : owner.GetArray(list)) {
        const Velmora::PListDict* entry = AsDict(&item);
        if (entry != nullptr && entry->GetData(key).TextView() == value) return entry;
    }
    return nullptr;
}

}  // namespace Server
