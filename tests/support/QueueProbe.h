// The queue of the shipped library with the phases of its passes in reach.
#pragma once

#include "EventManager.h"

#include <memory>
#include <string>
#include <vector>

#include "Testing.h"

namespace EventManager {

using Mirel::AutoMutex;
using Velmora::PListItem;

struct EventQueueProbe {
    static URL& EndPoint(EventQueue& queue) NO_THREAD_SAFETY_ANALYSIS { return queue.m_ServiceEndPoint; }
    static void UseStateFile(EventQueue& queue, const std::string& path) { queue.UseStateFile(path); }
    static Result_t Save(EventQueue& queue) { return queue.SaveState(); }
    static void RepeatFailedSave(EventQueue& queue) {
        queue.m_NextSave = {};
        queue.RepeatFailedSave();
    }
    static void DropEndedWatches(EventQueue& queue) { queue.DropEndedWatches(); }
    static void AppendHistory(EventQueue& queue, const PListDict& record) { queue.AppendHistory(record); }
    static void TrimHistory(EventQueue& queue) { queue.TrimHistory(); }
    static HistoryReading ReadHistory(EventQueue& queue, const PostingId* after = nullptr) {
        return queue.ReadHistory(after);
    }
    static void PutIntoHistory(EventQueue& queue, const PListDict& record) {
        AutoMutex lock(queue.m_HistoryLock);
        queue.m_EventHistory.Append(record);
    }
    static void DateFirstRecord(EventQueue& queue, const std::string& timestamp) {
        AutoMutex lock(queue.m_HistoryLock);
        static_cast<PListDict*>(queue.m_EventHistory.GetItem(0))->SetValue(Strings::timestamp, timestamp);
    }
    static void MaintainWatches(EventQueue& queue, int stream) { queue.MaintainWatches(stream); }
    static void WaitForChanges(EventQueue& queue, int stream) { queue.WaitForChanges(stream); }
    static void FireWatches(EventQueue& queue) { queue.FireWatches(); }
    static void FireTimers(EventQueue& queue) { queue.FireTimers(); }
    static void Reap(EventQueue& queue) { queue.ReapCallersAndTrimHistory(); }
    static std::size_t Callers(EventQueue& queue) {
        AutoMutex lock(queue.m_EventLock);
        return queue.m_CallerThreads.size();
    }
    static ui32_t FirstCallersTimeout_ms(EventQueue& queue) {
        AutoMutex lock(queue.m_EventLock);
        return queue.m_CallerThreads.front()->Timeout_ms();
    }
    static std::vector<WatchMode_t> Modes(EventQueue& queue) {
        AutoMutex lock(queue.m_WatchLock);
        std::vector<WatchMode_t> modes;
        for (const auto& entry : queue.m_Watches) modes.push_back(entry.second.mode);
        return modes;
    }
    static QueueStatistics Statistics(EventQueue& queue) { return queue.Statistics(); }
    /// The worker's body, on the calling thread.
    static Result_t Work(EventQueue& queue) { return queue.ThreadBody(); }
    static Result_t Stop(EventQueue& queue) { return queue.Stop(10000, true); }
};

/// A queue with a small vocabulary. Dictionaries and documents are written as JSON.
class QueueTest : public ::testing::Test {
  protected:
    using Probe = EventQueueProbe;

    static PListDict Dict(const std::string& json) {
        Result_t why;
        const std::unique_ptr<PListItem> item = PListItem::CreateFromJSON(json, &why);
        const auto* dict = dynamic_cast<const PListDict*>(item.get());
        if (!dict) ADD_FAILURE() << json << ": " << why.Message();
        return dict ? *dict : PListDict();
    }
    static std::string Text(const PListDict& dict) {
        std::string json;
        EXPECT_TRUE(dict.EncodeJSON(json).Success());
        return json;
    }

    Status_t Event(const std::string& name, const std::string& data = "") {
        PListDict dict = data.empty() ? PListDict() : Dict(data);
        return queue.CreateEvent(name, data.empty() ? nullptr : &dict);
    }
    Status_t Listen(const std::string& event, const std::string& callback, const std::string& data = "") {
        const PListDict dict = data.empty() ? PListDict() : Dict(data);
        return queue.CreateEventListener(event, callback, data.empty() ? nullptr : &dict, last_id);
    }
    bool Post(const std::string& event, const std::string& data = "") {
        const PListDict dict = data.empty() ? PListDict() : Dict(data);
        return queue.PostEvent(event, data.empty() ? nullptr : &dict);
    }
    std::string State() {
        PListDict state;
        queue.GetQueueState(state);
        return Text(state);
    }
    PListDict EventState() {
        PListDict state;
        queue.GetEventState(state);
        return state;
    }
    PListArray Timers() {
        PListDict state;
        queue.GetTimerState(state);
        return state.GetArray("timer_list");
    }
    PListArray Watches() {
        PListDict state;
        queue.GetWatchState(state);
        return state.GetArray("watch_list");
    }
    PListArray History() {
        PListDict state;
        queue.GetEventHistory(state);
        return state.GetArray("history");
    }
    static const PListDict& Entry(const PListArray& array, std::size_t index) {
        return dynamic_cast<const PListDict&>(*array.GetItem(index));
    }
    /// The names of the postings in the history, in order.
    std::string Posted() {
        std::string names;
        const PListArray history = History();
        for (const PListItem& item : history) {
            names += (names.empty() ? "" : " ") +
                     dynamic_cast<const PListDict&>(item).GetData("event_name").Text();
        }
        return names;
    }

    Testing::CapturedLog log;
    Testing::SteppedClock clock;
    EventQueue queue{500};
    UUID last_id;
};

}  // namespace EventManager
