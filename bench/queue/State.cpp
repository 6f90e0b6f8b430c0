// Saving the state document, restoring it at start, and passes over many timers.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "Bench.h"
#include "Queue.h"

namespace Bench {

using EventManager::IEventQueue;
using Mirel::Timestamp;

namespace {

constexpr int Saves = 15;
constexpr std::size_t EventDataSize = 150;

void WriteFile(const std::string& path, const std::string& text) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    Check(file >= 0, path);
    Check(write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
    Check(fsync(file) == 0, path);
    close(file);
}

std::string Encoded(const PListDict& dict) {
    std::string json;
    (void)dict.EncodeJSON(json);
    return json;
}

// A configuration of 1,000 events with a listener each, 5,000 timers and 1,000 watches.
PListDict StartDocument(const Folder& folder) {
    PListDict document;
    auto* events = new PListArray;
    auto* timers = new PListArray;
    auto* watches = new PListArray;
    document.SetItem("event_list", events);
    document.SetItem("timer_list", timers);
    document.SetItem("watch_list", watches);
    for (int i = 0; i < 1000; ++i) {
        const std::string number = std::to_string(i);
        events->Append(Dict(R"({"event_name":"event.)" + number + R"(","event_data":{"room":)" + number +
                            R"(},"listener_list":[{"callback":"http://127.0.0.1:9/)" + number +
                            R"(","listener_data":{"priority":1}}]})"));
        std::filesystem::create_directory(folder / number);
        PListDict watch = Dict(R"({"event_name":"event.)" + number + R"(","once":false})");
        watch.SetValue("path", folder / number);
        watches->Append(watch);
    }
    for (int i = 0; i < 5000; ++i) {
        timers->Append(Dict(R"({"event_name":"event.)" + std::to_string(i % 1000) +
                            R"(","interval_sec":"3600","timer_data":{"n":)" + std::to_string(i) + "}}"));
    }
    return document;
}

// Events `from` and so on, every tenth with a listener.
PListDict EventsDocument(std::size_t from, std::size_t count) {
    PListArray events;
    for (std::size_t i = from; i < from + count; ++i) {
        PListDict event;
        event.SetValue("event_name", "event." + std::to_string(i));
        if (i % 10 == 0)
            event.SetItem("listener_list", Dict(R"({"l":[{"callback":"/hook"}]})").GetArray("l"));
        events.Append(std::move(event));
    }
    PListDict document;
    document.SetItem("event_list", std::move(events));
    return document;
}

}  // namespace

// Saving beside the same bytes encoded, written, synced and renamed by hand, in turns.
void MeasureSave(std::size_t bytes) {
    UseCore(0);
    const Folder folder;
    EventQueue queue(500);
    IEventQueue& filling = queue;
    PListDict state;
    PListDict data;
    data.SetValue("note", std::string(EventDataSize, 'n'));
    for (std::size_t i = 0; i < bytes / 230; ++i) filling.CreateEvent("event." + std::to_string(i), &data);
    filling.GetQueueState(state);
    Print("document_bytes", static_cast<double>(Encoded(state).size()));
    Probe::UseStateFile(queue, folder / "state.json");

    std::vector<double> saving;
    std::vector<double> bare;
    const std::string path = folder / "bare.json";
    for (int i = 0; i < Saves; ++i) {
        saving.push_back(CostOf([&] { Check(Probe::Save(queue).Success(), "saving"); }).Wall_ns);
        bare.push_back(CostOf([&] {
                           WriteFile(path + ".temp", Encoded(state));
                           Check(rename((path + ".temp").c_str(), path.c_str()) == 0, path);
                       }).Wall_ns);
    }
    Print("save_us", Percentile(saving, 0.5) / 1e3);
    Print("bare_us", Percentile(bare, 0.5) / 1e3);
}

void MeasureStart() {
    UseCore(0);
    const Folder folder;
    PListDict configuration;
    configuration.SetItem("EventManager", StartDocument(folder));
    configuration.SetValue("StateFile", folder / "state.json");
    const Cost cost =
        CostOf([&] { Check(EventManager::InitEventQueue(configuration).Success(), "starting"); });
    const auto statistics = EventManager::GetQueueStatistics();
    Print("start_ms", cost.Wall_ns / 1e6);
    Print("computed_ms", cost.Computed_ns / 1e6);
    Print("saves", static_cast<double>(statistics.Saves));
    Print("restored", static_cast<double>(statistics.Events + statistics.Listeners + statistics.Timers +
                                          statistics.Watches));
    (void)EventManager::StopEventQueue();
}

// Restoring `events`, then applying a document of 10,000 more in one.
void MeasureRestore(std::size_t events) {
    UseCore(0);
    const Folder folder;
    constexpr std::size_t More = 10'000;
    PListDict configuration;
    configuration.SetItem("EventManager", EventsDocument(0, events));
    configuration.SetValue("MaxListeners", -1);
    configuration.SetValue("StateFile", folder / "state.json");
    const Cost restoring =
        CostOf([&] { Check(EventManager::InitEventQueue(configuration).Success(), "starting"); });
    Print("restore_ms", restoring.Wall_ns / 1e6);
    const auto saved = EventManager::GetQueueStatistics().Saves;
    const PListDict document = EventsDocument(events, More);
    Print("apply_ms", CostOf([&] { EventManager::ApplyQueueState(document); }).Wall_ns / 1e6);
    const auto statistics = EventManager::GetQueueStatistics();
    Print("apply_saves", static_cast<double>(statistics.Saves - saved));
    Check(statistics.Events == events + More, "restoring and applying everything");
    (void)EventManager::StopEventQueue();
}

// One pass over the timers, and the longest that creating one on another thread takes meanwhile.
void MeasureTimers(std::size_t timers, std::size_t due) {
    UseCore(0);
    EventQueue queue(500);
    IEventQueue& creating = queue;
    CreateEvent(queue);
    Timestamp later;
    later.AddSeconds(3600);
    Probe::AddTimers(queue, later, timers - due);
    Probe::AddTimers(queue, Timestamp(), due);
    double pass_ns = 0;
    {
        Mirel::UUID id;
        Bystander creator([&] { creating.CreateTimer(EventName, later, 0, nullptr, id); }, 20'000);
        pass_ns = CostOf([&] { Probe::FireTimers(queue); }).Computed_ns;
        Print("create_wait_us", creator.Longest_ns() / 1e3);
    }
    Print("pass_us", pass_ns / 1e3);
    Print("per_timer_ns", pass_ns / static_cast<double>(due > 0 ? due : timers));
}

}  // namespace Bench
