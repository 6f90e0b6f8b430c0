// Answers with lists of what belongs to events.
#include "EventManager.h"
#include "rest/Rest.h"

namespace Server {

namespace Keys = EventManager::Strings;

HttpResponse AnswerList(const RestCall& call, const Velmora::PListDict& state, const std::string& list) {
    if (call.Caller == nullptr || call.Caller->Events.empty()) return Json(Velmora::STATUS_200_OK, state);
    Velmora::PListArray shown;
    for (const Velmora::PListItem& item : state.GetArray(list)) {
        const Velmora::PListDict* entry = AsDict(&item);
        if (entry != nullptr && call.MaySee(entry->GetData(Keys::event_name).TextView())) shown.Append(item);
    }
    Velmora::PListDict answer;
    answer.SetItem(list, shown);
    return Json(Velmora::STATUS_200_OK, answer);
}

}  // namespace Server
