// post, and tail.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "VL_PList.h"
#include "terminal/Api.h"
#include "terminal/Commands.h"
#include "terminal/Failure.h"
#include "terminal/Table.h"

namespace Terminal {

namespace {

constexpr std::chrono::milliseconds FirstPause{500};
constexpr std::chrono::milliseconds LongestPause{10000};
constexpr std::size_t LineLimit = 200;  // characters of data in one line

struct PostOptions {
    std::string Event;
    std::string Data;
};

void Post(Api& api, const PostOptions& options, bool json) {
    const std::string answer = api.Ask("POST", "/events/" + Encode(options.Event), ReadData(options.Data));
    PrintText(json ? answer : ReadAnswer(answer).GetData("id").Text());
}

struct TailOptions {
    std::vector<std::string> Events;
    std::string After;
    long long Count = 0;
};

std::string FeedQuery(const TailOptions& options) {
    std::string query;
    if (!options.After.empty()) query += "&after=" + Encode(options.After);
    for (const std::string& name : options.Events) query += "&event_name=" + Encode(name);
    if (!query.empty()) query.front() = '?';
    return query;
}

void PrintPosting(const std::string& text) {
    const Velmora::PListDict posting = ReadAnswer(text);
    const Velmora::PListItem* data = posting.GetItem("post_data");
    const std::string shown = data != nullptr ? Encoded(*data) : "";
    std::printf("%s  %s  %s\n", posting.GetData("timestamp").Text().c_str(),
                Shown(posting.GetData("event_name").Text()).c_str(), Shown(shown, LineLimit).c_str());
}

// One view of the feed over as many connections as it takes.
class Tail {
  public:
    Tail(Api& api, const TailOptions& options, bool json)
        : m_Api(api), m_Query(FeedQuery(options)), m_Left(options.Count), m_Json(json) {}

    void Run() {
        for (auto pause = FirstPause;; pause = std::min(2 * pause, LongestPause)) {
            try {
                m_Api.Follow(m_Query, m_LastId, [&](const Api::Event& event) {
                    pause = FirstPause;
                    return Take(event);
                });
                return;
            } catch (const Failure& failure) {
                if (failure.Code() != ExitUnreachable) throw;
                std::fprintf(stderr, "velmora: %s Trying again.\n", failure.what());
            }
            std::this_thread::sleep_for(pause);
        }
    }

  private:
    bool Take(const Api::Event& event) {
        if (event.Type == "velmora.hello") return Stand(event);
        m_LastId = event.Id;
        if (m_Json) {
            PrintText(Object({{"id", Quoted(event.Id)}, {"posting", event.Data}}));
        } else {
            PrintPosting(event.Data);
        }
        std::fflush(stdout);
        return m_Left == 0 || --m_Left > 0;
    }

    // Where the feed stands. The event's own id is the place from which what was missed comes.
    bool Stand(const Api::Event& event) {
        bool gap = false;
        if (ReadAnswer(event.Data).GetData("gap").GetValue(gap) && gap) {
            std::fprintf(stderr, "velmora: some of what was posted before is missing here.\n");
        }
        m_LastId = event.Id;
        return true;
    }

    Api& m_Api;
    const std::string m_Query;
    long long m_Left;
    const bool m_Json;
    std::string m_LastId;
};

}  // namespace

void AddPosting(CLI::App& app, Chosen& chosen) {
    auto post = std::make_shared<PostOptions>();
    CLI::App* command = app.add_subcommand("post", "Post an event, and print the posting's id");
    command->add_option("event", post->Event, "The event's name")->required();
    command->add_option("data", post->Data,
                        "JSON object that goes with it; @FILE reads a file, - standard input");
    command->callback([post, &chosen] {
        chosen.Command = [=, &chosen](Api& api) { Post(api, *post, chosen.Server.Json); };
    });

    auto tail = std::make_shared<TailOptions>();
    command = app.add_subcommand("tail", "Print postings as they happen, across restarts of the server");
    command
        ->add_option("--event", tail->Events,
                     "Only this event; a name may end in *. May be given several times")
        ->type_name("PATTERN");
    command->add_option("--after", tail->After, "Begin behind this posting, as far as the server still knows")
        ->type_name("ID");
    command->add_option("--count", tail->Count, "End after so many postings")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
    command->callback([tail, &chosen] {
        chosen.Command = [=, &chosen](Api& api) { Tail(api, *tail, chosen.Server.Json).Run(); };
    });
}

}  // namespace Terminal
