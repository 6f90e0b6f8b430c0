// deliveries, state and status.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>

#include "VL_PList.h"
#include "terminal/Api.h"
#include "terminal/Commands.h"
#include "terminal/Failure.h"
#include "terminal/Table.h"

namespace Terminal {

namespace {

using Velmora::PListDict;

struct DeliveryOptions {
    bool Failed = false;
    std::string Event;
    std::string Resend, Dismiss;
    int Limit = 50;
};

void ListDeliveries(Api& api, const DeliveryOptions& options, bool json) {
    std::string path = "/deliveries?limit=" + std::to_string(options.Limit);
    if (options.Failed) path += "&outcome=failed";
    if (!options.Event.empty()) path += "&event_name=" + Encode(options.Event);
    const std::string text = api.Ask("GET", path);
    if (json) return PrintText(text);
    Table table({"ID", "TIME", "EVENT", "STATUS", "MS", "OUTCOME", "CALLBACK", "REASON"});
    const PListDict answer = ReadAnswer(text);
    for (const Velmora::PListItem& item : answer.GetArray("deliveries")) {
        const auto* entry = dynamic_cast<const PListDict*>(&item);
        if (entry == nullptr) continue;
        const auto field = [&](const char* key) {
            return entry->HasItem(key) ? entry->GetData(key).Text() : "";
        };
        table.Add({field("id"), field("time"), field("event_name"), field("status"), field("duration_ms"),
                   field("outcome"), entry->HasItem("callback") ? field("callback") : field("url"),
                   field("reason")});
    }
    table.Print();
}

void Deliveries(Api& api, const DeliveryOptions& options, bool json) {
    if (!options.Dismiss.empty()) {
        api.Ask("DELETE", "/deliveries/" + Encode(options.Dismiss));
        return;
    }
    if (options.Resend.empty()) return ListDeliveries(api, options, json);
    const std::string answer = api.Ask("POST", "/deliveries/" + Encode(options.Resend) + "/resend");
    if (json) PrintText(answer);
}

void AddDeliveries(CLI::App& app, Chosen& chosen) {
    auto options = std::make_shared<DeliveryOptions>();
    CLI::App* command = app.add_subcommand(
        "deliveries", "List the calls to listeners, the newest first, or do something about one");
    command->add_flag("--failed", options->Failed, "Only those that failed; dead ones too");
    command->add_option("--event", options->Event, "Only those of this event")->type_name("EVENT");
    command->add_option("--limit", options->Limit, "At most so many")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    CLI::Option* resend =
        command->add_option("--resend", options->Resend, "Send this one again")->type_name("ID");
    command->add_option("--dismiss", options->Dismiss, "Take this one off the list; no further attempt")
        ->type_name("ID")
        ->excludes(resend);
    command->callback([options, &chosen] {
        chosen.Command = [=, &chosen](Api& api) { Deliveries(api, *options, chosen.Server.Json); };
    });
}

struct StateOptions {
    std::string File;
    bool Preview = false;
};

// Whole or not at all: what was in the file stays until the new text is on the disk.
void WriteFile(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".temp";
    std::ofstream stream(temporary, std::ios::binary | std::ios::trunc);
    stream << text << '\n';
    stream.close();
    if (!stream || std::rename(temporary.c_str(), path.c_str()) != 0) {
        throw Failure(ExitUsage, "\"" + path + "\" cannot be written: " + std::strerror(errno) + ".");
    }
}

void ExportState(Api& api, const StateOptions& options) {
    const std::string text = api.Ask("GET", "/queue");
    if (options.File.empty() || options.File == "-") return PrintText(text);
    WriteFile(options.File, text);
}

// How many entries of each list a document has.
std::string Count(const PListDict& document) {
    std::size_t listeners = 0;
    for (const Velmora::PListItem& item : document.GetArray("event_list")) {
        if (const auto* event = dynamic_cast<const PListDict*>(&item)) {
            listeners += event->GetArray("listener_list").Size();
        }
    }
    return std::to_string(document.GetArray("event_list").Size()) + " events, " + std::to_string(listeners) +
           " listeners, " + std::to_string(document.GetArray("timer_list").Size()) + " timers, " +
           std::to_string(document.GetArray("watch_list").Size()) + " watches";
}

// What applying the document would add: events and listeners that are there stay as they are, timers are
// added always.
void PreviewState(Api& api, const std::string& text) {
    const PListDict document = ReadAnswer(text);
    const PListDict present = api.Get("/queue");
    std::printf("The document has %s; the server %s.\n", Count(document).c_str(), Count(present).c_str());
    for (const Velmora::PListItem& item : document.GetArray("event_list")) {
        const auto* event = dynamic_cast<const PListDict*>(&item);
        if (event == nullptr) continue;
        const std::string& name = event->GetData("event_name").Text();
        bool known = false;
        for (const Velmora::PListItem& other : present.GetArray("event_list")) {
            const auto* there = dynamic_cast<const PListDict*>(&other);
            known = known || (there != nullptr && there->GetData("event_name").Text() == name);
        }
        if (!known) std::printf("+ event %s\n", Shown(name).c_str());
    }
    if (const std::size_t timers = document.GetArray("timer_list").Size(); timers > 0) {
        std::printf("+ %zu timers\n", timers);
    }
}

void ImportState(Api& api, const StateOptions& options, bool json) {
    const std::string text = ReadData(options.File == "-" ? "-" : "@" + options.File);
    if (options.Preview) return PreviewState(api, text);
    const std::string answer = api.Ask("POST", "/queue", text);
    if (json) return PrintText(answer);
    std::printf("The server has %s now.\n", Count(ReadAnswer(answer)).c_str());
}

void AddState(CLI::App& app, Chosen& chosen) {
    auto options = std::make_shared<StateOptions>();
    CLI::App* group = app.add_subcommand("state", "Read the whole registry out, or apply a document");
    group->require_subcommand(1);
    CLI::App* command = group->add_subcommand("export", "Write the registry as one document");
    command->add_option("file", options->File, "Where to; standard output if it is not given");
    command->callback([options, &chosen] { chosen.Command = [=](Api& api) { ExportState(api, *options); }; });
    command =
        group->add_subcommand("import", "Apply a document: what is there stays, timers are added every time");
    command->add_option("file", options->File, "The document; - is standard input")->required();
    command->add_flag("--preview", options->Preview, "Only say what would be added");
    command->callback([options, &chosen] {
        chosen.Command = [=, &chosen](Api& api) { ImportState(api, *options, chosen.Server.Json); };
    });
}

void Status(Api& api, bool json) {
    const std::string text = api.Ask("GET", "//readyz");
    const std::string health = api.Ask("GET", "//healthz");
    const PListDict ready = ReadAnswer(text);
    bool is_ready = false;
    ready.GetData("ready").GetValue(is_ready);
    if (json) {
        PrintText(Object({{"healthz", health}, {"readyz", text}}));
    } else {
        const PListDict alive = ReadAnswer(health);
        std::printf("velmora-server %s, running for %s s, %s\n", alive.GetData("version").Text().c_str(),
                    alive.GetData("uptime_sec").Text().c_str(), is_ready ? "ready" : "NOT READY");
        Table table({"CHECK", "OK", "DETAIL"});
        for (const auto& check : ready.GetDict("checks")) {
            const auto& entry = ready.GetDict("checks").GetDict(check.key);
            bool ok = false;
            entry.GetData("ok").GetValue(ok);
            table.Add({std::string(check.key), ok ? "yes" : "no", entry.GetData("detail").Text()});
        }
        table.Print();
    }
    if (!is_ready) throw Failure(ExitUnreachable, "The server is not ready.");
}

}  // namespace

void AddOperating(CLI::App& app, Chosen& chosen) {
    AddDeliveries(app, chosen);
    AddState(app, chosen);
    app.add_subcommand("status", "Say whether the server is ready")->callback([&chosen] {
        chosen.Command = [&chosen](Api& api) { Status(api, chosen.Server.Json); };
    });
}

}  // namespace Terminal
