// The event manager: records, the live queue and its worker, and the process-wide functions, in the header's
// order.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "EventManager.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "LocalAccessManager.h"
#include "MR_log.h"
#include "VL_Python.h"
#include "VL_Socket.h"

namespace EventManager {

using Mirel::AutoMutex;
using Mirel::DefaultLogSink;
using Mirel::RESULT_FILEOPEN;
using Mirel::RESULT_OK;
using Velmora::BasicRestEntryCall;
using Velmora::HandlerCall;
using Velmora::HandlerOutcome;
using Velmora::PListItem;

namespace {

constexpr ui32_t TextBufferSize = 64;  // holds a timestamp's and a UUID's text

constexpr i32_t DefaultMaxListeners = 1024;
constexpr i32_t DefaultMaxWatches = 1024;
constexpr int DefaultTimeout_ms = 500;
constexpr ui32_t StopLimit_ms = 10000;

constexpr i32_t HistoryRetention_sec = 30;
constexpr i32_t TimerExpiry_sec = 10;

constexpr int WatchWait_ms = 500;
constexpr std::chrono::milliseconds AfterFailedPass{100};  // or the log would fill with one line
constexpr std::size_t WatchReadSize = 8192;
constexpr std::chrono::milliseconds SaveAgainAfter{1000};  // passes can follow each other faster

const std::string PythonScheme = "python://";

std::atomic<IListenerCaller*> s_listener_caller{nullptr};

IListenerCaller* listener_caller() {
    return s_listener_caller.load(std::memory_order_acquire);
}

PListDict copy_or_empty(const PListDict* dict) {
    return dict ? *dict : PListDict();
}

int integer_or(const PListDict& dict, const std::string& key, int default_value) {
    int value = default_value;
    dict.GetData(key).GetValue(value, default_value);
    return value;
}

const PListDict* as_dict(const PListItem* item) {
    return dynamic_cast<const PListDict*>(item);
}
const PListArray* as_array(const PListItem* item) {
    return dynamic_cast<const PListArray*>(item);
}

std::string id_text(const UUID& id) {
    char buf[TextBufferSize];
    return Mirel::bin2UUIDhex(id.Value(), UUID::Size, buf, TextBufferSize);
}

// 16 hexadecimal digits.
std::string random_text() {
    UUID id;
    GenRandomValue(id);
    std::string text = id_text(id);
    std::erase(text, '-');
    return text.substr(0, 16);
}

std::string time_text(const Timestamp& time) {
    char buf[TextBufferSize];
    return time.EncodeString(buf, TextBufferSize);
}

std::chrono::steady_clock::time_point steady_now() {
    return std::chrono::steady_clock::now();
}

ui64_t steady_ms() {
    using std::chrono::milliseconds;
    return static_cast<ui64_t>(
        std::chrono::duration_cast<milliseconds>(steady_now().time_since_epoch()).count());
}

}  // namespace

// ---------------------------------------------------------------- Listener, EventDistributor

Listener::Listener(const std::string& listener_callback, const PListDict& listener_data)
    : callback(listener_callback), data(listener_data) {
    GenRandomValue(id);
}

Listener::Listener(const std::string& listener_callback) : Listener(listener_callback, PListDict()) {}

EventDistributor::EventDistributor(const std::string& event_name, const PListDict& event_data)
    : name(event_name), data(event_data) {}

EventDistributor::EventDistributor(const std::string& event_name)
    : EventDistributor(event_name, PListDict()) {}

// ---------------------------------------------------------------- Timer

Timer::Timer(const std::string& timer_event_name, const i64_t& timer_interval_sec,
             const Timestamp& timer_start_time, const PListDict& timer_data)
    : event_name(timer_event_name),
      data(timer_data),
      start_time(timer_start_time),
      interval_sec(timer_interval_sec) {
    GenRandomValue(id);
}

Timer::Timer(const std::string& timer_event_name, const i64_t& timer_interval_sec,
             const Timestamp& timer_start_time)
    : Timer(timer_event_name, timer_interval_sec, timer_start_time, PListDict()) {}

static void timer_copy_impl(const Timer& from, Timer& to) {
    to.id = from.id;
    to.event_name = from.event_name;
    to.data = from.data;
    to.start_time = from.start_time;
    to.interval_sec = from.interval_sec;
}

Timer::Timer(const Timer& other) : interval_sec(0) {
    timer_copy_impl(other, *this);
}

Timer& Timer::operator=(const Timer& other) {
    timer_copy_impl(other, *this);
    return *this;
}

// What is added for an interval: the low 32 bits count, as signed.
static i32_t added_interval(i64_t interval_sec) {
    return static_cast<i32_t>(static_cast<ui32_t>(interval_sec));
}

static Timestamp later_by(Timestamp time, i64_t interval_sec) {
    time.AddSeconds(added_interval(interval_sec));
    return time;
}

// ---------------------------------------------------------------- Watch

Watch::Watch(const std::string& watch_path, const std::string& watch_event_name, const PListDict& watch_data,
             bool watch_once)
    : once(watch_once), path(watch_path), event_name(watch_event_name), data(watch_data) {}

Watch::Watch(const std::string& watch_path, const std::string& watch_event_name, bool watch_once)
    : Watch(watch_path, watch_event_name, PListDict(), watch_once) {}

// ---------------------------------------------------------------- EventQueue: construction

EventQueue::EventQueue(ui32_t timeout_ms)
    : m_Timeout_ms(static_cast<i32_t>(timeout_ms)),
      m_MaxListeners(DefaultMaxListeners),
      m_MaxWatches(DefaultMaxWatches),
      m_WsManager(timeout_ms),
      m_RunOK(true) {
    BeginEpoch(random_text(), 0);
    m_WsManager.SubscribersFrom(m_HistorySource);
    InitPython();
}

EventQueue::~EventQueue() {
    m_WsManager.CloseAll();
    for (caller_t* caller : m_CallerThreads) delete caller;
    m_CallerThreads.clear();
    for (Timer* timer : m_Timers) delete timer;
}

Result_t EventQueue::InitEventQueue(const PListDict& events_config, const PListDict& end_point_cfg) {
    const bool uses_tls = !end_point_cfg.GetData("TLSIdentity").Text().empty();
    int listen_port = integer_or(end_point_cfg, "ListenPort", 0);
    if (listen_port == 0) listen_port = uses_tls ? 443 : 80;

    {
        AutoMutex lock(m_EventLock);
        m_ServiceEndPoint.m_Empty = false;
        m_ServiceEndPoint.Scheme = uses_tls ? "https" : "http";
        m_ServiceEndPoint.Hostname = "localhost";
        m_ServiceEndPoint.Port = static_cast<Mirel::ui16_t>(listen_port);
    }
    IEventQueue& queue = *this;
    queue.SetQueueState(events_config);
    return RESULT_OK;
}

// ---------------------------------------------------------------- EventQueue: state document and state file

void EventQueue::GetQueueState(PListDict& state) const {
    {
        AutoMutex lock(m_EventLock);
        state.SetValue(Strings::max_listeners, static_cast<int>(m_MaxListeners));
        state.SetValue(Strings::max_watches, static_cast<int>(m_MaxWatches));
    }
    const IEventQueue& queue = *this;
    queue.GetEventState(state);
    queue.GetTimerState(state);
    queue.GetWatchState(state);
}

void EventQueue::SetQueueState(const PListDict& config) {
    IEventQueue& queue = *this;
    queue.SetEventState(config);
    queue.SetTimerState(config);
    queue.SetWatchState(config);
}

void EventQueue::UseStateFile(const std::string& path) {
    {
        AutoMutex lock(m_SaveLock);
        m_StateFile = Mirel::FollowLinks(path);
    }
    WriteState();
}

// `code` with the reason that errno holds, in the words of the log.
static Result_t save_failure(const Result_t& code, const std::string& what) {
    const int reason = errno;
    return code.WithMessage(what + ": " + strerror(reason));
}

// Replaces the file at `path` by `text` in one step, and returns once that is on the disk.
static Result_t replace_file(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".temp";
    const Result_t written = Mirel::WriteStringIntoNewFile(temporary, text, path);
    if (written.Failure())
        return save_failure(written, "Unable to write queue state to \"" + temporary + "\"");
    if (rename(temporary.c_str(), path.c_str()) == -1) return save_failure(Mirel::RESULT_WRITEFAIL, path);
    const Result_t lasting = Mirel::SyncFolderOf(path);
    if (lasting.Failure()) return save_failure(lasting, "Unable to write the folder of \"" + path + "\"");
    return RESULT_OK;
}

// The text will hardly be longer than `expected_size`, so that its memory is taken once.
static Result_t encode_state(const IEventQueue& queue, std::size_t expected_size, std::string& json) {
    json.reserve(expected_size + expected_size / 8);
    PListDict state;
    queue.GetQueueState(state);
    return state.EncodeJSON(json);
}

// A failure's message is the line for the log.
Result_t EventQueue::WriteStateFile() const {
    try {
        std::string json;
        const Result_t encoded = encode_state(*this, m_SavedSize, json);
        if (encoded.Failure()) {
            return encoded.WithMessage("Unable to encode queue state for \"" + m_StateFile +
                                       "\": " + encoded.Message());
        }
        m_SavedSize = json.size();
        return replace_file(m_StateFile, json);
    } catch (const std::bad_alloc&) {  // wherever on the way: a later save makes up for it
        return Result_t(Mirel::RESULT_FAIL.Value(), Mirel::RESULT_FAIL.Symbol(),
                        "Unable to save the queue state: out of memory");
    }
}

// The lock covers building the document too: otherwise a thread that built an older one could write it last.
Result_t EventQueue::SaveState(SaveReason reason) const {
    AutoMutex lock(m_SaveLock);
    if (m_StateFile.empty()) return RESULT_OK;

    const auto began = steady_now();
    const Result_t result = WriteStateFile();
    m_Counters.save_times.Count(steady_now() - began);
    m_Counters.last_save_failed = result.Failure();  // before all that memory could fail for
    if (result.Failure()) {
        ++m_Counters.failed_saves;
        if (reason != SaveReason::Failure || m_SaveFailure != result.Message()) {
            DefaultLogSink().Error("%s\n", result.Message());
        }
        m_SaveFailure = result.Message();
    } else {
        ++m_Counters.saves;
        if (!m_SaveFailure.empty()) DefaultLogSink().Notice("The queue state is saved again\n");
        m_SaveFailure.clear();
    }
    return result;
}

// Makes up for a save that failed, without waiting for the next change.
void EventQueue::RepeatFailedSave() {
    if (!m_Counters.last_save_failed || steady_now() < m_NextSave) return;
    (void)SaveState(SaveReason::Failure);
    m_NextSave = steady_now() + SaveAgainAfter;
}

// While one lives, the saves that its thread's changes ask for are held back.
class HeldSaves {
  public:
    HeldSaves() { s_Current = this; }
    ~HeldSaves() { s_Current = nullptr; }
    HeldSaves(const HeldSaves&) = delete;
    HeldSaves& operator=(const HeldSaves&) = delete;

    // Takes note of a save; false where this thread holds none back.
    static bool Hold() {
        if (s_Current) s_Current->m_Asked = true;
        return s_Current;
    }
    bool Asked() const { return m_Asked; }

  private:
    static thread_local HeldSaves* s_Current;
    bool m_Asked = false;
};
thread_local HeldSaves* HeldSaves::s_Current = nullptr;

// The change that asks for it has taken effect, so a failure is logged and goes no further.
void EventQueue::WriteState() const {
    if (!HeldSaves::Hold()) (void)SaveState();
}

void EventQueue::SetQueueStateSavingOnce(const PListDict& config) {
    IEventQueue& queue = *this;
    std::exception_ptr failure;  // what has been applied by then is saved, too
    bool changed = false;
    {
        const HeldSaves held;
        try {
            queue.SetQueueState(config);
        } catch (...) {
            failure = std::current_exception();
        }
        changed = held.Asked();
    }
    if (changed) WriteState();
    if (failure) std::rethrow_exception(failure);
}

// ---------------------------------------------------------------- EventQueue: events and listeners

i32_t EventQueue::GetMaxListeners() const {
    return m_MaxListeners;
}

void EventQueue::SetMaxListeners(i32_t max) {
    m_MaxListeners = max;
}

// The number of listeners of all events, counted anew: there must be as many callbacks.
[[maybe_unused]] static ui32_t queue_size(const event_map& queue) {
    std::size_t size = 0;
    for (const auto& [name, event] : queue) size += event.listeners.size();
    return static_cast<ui32_t>(size);
}

// Compared as unsigned, so that a negative limit is none.
bool EventQueue::HasTooManyListeners() const {
    return static_cast<ui32_t>(m_Callbacks.size()) > static_cast<ui32_t>(m_MaxListeners);
}

void EventQueue::ForgetCallbacks(const EventDistributor& event) {
    IListenerCaller* const caller = listener_caller();
    for (const Listener& listener : event.listeners) {
        m_Callbacks.erase({&event, listener.callback});
        if (caller) caller->ListenerDeleted(event.name, listener);
    }
}

static PListDict listener_entry(const Listener& listener) {
    PListDict entry;
    entry.SetValue(Strings::id, id_text(listener.id));
    entry.SetValue(Strings::callback, listener.callback);
    if (!listener.data.Empty()) entry.SetItem(Strings::listener_data, listener.data);
    return entry;
}

static PListDict event_entry(const EventDistributor& event) {
    PListDict entry;
    entry.SetValue(Strings::event_name, event.name);
    if (!event.data.Empty()) entry.SetItem(Strings::event_data, event.data);
    PListArray listeners;
    for (const Listener& listener : event.listeners) listeners.Append(listener_entry(listener));
    entry.SetItem(Strings::listener_list, std::move(listeners));
    return entry;
}

void EventQueue::GetEventState(PListDict& state) const {
    PListArray events;
    {
        AutoMutex lock(m_EventLock);
        assert(queue_size(m_Events) == m_Callbacks.size());
        for (const auto& [name, event] : m_Events) events.Append(event_entry(event));
    }
    state.SetItem(Strings::event_list, std::move(events));
}

// Offers every listener of a state document's event to the queue.
static void restore_listeners(IEventQueue& queue, const std::string& event_name,
                              const PListArray& listeners) {
    int position = -1;
    for (const PListItem& item : listeners) {
        ++position;
        const PListDict* entry = as_dict(&item);
        if (!entry) {
            DefaultLogSink().Error("Non-dictionary listener array entry.\n");
            continue;
        }
        const std::string callback = entry->GetData(Strings::callback).Text();
        if (callback.empty()) {
            DefaultLogSink().Error("Skipping empty callback %d in event \"%s\".\n", position,
                                   event_name.c_str());
            continue;
        }
        UUID callback_id;
        queue.CreateEventListener(event_name, callback, as_dict(entry->GetItem(Strings::listener_data)),
                                  callback_id);
    }
}

void EventQueue::SetEventState(const PListDict& state) {
    const PListArray* events = as_array(state.GetItem(Strings::event_list));
    if (!events) return;
    IEventQueue& queue = *this;
    for (const PListItem& item : *events) {
        const PListDict* entry = as_dict(&item);
        if (!entry) {
            DefaultLogSink().Error("Non-dictionary event array entry.\n");
            continue;
        }
        const std::string event_name = entry->GetData(Strings::event_name).Text();
        if (event_name.empty()) {
            DefaultLogSink().Error("Skipping empty event.\n");
            continue;
        }
        const PListDict* event_data = as_dict(entry->GetItem(Strings::event_data));
        PListDict data = copy_or_empty(event_data);
        queue.CreateEvent(event_name, event_data ? &data : nullptr);
        const PListArray* listeners = as_array(entry->GetItem(Strings::listener_list));
        if (listeners) restore_listeners(queue, event_name, *listeners);
    }
}

void EventQueue::AdoptWsClient(TCPSession& session) {
    m_WsManager.AdoptWsClient(session);
}

Status_t EventQueue::CreateEvent(const std::string& event_name, PListDict* event_data) {
    {
        AutoMutex lock(m_EventLock);
        if (HasTooManyListeners()) return Velmora::STATUS_409_CONFLICT;
        if (m_Events.count(event_name)) return Velmora::STATUS_412_PRECOND_FAILED;
        m_Events.try_emplace(event_name, event_name, copy_or_empty(event_data));
    }
    WriteState();
    return Velmora::STATUS_201_CREATED;
}

void EventQueue::DeleteAllEvents() {
    {
        AutoMutex lock(m_EventLock);
        for (const auto& [name, event] : m_Events) ForgetCallbacks(event);
        m_Events.clear();
    }
    WriteState();
}

bool EventQueue::DeleteEvent(const std::string& event_name) {
    {
        AutoMutex lock(m_EventLock);
        const auto event = m_Events.find(event_name);
        if (event == m_Events.end()) return false;
        ForgetCallbacks(event->second);
        m_Events.erase(event);
    }
    WriteState();
    return true;
}

// Whether a callback can be registered. Posting looks closer: there only a leading "python://" names a
// handler.
static bool callback_is_usable(const std::string& callback) {
    if (callback.find(PythonScheme) != std::string::npos) return true;
    URL url;
    return url.Parse(callback) || url.ParsePath(callback);
}

Status_t EventQueue::CreateEventListener(const std::string& event_name, const std::string& callback,
                                         const PListDict* listener_data, UUID& callback_id) {
    Listener listener(callback, copy_or_empty(listener_data));
    const UUID id = listener.id;
    const Status_t status = RegisterListener(event_name, std::move(listener));
    if (status == Velmora::STATUS_201_CREATED) callback_id = id;
    return status;
}

Status_t EventQueue::AddEventListener(const std::string& event_name, const UUID& id,
                                      const std::string& callback, const PListDict* listener_data) {
    Listener listener(callback, copy_or_empty(listener_data));
    listener.id = id;
    return RegisterListener(event_name, std::move(listener));
}

Status_t EventQueue::RegisterListener(const std::string& event_name, Listener listener) {
    {
        AutoMutex lock(m_EventLock);
        if (HasTooManyListeners()) return Velmora::STATUS_409_CONFLICT;
        const auto event = m_Events.find(event_name);
        if (event == m_Events.end()) return Velmora::STATUS_404_NOT_FOUND;
        if (!callback_is_usable(listener.callback)) return Velmora::STATUS_400_BAD_REQ;
        EventDistributor& owner = event->second;
        if (m_Callbacks.contains({&owner, listener.callback})) return Velmora::STATUS_412_PRECOND_FAILED;
        listener_list_t created;  // goes into the event when nothing can fail any more
        created.push_back(std::move(listener));
        m_Callbacks.emplace(&owner, created.back().callback);
        owner.listeners.splice(owner.listeners.end(), created);
    }
    WriteState();
    return Velmora::STATUS_201_CREATED;
}

bool EventQueue::DeleteListenersForEvent(const std::string& event_name) {
    {
        AutoMutex lock(m_EventLock);
        const auto event = m_Events.find(event_name);
        if (event == m_Events.end()) return false;
        ForgetCallbacks(event->second);
        event->second.listeners.clear();
    }
    WriteState();
    return true;
}

bool EventQueue::DeleteEventListener(const std::string& event_name, const UUID& id) {
    {
        AutoMutex lock(m_EventLock);
        const auto event = m_Events.find(event_name);
        if (event == m_Events.end()) return false;
        listener_list_t& listeners = event->second.listeners;
        const auto listener = std::find_if(listeners.begin(), listeners.end(),
                                           [&](const Listener& candidate) { return candidate.id == id; });
        if (listener == listeners.end()) return false;
        m_Callbacks.erase({&event->second, listener->callback});
        if (listener_caller()) listener_caller()->ListenerDeleted(event_name, *listener);
        listeners.erase(listener);
    }
    WriteState();
    return true;
}

// ---------------------------------------------------------------- EventQueue: history

void EventQueue::GetEventHistory(PListDict& history) const {
    auto records = std::make_unique<PListArray>();
    {
        AutoMutex lock(m_HistoryLock);
        *records = m_EventHistory;  // shares the records: the cost does not grow with their number
    }
    history.SetItem(Strings::history, records.release());
}

// What LastPostingOfThread() answers. The epoch's text is written only where it is another one.
static thread_local PostingId t_last_posting;

void EventQueue::PostingOfThread(const PostingId& id) {
    t_last_posting = id;
}

// All that may fail comes before the record is appended: a posting has its number, or there is none.
void EventQueue::AppendHistory(const PListDict& event_data, ui64_t number) {
    const std::string_view timestamp = event_data.GetData(Strings::timestamp).TextView();
    AutoMutex lock(m_HistoryLock);
    if (t_last_posting.Epoch != m_Epoch) t_last_posting.Epoch = m_Epoch;
    if (number == 0) number = m_LastNumber + 1;
    if (m_Numbers.empty() || m_Numbers.back().First + m_Numbers.back().Count != number)
        m_Numbers.push_back({number, 0});
    if (m_HistoryRuns.empty() || m_HistoryRuns.back().timestamp != timestamp) {
        m_HistoryRuns.push_back({std::string(timestamp), 0});
    }
    m_EventHistory.Append(event_data);
    ++m_Numbers.back().Count;
    t_last_posting.Number = m_LastNumber = number;
    ++m_HistoryRuns.back().count;
    ++m_HistoryIndexed;
}

void EventQueue::BeginEpoch(const std::string& epoch, ui64_t before) {
    {
        AutoMutex lock(m_HistoryLock);
        m_Epoch = epoch;
        m_Numbers.clear();
        m_LastNumber = m_ForgottenNumber = before;
    }
    m_WsManager.CloseAll();  // whoever comes back learns of it
}

// Records have left at the front: what is numbered is no more than what is there.
void EventQueue::ForgetLeftNumbers() {
    std::size_t numbered = 0;
    for (const NumberRun& run : m_Numbers) numbered += run.Count;
    std::size_t count = numbered - std::min(numbered, m_EventHistory.Size());
    while (count > 0 && !m_Numbers.empty()) {
        NumberRun& run = m_Numbers.front();
        const std::size_t leaving = std::min(count, run.Count);
        run.First += leaving;
        run.Count -= leaving;
        count -= leaving;
        m_ForgottenNumber = run.First - 1;
        if (run.Count == 0) m_Numbers.pop_front();
    }
}

// How many of the last records have a number above this one.
std::size_t EventQueue::CountAfter(ui64_t number) const {
    std::size_t after = 0;
    for (auto run = m_Numbers.rbegin(); run != m_Numbers.rend() && run->First + run->Count - 1 > number;
         ++run)
        after += number < run->First ? run->Count : run->First + run->Count - 1 - number;
    return after;
}

HistoryReading EventQueue::ReadHistory(const PostingId* after) const {
    HistoryReading reading;
    AutoMutex lock(m_HistoryLock);
    reading.Records = m_EventHistory;
    reading.Last = {m_Epoch, m_LastNumber};
    reading.Numbers.assign(m_Numbers.begin(), m_Numbers.end());
    if (after == nullptr) return reading;
    const bool of_epoch = after->Epoch == m_Epoch;
    reading.Gap = !of_epoch || after->Number < m_ForgottenNumber;
    if (!of_epoch) return reading;
    const std::size_t size = m_EventHistory.Size();
    reading.Begin = size - std::min(size, CountAfter(after->Number));
    return reading;
}

HistorySource::Place HistorySource::PlaceAfter(const PostingId* after) const {
    Place place;
    AutoMutex lock(m_Queue.m_HistoryLock);
    place.Last = {m_Queue.m_Epoch, m_Queue.m_LastNumber};
    place.After = m_Queue.m_LastNumber;
    if (after == nullptr) return place;
    const ui64_t oldest = m_Queue.m_ForgottenNumber;
    place.Gap = after->Epoch != m_Queue.m_Epoch || after->Number < oldest;
    place.After = place.Gap ? oldest : after->Number;
    return place;
}

bool HistorySource::Read(ui64_t after, std::size_t most,
                         std::vector<Velmora::NumberedPosting>& postings) const {
    AutoMutex lock(m_Queue.m_HistoryLock);
    if (after < m_Queue.m_ForgottenNumber) return false;
    const PListArray& history = m_Queue.m_EventHistory;
    const std::size_t behind = m_Queue.CountAfter(after);
    auto run = m_Queue.m_Numbers.rbegin();
    std::size_t left = behind;  // from the first that is wanted to the end of the run
    while (run != m_Queue.m_Numbers.rend() && left > run->Count) left -= (run++)->Count;
    for (std::size_t i = history.Size() - behind; i < history.Size() && most > 0; ++i, --most, --left) {
        while (left == 0) left = (--run)->Count;
        postings.push_back({run->First + run->Count - left, *as_dict(history.GetItem(i))});
    }
    return true;
}

PostingId HistoryReading::IdAt(std::size_t index) const {
    std::size_t behind = Records.Size() - index;  // the record, and those after it
    for (auto run = Numbers.rbegin(); run != Numbers.rend(); ++run) {
        if (behind <= run->Count) return {Last.Epoch, run->First + run->Count - behind};
        behind -= run->Count;
    }
    return {Last.Epoch, 0};
}

static std::string_view record_time(const PListItem& record) {
    return static_cast<const PListDict&>(record).GetData(Strings::timestamp).TextView();
}

// Whether the index is as long as the history and begins with its first record. It does not where memory ran
// out between a run and its record (AppendHistory), or between the runs and their records (TrimHistory):
// what no run covers would never leave.
bool EventQueue::HistoryIsIndexed() const {
    if (m_HistoryIndexed != m_EventHistory.Size()) return false;
    return m_HistoryIndexed == 0 || record_time(m_EventHistory.Front()) == m_HistoryRuns.front().timestamp;
}

void EventQueue::IndexHistory() {
    m_HistoryRuns.clear();
    for (const PListItem& item : std::as_const(m_EventHistory)) {
        const std::string text(record_time(item));
        if (m_HistoryRuns.empty() || m_HistoryRuns.back().timestamp != text)
            m_HistoryRuns.push_back({text, 0});
        ++m_HistoryRuns.back().count;
    }
    m_HistoryIndexed = m_EventHistory.Size();
}

// The records of one second share their timestamp's text, so that the runs decide for many records at once;
// and what is trimmed is only taken off here. A million records are gone from the history within the lock in
// well under a millisecond, and DestroyTrimmedHistory() frees them where nobody waits.
void EventQueue::TrimHistory() {
    Timestamp horizon = HistoryTime();
    horizon.AddSeconds(-HistoryRetention_sec);

    AutoMutex lock(m_HistoryLock);
    if (!HistoryIsIndexed()) IndexHistory();
    std::size_t expired = 0;
    while (!m_HistoryRuns.empty()) {
        Timestamp time;
        if (time.DecodeString(m_HistoryRuns.front().timestamp.c_str()) && time > horizon) break;
        expired += m_HistoryRuns.front().count;
        m_HistoryRuns.pop_front();
    }
    if (expired == 0) return;
    m_TrimmedHistory = m_EventHistory.TakeFirst(expired);
    ForgetLeftNumbers();
    m_HistoryIndexed -= expired;
}

Timestamp EventQueue::HistoryTime() const {
    return Timestamp();
}

void EventQueue::DestroyTrimmedHistory() {
    PListArray trimmed;
    AutoMutex lock(m_HistoryLock);
    std::swap(trimmed, m_TrimmedHistory);
}

// ---------------------------------------------------------------- EventQueue: posting

// The text of now. All postings of a second share one text.
const PListData& EventQueue::CurrentTime() {
    char buf[TextBufferSize];
    const std::string_view text(Timestamp().EncodeString(buf, TextBufferSize), Mirel::DateTimeLen);
    if (m_PostingTime.TextView() != text) m_PostingTime = PListData(text);
    return m_PostingTime;
}

void EventQueue::Record(const PListDict& payload, ui64_t number) {
    AppendHistory(payload, number);
    m_WsManager.SendToListeners(payload, t_last_posting, payload.GetData(Strings::event_name).TextView());
    m_Counters.postings.fetch_add(1, std::memory_order_relaxed);
}

void EventQueue::RecordPosting(const PListDict& payload, ui64_t number) {
    AutoMutex lock(m_EventLock);
    Record(payload, number);
}

bool EventQueue::PostEvent(const std::string& event_name, const PListDict* value) {
    AutoMutex lock(m_EventLock);
    DefaultLogSink().Debug("Posting event \"%s\".\n", event_name.c_str());
    const auto found = m_Events.find(event_name);
    if (found == m_Events.end()) return false;
    const EventDistributor& event = found->second;

    PListDict payload;
    payload.SetValue(Strings::event_name, event_name);
    payload.SetItem(Strings::timestamp, CurrentTime());
    if (value) payload.SetItem(Strings::post_data, *value);
    payload.SetItem(Strings::event_data, event.data);

    Record(payload, 0);
    CallListeners(event, payload, nullptr);
    return true;
}

void EventQueue::CallListeners(const EventDistributor& event, PListDict& payload,
                               const std::shared_ptr<void>& token) {
    for (const Listener& listener : event.listeners) {
        try {
            payload.DeleteItem(Strings::listener_data);
            payload.SetItem(Strings::listener_data, listener.data);
            CallListener({event.name, listener, payload, token});
        } catch (const std::bad_alloc&) {  // the event is posted, and the other listeners are to know
            DefaultLogSink().Error("Out of memory calling \"%s\".\n", listener.callback.c_str());
        }
    }
}

bool EventQueue::CallListenersOf(const PListDict& payload, const std::shared_ptr<void>& token) {
    PListDict own = payload;
    AutoMutex lock(m_EventLock);
    const auto event = m_Events.find(payload.GetData(Strings::event_name).Text());
    if (event == m_Events.end()) return false;
    CallListeners(event->second, own, token);
    return true;
}

// A copy of the payload with what every posting has, in the order of every posting.
static PListDict completed_payload(const PListDict& payload, const EventDistributor& event,
                                   const PListData& now) {
    PListDict complete;
    complete.SetValue(Strings::event_name, event.name);
    const PListItem* const time = payload.GetItem(Strings::timestamp);
    complete.SetItem(Strings::timestamp, time ? *time : now);
    const PListItem* const posted = payload.GetItem(Strings::post_data);
    if (posted) complete.SetItem(Strings::post_data, *posted);
    const PListItem* const data = payload.GetItem(Strings::event_data);
    complete.SetItem(Strings::event_data, data ? *data : event.data);
    return complete;
}

bool EventQueue::CallOneListener(const std::string& event_name, const UUID& id, const PListDict& payload) {
    AutoMutex lock(m_EventLock);
    const auto event = m_Events.find(event_name);
    if (event == m_Events.end()) return false;
    for (const Listener& listener : event->second.listeners) {
        if (!(listener.id == id)) continue;
        PListDict complete = completed_payload(payload, event->second, CurrentTime());
        complete.SetItem(Strings::listener_data, listener.data);
        CallListener({event_name, listener, complete, nullptr});
        return true;
    }
    return false;
}

// Owns one reference to a Python object, or none. The interpreter lock must be held throughout.
class PythonReference {
  public:
    explicit PythonReference(PyObject* object) : m_Object(object) {}
    ~PythonReference() { Py_XDECREF(m_Object); }
    PythonReference(const PythonReference&) = delete;
    PythonReference& operator=(const PythonReference&) = delete;
    PyObject* Get() const { return m_Object; }
    explicit operator bool() const { return m_Object != nullptr; }

  private:
    PyObject* const m_Object;
};

static void log_pending_python_error() {
    if (PyErr_Occurred()) mr_log_python_exception(Mirel::LOG_ERROR);
}

// Whether another thread is in the middle of importing the module: what it defines is not there yet.
static bool is_being_imported(PyObject* module) {
    const PythonReference spec(PyObject_GetAttrString(module, "__spec__"));
    const PythonReference initializing(spec ? PyObject_GetAttrString(spec.Get(), "_initializing") : nullptr);
    const bool importing = initializing && PyObject_IsTrue(initializing.Get()) == 1;
    PyErr_Clear();  // what is no module, or none that was imported, is used as it is
    return importing;
}

// A new reference to the loaded module, used as it is, or to the module imported now; null where that fails.
// An import that is under way is waited for.
static PyObject* find_python_module(const std::string& module_name) {
    if (module_name.find('\0') != std::string::npos) {  // or the module of the name before it would be taken
        PyErr_SetString(PyExc_ImportError, "the module's name holds a NUL");
        return nullptr;
    }
    PyObject* module = PyDict_GetItemString(PyImport_GetModuleDict(), module_name.c_str());
    Py_XINCREF(module);
    PythonReference loaded(module);
    if (!module || is_being_imported(module)) return PyImport_ImportModule(module_name.c_str());
    Py_INCREF(module);
    return module;
}

// Calls the handler with the payload as its one argument.
static void call_python_handler(PyObject* handler, const PListDict& payload, HandlerCall& call) {
    PythonReference arguments(PyTuple_New(1));
    PyObject* argument = arguments ? PyObject_FromPListItem(payload) : nullptr;
    if (!argument) {
        log_pending_python_error();
        return;
    }
    PyTuple_SetItem(arguments.Get(), 0, argument);  // takes the reference over
    const PythonReference result(PyObject_CallObject(handler, arguments.Get()));
    if (result && call.Finish(result.Get())) {
        call.Reached(HandlerOutcome::Ok);
    } else {
        log_pending_python_error();
    }
}

// Runs the function "event_handler" of a Python module. What goes wrong is logged.
static void exec_python_handler(const std::string& module_name, const PListDict& payload) {
    const Velmora::HandlerTurn turn;
    const PythonContextLock context;
    HandlerCall call(module_name, payload);
    const PythonReference module(find_python_module(module_name));
    if (!module) {
        log_pending_python_error();
        DefaultLogSink().Error("Unable to locate Python module \"%s\".\n", module_name.c_str());
        call.NotImported();
        return;
    }
    call.Reached(HandlerOutcome::NoHandler);
    DefaultLogSink().Debug("Ready to exec \"%s\".\n", module_name.c_str());
    const PythonReference handler(PyObject_GetAttrString(module.Get(), "event_handler"));
    if (!handler) {
        log_pending_python_error();
        return;
    }
    if (!PyCallable_Check(handler.Get())) {
        DefaultLogSink().Error("Python object %s.event_handler must be callable.\n", module_name.c_str());
        return;
    }
    call.Reached(HandlerOutcome::Raised);
    call_python_handler(handler.Get(), payload, call);
}

// Runs the handler, and tells who watches the calls how that went.
static void run_python_listener(const ListenerCall& call) {
    exec_python_handler(call.Called.callback.substr(PythonScheme.size()), call.Payload);
    if (IListenerCaller* const watcher = listener_caller()) watcher->HandlerRan(call);
}

// Makes the request that calls the listener. False where its callback is neither a URL nor a path.
bool EventQueue::CallTarget(const Listener& listener, BasicRestEntryCall& request) const {
    request.Method = listener.data.Empty() ? Velmora::METH_GET : Velmora::METH_POST;
    if (!request.TargetUrl.Parse(listener.callback)) {
        if (!request.TargetUrl.ParsePath(listener.callback)) return false;
        request.TargetUrl.Scheme = m_ServiceEndPoint.Scheme;
        request.TargetUrl.Hostname = m_ServiceEndPoint.Hostname;
        request.TargetUrl.Port = m_ServiceEndPoint.Port;
        (void)LocalAccessManager::SelfAuthRestCallback().Call(request);
    }
    request.RequestHeaders.emplace(Velmora::Strings::ContentType, Velmora::Strings::MIME_json);
    return true;
}

void EventQueue::CallListener(const ListenerCall& call) {
    const Listener& listener = call.Called;
    if (listener.callback.compare(0, PythonScheme.size(), PythonScheme) == 0) {
        const Mirel::TimedScope timed(m_Counters.handler_times);
        run_python_listener(call);
        return;
    }
    BasicRestEntryCall request;
    if (!CallTarget(listener, request)) {
        DefaultLogSink().Error("Unable to parse callback URL: %s\n", listener.callback.c_str());
        return;
    }
    std::string body;
    if (!listener.data.Empty()) (void)call.Payload.EncodeJSON(body);
    IListenerCaller* const caller = listener_caller();
    if (!caller || !caller->TakeRequest(call, request, body)) StartCaller(request, body, call.Token);
}

namespace {

// Lets its token go when its request has ended.
class TokenCaller : public BackgroundHTTPRequestHandle<TLSHTTPRequestHandle> {
  public:
    TokenCaller(const BasicRestEntryCall& call, const std::string& body, const std::shared_ptr<void>& token)
        : BackgroundHTTPRequestHandle(call, body), m_Token(token) {}
    ~TokenCaller() override { WaitUntilFinished(); }

  private:
    Result_t ThreadFini(Result_t result) override {
        m_Token.reset();
        return BackgroundHTTPRequestHandle::ThreadFini(result);
    }

    std::shared_ptr<void> m_Token;
};

}  // namespace

void EventQueue::StartCaller(const BasicRestEntryCall& call, const std::string& body,
                             const std::shared_ptr<void>& token) {
    if (DefaultLogSink().Logs(Mirel::LOG_DEBUG)) {
        DefaultLogSink().Debug("Event dispatched to \"%s\".\n", call.TargetUrl.ComposeAbsolute().c_str());
    }
    auto made =
        token ? std::make_unique<TokenCaller>(call, body, token) : std::make_unique<caller_t>(call, body);
    if (!made->TakePlace()) {
        Velmora::CountRequestRefused(call);
        return;
    }
    m_CallerThreads.push_back(made.get());
    caller_t* const caller = made.release();
    caller->Timeout_ms(static_cast<ui32_t>(m_Timeout_ms));
    caller->VerifyPeer(false);
    const Result_t started = caller->Start("EventQueue::PostEvent");
    if (started.Failure())
        Velmora::CountRequestNotStarted(call, started);  // and it is reaped like a finished one
}

// ---------------------------------------------------------------- EventQueue: timers

static PListDict timer_entry(const Timer& timer) {
    PListDict entry;
    entry.SetValue(Strings::id, id_text(timer.id));
    entry.SetValue(Strings::event_name, timer.event_name);
    if (!timer.data.Empty()) entry.SetItem(Strings::timer_data, timer.data);
    if (timer.interval_sec != 0) {
        entry.SetValue(Strings::interval_sec, std::to_string(timer.interval_sec));
    } else {
        entry.SetValue(Strings::start_time, time_text(timer.start_time));
    }
    return entry;
}

void EventQueue::GetTimerState(PListDict& state) const {
    PListArray timers;
    {
        AutoMutex lock(m_TimerLock);
        for (const Timer* timer : m_Timers) timers.Append(timer_entry(*timer));
    }
    state.SetItem(Strings::timer_list, std::move(timers));
}

std::vector<TimerDue> EventQueue::TimerTimes() const {
    std::vector<TimerDue> times;
    AutoMutex lock(m_TimerLock);
    for (const Timer* timer : m_Timers) times.push_back({timer->id, timer->start_time});
    return times;
}

// Offers one timer of a state document to the queue.
static void restore_timer(IEventQueue& queue, const PListDict& entry) {
    const std::string event_name = entry.GetData(Strings::event_name).Text();
    const std::string start_text = entry.GetData(Strings::start_time).Text();
    i64_t interval_sec = 0;
    entry.GetData(Strings::interval_sec).GetValue(interval_sec);
    if (event_name.empty() || (interval_sec == 0 && start_text.empty())) {
        DefaultLogSink().Error("Skipping empty timer.\n");
        return;
    }
    Timestamp start;
    if (!start_text.empty() && !start.DecodeString(start_text.c_str())) {
        DefaultLogSink().Error("Error decoding timestamp in timer \"%s\".\n", event_name.c_str());
        return;
    }
    UUID timer_id;
    queue.CreateTimer(event_name, start, interval_sec, as_dict(entry.GetItem(Strings::timer_data)), timer_id);
}

void EventQueue::SetTimerState(const PListDict& state) {
    const PListArray* timers = as_array(state.GetItem(Strings::timer_list));
    if (!timers) return;
    for (const PListItem& item : *timers) {
        const PListDict* entry = as_dict(&item);
        if (entry) {
            restore_timer(*this, *entry);
        } else {
            DefaultLogSink().Error("Non-dictionary timer array entry.\n");
        }
    }
}

bool EventQueue::CreateTimer(const std::string& event_name, const Timestamp& timestamp,
                             const i64_t& interval_sec, const PListDict* timer_data, UUID& timer_id) {
    const Timestamp start = interval_sec == 0 ? timestamp : later_by(Timestamp(), interval_sec);
    auto timer = std::make_unique<Timer>(event_name, interval_sec, start, copy_or_empty(timer_data));
    timer_id = timer->id;
    {
        AutoMutex lock(m_TimerLock);
        m_Timers.push_back(timer.get());
        timer.release();
    }
    WriteState();
    return true;
}

void EventQueue::AddTimer(const Timer& timer) {
    auto copy = std::make_unique<Timer>(timer);
    AutoMutex lock(m_TimerLock);
    m_Timers.push_back(copy.get());
    copy.release();
}

void EventQueue::DeleteAllTimers() {
    {
        AutoMutex lock(m_TimerLock);
        for (Timer* timer : m_Timers) delete timer;
        m_Timers.clear();
    }
    WriteState();
}

// Destroys the timer with that id and takes it off the list; false where there is none.
static bool erase_timer(timer_list& timers, const UUID& id) {
    for (auto it = timers.begin(); it != timers.end(); ++it) {
        if (!((*it)->id == id)) continue;
        delete *it;
        timers.erase(it);
        return true;
    }
    return false;
}

bool EventQueue::DeleteTimer(const UUID& timer_id) {
    {
        AutoMutex lock(m_TimerLock);
        if (!erase_timer(m_Timers, timer_id)) return false;
    }
    WriteState();
    return true;
}

// ---------------------------------------------------------------- EventQueue: watches

i32_t EventQueue::GetMaxWatches() const {
    return m_MaxWatches;
}

void EventQueue::SetMaxWatches(i32_t max) {
    m_MaxWatches = max;
}

static PListDict watch_entry(const Watch& watch) {
    PListDict entry;
    entry.SetValue(Strings::path, watch.path);
    entry.SetValue(Strings::event_name, watch.event_name);
    entry.SetValue(Strings::once, watch.once);
    if (!watch.data.Empty()) entry.SetItem(Strings::watch_data, watch.data);
    return entry;
}

void EventQueue::GetWatchState(PListDict& state) const {
    PListArray watches;
    {
        AutoMutex lock(m_WatchLock);
        for (const auto& [path, watch] : m_Watches) watches.Append(watch_entry(watch));
    }
    state.SetItem(Strings::watch_list, std::move(watches));
}

// Offers one watch of a state document to the queue.
static void restore_watch(IEventQueue& queue, const PListDict& entry) {
    const std::string path = entry.GetData(Strings::path).Text();
    const std::string event_name = entry.GetData(Strings::event_name).Text();
    bool once = false;
    entry.GetData(Strings::once).GetValue(once);
    if (path.empty() || event_name.empty()) {
        DefaultLogSink().Error("Skipping empty watch.\n");
        return;
    }
    queue.CreateWatch(path, event_name, as_dict(entry.GetItem(Strings::watch_data)), once);
}

void EventQueue::SetWatchState(const PListDict& state) {
    const PListArray* watches = as_array(state.GetItem(Strings::watch_list));
    if (!watches) return;
    for (const PListItem& item : *watches) {
        const PListDict* entry = as_dict(&item);
        if (entry) {
            restore_watch(*this, *entry);
        } else {
            DefaultLogSink().Error("Non-dictionary watch array entry.\n");
        }
    }
}

bool EventQueue::CreateWatch(const std::string& path, const std::string& event_name,
                             const PListDict* watch_data, const bool& once) {
    {
        AutoMutex lock(m_WatchLock);
        if (m_Watches.size() > static_cast<ui64_t>(static_cast<i64_t>(m_MaxWatches))) {
            DefaultLogSink().Error("Max watches exceeded.\n");
            return false;
        }
        if (m_Watches.count(path)) return false;
        m_Watches.emplace(path, Watch(path, event_name, copy_or_empty(watch_data), once));
    }
    WriteState();
    return true;
}

void EventQueue::DeleteAllWatches() {
    {
        AutoMutex lock(m_WatchLock);
        m_Watches.clear();
    }
    WriteState();
}

bool EventQueue::DeleteWatch(const std::string& path) {
    {
        AutoMutex lock(m_WatchLock);
        const auto watch = m_Watches.find(path);
        if (watch == m_Watches.end()) return false;
        watch->second.mode = WM_DESTROY;
    }
    WriteState();
    return true;
}

// For the last save, when the worker is no longer there to erase what was to end.
void EventQueue::DropEndedWatches() {
    AutoMutex lock(m_WatchLock);
    std::erase_if(m_Watches, [](const auto& entry) {
        return entry.second.mode == WM_DESTROY || entry.second.mode == WM_END;
    });
}

// ---------------------------------------------------------------- EventQueue: the kernel's watch stream

static int event_stream_open() {
    const int fd = inotify_init();
    if (fd < 0) {
        DefaultLogSink().Error("Kernel queue: %s.\n", strerror(errno));
        return fd;
    }
    static_cast<void>(fcntl(fd, F_SETFD, FD_CLOEXEC));  // programs that handlers start do not inherit it
    const Result_t non_blocking = Velmora::SetSockNonBlocking(fd);
    if (non_blocking.Failure()) DefaultLogSink().Error("Kernel queue: %s.\n", non_blocking.Message());
    return fd;
}

static void event_stream_close(int fd) {
    close(fd);
}

// As inotify_add_watch(2); it would take a path with a NUL for what stands before that.
static int event_stream_add(int fd, const std::string& path, ui32_t mask) {
    if (path.find('\0') == std::string::npos) return inotify_add_watch(fd, path.c_str(), mask);
    errno = EINVAL;
    return -1;
}

static void event_stream_init_item(int fd, Watch& watch) {
    const ui32_t mask = Mirel::PathIsDirectory(watch.path) ? IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_ISDIR
                                                           : IN_MODIFY | IN_CREATE;
    watch.handle = event_stream_add(fd, watch.path, mask);
    if (watch.handle < 0) {
        DefaultLogSink().Error("Init watch failed for %s: %s\n", watch.path.c_str(), strerror(errno));
        watch.mode = WM_END;
        return;
    }
    DefaultLogSink().Debug("watch.handle=%d\n", watch.handle);
    watch.mode = WM_RUNNING;
}

static void event_stream_fini_item(int fd, Watch& watch) {
    assert(watch.mode == WM_DESTROY);
    if (watch.handle != -1 && inotify_rm_watch(fd, watch.handle) == -1) {
        DefaultLogSink().Error("Remove watch failed for %s: %s\n", watch.path.c_str(), strerror(errno));
    }
    watch.handle = -1;
    watch.mode = WM_END;
}

// The watch descriptors in the kernel's records (inotify(7)), each once; -1 stands for an overflow of the
// kernel's queue. A record cut off at the end of the bytes is left out where its header is not whole.
static std::set<int> event_stream_decode(const char* bytes, std::size_t size) {
    std::set<int> descriptors;
    inotify_event record;
    while (size >= sizeof(record)) {
        std::memcpy(&record, bytes, sizeof(record));
        descriptors.insert(record.wd);
        const std::size_t length = sizeof(record) + record.len;
        if (length > size) break;
        bytes += length;
        size -= length;
    }
    return descriptors;
}

// Marks what changed. A watch whose removal was requested meanwhile is left to end; one without a kernel
// watch has seen nothing, also where the kernel's overflow record bears the same -1.
static void event_stream_mark_fired(const std::set<int>& changed, watch_map& watches) {
    const bool overflow = changed.count(-1) != 0;
    for (auto& [path, watch] : watches) {
        if (watch.handle < 0 || watch.mode == WM_DESTROY || watch.mode == WM_END) continue;
        if (overflow || changed.count(watch.handle)) watch.mode = WM_FIRED;
    }
}

static bool is_transient(int error) {
    return error == EAGAIN || error == EINTR;
}

// Waits until the stream can be read, for a descriptor of any number. Above 0: it can; 0: not in time; below
// 0: the wait failed, errno says why.
static int event_stream_wait(int fd) {
    pollfd waiting{fd, POLLIN, 0};
    const int ready = poll(&waiting, 1, WatchWait_ms);
    if (ready > 0 && (waiting.revents & POLLNVAL)) {
        errno = EBADF;
        return -1;
    }
    return ready;
}

static void event_stream_proc_stream(int fd, watch_map& watches, Mutex& lock) {
    const int ready = event_stream_wait(fd);
    if (ready < 0 && !is_transient(errno)) DefaultLogSink().Error("IdleWaitPend: %s\n", strerror(errno));
    if (ready <= 0) return;

    char buffer[WatchReadSize];
    const ssize_t bytes = read(fd, buffer, sizeof(buffer));
    if (bytes < 0) {
        if (!is_transient(errno)) DefaultLogSink().Error("Read watch failed: %s\n", strerror(errno));
        return;
    }
    DefaultLogSink().Debug("WATCH EVENT: %d bytes\n", static_cast<int>(bytes));
    const std::set<int> changed = event_stream_decode(buffer, static_cast<std::size_t>(bytes));
    if (changed.count(-1)) {
        DefaultLogSink().Notice(
            "Kernel queue overflow: firing every watch, since what changed is unknown.\n");
    }
    AutoMutex watch_lock(lock);
    event_stream_mark_fired(changed, watches);
}

// ---------------------------------------------------------------- EventQueue: the worker

Result_t EventQueue::ThreadInit() {
    return RESULT_OK;
}

Result_t EventQueue::ThreadFini(Result_t result) {
    return result;
}

Result_t EventQueue::ThreadStop() {
    m_RunOK = false;
    return RESULT_OK;
}

Result_t EventQueue::ThreadBody() {
    const int event_stream = event_stream_open();
    if (event_stream < 0) return RESULT_FILEOPEN;
    while (m_RunOK) {
        try {
            MaintainWatches(event_stream);
            if (m_Counters.pass_ended_ms == 0) m_Counters.pass_ended_ms = steady_ms();
            WaitForChanges(event_stream);
            const auto began = steady_now();
            FireWatches();
            FireTimers();
            ReapCallersAndTrimHistory();
            RepeatFailedSave();
            CountPass(began);
        } catch (const std::bad_alloc&) {  // what was not posted is posted in a later pass
            DefaultLogSink().Error("Out of memory in a pass of the worker.\n");
            std::this_thread::sleep_for(AfterFailedPass);
        }
    }
    event_stream_close(event_stream);
    return RESULT_OK;
}

// Whether another watch has the same kernel watch: there is one for each file, however its path is written.
static bool shares_kernel_watch(const watch_map& watches, const Watch& watch) {
    return watch.handle >= 0 && std::any_of(watches.begin(), watches.end(), [&](const auto& entry) {
               return &entry.second != &watch && entry.second.handle == watch.handle;
           });
}

void EventQueue::MaintainWatches(int event_stream) {
    AutoMutex lock(m_WatchLock);
    for (auto it = m_Watches.begin(); it != m_Watches.end();) {
        Watch& watch = it->second;
        if (watch.mode == WM_END) {
            it = m_Watches.erase(it);
            continue;
        }
        if (watch.mode == WM_CREATE) event_stream_init_item(event_stream, watch);
        if (watch.mode == WM_DESTROY) {
            if (shares_kernel_watch(m_Watches, watch)) watch.handle = -1;  // the other one keeps it
            event_stream_fini_item(event_stream, watch);
        }
        ++it;
    }
}

// The lock checks are off since the stream function is handed the lock and takes it for the marking itself.
void EventQueue::WaitForChanges(int event_stream) {
    event_stream_proc_stream(event_stream, m_Watches, m_WatchLock);
}

void EventQueue::FireWatches() {
    PListDict payload;
    IEventQueue& queue = *this;
    AutoMutex lock(m_WatchLock);
    for (auto& [path, watch] : m_Watches) {
        if (watch.mode != WM_FIRED) continue;
        DefaultLogSink().Debug("Firing filesystem event %s.\n", watch.path.c_str());
        payload.SetValue(Strings::path, watch.path);
        queue.PostEvent(watch.event_name, &payload);
        ++m_Counters.watch_postings;
        watch.mode = WM_RUNNING;
    }
}

void EventQueue::FireTimers() {
    const Timestamp now;
    Timestamp expiry_limit = now;
    expiry_limit.AddSeconds(-TimerExpiry_sec);
    AutoMutex lock(m_TimerLock);
    for (auto it = m_Timers.begin(); it != m_Timers.end();) {
        Timer* timer = *it;
        assert(timer);
        if (timer->start_time > now || FireTimer(*timer, now, expiry_limit)) {
            ++it;
            continue;
        }
        delete timer;
        it = m_Timers.erase(it);
    }
}

// Fires a due timer, or drops it where it is too late. True when the timer stays.
bool EventQueue::FireTimer(Timer& timer, const Timestamp& now, const Timestamp& expiry_limit) {
    if (timer.start_time < expiry_limit) {
        ++m_Counters.expired_timers;
        if (KeepExpiredTimer(timer, now)) return true;
        DefaultLogSink().Notice("Deleted expired event %s at start time %s\n", id_text(timer.id).c_str(),
                                time_text(timer.start_time).c_str());
        return false;
    }
    DefaultLogSink().Debug("Firing timer event %s.\n", id_text(timer.id).c_str());
    IEventQueue& queue = *this;
    queue.PostEvent(timer.event_name, &timer.data);
    ++m_Counters.timer_postings;
    if (timer.interval_sec < 1) return false;
    timer.start_time = later_by(now, timer.interval_sec);
    return true;
}

bool EventQueue::KeepExpiredTimer(Timer&, const Timestamp&) {
    return false;
}

// Says why a finished caller failed to deliver; what never got an answer is in the client's counters.
static void log_failed_callback(BackgroundHTTPRequestHandle<TLSHTTPRequestHandle>& caller) {
    if (caller.Result().Failure() || StatusIsSuccess(caller.Status())) return;
    DefaultLogSink().Error("Callback to \"%s\" failed: %d (%s)\n",
                           caller.CallData_const().TargetUrl.ComposeSchemeAndHost(false).c_str(),
                           static_cast<int>(caller.Status()), StatusToString(caller.Status()));
}

EventQueue::caller_list EventQueue::TakeFinishedCallers() {
    caller_list finished;
    for (auto it = m_CallerThreads.begin(); it != m_CallerThreads.end();) {
        const auto caller = it++;
        if ((*caller)->IsFinished()) finished.splice(finished.end(), m_CallerThreads, caller);
    }
    return finished;
}

// Callers and records leave their lists under the lock; nobody waits for the log and for their destruction.
void EventQueue::ReapCallersAndTrimHistory() {
    caller_list finished;
    {
        AutoMutex lock(m_EventLock);
        finished = TakeFinishedCallers();
        TrimHistory();
    }
    for (caller_t* caller : finished) {
        log_failed_callback(*caller);
        delete caller;
    }
    DestroyTrimmedHistory();
}

// ---------------------------------------------------------------- EventQueue: statistics

void EventQueue::CountPass(std::chrono::steady_clock::time_point began) {
    using std::chrono::microseconds;
    const auto work = std::chrono::duration_cast<microseconds>(steady_now() - began).count();
    m_Counters.last_pass_us = static_cast<ui64_t>(work);
    m_Counters.pass_time_us += static_cast<ui64_t>(work);
    m_Counters.pass_ended_ms = steady_ms();
    ++m_Counters.passes;
}

// Reads the sizes of what is not locked at the moment: whoever asks never waits behind a slow handler.
void EventQueue::MeasureSizes() const {
    if (m_EventLock.TryLock()) {
        m_Counters.events = m_Events.size();
        m_Counters.listeners = m_Callbacks.size();
        m_Counters.callers = m_CallerThreads.size();
        m_EventLock.Unlock();
    }
    if (m_TimerLock.TryLock()) {
        m_Counters.timers = m_Timers.size();
        m_TimerLock.Unlock();
    }
    if (m_WatchLock.TryLock()) {
        m_Counters.watches = m_Watches.size();
        m_WatchLock.Unlock();
    }
    if (m_HistoryLock.TryLock()) {
        m_Counters.history = m_EventHistory.Size();
        m_HistoryLock.Unlock();
    }
}

QueueStatistics EventQueue::Statistics() const {
    MeasureSizes();
    QueueStatistics statistics;
    statistics.Installed = true;
    statistics.Passes = m_Counters.passes;
    statistics.WorkerEnded = IsFinished();
    statistics.WorkerRunning = m_Counters.pass_ended_ms != 0 && !statistics.WorkerEnded;
    if (statistics.WorkerRunning) statistics.SinceLastPass_ms = steady_ms() - m_Counters.pass_ended_ms;
    statistics.LastPass_us = m_Counters.last_pass_us;
    statistics.PassTime_us = m_Counters.pass_time_us;
    statistics.Postings = m_Counters.postings;
    statistics.TimerPostings = m_Counters.timer_postings;
    statistics.WatchPostings = m_Counters.watch_postings;
    statistics.ExpiredTimers = m_Counters.expired_timers;
    statistics.Saves = m_Counters.saves;
    statistics.FailedSaves = m_Counters.failed_saves;
    statistics.LastSaveFailed = m_Counters.last_save_failed;
    statistics.Events = m_Counters.events;
    statistics.Listeners = m_Counters.listeners;
    statistics.Timers = m_Counters.timers;
    statistics.Watches = m_Counters.watches;
    statistics.HistoryRecords = m_Counters.history;
    statistics.CallersUnreaped = m_Counters.callers;
    statistics.HandlerTimes = m_Counters.handler_times.Read();
    statistics.SaveTimes = m_Counters.save_times.Read();
    return statistics;
}

// ---------------------------------------------------------------- the queue that keeps repeating timers

namespace {

// A time that is passed, moved on by whole intervals to the first that is not. Nothing where the interval,
// as it is added, does not lead there.
std::optional<Timestamp> next_due(const Timestamp& passed, i64_t interval_sec, const Timestamp& now) {
    const i64_t step = added_interval(interval_sec) * i64_t{1000000};
    if (interval_sec < 1 || step < 1) return std::nullopt;
    const i64_t late = now.Microseconds() - passed.Microseconds();
    return Timestamp::FromMicroseconds(now.Microseconds() - late % step + step);
}

class TimerKeepingQueue : public EventQueue {
  public:
    using EventQueue::EventQueue;

  protected:
    bool KeepExpiredTimer(Timer& timer, const Timestamp& now) override {
        const std::optional<Timestamp> next = next_due(timer.start_time, timer.interval_sec, now);
        if (!next) return false;
        DefaultLogSink().Notice("Timer %s of event \"%s\" was not fired at %s: set to %s\n",
                                id_text(timer.id).c_str(), timer.event_name.c_str(),
                                time_text(timer.start_time).c_str(), time_text(*next).c_str());
        timer.start_time = *next;
        return true;
    }
};

// The queue that the configuration asks for.
EventQueue* new_queue(const PListDict& dict, ui32_t timeout_ms) {
    const PListItem* keep = dict.GetDict(Strings::Timers).GetItem(Strings::KeepRepeating);
    if (keep && keep->HasType(Velmora::IT_TRUE)) return new TimerKeepingQueue(timeout_ms);
    return new EventQueue(timeout_ms);
}

}  // namespace

// ---------------------------------------------------------------- process-wide functions

static Mutex s_lock;                                    // serialises creation and stopping
static std::atomic<EventQueue*> s_eventqueue{nullptr};  // written once, under s_lock; never deleted
static NilEventQueue s_nil_eventqueue;

Result_t StartEventQueue(EventQueue* queue, const PListDict& dict,
                         const std::function<Result_t()>& restored) {
    AutoMutex lock(s_lock);
    if (s_eventqueue.load(std::memory_order_acquire)) return RESULT_OK;
    s_eventqueue.store(queue, std::memory_order_release);

    queue->SetMaxListeners(integer_or(dict, Strings::MaxListeners, DefaultMaxListeners));
    queue->SetMaxWatches(integer_or(dict, Strings::MaxWatches, DefaultMaxWatches));
    const PListDict& end_point_cfg = dict.GetDict(Velmora::Strings::Config::BindAddress);
    const Result_t configured = queue->InitEventQueue(dict.GetDict(Strings::EventManager), end_point_cfg);
    if (configured.Failure()) return configured;
    const Result_t accepted = restored ? restored() : RESULT_OK;
    if (accepted.Failure()) return accepted;

    // Only now, and with one save: a crash while starting cannot leave half of the document in place of the
    // whole.
    const std::string state_file = dict.GetData(Strings::StateFile).Text();
    if (!state_file.empty()) queue->UseStateFile(state_file);
    return queue->Start("EventQueue::Main");
}

Result_t RestoreEventQueue(const PListDict& dict, const std::function<Result_t()>& restored) {
    if (s_eventqueue.load(std::memory_order_acquire)) return RESULT_OK;
    const int write_timeout = integer_or(dict, Strings::Timeout_ms, DefaultTimeout_ms);
    auto queue = std::unique_ptr<EventQueue>(new_queue(dict, static_cast<ui32_t>(write_timeout)));
    const Result_t started = StartEventQueue(queue.get(), dict, restored);
    if (s_eventqueue.load(std::memory_order_acquire) == queue.get()) (void)queue.release();
    return started;
}

Result_t InitEventQueue(const PListDict& dict) {
    return RestoreEventQueue(dict, nullptr);
}

IEventQueue& GlobalEventQueue() {
    EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    if (queue) return *queue;
    return s_nil_eventqueue;
}

Result_t StopEventQueue() {
    EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    if (!queue) return RESULT_OK;
    AutoMutex lock(s_lock);
    return queue->Stop(StopLimit_ms, true);
}

Result_t SaveEventQueue() {
    EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    if (!queue) return RESULT_OK;
    if (queue->IsFinished()) queue->DropEndedWatches();
    return queue->SaveState();
}

void ApplyQueueState(const PListDict& document) {
    EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    if (queue) queue->SetQueueStateSavingOnce(document);
}

void UseListenerCaller(IListenerCaller* caller) {
    s_listener_caller.store(caller, std::memory_order_release);
}

bool CallEventListener(const std::string& event_name, const UUID& id, const PListDict& payload) {
    EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    return queue && queue->CallOneListener(event_name, id, payload);
}

QueueStatistics GetQueueStatistics() {
    const EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    return queue ? queue->Statistics() : QueueStatistics();
}

std::vector<TimerDue> GetTimerTimes() {
    const EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    return queue ? queue->TimerTimes() : std::vector<TimerDue>();
}

PostingId LastPostingOfThread() {
    return t_last_posting;
}

HistoryReading ReadEventHistory(const PostingId* after) {
    const EventQueue* queue = s_eventqueue.load(std::memory_order_acquire);
    return queue ? queue->ReadHistory(after) : HistoryReading();
}

}  // namespace EventManager
