// The queue as a whole: its state document, its limits and the feed's place among the resources.
#include <limits>
#include <utility>

#include "EventManager.h"
#include "config/Config.h"
#include "rest/Registration.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;
using EventManager::GlobalEventQueue;
using Mirel::i32_t;

namespace {

const std::string* const Sections[] = {&Keys::event_list, &Keys::timer_list, &Keys::watch_list};

bool HasSection(const Velmora::PListDict& document) {
    for (const std::string* section : Sections) {
        if (document.HasItem(*section)) return true;
    }
    return false;
}

Velmora::PListDict Limits() {
    Velmora::PListDict limits;
    limits.SetValue(Keys::max_listeners, GlobalEventQueue().GetMaxListeners());
    limits.SetValue(Keys::max_watches, GlobalEventQueue().GetMaxWatches());
    return limits;
}

// 422 where an entry could not be applied. Whether it may be registered is asked only of entries that are
// well formed.
std::optional<HttpResponse> Malformed(const Velmora::PListDict& document,
                                      const Velmora::PListDict& existing) {
    std::vector<Fault> faults;
    CheckQueueDocument(document, "", faults);
    if (!HasSection(document)) {
        faults.insert(faults.begin(),
                      {"", "holds none of \"event_list\", \"timer_list\" and \"watch_list\""});
    }
    if (faults.empty()) CheckRegistrations(document, existing, faults);
    if (faults.empty()) return std::nullopt;
    return Problem(Velmora::STATUS_422_UNPROCESSABLE,
                   "The document cannot be applied as a whole; nothing was.", faults);
}

// 409 where the limits would let only a part of the document in. What others create meanwhile is not
// foreseen: then the queue refuses entries as it does for everybody.
std::optional<HttpResponse> OverLimits(const Velmora::PListDict& document,
                                       const Velmora::PListDict& existing) {
    std::vector<Fault> faults;
    CheckQueueLimits(document, existing, GlobalEventQueue().GetMaxListeners(),
                     GlobalEventQueue().GetMaxWatches(), "", faults);
    if (faults.empty()) return std::nullopt;
    return Problem(Velmora::STATUS_409_CONFLICT,
                   "The limits do not let the whole document in; nothing was applied.", faults);
}

}  // namespace

HttpResponse GetQueue(RestCall&) {
    Velmora::PListDict state;
    GlobalEventQueue().GetQueueState(state);
    return Json(Velmora::STATUS_200_OK, state);
}

HttpResponse PostQueue(RestCall& call) {
    Velmora::PListDict document;  // what the queue holds may be nested as deep as its users liked
    if (auto refused = ReadBody(call, document, Velmora::PListItem::AnyDepth)) return std::move(*refused);
    Velmora::PListDict existing;
    GlobalEventQueue().GetQueueState(existing);
    if (auto refused = Malformed(document, existing)) return std::move(*refused);
    if (auto refused = OverLimits(document, existing)) return std::move(*refused);
    EventManager::ApplyQueueState(document);
    Velmora::PListDict state;
    GlobalEventQueue().GetQueueState(state);
    return Json(Velmora::STATUS_200_OK, state);
}

HttpResponse GetConfig(RestCall&) {
    return Json(Velmora::STATUS_200_OK, Limits());
}

HttpResponse PatchConfig(RestCall& call) {
    Velmora::PListDict body;
    if (auto refused = ReadBody(call, body)) return std::move(*refused);
    constexpr auto Min = std::numeric_limits<i32_t>::min(), Max = std::numeric_limits<i32_t>::max();
    std::vector<Fault> faults;
    Shape shape(body, "", faults);
    const auto max_listeners = shape.Integer(Keys::max_listeners, Min, Max);
    const auto max_watches = shape.Integer(Keys::max_watches, Min, Max);
    shape.NothingElse();
    if (!faults.empty())
        return Problem(Velmora::STATUS_422_UNPROCESSABLE, "The limits cannot be set as given.", faults);

    if (max_listeners) GlobalEventQueue().SetMaxListeners(static_cast<i32_t>(*max_listeners));
    if (max_watches) GlobalEventQueue().SetMaxWatches(static_cast<i32_t>(*max_watches));
    Velmora::PListDict in_force = Limits();
    in_force.SetValue("note",
                      "Until this process ends; each start begins with the configuration's \"Limits\".");
    return Json(Velmora::STATUS_200_OK, in_force);
}

HttpResponse GetFeed(RestCall&) {
    HttpResponse response = Problem(Velmora::STATUS_426_UPGRADE,
                                    "The feed is a WebSocket: the request must ask for an upgrade to it.");
    response.Headers.emplace_back("Upgrade", "websocket");
    return response;
}

}  // namespace Server
