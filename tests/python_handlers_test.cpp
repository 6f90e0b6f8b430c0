// What surrounds the calls of Python handlers: reports, the log, slow ones, coroutines.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "VL_Python.h"

#include "support/QueueProbe.h"

namespace EventManager {

using Velmora::HandlerOutcome;
using Velmora::HandlerReport;

class HandlersTest : public QueueTest {
  protected:
    ~HandlersTest() override { Velmora::SetHandlerOptions({}); }

    // A handler module in a folder of the test's own that is on Python's path.
    void Module(const std::string& name, const std::string& source) {
        Testing::WriteFile(folder / (name + ".py"), source);
        InitPython({folder.Path()});
        Python(
            "import sys\nif sys.version_info[0] > 2:\n import importlib\n importlib.invalidate_caches()\n");
    }
    static void Python(const std::string& statements) {
        const PythonContextLock context;
        EXPECT_EQ(PyRun_SimpleString(statements.c_str()), 0);
    }
    // The report of one posting to one handler, and what was logged as errors in the log.
    const HandlerReport& Call(const std::string& module, const std::string& post_data = "{}") {
        queue.DeleteAllEvents();
        Event("e");
        Listen("e", "python://" + module);
        log.Clear();
        Post("e", post_data);
        return Velmora::LastHandlerReport();
    }

    Testing::TemporaryFolder folder;
};

TEST_F(HandlersTest, EachCallIsReportedToTheThreadThatMadeIt) {
    Module("reported_ok", "import time\ndef event_handler(payload):\n    time.sleep(0.02)\n");
    Module("reported_raises",
           "def event_handler(payload):\n    raise ValueError('of no value\\n  nor style')\n");
    Module("reported_deep",
           "def down(n):\n    if n: down(n - 1)\n    raise KeyError('x' * 3000)\n"
           "def event_handler(payload):\n    down(3)\n");
    Module("reported_bare", "");
    Module("reported_number", "event_handler = 7\n");
    Module("reported_broken", "import json\nthis is no python\n");
    const Velmora::HandlerCounters before = Velmora::GetHandlerCounters();
    EXPECT_EQ(Call("reported_ok").Outcome, HandlerOutcome::Ok);
    EXPECT_GE(Call("reported_ok").Duration_us, 20000U);
    EXPECT_EQ(Call("reported_ok").Reason, "");

    const struct {
        const char* module;
        HandlerOutcome outcome;
        const char* reason;     // begins with
        const char* traceback;  // holds
    } cases[] = {
        {"reported_raises", HandlerOutcome::Raised, "ValueError: of no value", "in event_handler"},
        {"reported_deep", HandlerOutcome::Raised, "KeyError: 'xxx", "in down"},
        {"reported_bare", HandlerOutcome::NoHandler, "AttributeError: ", "event_handler"},
        {"reported_number", HandlerOutcome::NoHandler, "event_handler cannot be called", ""},
        {"reported_broken", HandlerOutcome::Import, "SyntaxError: invalid syntax", "line 2"},
        {"reported_nowhere", HandlerOutcome::Import, "", "reported_nowhere"},
    };
    for (const auto& test : cases) {
        const HandlerReport& report = Call(test.module);
        EXPECT_EQ(report.Outcome, test.outcome) << test.module;
        EXPECT_EQ(report.Reason.find(test.reason), 0U) << report.Reason;
        EXPECT_NE(report.Traceback.find(test.traceback), std::string::npos) << report.Traceback;
        EXPECT_LE(report.Traceback.size(), 4096U);
    }
    EXPECT_EQ(Call("reported_ok").Traceback, "");
    const Velmora::HandlerCounters after = Velmora::GetHandlerCounters();
    const auto grown = [&](HandlerOutcome outcome) {
        const auto at = static_cast<std::size_t>(outcome);
        return after.Calls[at] - before.Calls[at];
    };
    EXPECT_EQ(grown(HandlerOutcome::Ok), 4U);
    EXPECT_EQ(grown(HandlerOutcome::Import), 2U);
    EXPECT_EQ(grown(HandlerOutcome::NoHandler), 2U);
    EXPECT_EQ(grown(HandlerOutcome::Raised), 2U);
    EXPECT_GE(after.Duration_us - before.Duration_us, 80000U);
}

TEST_F(HandlersTest, ATracebackIsLoggedLineByLineWithOnePrefix) {
    Module("lines", "def event_handler(payload):\n    raise ValueError('two\\nlines')\n");
    Call("lines");
    EXPECT_EQ(log.Errors().size(), 1U);  // nobody has asked for more

    Velmora::HandlerOptions options;
    options.LineByLine = true;
    Velmora::SetHandlerOptions(options);
    Call("lines");
    const std::string prefix = "[python://lines] ";
    const auto errors = log.Errors();
    ASSERT_GE(errors.size(), 5U);
    EXPECT_EQ(errors.front(), prefix + "Traceback (most recent call last):\n");
    EXPECT_EQ(errors[errors.size() - 2], prefix + "ValueError: two\n");
    EXPECT_EQ(errors.back(), prefix + "lines\n");
    for (const std::string& line : errors) EXPECT_EQ(line.find(prefix), 0U) << line;
}

TEST_F(HandlersTest, AModuleThatIsThereAndCannotBeImportedSaysWhyAfterwards) {
    Module("syntax", "def event_handler(payload:\n");
    Module("needs", "import no_such_module_at_all\n");
    Module("raises_inside", "raise RuntimeError('no database')\n");
    Velmora::HandlerOptions options;
    options.ExplainImports = true;
    Velmora::SetHandlerOptions(options);
    for (const auto& [module, why] : {std::pair("syntax", "SyntaxError: "),
                                      {"needs", "no_such_module_at_all"},
                                      {"raises_inside", "RuntimeError: no database"}}) {
        Call(module);
        const auto errors = log.Errors();
        ASSERT_EQ(errors.size(), 3U) << module;
        EXPECT_EQ(errors[1], "Unable to locate Python module \"" + std::string(module) + "\".\n");
        EXPECT_EQ(errors[2].find("Python module \"" + std::string(module) +
                                 "\" is there, but importing it failed: "),
                  0U);
        EXPECT_NE(errors[2].find(why), std::string::npos) << errors[2];
    }
    for (const char* module : {"explained_nowhere", "", "explained.nowhere"}) {
        Call(module);
        EXPECT_EQ(log.Errors().size(), 2U) << module;
    }
}

TEST_F(HandlersTest, ASlowHandlerIsWarnedOf) {
    Module("slow", "import time\ndef event_handler(payload):\n    time.sleep(payload['post_data']['s'])\n");
    Velmora::HandlerOptions options;
    options.Slow_ms = 60;
    Velmora::SetHandlerOptions(options);
    Call("slow", R"({"s":0.06})");
    const auto warned = log.At(Mirel::LOG_WARN);
    ASSERT_EQ(warned.size(), 1U);
    EXPECT_EQ(warned[0].find("Python handler \"slow\" took "), 0U);
    EXPECT_NE(warned[0].find("for event \"e\""), std::string::npos);
    options.Slow_ms = 600000;
    Velmora::SetHandlerOptions(options);
    Call("slow", R"({"s":0.06})");
    EXPECT_TRUE(log.At(Mirel::LOG_WARN).empty());
}

TEST_F(HandlersTest, WhatAHandlerPostsIsMadeAfterItsPosting) {
    ASSERT_TRUE(Velmora::StartHandlerPostings([this](const std::string& name, const PListDict* data) {
                    return queue.PostEvent(name, data);
                }).Success());
    Module("posting",
           "import velmora\nrefused = []\n"
           "def try_to(what, *arguments):\n    try: what(*arguments)\n"
           "    except (TypeError, ValueError) as e: refused.append(str(e))\n"
           "def event_handler(payload):\n"
           "    d = {'list': [1, 2**40, 2**70, 0.5, True, None, ('x',), velmora.listener_data]}\n"
           "    velmora.post('first', d)\n    d['list'] = 0\n    velmora.post('nowhere')\n"
           "    velmora.post('second')\n    velmora.log('notice', 'two\\nlines')\n"
           "    me = {}\n    me['me'] = me\n"
           "    for data in (7, {1: 2}, {'x': object()}, {'x': float('nan')}, me):\n"
           "        try_to(velmora.post, 'first', data)\n"
           "    try_to(velmora.post, 7)\n    try_to(velmora.log, 'loud', 'x')\n");
    for (const char* name : {"asked", "first", "second"}) Event(name);
    Listen("asked", "python://posting", R"({"l":1})");
    log.Clear();
    Post("asked");
    EXPECT_TRUE(Testing::Eventually([this] { return History().Size() == 3; }));
    EXPECT_EQ(Text(Entry(History(), 1).GetDict("post_data")),
              R"({"list":[1,1099511627776,1180591620717411303424,0.5,true,null,["x"],{"l":1}]})");
    EXPECT_EQ(Entry(History(), 2).GetData("event_name").Text(), "second");
    EXPECT_TRUE(log.Has("A handler posted \"nowhere\", which is no event.\n"));
    EXPECT_EQ(log.At(Mirel::LOG_NOTICE).size(), 1U);
    EXPECT_TRUE(log.Errors().empty());
    Python(
        "import posting, velmora\nassert len(posting.refused) == 7, posting.refused\n"
        "assert velmora.listener_data == {} and not velmora.recording\n");
    Velmora::StopHandlerPostings(10000);
    Post("asked");
    EXPECT_EQ(Velmora::LastHandlerReport().Reason, "RuntimeError: velmora.post: the server is ending");
}

TEST_F(HandlersTest, AnEditIsInUseAtTheNextPostingAndABrokenOneIsNot) {
    Velmora::HandlerOptions options;
    options.Reload = true;
    options.ReloadBelow = {folder.Path()};
    Velmora::SetHandlerOptions(options);
    const std::string handler =
        "import edited_part\nimport untouched\n"
        "def event_handler(payload):\n    untouched.seen.append(edited_part.value)\n";
    Module("untouched", "seen = []\n");
    Module("edited_part", "value = 1\n");
    Module("edited", handler);
    Call("edited");
    Module("edited_part", "value = 22\n");
    Call("edited");
    EXPECT_TRUE(log.Has("Python module loaded anew: edited_part\n"));
    Module("edited", handler + "this is no python\n");
    EXPECT_EQ(Call("edited").Outcome, HandlerOutcome::Ok);
    EXPECT_TRUE(
        log.Has("Python module \"edited\" does not load in its new version; the one before stays in use.\n"));
    EXPECT_TRUE(log.Has("SyntaxError"));
    Call("edited");
    EXPECT_TRUE(log.Errors().empty());  // said once

    options.Reload = false;
    Velmora::SetHandlerOptions(options);
    Module("edited", handler + "    untouched.seen.append(3)\n");
    Call("edited");
    const Velmora::HandlerReload done = Velmora::ReloadHandlers();
    EXPECT_EQ(done.Reloaded, std::vector<std::string>{"edited"});
    EXPECT_TRUE(done.Failed.empty());
    Call("edited");
    Python("import untouched\nassert untouched.seen == [1, 22, 22, 22, 22, 22, 3], untouched.seen\n");
}

#if PY_MAJOR_VERSION >= 3

TEST_F(HandlersTest, ACoroutineIsRunToItsEndWhereThatIsAskedFor) {
    Module("co",
           "import asyncio\nran = []\nasync def part(n):\n    await asyncio.sleep(0.001)\n    ran.append(n)\n"
           "async def event_handler(payload):\n    await asyncio.gather(part(1), part(2))\n"
           "    if payload['post_data']: raise ValueError('after all')\n    ran.append(3)\n");
    Velmora::HandlerOptions options;
    options.RunCoroutines = true;
    Velmora::SetHandlerOptions(options);
    EXPECT_EQ(Call("co").Outcome, HandlerOutcome::Ok);
    Python("import co\nassert sorted(co.ran) == [1, 2, 3], co.ran\n");
    const HandlerReport& raised = Call("co", R"({"x":1})");
    EXPECT_EQ(raised.Outcome, HandlerOutcome::Raised);
    EXPECT_EQ(raised.Reason, "ValueError: after all");
    EXPECT_EQ(log.Errors().size(), 1U);
}

#endif

}  // namespace EventManager
