// events, listeners, timers and watches: list, add and remove.
#include <cstdio>
#include <memory>

#include "MR_util.h"
#include "VL_PList.h"
#include "terminal/Api.h"
#include "terminal/Commands.h"
#include "terminal/Failure.h"
#include "terminal/Table.h"

namespace Terminal {

namespace {

using Velmora::PListDict;

constexpr std::size_t DataLimit = 80;  // characters of data in a table

// What the commands of this group are given; each uses what it needs.
struct Given {
    std::string Event, Callback, Id, Path, Data, At;
    int In_sec = -1, Every_sec = 0;
    bool Once = false, All = false;
};

std::string DataText(const PListDict& entry, const char* key) {
    return entry.GetDict(key).Empty() ? "" : Shown(Encoded(entry.GetDict(key)), DataLimit);
}

// Prints a list of the server's, as it came or as a table with `row` for each entry.
void PrintList(Api& api, const Chosen& chosen, const std::string& path, const char* list, Table table,
               const std::function<std::vector<std::string>(const PListDict&)>& row) {
    const std::string text = api.Ask("GET", path);
    if (chosen.Server.Json) return PrintText(text);
    const PListDict answer = ReadAnswer(text);
    for (const Velmora::PListItem& item : answer.GetArray(list)) {
        if (const auto* entry = dynamic_cast<const PListDict*>(&item)) table.Add(row(*entry));
    }
    table.Print();
}

// Registers something, and prints the id or, where it has none, nothing.
void Register(Api& api, const Chosen& chosen, const std::string& path, const std::string& body) {
    const std::string text = api.Ask("POST", path, body);
    if (chosen.Server.Json) return PrintText(text);
    const PListDict answer = ReadAnswer(text);
    if (answer.HasItem("id")) PrintText(answer.GetData("id").Text());
    for (const Velmora::PListItem& warning : answer.GetArray("warnings")) {
        if (const auto* data = dynamic_cast<const Velmora::PListData*>(&warning)) {
            std::fprintf(stderr, "velmora: %s\n", Shown(data->Text()).c_str());
        }
    }
}

// A group with list, add and remove below it.
struct Group {
    CLI::App* List;
    CLI::App* Add;
    CLI::App* Remove;
};

Group AddGroup(CLI::App& app, const char* name, const char* what) {
    CLI::App* group = app.add_subcommand(name, std::string("List, add and remove ") + what);
    group->require_subcommand(1);
    return {group->add_subcommand("list", std::string("List ") + what),
            group->add_subcommand("add", std::string("Add to the ") + what),
            group->add_subcommand("remove", std::string("Remove from the ") + what)};
}

void Do(CLI::App* command, Chosen& chosen, std::function<void(Api&)> what) {
    command->callback([&chosen, what = std::move(what)] { chosen.Command = what; });
}

void AddData(CLI::App* command, Given& given) {
    command
        ->add_option("--data", given.Data,
                     "JSON object that goes with it; @FILE reads a file, - standard input")
        ->type_name("JSON");
}

// "ONE" or --all, and not neither.
std::string OneOrAll(const std::string& path, const std::string& one, bool all) {
    if (one.empty() == !all) throw Failure(ExitUsage, "Name what to remove, or give --all.");
    return all ? path : path + "/" + Encode(one);
}

void AddEvents(CLI::App& app, Chosen& chosen) {
    auto given = std::make_shared<Given>();
    const Group group = AddGroup(app, "events", "events");
    Do(group.List, chosen, [&chosen](Api& api) {
        PrintList(api, chosen, "/events", "event_list", Table({"EVENT", "LISTENERS", "DATA"}),
                  [](const PListDict& entry) {
                      return std::vector<std::string>{entry.GetData("event_name").Text(),
                                                      std::to_string(entry.GetArray("listener_list").Size()),
                                                      DataText(entry, "event_data")};
                  });
    });
    group.Add->add_option("event", given->Event, "The event's name")->required();
    AddData(group.Add, *given);
    Do(group.Add, chosen, [given, &chosen](Api& api) {
        Register(api, chosen, "/events",
                 Object({{"event_name", Quoted(given->Event)}, {"event_data", ReadData(given->Data)}}));
    });
    group.Remove->add_option("event", given->Event, "The event's name; its listeners go with it");
    group.Remove->add_flag("--all", given->All, "Every event");
    Do(group.Remove, chosen,
       [given](Api& api) { api.Ask("DELETE", OneOrAll("/events", given->Event, given->All)); });
}

std::string ListenersOf(const Given& given) {
    return "/events/" + Encode(given.Event) + "/listeners";
}

void AddListeners(CLI::App& app, Chosen& chosen) {
    auto given = std::make_shared<Given>();
    const Group group = AddGroup(app, "listeners", "listeners of an event");
    for (CLI::App* command : {group.List, group.Add, group.Remove}) {
        command->add_option("event", given->Event, "The event's name")->required();
    }
    Do(group.List, chosen, [given, &chosen](Api& api) {
        PrintList(api, chosen, ListenersOf(*given), "listener_list", Table({"ID", "CALLBACK", "DATA"}),
                  [](const PListDict& entry) {
                      return std::vector<std::string>{entry.GetData("id").Text(),
                                                      entry.GetData("callback").Text(),
                                                      DataText(entry, "listener_data")};
                  });
    });
    group.Add->add_option("callback", given->Callback, "A URL, a path on the server, or python://MODULE")
        ->required();
    AddData(group.Add, *given);
    Do(group.Add, chosen, [given, &chosen](Api& api) {
        Register(api, chosen, ListenersOf(*given),
                 Object({{"callback", Quoted(given->Callback)}, {"listener_data", ReadData(given->Data)}}));
    });
    group.Remove->add_option("id", given->Id, "The listener's id");
    group.Remove->add_flag("--all", given->All, "Every listener of the event");
    Do(group.Remove, chosen,
       [given](Api& api) { api.Ask("DELETE", OneOrAll(ListenersOf(*given), given->Id, given->All)); });
}

// When the timer first fires, as JSON; empty where its interval says it.
std::string StartTime(const Given& given) {
    if (given.In_sec < 0) return given.At.empty() ? "" : Quoted(given.At);
    Mirel::Timestamp start;
    start.AddSeconds(given.In_sec);
    return Quoted(start.Text());
}

void AddTimers(CLI::App& app, Chosen& chosen) {
    auto given = std::make_shared<Given>();
    const Group group = AddGroup(app, "timers", "timers");
    Do(group.List, chosen, [&chosen](Api& api) {
        PrintList(api, chosen, "/timers", "timer_list", Table({"ID", "EVENT", "START", "EVERY (s)", "DATA"}),
                  [](const PListDict& entry) {
                      return std::vector<std::string>{
                          entry.GetData("id").Text(), entry.GetData("event_name").Text(),
                          entry.HasItem("start_time") ? entry.GetData("start_time").Text() : "",
                          entry.HasItem("interval_sec") ? entry.GetData("interval_sec").Text() : "",
                          DataText(entry, "timer_data")};
                  });
    });
    group.Add->add_option("event", given->Event, "The event that it posts")->required();
    CLI::Option* at =
        group.Add->add_option("--at", given->At, "When, as 2026-01-31T12:00:00Z")->type_name("TIME");
    CLI::Option* in = group.Add->add_option("--in", given->In_sec, "When, in seconds from now")
                          ->type_name("SECONDS")
                          ->check(CLI::NonNegativeNumber)
                          ->excludes(at);
    group.Add->add_option("--every", given->Every_sec, "Repeat; the first time after one interval")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber)
        ->excludes(at)
        ->excludes(in);
    AddData(group.Add, *given);
    Do(group.Add, chosen, [given, &chosen](Api& api) {
        Register(api, chosen, "/timers",
                 Object({{"event_name", Quoted(given->Event)},
                         {"start_time", StartTime(*given)},
                         {"interval_sec", given->Every_sec > 0 ? std::to_string(given->Every_sec) : ""},
                         {"timer_data", ReadData(given->Data)}}));
    });
    group.Remove->add_option("id", given->Id, "The timer's id");
    group.Remove->add_flag("--all", given->All, "Every timer");
    Do(group.Remove, chosen,
       [given](Api& api) { api.Ask("DELETE", OneOrAll("/timers", given->Id, given->All)); });
}

void RemoveWatch(Api& api, const Given& given) {
    if (given.Path.empty() == !given.All) throw Failure(ExitUsage, "Name what to remove, or give --all.");
    api.Ask("DELETE", given.All ? "/watches" : "/watches?path=" + Encode(given.Path));
}

void AddWatches(CLI::App& app, Chosen& chosen) {
    auto given = std::make_shared<Given>();
    const Group group = AddGroup(app, "watches", "watches of files and directories");
    Do(group.List, chosen, [&chosen](Api& api) {
        PrintList(api, chosen, "/watches", "watch_list", Table({"PATH", "EVENT", "DATA"}),
                  [](const PListDict& entry) {
                      return std::vector<std::string>{entry.GetData("path").Text(),
                                                      entry.GetData("event_name").Text(),
                                                      DataText(entry, "watch_data")};
                  });
    });
    group.Add->add_option("path", given->Path, "The file or directory, on the server")->required();
    group.Add->add_option("event", given->Event, "The event that it posts")->required();
    group.Add->add_flag("--once", given->Once, "Marks it so");
    AddData(group.Add, *given);
    Do(group.Add, chosen, [given, &chosen](Api& api) {
        Register(api, chosen, "/watches",
                 Object({{"path", Quoted(given->Path)},
                         {"event_name", Quoted(given->Event)},
                         {"once", given->Once ? "true" : ""},
                         {"watch_data", ReadData(given->Data)}}));
    });
    group.Remove->add_option("path", given->Path, "The watch's path");
    group.Remove->add_flag("--all", given->All, "Every watch");
    Do(group.Remove, chosen, [given](Api& api) { RemoveWatch(api, *given); });
}

}  // namespace

void AddRegistry(CLI::App& app, Chosen& chosen) {
    AddEvents(app, chosen);
    AddListeners(app, chosen);
    AddTimers(app, chosen);
    AddWatches(app, chosen);
}

}  // namespace Terminal
