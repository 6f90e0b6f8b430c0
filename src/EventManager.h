// The event manager: named events with their listeners, timers and filesystem watches, behind one queue.
//
// A posting (by a caller, a due timer, a fired watch) goes into a short history, to every WebSocket client,
// and to each listener of its event. Servers reach the queue through the three functions at the end of this
// header.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "MR_error.h"
#include "MR_histogram.h"
#include "MR_mutex.h"
#include "MR_thread.h"
#include "MR_types.h"
#include "MR_util.h"
#include "VL_HTTP.h"
#include "VL_PList.h"
#include "VL_WebSocket.h"

/// The event manager module.
namespace EventManager {

using Mirel::i32_t;
using Mirel::i64_t;
using Mirel::Mutex;
using Mirel::Result_t;
using Mirel::Timestamp;
using Mirel::ui32_t;
using Mirel::ui64_t;
using Mirel::UUID;
using Velmora::BackgroundHTTPRequestHandle;
using Velmora::ci_comp;
using Velmora::PListArray;
using Velmora::PListData;
using Velmora::PListDict;
using Velmora::PostingId;
using Velmora::Status_t;
using Velmora::TCPSession;
using Velmora::TLSHTTPRequestHandle;
using Velmora::URL;
using Velmora::WebSocketBroadcastManager;

/// Every key of every dictionary that the module reads or writes, and those that servers publish beside them.
namespace Strings {
inline const std::string callback = "callback";            ///< where a listener is called
inline const std::string config = "config";                ///< for servers: the configuration
inline const std::string event_data = "event_data";        ///< an event's own data
inline const std::string event_list = "event_list";        ///< the events of the queue state document
inline const std::string event_name = "event_name";        ///< the name of an event
inline const std::string events = "events";                ///< for servers: the events
inline const std::string history = "history";              ///< the array of the history document
inline const std::string id = "id";                        ///< the id of a listener or timer
inline const std::string interval_sec = "interval_sec";    ///< a timer's interval, in seconds
inline const std::string listener_data = "listener_data";  ///< a listener's own data
inline const std::string listener_id = "listener_id";      ///< for servers: the id of a listener
inline const std::string listener_list = "listener_list";  ///< an event's listeners
inline const std::string listeners = "listeners";          ///< for servers: the listeners of an event
inline const std::string max_listeners = "max_listeners";  ///< the limit on listeners
inline const std::string max_watches = "max_watches";      ///< the limit on watches
inline const std::string once = "once";                    ///< whether a watch was asked for one change only
inline const std::string path = "path";                    ///< the watched path
inline const std::string post_data = "post_data";          ///< what the poster handed over
inline const std::string queue = "queue";                  ///< for servers: the queue
inline const std::string start_time = "start_time";        ///< when a timer is due, as a timestamp
inline const std::string timer_data = "timer_data";        ///< a timer's data, which it posts
inline const std::string timer_id = "timer_id";            ///< for servers: the id of a timer
inline const std::string timer_list = "timer_list";        ///< the timers of the queue state document
inline const std::string timers = "timers";                ///< for servers: the timers
inline const std::string timestamp = "timestamp";          ///< when a posting was made
inline const std::string watch = "watch";                  ///< for servers: a watch
inline const std::string watches = "watches";              ///< for servers: the watches
inline const std::string watch_data = "watch_data";        ///< a watch's own data
inline const std::string watch_list = "watch_list";        ///< the watches of the queue state document
inline const std::string EventManager = "EventManager";    ///< the configuration's queue state document
inline const std::string Timeout_ms = "Timeout_ms";  ///< milliseconds for a call and for a write to a client
inline const std::string StateFile = "StateFile";    ///< where the queue is saved
inline const std::string MaxListeners = "MaxListeners";    ///< the limit on listeners to begin with
inline const std::string MaxWatches = "MaxWatches";        ///< the limit on watches to begin with
inline const std::string Timers = "Timers";                ///< the dictionary about timers
inline const std::string KeepRepeating = "KeepRepeating";  ///< whether repeating timers outlive being late
}  // namespace Strings

/// One registration of a callback on one event.
class MR_EXPORT Listener {
  public:
    UUID id;               ///< random, given at construction; the handle by which the listener is deleted
    std::string callback;  ///< "python://module", a URL, or a path on the server itself
    PListDict data;  ///< goes with each call; where it is empty a URL is called with GET, else with POST

    /// A listener with a new id and a copy of the data.
    Listener(const std::string& callback, const PListDict& data);
    /// The same without data.
    explicit Listener(const std::string& callback);
};

/// Listeners in order of creation, which is the order of delivery.
using listener_list_t = std::list<Listener>;

/// One named event with its data and its listeners.
class MR_EXPORT EventDistributor {
  public:
    std::string name;           ///< any bytes
    PListDict data;             ///< goes with each posting; never changed after construction
    listener_list_t listeners;  ///< in order of creation

    /// An event without listeners, with a copy of the data.
    EventDistributor(const std::string& name, const PListDict& data);
    /// The same without data.
    explicit EventDistributor(const std::string& name);
};

/// Events by name, in byte-wise order.
using event_map = std::map<std::string, EventDistributor>;

/// Posts an event at a time, and again at an interval.
class MR_EXPORT Timer {
  public:
    UUID id;                 ///< random, given at construction
    std::string event_name;  ///< what is posted, whether there is such an event or not
    PListDict data;          ///< what is posted with it
    Timestamp start_time;    ///< when the timer is next due
    i64_t interval_sec;      ///< below 1: fires once

    /// A timer with a new id and a copy of the data.
    Timer(const std::string& event_name, const i64_t& interval_sec, const Timestamp& start_time,
          const PListDict& data);
    /// The same without data.
    Timer(const std::string& event_name, const i64_t& interval_sec, const Timestamp& start_time);
    /// A copy has the same id.
    Timer(const Timer& other);
    /// The id as well.
    Timer& operator=(const Timer& other);
};

/// Timers in order of creation; whoever holds the list owns them. Never a null pointer.
using timer_list = std::list<Timer*>;

/// Where a watch stands in its life.
enum WatchMode_t {
    WM_CREATE = 0,   ///< requested: the worker registers it with the kernel next
    WM_RUNNING = 1,  ///< registered, waiting for changes
    WM_FIRED = 2,    ///< a change was seen: the worker posts the event next
    WM_DESTROY = 3,  ///< removal requested: the worker unregisters it next
    WM_END = 4,      ///< over: the worker erases it next
    WM_MAX = 5,      ///< the number of modes
};

/// Posts an event when a filesystem path changes.
class MR_EXPORT Watch {
  public:
    bool once;                     ///< kept and reported; firing does not consult it
    std::string path;              ///< of a file or directory
    std::string event_name;        ///< what is posted
    PListDict data;                ///< kept and reported; the posting does not carry it
    int handle = -1;               ///< kernel watch descriptor; -1 while there is none
    WatchMode_t mode = WM_CREATE;  ///< the worker's next step

    /// A watch that is requested, with a copy of the data.
    Watch(const std::string& path, const std::string& event_name, const PListDict& data, bool once);
    /// The same without data.
    Watch(const std::string& path, const std::string& event_name, bool once);
    Watch(Watch&&) = default;             ///< of a watch there is one: it is moved, not copied
    Watch& operator=(Watch&&) = default;  ///< as above
};

/// Watches by path, without regard to letter case.
using watch_map = std::map<const std::string, Watch, ci_comp>;

/// The queue as its callers see it. Every operation may be called from any thread at any time. Dictionaries
/// that are handed in are copied, getters fill the caller's dictionary with copies.
///
/// Nothing throws as long as there is memory. Where it runs out, std::bad_alloc may come out of what creates,
/// of what reads or applies a document, and of PostEvent. A creation has then been made whole or not at all,
/// of a document the entries so far have been applied, a posting has called no listener; the queue is whole
/// and goes on, and what was made but not saved is saved by the worker's next pass. Where memory runs out for
/// a single listener of a posting, that listener is left out with an Error line. What deletes and what sets
/// or reads a limit never throws.
///
/// A Python handler runs inside the posting that calls it, while the queue's locks are held: it must not call
/// any operation of the queue, also not through the server's REST interface and waiting for the answer, for
/// that call would wait for the handler and the handler for it, for ever.
///
/// Binary interface: the destructor and the operations in this order are what programs were compiled with.
/// None may be moved, added or taken away within a major version.
class MR_EXPORT IEventQueue {
  public:
    virtual ~IEventQueue() = default;

    /// Adds the queue state document to `state`: "max_listeners", "max_watches" and the three sections below.
    /// Each part is read under its own lock, one after the other.
    virtual void GetQueueState(PListDict& state) const = 0;
    /// Applies a queue state document: events, then timers, then watches. Only adds; the limits are not
    /// applied.
    virtual void SetQueueState(const PListDict& config) = 0;

    /// The limit on listeners; 1024 at first.
    virtual i32_t GetMaxListeners() const = 0;
    /// An operation that creates is refused once there are more listeners than this over all events; so there
    /// can be one more. A negative value sets no limit.
    virtual void SetMaxListeners(i32_t max) = 0;
    /// Sets "event_list".
    virtual void GetEventState(PListDict& state) const = 0;
    /// Creates what "event_list" holds and is not there yet. Listeners get new ids. Entries that cannot be
    /// read are logged and skipped.
    virtual void SetEventState(const PListDict& state) = 0;
    /// Sets "history": the postings of the last 30 seconds, oldest first.
    virtual void GetEventHistory(PListDict& history) const = 0;

    /// Takes a WebSocket client over (`session` is empty afterwards); every later posting is sent to it.
    virtual void AdoptWsClient(TCPSession& session) = 0;
    /// STATUS_201_CREATED; STATUS_409_CONFLICT over the listener limit; STATUS_412_PRECOND_FAILED where the
    /// event exists. `event_data` may be null.
    virtual Status_t CreateEvent(const std::string& event_name, PListDict* event_data) = 0;
    /// Deletes every event with its listeners. Calls that are under way go on.
    virtual void DeleteAllEvents() = 0;
    /// Posts the event with the data in `value` (may be null). False where there is no such event. Returns
    /// without waiting for any HTTP listener; Python handlers have run.
    virtual bool PostEvent(const std::string& event_name, const PListDict* value) = 0;
    /// Deletes the event with its listeners. False where there is no such event.
    virtual bool DeleteEvent(const std::string& event_name) = 0;
    /// STATUS_201_CREATED, and only then `callback_id` is written; else, tested in this order:
    /// STATUS_409_CONFLICT over the limit, STATUS_404_NOT_FOUND without such an event, STATUS_400_BAD_REQ for
    /// a callback that is neither "python://…" nor a URL nor a path, STATUS_412_PRECOND_FAILED where the
    /// event has that callback already.
    virtual Status_t CreateEventListener(const std::string& event_name, const std::string& callback,
                                         const PListDict* listener_data, UUID& callback_id) = 0;
    /// Deletes all listeners of the event. False where there is no such event.
    virtual bool DeleteListenersForEvent(const std::string& event_name) = 0;
    /// Deletes one listener. False where there is no such event, or it has no such listener.
    virtual bool DeleteEventListener(const std::string& event_name, const UUID& id) = 0;

    /// Sets "timer_list".
    virtual void GetTimerState(PListDict& state) const = 0;
    /// Creates the timers in "timer_list", beside those that are there. Entries that cannot be read are
    /// logged and skipped.
    virtual void SetTimerState(const PListDict& state) = 0;
    /// Posts `event_name` at `timestamp` or, where `interval_sec` is not 0, that many seconds from now
    /// (`timestamp` is then not used; the low 32 bits count, as signed), and at every further interval of 1
    /// and more. A timer found more than 10 seconds late is dropped. Always true.
    virtual bool CreateTimer(const std::string& event_name, const Timestamp& timestamp,
                             const i64_t& interval_sec, const PListDict* timer_data, UUID& timer_id) = 0;
    /// Deletes every timer. Waits for the posting of one that is firing.
    virtual void DeleteAllTimers() = 0;
    /// Deletes one timer, as above. False where there is no such timer.
    virtual bool DeleteTimer(const UUID& timer_id) = 0;

    /// The limit on watches; 1024 at first.
    virtual i32_t GetMaxWatches() const = 0;
    /// A watch is refused once there are more than this; so there can be one more. Negative sets no limit.
    virtual void SetMaxWatches(i32_t max) = 0;
    /// Sets "watch_list".
    virtual void GetWatchState(PListDict& state) const = 0;
    /// Creates the watches in "watch_list" whose path is not watched yet.
    virtual void SetWatchState(const PListDict& state) = 0;
    /// Posts `event_name` with {"path": `path`} whenever the file changes, or something is created in, moved
    /// into or deleted from the directory. False where the path (in any letter case) is watched already, or
    /// over the limit. A path that the kernel refuses is logged and dropped by the worker later.
    virtual bool CreateWatch(const std::string& path, const std::string& event_name,
                             const PListDict* watch_data, const bool& once) = 0;
    /// Deletes every watch at once; the kernel's part of them is given back when the worker ends.
    virtual void DeleteAllWatches() = 0;
    /// Marks the watch for removal by the worker's next pass; it is reported until it is gone. False where
    /// the path (in any letter case) is not watched.
    virtual bool DeleteWatch(const std::string& path) = 0;
};

/// One call of a listener, as an IListenerCaller is told of it. What it refers to is good until the function
/// that was handed it returns.
struct ListenerCall {
    const std::string& EventName;        ///< of the posting
    const Listener& Called;              ///< as it is registered
    const PListDict& Payload;            ///< the posting, with the listener's own data
    const std::shared_ptr<void>& Token;  ///< whoever holds a copy says that the call is not over; may be null
};

/// Makes the calls of postings in the queue's place, or watches them. All its functions are called while the
/// lock of the events is held: they must be quick and must not call the queue.
class MR_EXPORT IListenerCaller {
  public:
    virtual ~IListenerCaller() = default;

    /// `request`, with `body`, is about to be made. True takes it over, and the queue has no more to do with
    /// it (the token stands for the call meanwhile); false leaves it to the queue: one request, at once.
    virtual bool TakeRequest(const ListenerCall& call, const Velmora::BasicRestEntryCall& request,
                             const std::string& body) = 0;
    /// A Python handler has run, on this thread: Velmora::LastHandlerReport() says how.
    virtual void HandlerRan(const ListenerCall& call) = 0;
    /// The listener is being deleted. Calls that are under way go on.
    virtual void ListenerDeleted(const std::string& event_name, const Listener& listener) = 0;
};

/// What the queue has done so far and holds now, for the process that runs it. Sizes are read without
/// waiting: while a posting keeps a registry busy, they are those of an earlier reading.
struct QueueStatistics {
    bool Installed = false;       ///< there is a live queue
    bool WorkerRunning = false;   ///< from when the restored watches are the kernel's, to its end
    bool WorkerEnded = false;     ///< it ran, and does not any more: nothing fires
    ui64_t Passes = 0;            ///< of the worker so far
    ui64_t SinceLastPass_ms = 0;  ///< since the end of the last pass, or since the start of the worker
    ui64_t LastPass_us = 0;       ///< its work, without the wait
    ui64_t PassTime_us = 0;       ///< the same, added up over all passes
    ui64_t Postings = 0;          ///< of existing events, by whomever
    ui64_t TimerPostings = 0;     ///< what timers posted, existing event or not
    ui64_t WatchPostings = 0;     ///< what watches posted, existing event or not
    ui64_t ExpiredTimers = 0;     ///< found too late to fire
    ui64_t Saves = 0;             ///< that succeeded
    ui64_t FailedSaves = 0;       ///< that did not
    bool LastSaveFailed = false;  ///< what is on the disk is an earlier state
    ui64_t Events = 0;            ///< now
    ui64_t Listeners = 0;         ///< now, over all events
    ui64_t Timers = 0;            ///< now
    ui64_t Watches = 0;           ///< now, those that are about to go included
    ui64_t HistoryRecords = 0;    ///< now
    ui64_t CallersUnreaped = 0;   ///< calls to listeners, under way or not yet looked at by the worker
    Mirel::HistogramCounts HandlerTimes;  ///< of Python handlers, the wait for the interpreter included
    Mirel::HistogramCounts SaveTimes;  ///< of saves, failed ones included; the wait for another save is not
};

/// When a timer fires next.
struct TimerDue {
    UUID Id;         ///< the timer's
    Timestamp Time;  ///< when it is due
};

class EventQueue;

/// Where subscribers of the feed find what they have missed.
class HistorySource : public Velmora::PostingSource {
  public:
    /// The queue must outlive it.
    explicit HistorySource(const EventQueue& queue) : m_Queue(queue) {}
    Place PlaceAfter(const PostingId* after) const override;
    bool Read(ui64_t after, std::size_t most, std::vector<Velmora::NumberedPosting>& postings) const override;

  private:
    const EventQueue& m_Queue;
};

/// Consecutive records of the history whose numbers follow each other.
struct NumberRun {
    ui64_t First = 0;       ///< the number of the first of them
    std::size_t Count = 0;  ///< how many they are
};

/// The history, and what of it came after a posting.
struct MR_EXPORT HistoryReading {
    PListArray Records;              ///< the whole history, oldest first
    std::size_t Begin = 0;           ///< where in it that begins which was asked for
    bool Gap = false;                ///< what was asked for began earlier, and is not there any more
    PostingId Last;                  ///< the last posting that there was; Number 0 before the first
    std::vector<NumberRun> Numbers;  ///< of the last records; those before are of an earlier epoch

    /// The id of one record; that of the epoch's beginning (Number 0) for a record of an earlier epoch.
    PostingId IdAt(std::size_t index) const;
};

/// The live queue: the registries, and the worker thread that fires timers and watches, reaps callers and
/// trims the history.
///
/// Locks, in the order in which they are taken: m_SaveLock; m_TimerLock or m_WatchLock (never both);
/// m_EventLock; m_HistoryLock. Nothing is saved while one of the registries' locks is held.
///
/// Binary interface: the operations are declared in the interface's order, since they stand once more behind
/// the thread's.
class MR_EXPORT EventQueue : public Mirel::Thread, public IEventQueue {
  public:
    /// `timeout_ms`: of requests to listeners, and of writes to WebSocket clients that make no progress.
    explicit EventQueue(ui32_t timeout_ms);
    /// Closes the WebSocket clients and waits for running callers. The worker must have ended.
    ~EventQueue() override;

    /// Sets the server's own address from "ListenPort" and "TLSIdentity" of `end_point_cfg` and applies
    /// `events_config` as a queue state document. Once, before Start(). Always RESULT_OK.
    Result_t InitEventQueue(const PListDict& events_config, const PListDict& end_point_cfg);

    void GetQueueState(PListDict& state) const override;
    void SetQueueState(const PListDict& config) override;

    i32_t GetMaxListeners() const override;
    void SetMaxListeners(i32_t max) override;
    void GetEventState(PListDict& state) const override;
    void SetEventState(const PListDict& state) override;
    void GetEventHistory(PListDict& history) const override;

    void AdoptWsClient(TCPSession& session) override;
    Status_t CreateEvent(const std::string& event_name, PListDict* event_data) override;
    void DeleteAllEvents() override;
    bool PostEvent(const std::string& event_name, const PListDict* value) override;
    bool DeleteEvent(const std::string& event_name) override;
    Status_t CreateEventListener(const std::string& event_name, const std::string& callback,
                                 const PListDict* listener_data, UUID& callback_id) override;
    bool DeleteListenersForEvent(const std::string& event_name) override;
    bool DeleteEventListener(const std::string& event_name, const UUID& id) override;

    void GetTimerState(PListDict& state) const override;
    void SetTimerState(const PListDict& state) override;
    bool CreateTimer(const std::string& event_name, const Timestamp& timestamp, const i64_t& interval_sec,
                     const PListDict* timer_data, UUID& timer_id) override;
    void DeleteAllTimers() override;
    bool DeleteTimer(const UUID& timer_id) override;

    i32_t GetMaxWatches() const override;
    void SetMaxWatches(i32_t max) override;
    void GetWatchState(PListDict& state) const override;
    void SetWatchState(const PListDict& state) override;
    bool CreateWatch(const std::string& path, const std::string& event_name, const PListDict* watch_data,
                     const bool& once) override;
    void DeleteAllWatches() override;
    bool DeleteWatch(const std::string& path) override;

  protected:
    /// Called by the worker for a timer that is too late to fire. False (always, here) drops it; an override
    /// that answers true has given it a new start time. The timer lock is held: no timer operation may be
    /// called, and nothing saved. Whether a timer is there and its interval is all that is saved of a
    /// repeating one, so a new start time needs no save.
    virtual bool KeepExpiredTimer(Timer& timer, const Timestamp& now) REQUIRES(m_TimerLock);

    /// From now on postings are numbered in `epoch` (see PostingId), behind `before`. Whoever asks for what
    /// came after an id of another epoch, or after a number below `before`, learns that something is missing.
    /// The constructor begins an epoch of its own, with a random text, behind 0; a queue whose postings are
    /// numbered elsewhere begins that one before it records any.
    void BeginEpoch(const std::string& epoch, ui64_t before);
    /// Records a posting as it stands: history, feed and counter; nobody is called. `number` is its own from
    /// elsewhere, above all that have been recorded in the epoch, or 0 for the next one. Takes m_EventLock,
    /// so not to be called from within a posting.
    void RecordPosting(const PListDict& payload, ui64_t number);

    /// Posts every timer that is due; once in each pass of the worker. An override decides otherwise who
    /// fires what, and need not call this one.
    virtual void FireTimers();

    /// The time by which the history is trimmed; here that of this machine. Postings that get their
    /// timestamps elsewhere need that place's.
    virtual Timestamp HistoryTime() const;

    /// CreateEventListener for a listener that has its id already.
    Status_t AddEventListener(const std::string& event_name, const UUID& id, const std::string& callback,
                              const PListDict* listener_data);

    /// Puts a copy of the timer, with its id, behind the others.
    void AddTimer(const Timer& timer);

    /// Count a posting by a timer, and a timer that was too late to post, for GetQueueStatistics.
    ///@{
    void CountTimerPosting() { ++m_Counters.timer_postings; }
    void CountExpiredTimer() { ++m_Counters.expired_timers; }
    ///@}

    /// What GetQueueStatistics answers of this queue.
    QueueStatistics Statistics() const;

    /// What GetTimerTimes answers of this queue.
    std::vector<TimerDue> TimerTimes() const;

    /// For queues that learn of postings from elsewhere: calls the listeners of the payload's event with it,
    /// as PostEvent does when the posting is recorded; nothing is recorded here. False where there is no such
    /// event. The last copy of `token` (may be null) is let go when every Python handler has run and every
    /// request has ended, which is on any thread, often after the return.
    bool CallListenersOf(const PListDict& payload, const std::shared_ptr<void>& token);
    /// What LastPostingOfThread answers on the calling thread, until it records a posting: whose listeners it
    /// is about to call where another thread has recorded the posting.
    static void PostingOfThread(const PostingId& id);

  private:
    friend Result_t RestoreEventQueue(const PListDict& dict, const std::function<Result_t()>& restored);
    friend Result_t StartEventQueue(EventQueue* queue, const PListDict& dict,
                                    const std::function<Result_t()>& restored);
    friend Result_t SaveEventQueue();
    friend void ApplyQueueState(const PListDict& document);
    friend QueueStatistics GetQueueStatistics();
    friend std::vector<TimerDue> GetTimerTimes();
    friend HistoryReading ReadEventHistory(const PostingId* after);

    friend bool CallEventListener(const std::string& event_name, const UUID& id, const PListDict& payload);
    friend class HistorySource;
    friend struct EventQueueProbe;  // the tests' way to the phases of a pass

    using caller_t = BackgroundHTTPRequestHandle<TLSHTTPRequestHandle>;
    using caller_list = std::list<caller_t*>;

    /// Consecutive history records that bear the same timestamp text.
    struct HistoryRun {
        std::string timestamp;
        std::size_t count;
    };

    /// A save because of an earlier one's failure is logged only where it fails otherwise than that one.
    enum class SaveReason { Change, Failure };

    /// Counted without a lock, for GetQueueStatistics.
    struct Counters {
        std::atomic<ui64_t> passes{0}, last_pass_us{0}, pass_time_us{0}, pass_ended_ms{0};
        std::atomic<ui64_t> postings{0}, timer_postings{0}, watch_postings{0}, expired_timers{0};
        std::atomic<ui64_t> saves{0}, failed_saves{0};
        std::atomic<bool> last_save_failed{false};
        std::atomic<ui64_t> events{0}, listeners{0}, timers{0}, watches{0}, history{0}, callers{0};
        Mirel::Histogram handler_times, save_times;
    };

    EventQueue() = delete;
    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    Result_t ThreadInit() override;
    Result_t ThreadBody() override;
    Result_t ThreadFini(Result_t result) override;
    Result_t ThreadStop() override;

    void UseStateFile(const std::string& path);
    Result_t WriteStateFile() const REQUIRES(m_SaveLock);
    Result_t SaveState(SaveReason reason = SaveReason::Change) const;
    void RepeatFailedSave();
    void WriteState() const;
    void SetQueueStateSavingOnce(const PListDict& config);
    void DropEndedWatches();

    bool HasTooManyListeners() const REQUIRES(m_EventLock);
    Status_t RegisterListener(const std::string& event_name, Listener listener);
    void ForgetCallbacks(const EventDistributor& event) REQUIRES(m_EventLock);

    void Record(const PListDict& payload, ui64_t number) REQUIRES(m_EventLock);
    void AppendHistory(const PListDict& event_data, ui64_t number = 0);
    void ForgetLeftNumbers() REQUIRES(m_HistoryLock);
    std::size_t CountAfter(ui64_t number) const REQUIRES(m_HistoryLock);
    HistoryReading ReadHistory(const PostingId* after) const;
    void TrimHistory();
    bool HistoryIsIndexed() const REQUIRES(m_HistoryLock);
    void IndexHistory() REQUIRES(m_HistoryLock);
    void DestroyTrimmedHistory();

    const PListData& CurrentTime() REQUIRES(m_EventLock);
    void CallListeners(const EventDistributor& event, PListDict& payload, const std::shared_ptr<void>& token)
        REQUIRES(m_EventLock);
    bool CallOneListener(const std::string& event_name, const UUID& id, const PListDict& payload);
    bool CallTarget(const Listener& listener, Velmora::BasicRestEntryCall& request) const
        REQUIRES(m_EventLock);
    void CallListener(const ListenerCall& call) REQUIRES(m_EventLock);
    void StartCaller(const Velmora::BasicRestEntryCall& call, const std::string& body,
                     const std::shared_ptr<void>& token) REQUIRES(m_EventLock);

    void MaintainWatches(int event_stream);
    void WaitForChanges(int event_stream) NO_THREAD_SAFETY_ANALYSIS;
    void FireWatches();
    bool FireTimer(Timer& timer, const Timestamp& now, const Timestamp& expiry_limit) REQUIRES(m_TimerLock);
    void ReapCallersAndTrimHistory();
    caller_list TakeFinishedCallers() REQUIRES(m_EventLock);
    void CountPass(std::chrono::steady_clock::time_point began);

    void MeasureSizes() const;

    URL m_ServiceEndPoint GUARDED_BY(m_EventLock);  // the server itself, for callbacks that are paths
    i32_t m_Timeout_ms;                             // never changed

    mutable Mutex m_EventLock ACQUIRED_BEFORE(m_HistoryLock);
    event_map m_Events GUARDED_BY(m_EventLock);
    // One for each listener: the callback as it stands there. So many entries are in the limit's count.
    std::set<std::pair<const EventDistributor*, std::string_view>> m_Callbacks GUARDED_BY(m_EventLock);
    std::atomic<i32_t> m_MaxListeners;

    mutable Mutex m_TimerLock ACQUIRED_BEFORE(m_EventLock);
    timer_list m_Timers GUARDED_BY(m_TimerLock);

    mutable Mutex m_WatchLock ACQUIRED_BEFORE(m_EventLock);
    watch_map m_Watches GUARDED_BY(m_WatchLock);
    std::atomic<i32_t> m_MaxWatches;

    mutable Mutex m_HistoryLock;
    PListArray m_EventHistory GUARDED_BY(m_HistoryLock);

    caller_list m_CallerThreads GUARDED_BY(m_EventLock);  // in order of starting; owned
    WebSocketBroadcastManager m_WsManager;                // synchronises itself
    std::atomic<bool> m_RunOK;
    std::string m_StateFile GUARDED_BY(m_SaveLock);              // empty: nothing is saved; no link
    mutable std::size_t m_SavedSize GUARDED_BY(m_SaveLock) = 0;  // bytes of the last document
    mutable std::string m_SaveFailure GUARDED_BY(m_SaveLock);    // of the last save; empty: it succeeded
    std::chrono::steady_clock::time_point m_NextSave;  // no failed one is repeated before; the worker's

    mutable Mutex m_SaveLock ACQUIRED_BEFORE(m_TimerLock, m_WatchLock, m_EventLock);  // keeps saves apart
    PListData m_PostingTime GUARDED_BY(m_EventLock);  // text of the last posting's second
    // An index of m_EventHistory, how many records it covers, and what was trimmed and awaits its
    // destruction.
    std::deque<HistoryRun> m_HistoryRuns GUARDED_BY(m_HistoryLock);
    std::size_t m_HistoryIndexed GUARDED_BY(m_HistoryLock) = 0;
    PListArray m_TrimmedHistory GUARDED_BY(m_HistoryLock);
    // The numbers of m_EventHistory's last records, and the last number that is not in it any more.
    std::string m_Epoch GUARDED_BY(m_HistoryLock);
    std::deque<NumberRun> m_Numbers GUARDED_BY(m_HistoryLock);
    ui64_t m_LastNumber GUARDED_BY(m_HistoryLock) = 0;
    ui64_t m_ForgottenNumber GUARDED_BY(m_HistoryLock) = 0;
    const HistorySource m_HistorySource{*this};
    mutable Counters m_Counters;
};

/// Stands in for the live queue until there is one: does nothing and answers STATUS_503_NO_SERVICE, false and
/// 0.
class MR_EXPORT NilEventQueue : public IEventQueue {
  public:
    void GetQueueState(PListDict&) const override {}
    void SetQueueState(const PListDict&) override {}
    i32_t GetMaxListeners() const override { return 0; }
    void SetMaxListeners(i32_t) override {}
    void GetEventState(PListDict&) const override {}
    void SetEventState(const PListDict&) override {}
    void GetEventHistory(PListDict&) const override {}
    void AdoptWsClient(TCPSession&) override {}
    Status_t CreateEvent(const std::string&, PListDict*) override { return Velmora::STATUS_503_NO_SERVICE; }
    void DeleteAllEvents() override {}
    bool PostEvent(const std::string&, const PListDict*) override { return false; }
    bool DeleteEvent(const std::string&) override { return false; }
    Status_t CreateEventListener(const std::string&, const std::string&, const PListDict*, UUID&) override {
        return Velmora::STATUS_503_NO_SERVICE;
    }
    bool DeleteListenersForEvent(const std::string&) override { return false; }
    bool DeleteEventListener(const std::string&, const UUID&) override { return false; }
    void GetTimerState(PListDict&) const override {}
    void SetTimerState(const PListDict&) override {}
    bool CreateTimer(const std::string&, const Timestamp&, const i64_t&, const PListDict*, UUID&) override {
        return false;
    }
    void DeleteAllTimers() override {}
    bool DeleteTimer(const UUID&) override { return false; }
    i32_t GetMaxWatches() const override { return 0; }
    void SetMaxWatches(i32_t) override {}
    void GetWatchState(PListDict&) const override {}
    void SetWatchState(const PListDict&) override {}
    bool CreateWatch(const std::string&, const std::string&, const PListDict*, const bool&) override {
        return false;
    }
    void DeleteAllWatches() override {}
    bool DeleteWatch(const std::string&) override { return false; }
};

/// Creates, configures and starts the live queue, once; later calls do nothing. `dict` is the server's
/// configuration: "Timeout_ms", "BindAddress" ("ListenPort", "TLSIdentity"), "EventManager" (a queue state
/// document, applied before anything is saved), "StateFile", and the limits to begin with, "MaxListeners" and
/// "MaxWatches" (1024 each where they are absent). "Timers" {"KeepRepeating": true} keeps repeating timers
/// that are found too late: each fires next at the first of its times that is still to come. Answers what the
/// start of the worker does (RESULT_THREAD: no thread was to be had; the queue is there, but nothing fires).
/// This and the functions below may be called from any thread.
MR_EXPORT Result_t InitEventQueue(const PListDict& dict);

/// The same, with a hook for the process that runs the queue: `restored` (may be empty) is called once the
/// document is applied, before anything is saved over the one that it came from and before the worker starts.
/// Where it answers a failure that is the answer, and the queue neither saves nor fires anything.
MR_EXPORT Result_t RestoreEventQueue(const PListDict& dict, const std::function<Result_t()>& restored);

/// The same with a queue of the caller's own class, made with new, which becomes the live queue; where there
/// is one already it is not taken over. For programs whose queue is more than this process's.
MR_EXPORT Result_t StartEventQueue(EventQueue* queue, const PListDict& dict,
                                   const std::function<Result_t()>& restored);

/// The live queue, or before InitEventQueue the NilEventQueue. Takes no lock.
MR_EXPORT IEventQueue& GlobalEventQueue();

/// Stops the live queue's worker and waits for the end of its pass (at most 10 seconds). The queue stays and
/// answers, but nothing fires any more. RESULT_TIMEOUT where the pass has not ended by then; RESULT_OK
/// without a live queue.
MR_EXPORT Result_t StopEventQueue();

/// Saves the live queue's document once more, for the end of a process: what fired or ended since the last
/// change is then not restored. RESULT_OK too where no state file is configured; otherwise what writing the
/// file answers, which is logged as well.
MR_EXPORT Result_t SaveEventQueue();

/// Applies a queue state document to the live queue as SetQueueState does, but saves once, when the last
/// entry has been offered and before it returns, instead of once for each entry that is created. What other
/// threads change meanwhile is saved as ever, with what has been applied until then. Does nothing before
/// InitEventQueue.
MR_EXPORT void ApplyQueueState(const PListDict& document);

/// From now on `caller` makes or watches the calls of every queue in this process; null, as it is at first,
/// leaves them to the queues. To be called before the queue is created. It must outlive every queue.
MR_EXPORT void UseListenerCaller(IListenerCaller* caller);

/// Calls one listener of the live queue as a posting does, and it alone: nothing is recorded and nothing is
/// sent to the feed. `payload` is what it is called with; "event_name", "timestamp" and "event_data" are put
/// in where they are missing, and the listener's own data in any case. False where there is no such event or
/// listener.
MR_EXPORT bool CallEventListener(const std::string& event_name, const UUID& id, const PListDict& payload);

/// What the live queue has done and holds; all 0 and false without one. May be called from any thread at any
/// time.
MR_EXPORT QueueStatistics GetQueueStatistics();

/// When the timers of the process's live queue fire next, in order of their creation; none while there is no
/// queue. Waits for the posting of a timer that is firing. Any thread.
MR_EXPORT std::vector<TimerDue> GetTimerTimes();

/// The id of the last posting that the calling thread has made, by PostEvent() or otherwise; without an epoch
/// before the first.
MR_EXPORT PostingId LastPostingOfThread();

/// The live queue's history, and where in it that begins which came after a posting (null: all of it). Where
/// `after` is of another epoch that is all of it, with a gap. Empty without a live queue.
MR_EXPORT HistoryReading ReadEventHistory(const PostingId* after);

}  // namespace EventManager
