// Any dictionary can be applied as a queue state document; what a queue then holds applies to another queue
// whole.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "EventManager.h"
#include "MR_log.h"

using namespace EventManager;
using Velmora::PListItem;

namespace {

void Empty(EventQueue& queue) {
    queue.DeleteAllEvents();
    queue.DeleteAllTimers();
    queue.DeleteAllWatches();
}

// The document without what a restore makes anew: ids, and the start times that intervals set.
std::string Text(const EventQueue& queue) {
    PListDict state;
    queue.GetQueueState(state);
    std::string json;
    if (state.EncodeJSON(json).Failure()) std::abort();
    for (std::size_t at = json.find("\"id\":\""); at != std::string::npos;
         at = json.find("\"id\":\"", at + 1)) {
        json.erase(at + 6, Mirel::UUIDLen);
    }
    return json;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Mirel::DefaultLogSink().Level(Mirel::LOG_CRIT);
    static EventQueue& first = *new EventQueue(500);
    static EventQueue& second = *new EventQueue(500);
    const auto item = PListItem::CreateFromJSON(std::string(reinterpret_cast<const char*>(data), size));
    const auto* document = dynamic_cast<const PListDict*>(item.get());
    if (!document) return 0;

    Empty(first);
    Empty(second);
    first.SetQueueState(*document);
    PListDict state;
    first.GetQueueState(state);
    second.SetQueueState(state);
    if (Text(first) != Text(second)) std::abort();
    return 0;
}
