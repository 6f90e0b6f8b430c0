// Watches: the registry, its section of the state document, and the watch phase on a real kernel stream. With
// the module's source inside, for the functions of the stream are local to it.
#include "EventManager.cpp"

#include <fcntl.h>
#include <sys/resource.h>

#include "support/QueueProbe.h"

namespace EventManager {

using Modes = std::vector<WatchMode_t>;

class WatchTest : public QueueTest {
  protected:
    WatchTest() {
        Event("e");
        Event("f");
        stream = event_stream_open();
        EXPECT_GE(stream, 0);
    }
    ~WatchTest() override { event_stream_close(stream); }

    bool Watch(const std::string& path, const std::string& event = "e", bool once = false) {
        return queue.CreateWatch(path, event, nullptr, once);
    }
    // The watch part of one pass; what it posted.
    std::string Pass() {
        const std::size_t before = History().Size();
        Probe::MaintainWatches(queue, stream);
        Probe::WaitForChanges(queue, stream);
        Probe::FireWatches(queue);
        PListArray history = History();
        std::string posted;
        for (std::size_t i = before; i < history.Size(); ++i) {
            posted += Entry(history, i).GetData("event_name").Text() + ":" +
                      Entry(history, i).GetDict("post_data").GetData("path").Text() + " ";
        }
        return posted;
    }
    // Brings every requested watch to the kernel.
    void Register() { Probe::MaintainWatches(queue, stream); }

    Testing::TemporaryFolder folder;
    int stream = -1;
};

TEST_F(WatchTest, TheLastSaveLeavesOutWhatTheKernelRefusedAndWhatIsDeleted) {
    Watch(folder / "none");
    Watch(folder.Path());
    Register();
    Watch("/dev");
    Watch("/tmp");
    queue.DeleteWatch("/tmp");
    Probe::DropEndedWatches(queue);
    EXPECT_EQ(Probe::Modes(queue).size(), 2u);  // one runs, one is to run
    EXPECT_NE(State().find("\"/dev\""), std::string::npos);
}

TEST_F(WatchTest, PathsDifferInMoreThanCaseAndTheLimitAdmitsOneMore) {
    EXPECT_TRUE(Watch("/tmp/data"));
    EXPECT_FALSE(Watch("/tmp/Data"));
    EXPECT_TRUE(Watch(""));
    EXPECT_TRUE(queue.DeleteWatch("/TMP/DATA"));
    EXPECT_EQ(Probe::Modes(queue), (Modes{WM_CREATE, WM_DESTROY}));
    EXPECT_FALSE(Watch("/tmp/data"));  // still there
    EXPECT_FALSE(queue.DeleteWatch("/tmp"));
    EXPECT_TRUE(log.Errors().empty());

    queue.SetMaxWatches(1);
    EXPECT_FALSE(Watch("/tmp/data"));
    EXPECT_EQ(log.Errors(), (std::vector<std::string>{"Max watches exceeded.\n"}));
    queue.SetMaxWatches(-1);
    EXPECT_TRUE(Watch("/3"));
    queue.DeleteAllWatches();
    queue.SetMaxWatches(1024);
    for (int i = 0; i < 1025; ++i) EXPECT_TRUE(Watch("/" + std::to_string(i)));
    EXPECT_FALSE(Watch("/1025"));
}

TEST_F(WatchTest, ADocumentsWatchesAreAddedAndBadOnesNamed) {
    queue.SetWatchState(Dict(R"({"watch_list":["x",{"event_name":"e"},{"path":"/p"},
        {"path":"/b","event_name":"e","watch_data":{"x":1},"once":true},{"path":"/a","event_name":"e","watch_data":2},
        {"path":"/B","event_name":"f"}]})"));
    EXPECT_EQ(log.Errors(), (std::vector<std::string>{"Non-dictionary watch array entry.\n",
                                                      "Skipping empty watch.\n", "Skipping empty watch.\n"}));
    PListDict state;
    queue.GetWatchState(state);
    EXPECT_EQ(Text(state), R"({"watch_list":[{"path":"/a","event_name":"e","once":false},)"
                           R"({"path":"/b","event_name":"e","once":true,"watch_data":{"x":1}}]})");
}

TEST_F(WatchTest, AFolderFiresOnCreateMoveInAndDeleteOncePerPass) {
    const std::string dir = folder / "in";
    std::filesystem::create_directory(dir);
    Testing::WriteFile(folder / "outside", "x");
    Watch(dir, "e", true);
    Register();
    EXPECT_TRUE(log.Has("watch.handle="));

    Testing::WriteFile(dir + "/a", "x");
    Testing::WriteFile(dir + "/c", "x");
    EXPECT_EQ(Pass(), "e:" + dir + " ");
    std::filesystem::rename(folder / "outside", dir + "/b");
    EXPECT_EQ(Pass(), "e:" + dir + " ");
    Testing::WriteFile(dir + "/a", "more");
    std::filesystem::rename(dir + "/b", folder / "outside");
    EXPECT_EQ(Pass(), "");
    std::filesystem::remove(dir + "/a");
    EXPECT_EQ(Pass(), "e:" + dir + " ");
    EXPECT_EQ(Probe::Modes(queue), (Modes{WM_RUNNING}));
}

TEST_F(WatchTest, FilesFireOnWritingInTheOrderOfTheirPathsWithNothingOfTheWatch) {
    const std::string a = folder / "A";
    const std::string b = folder / "b";
    Testing::WriteFile(a, "");
    Testing::WriteFile(b, "");
    const PListDict data = Dict(R"({"x":1})");
    queue.CreateWatch(b, "e", &data, false);
    Watch(a, "f");
    Register();
    for (int i = 0; i < 50; ++i) {
        Testing::WriteFile(b, std::to_string(i));
        Testing::WriteFile(a, std::to_string(i));
    }
    EXPECT_EQ(Pass(), "f:" + a + " e:" + b + " ");
    EXPECT_EQ(Entry(History(), 1).GetDict("post_data").Size(), 1u);

    std::filesystem::remove(a);
    EXPECT_EQ(Pass(), "f:" + a + " ");  // the kernel's notice that its watch is gone
    EXPECT_EQ(Probe::Modes(queue), (Modes{WM_RUNNING, WM_RUNNING}));
}

TEST_F(WatchTest, WhatTheKernelRefusesEndsAndIsErasedInTheNextPass) {
    Watch(folder / "none");
    Probe::MaintainWatches(queue, stream);
    EXPECT_EQ(log.Errors(), (std::vector<std::string>{"Init watch failed for " + (folder / "none") + ": " +
                                                      strerror(ENOENT) + "\n"}));
    EXPECT_EQ(Probe::Modes(queue), (Modes{WM_END}));
    Probe::MaintainWatches(queue, stream);
    EXPECT_EQ(Watches().Size(), 0u);
}

TEST_F(WatchTest, RemovalTakesTwoPassesWithAndWithoutAKernelWatch) {
    Watch(folder.Path());
    Register();
    Watch(folder / "never registered");
    queue.DeleteWatch(folder.Path());
    queue.DeleteWatch(folder / "never registered");
    EXPECT_EQ(Watches().Size(), 2u);
    Probe::MaintainWatches(queue, stream);
    EXPECT_EQ(Probe::Modes(queue), (Modes{WM_END, WM_END}));
    Testing::WriteFile(folder / "x", "");
    EXPECT_EQ(Pass(), "");
    EXPECT_EQ(Watches().Size(), 0u);
    EXPECT_TRUE(log.Errors().empty());
}

TEST_F(WatchTest, AFolderWrittenInTwoWaysIsWatchedUntilBothWatchesAreGone) {
    const std::string plain = folder.Path();
    const std::string slash = plain + "/";
    Watch(plain, "e");
    Watch(slash, "f");
    Watch(plain + std::string("\0x", 2), "f");  // names no folder
    Register();
    EXPECT_EQ(log.Errors(),
              (std::vector<std::string>{"Init watch failed for " + plain + ": " + strerror(EINVAL) + "\n"}));
    Testing::WriteFile(folder / "x", "");
    EXPECT_EQ(Pass(), "e:" + plain + " f:" + slash + " ");
    queue.DeleteWatch(plain);
    Register();
    Testing::WriteFile(folder / "y", "");
    EXPECT_EQ(Pass(), "f:" + slash + " ");
    queue.DeleteWatch(slash);
    Register();
    Testing::WriteFile(folder / "z", "");
    EXPECT_EQ(Pass(), "");
    EXPECT_EQ(log.Errors().size(), 1u);
}

TEST_F(WatchTest, ARemovalAskedForBetweenWalkAndMarkingIsNotLost) {
    Watch(folder.Path());
    Register();
    Testing::WriteFile(folder / "x", "");
    queue.DeleteWatch(folder.Path());
    Probe::WaitForChanges(queue, stream);
    Probe::FireWatches(queue);
    EXPECT_EQ(Posted(), "");
    EXPECT_EQ(Probe::Modes(queue), (Modes{WM_DESTROY}));
}

TEST_F(WatchTest, ErasedWatchesLeaveTheirKernelRecordsToNobody) {
    Watch(folder.Path());
    Register();
    queue.DeleteAllWatches();
    Testing::WriteFile(folder / "x", "");
    EXPECT_EQ(Pass(), "");
    Watch(folder.Path());
    Register();
    Testing::WriteFile(folder / "y", "");
    EXPECT_EQ(Pass(), "e:" + folder.Path() + " ");
}

TEST_F(WatchTest, ADescriptorBeyondWhatSelectTakesIsWaitedOn) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < 2000) GTEST_SKIP() << "the descriptor limit is too low";
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const int high = fcntl(stream, F_DUPFD, 1500);
    ASSERT_GE(high, 1500);
    event_stream_close(std::exchange(stream, high));
    Watch(folder.Path());
    Register();
    Testing::WriteFile(folder / "x", "");
    EXPECT_EQ(Pass(), "e:" + folder.Path() + " ");
}

// The bytes of one kernel record.
static std::string Record(int wd, const std::string& name = "") {
    inotify_event header{};
    header.wd = wd;
    header.len = static_cast<ui32_t>(name.size());
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + name;
}

TEST_F(WatchTest, KernelRecordsAreDecodedFromTheirBytes) {
    const std::string name("file\0\0\0\0", 8);
    const struct {
        std::string bytes;
        std::set<int> descriptors;
    } cases[] = {{"", {}},
                 {Record(3), {3}},
                 {Record(3, name) + Record(7) + Record(3), {3, 7}},
                 {Record(-1), {-1}},
                 {Record(3, name) + Record(7).substr(0, 15), {3}},
                 {(Record(3) + Record(7, name)).substr(0, 36), {3, 7}}};
    for (const auto& test : cases) {
        EXPECT_EQ(event_stream_decode(test.bytes.data(), test.bytes.size()), test.descriptors);
    }
}

TEST_F(WatchTest, AnOverflowFiresEveryRunningWatchAndNoOther) {
    Testing::WriteFile(folder / "b", "");
    Watch(folder.Path());
    Watch(folder / "b", "f");
    Register();
    Watch(folder / "c");
    queue.DeleteWatch(folder / "b");

    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    const std::string overflow = Record(-1) + Record(-1);
    ASSERT_EQ(write(pipe_ends[1], overflow.data(), overflow.size()), static_cast<ssize_t>(overflow.size()));
    Probe::WaitForChanges(queue, pipe_ends[0]);
    EXPECT_EQ(Probe::Modes(queue), (Modes{WM_FIRED, WM_DESTROY, WM_CREATE}));
    EXPECT_EQ(log.At(Mirel::LOG_NOTICE).size(), 1u);
    Probe::FireWatches(queue);
    EXPECT_EQ(Posted(), "e");
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

TEST_F(WatchTest, WhenTheKernelsQueueReallyOverflowsAQuietWatchFiresToo) {
    int limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    if (limit == 0 || limit > 100000) GTEST_SKIP() << "the kernel's queue is too long: " << limit;
    Testing::TemporaryFolder quiet;
    Watch(folder.Path());
    Watch(quiet.Path(), "f");
    Register();
    for (int i = 0; i < limit / 2 + 100; ++i) {
        close(open((folder / "x").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        unlink((folder / "x").c_str());
    }
    std::string posted;
    for (int pass = 0; pass < 1000 && !log.Has("Kernel queue overflow"); ++pass) posted = Pass();
    EXPECT_NE(posted.find("f:" + quiet.Path()), std::string::npos) << posted;
}

TEST_F(WatchTest, ABrokenStreamIsLoggedAndThePassGoesOn) {
    Probe::WaitForChanges(queue, 0x7ffffff0);  // no such descriptor
    const int folder_descriptor = open(folder.Path().c_str(), O_RDONLY);
    Probe::WaitForChanges(queue, folder_descriptor);  // always ready, never readable
    close(folder_descriptor);
    EXPECT_EQ(log.Errors(),
              (std::vector<std::string>{std::string("IdleWaitPend: ") + strerror(EBADF) + "\n",
                                        std::string("Read watch failed: ") + strerror(EISDIR) + "\n"}));
}

}  // namespace EventManager
