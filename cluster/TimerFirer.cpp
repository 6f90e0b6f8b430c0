#include "TimerFirer.h"

#include <algorithm>

#include "MR_log.h"
#include "RegistryEdit.h"

namespace Cluster {

namespace Keys = EventManager::Strings;
using Mirel::DefaultLogSink;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr milliseconds LookEvery{100};
constexpr milliseconds RenewEvery{1000};
constexpr i64_t second_us = 1000000;

i64_t NumberIn(const PListDict& dict, const std::string& key) {
    long long number = 0;
    dict.GetData(key).GetValue(number);
    return number;
}

}  // namespace

TimerFirer::TimerFirer(Engine& engine, Publisher& publisher, Nodes& nodes, ClusterQueue& queue)
    : m_Engine(engine),
      m_Publisher(publisher),
      m_Nodes(nodes),
      m_Queue(queue),
      m_Holder(engine, publisher),
      m_Thread([this](LoopThread& thread) { Run(thread); }) {}

Result_t TimerFirer::Start() {
    const Result_t started = m_Holder.Start();
    return started.Failure() ? started : m_Thread.Start("Cluster::Timers");
}

void TimerFirer::Stop() {
    m_Thread.EndAndWait();
    m_Holder.GiveUp();
    m_Holder.Stop();
}

void TimerFirer::Run(LoopThread& thread) {
    auto renew = Clock::now();
    while (!thread.Stopping()) {
        if (Clock::now() >= renew) {
            renew = Clock::now() + RenewEvery;
            m_Holder.Renew();
        }
        if (m_Holder.Holds() && m_Queue.Documents().WasRead()) {
            for (const Due& due : FindDue(m_Nodes.EngineTime_us())) {
                if (m_Holder.Holds()) Fire(due);
                if (Clock::now() >= renew || thread.Stopping()) break;  // the rest after it is renewed
            }
        } else {
            m_FiredHere.clear();
        }
        thread.Rest(LookEvery);
    }
}

// Of the due times that have passed since the last firing, the last one counts.
std::vector<TimerFirer::Due> TimerFirer::FindDue(i64_t now_us) const {
    std::vector<Due> found;
    const i64_t latest = m_Engine.Of().TimerLateness_sec * second_us;
    m_Queue.Documents().Look([&](const Documents& documents) {
        EachDocument(documents, Key::Timers, [&](const std::string&, const PListDict& timer) {
            Due due;
            due.Start_us = NumberIn(timer, "start_us");
            if (due.Start_us > now_us) return;
            due.Id = timer.GetData(Keys::id).Text();
            due.Interval_us = std::max<i64_t>(NumberIn(timer, Keys::interval_sec), 0) * second_us;
            const auto fired = documents.find(Key::Fired(due.Id));
            due.Fired_us = fired == documents.end() ? 0 : NumberIn(fired->second, "due_us");
            const auto here = m_FiredHere.find(due.Id);
            if (here != m_FiredHere.end()) due.Fired_us = std::max(due.Fired_us, here->second);
            const i64_t step = due.Interval_us;
            due.Due_us = step == 0 ? due.Start_us : due.Start_us + (now_us - due.Start_us) / step * step;
            if (due.Due_us <= due.Fired_us) return;
            const i64_t next = due.Fired_us == 0 ? due.Start_us : due.Fired_us + step;
            due.Missed = step == 0 ? 0 : static_cast<ui64_t>(std::max<i64_t>(due.Due_us - next, 0) / step);
            due.TooLate = now_us - due.Due_us > latest;
            due.EventName = timer.GetData(Keys::event_name).Text();
            due.Data = timer.GetDict(Keys::timer_data);
            found.push_back(std::move(due));
        });
    });
    return found;
}

// The message's id is the timer and its due time: whoever fires it again within the stream's window posts
// nothing.
void TimerFirer::Fire(const Due& due) {
    if (due.TooLate) return Done(due);
    std::string json;
    (void)due.Data.EncodeJSON(json);
    PListDict data;
    bool exists = false;
    m_Queue.Documents().Look([&](const Documents& documents) {
        const auto event = documents.find(Key::Event(due.EventName));
        exists = event != documents.end();
        if (exists) data = event->second.GetDict(Keys::event_data);
    });
    if (exists) {
        Sending sending =
            PostingMessage(m_Engine, due.EventName, std::move(json), data, m_Queue.Documents().Revision());
        sending.Id = "timer-" + due.Id + "-" + std::to_string(due.Due_us);
        const Sent sent = m_Publisher.SendAndWait(std::move(sending), Clock::now());
        if (sent.What == Sent::Fate::Unavailable || sent.What == Sent::Fate::MayBeStored)
            return;  // again soon
    }
    ++m_Firings;
    m_Queue.CountTimer(true);
    Done(due);
}

void TimerFirer::Done(const Due& due) {
    if (due.Missed > 0 || due.TooLate) {
        m_Skipped += due.Missed + (due.TooLate ? 1 : 0);
        m_Queue.CountTimer(false);
        DefaultLogSink().Notice("Timer %s of event \"%s\": %llu due times were missed%s\n", due.Id.c_str(),
                                due.EventName.c_str(), static_cast<unsigned long long>(due.Missed),
                                due.TooLate ? ", and the last one is too late" : "");
    }
    m_FiredHere[due.Id] = due.Due_us;
    if (due.Interval_us == 0) {
        Mirel::UUID id;
        if (Mirel::UUIDFromText(due.Id, id)) (void)m_Queue.DeleteTimer(id);
        return;
    }
    PListDict fired;
    fired.SetValue("due_us", std::to_string(due.Due_us));
    m_Queue.Documents().PutAnyway(Key::Fired(due.Id), fired, [](const Sent&) {});
}

}  // namespace Cluster
