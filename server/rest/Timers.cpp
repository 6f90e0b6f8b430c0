// Timers: /api/v1/timers.
#include <functional>
#include <map>
#include <utility>

#include "EventManager.h"
#include "config/QueueShape.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;
using EventManager::GlobalEventQueue;

namespace {

std::string NoSuchTimer(const std::string& id) {
    return "There is no timer with the id \"" + id + "\".";
}

// The timers, each with the time at which it fires next.
Velmora::PListDict TimersWithTimes() {
    Velmora::PListDict state;
    GlobalEventQueue().GetTimerState(state);
    std::map<std::string, std::string, std::less<>> times;
    for (const EventManager::TimerDue& due : EventManager::GetTimerTimes())
        times.emplace(UUIDText(due.Id), due.Time.Text());
    Velmora::PListArray timers;
    for (const Velmora::PListItem& item : std::as_const(state).GetArray(Keys::timer_list)) {
        Velmora::PListDict timer = *AsDict(&item);
        const auto found = times.find(timer.GetData(Keys::id).TextView());
        if (found != times.end()) timer.SetValue("next_fire", found->second);
        timers.Append(timer);
    }
    state.SetItem(Keys::timer_list, std::move(timers));
    return state;
}

}  // namespace

HttpResponse GetTimers(RestCall& call) {
    return AnswerList(call, TimersWithTimes(), {Keys::timer_list, Keys::id, Keys::event_name});
}

HttpResponse PostTimers(RestCall& call) {
    Velmora::PListDict body;
    if (auto refused = ReadBody(call, body)) return std::move(*refused);
    std::vector<Fault> faults;
    Shape shape(body, "", faults);
    const TimerEntry timer = ReadTimer(shape);
    if (!faults.empty())
        return Problem(Velmora::STATUS_422_UNPROCESSABLE, "The timer cannot be created as given.", faults);

    EventManager::UUID id;
    if (!GlobalEventQueue().CreateTimer(*timer.EventName, timer.Times.Start, timer.Times.Interval_sec,
                                        timer.Data, id)) {
        return Problem(Velmora::STATUS_503_NO_SERVICE, "The event queue is not running yet.");
    }
    Velmora::PListDict created;
    created.SetValue(Keys::id, UUIDText(id));
    return Created(ApiPath({Keys::timers, UUIDText(id)}), created);
}

HttpResponse DeleteTimers(RestCall&) {
    GlobalEventQueue().DeleteAllTimers();
    return NoContent();
}

HttpResponse GetTimer(RestCall& call) {
    EventManager::UUID id;
    if (Mirel::UUIDFromText(call.Names[0], id)) {
        const Velmora::PListDict state = TimersWithTimes();
        const Velmora::PListDict* entry = FindEntry(state, Keys::timer_list, Keys::id, UUIDText(id));
        if (entry != nullptr && call.MaySee(entry->GetData(Keys::event_name).TextView()))
            return Json(Velmora::STATUS_200_OK, *entry);
    }
    return Problem(Velmora::STATUS_404_NOT_FOUND, NoSuchTimer(call.Names[0]));
}

HttpResponse DeleteTimer(RestCall& call) {
    EventManager::UUID id;
    const bool removed = Mirel::UUIDFromText(call.Names[0], id) && GlobalEventQueue().DeleteTimer(id);
    return Removed(removed, NoSuchTimer(call.Names[0]));
}

}  // namespace Server
