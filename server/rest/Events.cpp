// Events and their listeners: /api/v1/events and what is below it.
#include <utility>

#include "EventManager.h"
#include "config/QueueShape.h"
#include "rest/ClusterGate.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;
using EventManager::GlobalEventQueue;

namespace {

std::string NoSuchEvent(const std::string& name) {
    return "There is no event \"" + name + "\".";
}

std::string NoSuchListener(const RestCall& call) {
    return "The event \"" + call.Names[0] + "\" has no listener with the id \"" + call.Names[1] + "\".";
}

HttpResponse EventMissing(const std::string& name) {
    return Problem(Velmora::STATUS_404_NOT_FOUND, NoSuchEvent(name));
}

HttpResponse OverListenerLimit() {
    return Problem(Velmora::STATUS_409_CONFLICT, "There are more listeners than \"max_listeners\" allows.");
}

HttpResponse CallbackRefused() {
    return Problem(Velmora::STATUS_400_BAD_REQ, "The callback cannot be called.",
                   {{PointerTo("", Keys::callback), CallableForms}});
}

HttpResponse NoQueue() {
    return Problem(Velmora::STATUS_503_NO_SERVICE, "The event queue is not running yet.");
}

// The event's entry in the document; the empty dictionary where there is none.
Velmora::PListDict FindEvent(const std::string& name) {
    Velmora::PListDict state;
    GlobalEventQueue().GetEventState(state);
    const Velmora::PListDict* entry = FindEntry(state, Keys::event_list, Keys::event_name, name);
    return entry == nullptr ? Velmora::PListDict() : *entry;
}

Velmora::PListDict NewEventEntry(const std::string& name, const Velmora::PListDict* data) {
    Velmora::PListDict entry;
    entry.SetValue(Keys::event_name, name);
    if (data != nullptr && !data->Empty()) entry.SetItem(Keys::event_data, *data);
    entry.SetItem(Keys::listener_list, Velmora::PListArray());
    return entry;
}

HttpResponse ListenerAnswer(Status_t status, const std::string& event_name, const EventManager::UUID& id) {
    if (status == Velmora::STATUS_404_NOT_FOUND) return EventMissing(event_name);
    if (status == Velmora::STATUS_409_CONFLICT) return OverListenerLimit();
    if (status == Velmora::STATUS_412_PRECOND_FAILED) {
        return Problem(status, "The event \"" + event_name + "\" has a listener with this callback already.");
    }
    if (status != Velmora::STATUS_201_CREATED) return NoQueue();
    Velmora::PListDict created;
    created.SetValue(Keys::id, UUIDText(id));
    return Created(ApiPath({Keys::events, event_name, Keys::listeners, UUIDText(id)}), created);
}

}  // namespace

HttpResponse GetEvents(RestCall& call) {
    Velmora::PListDict state;
    GlobalEventQueue().GetEventState(state);
    return AnswerList(call, state, {Keys::event_list, Keys::event_name, Keys::event_name});
}

HttpResponse PostEvents(RestCall& call) {
    Velmora::PListDict body;
    if (auto refused = ReadBody(call, body)) return std::move(*refused);
    std::vector<Fault> faults;
    Shape shape(body, "", faults);
    const auto name = ReadEventName(shape);
    const Velmora::PListDict* data = shape.Dict(Keys::event_data);
    shape.NothingElse();
    if (!faults.empty())
        return Problem(Velmora::STATUS_422_UNPROCESSABLE, "The event cannot be created as given.", faults);

    Velmora::PListDict copy;
    if (data != nullptr) copy = *data;
    const Status_t status = GlobalEventQueue().CreateEvent(*name, &copy);
    if (status == Velmora::STATUS_409_CONFLICT) return OverListenerLimit();
    if (status == Velmora::STATUS_412_PRECOND_FAILED)
        return Problem(status, "The event \"" + *name + "\" exists already.");
    if (status != Velmora::STATUS_201_CREATED) return NoQueue();
    return Created(ApiPath({Keys::events, *name}), NewEventEntry(*name, data));
}

HttpResponse DeleteEvents(RestCall&) {
    GlobalEventQueue().DeleteAllEvents();
    return NoContent();
}

HttpResponse GetEvent(RestCall& call) {
    const Velmora::PListDict entry = FindEvent(call.Names[0]);
    return entry.Empty() ? EventMissing(call.Names[0]) : Json(Velmora::STATUS_200_OK, entry);
}

HttpResponse Posted(const std::string& name, const std::string& id) {
    HttpResponse response;
    response.Status = Velmora::STATUS_202_ACCEPTED;
    response.ContentType = Velmora::Strings::MIME_json;
    constexpr std::string_view Before = "{\"event_name\":", After = ",\"posted\":true,\"id\":\"";
    response.Body.reserve(Before.size() + name.size() + 2 + After.size() + id.size() + 2);
    response.Body += Before;
    AppendJsonString(response.Body, name);
    response.Body.append(After).append(id).append("\"}");
    return response;
}

HttpResponse PostNamed(RestCall& call, const std::string& name, const Velmora::PListDict* data,
                       std::string_view json) {
    if (call.Context.Gate != nullptr) {
        call.Context.RestPostings.fetch_add(1, std::memory_order_relaxed);
        HttpRequest request = call.Request;
        request.Body = json;
        return call.Context.Gate->Post(request, name);
    }
    if (!GlobalEventQueue().PostEvent(name, data)) return EventMissing(name);
    call.Context.RestPostings.fetch_add(1, std::memory_order_relaxed);
    const std::string id = EventManager::LastPostingOfThread().Text();
    auto unsafe = SettleDeliveries(call, "The posting was made", id);
    return unsafe ? std::move(*unsafe) : Posted(name, id);
}

HttpResponse PostEvent(RestCall& call) {
    const std::string& name = call.Names[0];
    Velmora::PListDict data;
    const bool has_data = !call.Request.Body.empty();
    if (has_data) {
        if (auto refused = ReadBody(call, data)) return std::move(*refused);
    }
    return PostNamed(call, name, has_data ? &data : nullptr, call.Request.Body);
}

HttpResponse DeleteEvent(RestCall& call) {
    return Removed(GlobalEventQueue().DeleteEvent(call.Names[0]), NoSuchEvent(call.Names[0]));
}

HttpResponse GetListeners(RestCall& call) {
    const Velmora::PListDict entry = FindEvent(call.Names[0]);
    if (entry.Empty()) return EventMissing(call.Names[0]);
    Velmora::PListDict answer;
    answer.SetItem(Keys::listener_list, WithListenerStatus(call, entry.GetArray(Keys::listener_list)));
    return AnswerList(call, answer, {Keys::listener_list, Keys::id, Keys::callback});
}

HttpResponse PostListeners(RestCall& call) {
    Velmora::PListDict body;
    if (auto refused = ReadBody(call, body)) return std::move(*refused);
    std::vector<Fault> faults;
    Shape shape(body, "", faults);
    const ListenerEntry listener = ReadListener(shape);
    if (!faults.empty()) {
        return Problem(Velmora::STATUS_422_UNPROCESSABLE, "The listener cannot be created as given.", faults);
    }
    if (!IsCallable(*listener.Callback)) return CallbackRefused();
    EventManager::UUID id;
    const Status_t status =
        GlobalEventQueue().CreateEventListener(call.Names[0], *listener.Callback, listener.Data, id);
    return ListenerAnswer(status, call.Names[0], id);
}

HttpResponse DeleteListeners(RestCall& call) {
    return Removed(GlobalEventQueue().DeleteListenersForEvent(call.Names[0]), NoSuchEvent(call.Names[0]));
}

HttpResponse GetListener(RestCall& call) {
    EventManager::UUID id;
    if (Mirel::UUIDFromText(call.Names[1], id)) {
        const Velmora::PListDict event = FindEvent(call.Names[0]);
        const Velmora::PListDict* entry = FindEntry(event, Keys::listener_list, Keys::id, UUIDText(id));
        if (entry != nullptr) {
            Velmora::PListArray one;
            one.Append(*entry);
            const Velmora::PListArray complete = WithListenerStatus(call, one);
            return Json(Velmora::STATUS_200_OK, *AsDict(&*complete.begin()));
        }
    }
    return Problem(Velmora::STATUS_404_NOT_FOUND, NoSuchListener(call));
}

HttpResponse DeleteListener(RestCall& call) {
    EventManager::UUID id;
    const bool removed =
        Mirel::UUIDFromText(call.Names[1], id) && GlobalEventQueue().DeleteEventListener(call.Names[0], id);
    return Removed(removed, NoSuchListener(call));
}

}  // namespace Server
