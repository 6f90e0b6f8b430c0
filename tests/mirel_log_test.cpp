// The log: levels, sinks, forms of its lines, and lost entries.
#include "MR_log.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "MR_thread.h"
#include "Testing.h"

using namespace Mirel;

namespace {

constexpr LogType_t BySeverity[] = {LOG_DEBUG, LOG_INFO, LOG_NOTICE, LOG_WARN,
                                    LOG_ERROR, LOG_CRIT, LOG_ALERT};

}  // namespace

TEST(Log, WritesWhatIsAtLeastAsSevereAsItsLevel) {
    for (std::size_t level = 0; level < std::size(BySeverity); ++level) {
        Testing::CapturedLog sink(BySeverity[level]);
        for (const auto operation : {&ILogSink::Debug, &ILogSink::Info, &ILogSink::Notice, &ILogSink::Warn,
                                     &ILogSink::Error, &ILogSink::Crit, &ILogSink::Alert}) {
            (sink.*operation)("x");
        }
        std::vector<LogType_t> types;
        for (const auto& entry : sink.Entries()) types.push_back(entry.first);
        EXPECT_EQ(types, std::vector<LogType_t>(BySeverity + level, std::end(BySeverity)));
    }
    Testing::CapturedLog sink(LOG_INFO);
    const char* volatile unreadable = reinterpret_cast<const char*>(1);
    sink.Debug("%s", unreadable);  // would crash if it was formatted
}

TEST(Log, AnEntryIsOneLineWhateverItSays) {
    const struct {
        std::string message, text, json;
    } cases[] = {{"plain\n", "plain", "plain"},
                 {"two\nlines\n\n", "two\\nlines\\n", "two\\nlines\\n"},
                 {"\r\t\x1b[2J\x7f", "\\r\\t\\x1b[2J\\x7f", "\\r\\t\\u001b[2J\\u007f"},
                 {"say \"C:\\\"", "say \"C:\\\"", "say \\\"C:\\\\\\\""},
                 {"gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80",
                  "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80",
                  "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80"},
                 {"c1 \xC2\x9B", "c1 \\xc2\\x9b", "c1 \\u009b"},
                 {"long \xC0\x8A", "long \\xc0\\x8a", "long \\ufffd\\ufffd"},
                 {"half \xED\xA0\x80", "half \\xed\\xa0\\x80", "half \\ufffd\\ufffd\\ufffd"},
                 {"high \xF4\x90\x80\x80", "high \\xf4\\x90\\x80\\x80", "high \\ufffd\\ufffd\\ufffd\\ufffd"},
                 {std::string(5000, 'x') + "\n", std::string(5000, 'x'), std::string(5000, 'x')}};
    const Testing::SteppedClock clock("2026-01-31T12:00:00.1239Z");
    const Testing::TemporaryFolder folder;
    const int file = open((folder / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    TextLogSink text_sink(file);
    JSONLogSink json_sink(file);
    for (const auto& one : cases) {
        ASSERT_EQ(ftruncate(file, 0), 0);
        std::thread([&] {
            pthread_setname_np(pthread_self(), "a \"b\"\n");
            text_sink.Error("%s", one.message.c_str());
            json_sink.Error("%s", one.message.c_str());
        }).join();
        EXPECT_EQ(
            Testing::ReadFile(folder / "log"),
            "2026-01-31T12:00:00.123Z ERROR [a \"b\"\\n] " + one.text + "\n" +
                R"({"time":"2026-01-31T12:00:00.123Z","level":"error","thread":"a \"b\"\n","message":")" +
                one.json + "\"}\n");
    }
    close(file);
    EXPECT_EQ(EscapeForLog(std::string("a\0b\n", 4)), "a\\x00b\\n");
}

TEST(Log, TheJournalIsToldThePriorityOfEachLine) {
    const Testing::SteppedClock clock("2026-01-31T12:00:00Z");
    const Testing::TemporaryFolder folder;
    const int file = open((folder / "log").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    struct stat of_file {};
    ASSERT_EQ(fstat(file, &of_file), 0);
    const auto reader_where = [file](const std::string& stream) {
        setenv("JOURNAL_STREAM", stream.c_str(), 1);
        const LogReader reader = LogReaderOf(file);
        unsetenv("JOURNAL_STREAM");
        return reader;
    };
    EXPECT_EQ(LogReaderOf(file), LogReader::Anybody);
    EXPECT_EQ(reader_where("1:2"), LogReader::Anybody);
    const LogReader journal =
        reader_where(std::to_string(of_file.st_dev) + ":" + std::to_string(of_file.st_ino));
    ASSERT_EQ(journal, LogReader::Journal);
    TextLogSink text_sink(file, journal);
    JSONLogSink json_sink(file, journal);
    std::thread([&] {
        pthread_setname_np(pthread_self(), "t");
        text_sink.Level(LOG_DEBUG);
        for (const auto operation : {&ILogSink::Debug, &ILogSink::Info, &ILogSink::Notice, &ILogSink::Warn,
                                     &ILogSink::Error, &ILogSink::Crit, &ILogSink::Alert}) {
            (text_sink.*operation)("x\n");
        }
        json_sink.Warn("x\n");
    }).join();
    close(file);
    EXPECT_EQ(Testing::ReadFile(folder / "log"),
              "<7>DEBUG [t] x\n<6>INFO [t] x\n<5>NOTICE [t] x\n<4>WARN [t] x\n<3>ERROR [t] x\n<2>CRIT [t] x\n"
              "<1>ALERT [t] x\n"
              R"(<4>{"time":"2026-01-31T12:00:00.000Z","level":"warn","thread":"t","message":"x"})"
              "\n");
}

TEST(Log, KeepsLinesOfManyThreadsWholeOnAFullPipe) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETFL, O_NONBLOCK), 0);
    TextLogSink sink(ends[1]);
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 8; ++writer) {
        writers.emplace_back([&, writer] {
            for (int i = 0; i < 200; ++i) {
                const std::string rest(i % 10 == 0 ? 9000 : 20, static_cast<char>('a' + writer));
                sink.Info("%d %d %s.\n", writer, i, rest.c_str());
            }
        });
    }
    std::map<int, int> next;
    std::thread reader([&] {
        FILE* const lines = fdopen(ends[0], "r");
        std::vector<char> line(16384);
        while (fgets(line.data(), static_cast<int>(line.size()), lines) != nullptr) {
            std::istringstream words(std::string(line.data()));
            std::string thread, rest;
            int writer = -1, number = -1;
            std::getline(words, thread, ']') >> writer >> number >> rest;
            EXPECT_EQ(number, next[writer]++) << line.data();
            EXPECT_EQ(rest, std::string(number % 10 == 0 ? 9000 : 20, static_cast<char>('a' + writer)) + ".");
        }
        fclose(lines);
    });
    for (std::thread& writer : writers) writer.join();
    close(ends[1]);
    reader.join();
    for (int writer = 0; writer < 8; ++writer) EXPECT_EQ(next[writer], 200);
}

TEST(Log, CountsWhatNoDescriptorTook) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    const ui64_t before = LostLogEntries();
    TextLogSink sink(full);
    errno = ENOENT;
    sink.Error("lost\n");
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(LostLogEntries(), before + 1);
    close(full);
}
