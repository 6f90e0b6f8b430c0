// The embedded interpreter: its start, values, and exceptions in the log. Runs with Python 2.7 and with 3.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "VL_Python.h"

#include <dlfcn.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "VL_PList.h"
#include "support/Testing.h"

using Testing::CapturedLog;
using Velmora::PListArray;
using Velmora::PListData;
using Velmora::PListDict;
using Velmora::PListItem;

namespace {

constexpr bool IsPython3 = PY_MAJOR_VERSION >= 3;

// Runs statements in a fresh namespace that knows `value`, and returns str(result). An exception stays
// pending, the answer is then empty. The interpreter lock must be held.
std::string Execute(const std::string& code, PyObject* value = Py_None) {
    PyObject* names = PyDict_New();
    PyDict_SetItemString(names, "__builtins__", PyEval_GetBuiltins());
    PyDict_SetItemString(names, "value", value);
    PyObject* ran = PyRun_String(code.c_str(), Py_file_input, names, names);
    std::string answer;
    if (PyObject* result = ran ? PyDict_GetItemString(names, "result") : nullptr) {
        PyObject* text = PyObject_Str(result);
        PyObject* bytes = IsPython3 ? PyUnicode_AsUTF8String(text) : (Py_INCREF(text), text);
        answer = PyBytes_AsString(bytes);
        Py_DECREF(bytes);
        Py_DECREF(text);
    }
    Py_XDECREF(ran);
    Py_DECREF(names);
    return answer;
}

// What Python shows of an item: repr(value) without the prefixes and suffixes that only one of the Pythons
// writes.
std::string Repr(const PListItem& item) {
    const PythonContextLock held;
    PyObject* value = PyObject_FromPListItem(item);
    if (value == nullptr) return "nothing";
    const std::string answer = Execute("result = repr(value)", value);
    Py_DECREF(value);
    return answer;
}

// The log entries (level and text) that code leaves behind when it raises.
std::vector<CapturedLog::Entry> LoggedBy(const std::string& code, Mirel::LogType_t level = Mirel::LOG_ERROR) {
    const PythonContextLock held;
    CapturedLog log;
    Execute(code);
    mr_log_python_exception(level);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    return log.Entries();
}

long ResidentPages() {
    long size = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident;
}

}  // namespace

TEST(PythonTest, OneThatCannotStartSaysSoBeforeTheEnd) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process without an interpreter
    const auto start = [] {
        setenv("PYTHONHOME", "/nowhere/to/be/found", 1);
        InitPython();
    };
    EXPECT_EXIT(start(), ::testing::ExitedWithCode(EXIT_FAILURE), "Unable to start the Python interpreter: ");
}

TEST(PythonTest, AHostThatKeepsTheLibraryToItselfCanImportExtensionModules) {
    Dl_info init{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&InitPython), &init), 0);
    const std::string host = std::string(DLOPEN_HOST) + " " + VELMORA_LIBRARY + " " + init.dli_sname;
    EXPECT_EQ(system((host + " 'import _ctypes, _json'").c_str()), 0);
}

TEST(PythonTest, StartsOnceFromManyThreadsAndLeavesTheProcessAlone) {
    for (const int number : {SIGINT, SIGPIPE, SIGTERM}) signal(number, SIG_DFL);  // whatever was inherited
    setenv("PYTHONUTF8", "0", 1);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            InitPython({"/nowhere/first", "/nowhere/second", "/nowhere/first/./"});
            const PythonContextLock outer;
            const PythonContextLock inner;
        });
    }
    for (std::thread& thread : threads) thread.join();
    InitPython();
    InitPython({"handlers"});

    const PythonContextLock held;
    const std::string folder = std::filesystem::current_path() / "handlers";
    EXPECT_EQ(Execute("import sys; result = sys.path[:3]"),
              "['" + folder + "', '/nowhere/first', '/nowhere/second']");
    EXPECT_EQ(Execute("import sys; result = sys.path.count('/nowhere/first')"), "1");
    EXPECT_EQ(Execute("import sys; result = sys.argv"), "['']");
    EXPECT_EQ(Execute("import sys; result = getattr(sys.flags, 'utf8_mode', 1)"), "1");
    for (const int number : {SIGINT, SIGPIPE, SIGTERM}) {
        struct sigaction action {};
        ASSERT_EQ(sigaction(number, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, SIG_DFL) << number;
    }
}

TEST(PythonTest, ThreadsOfHandlersRunWhileNobodyHoldsTheInterpreter) {
    {
        const PythonContextLock held;
        Execute(
            "import sys, threading; sys.went_on = threading.Event(); sys.done = threading.Event()\n"
            "def work():\n    sys.went_on.wait(); sys.done.set()\n"
            "threading.Thread(target=work).start(); sys.went_on.set()");
        ASSERT_EQ(PyErr_Occurred(), nullptr);
    }
    EXPECT_TRUE(Testing::Eventually([] {
        const PythonContextLock held;
        return Execute("import sys; result = sys.done.is_set()") == "True";
    }));
}

TEST(PythonTest, AThreadThatEndsLeavesNothingInTheInterpreter) {
    const auto known = [] {
        const PythonContextLock held;
        int states = 0;
        PyThreadState* state = PyInterpreterState_ThreadHead(PyThreadState_Get()->interp);
        for (; state != nullptr; state = PyThreadState_Next(state)) ++states;
        return states;
    };
    const int before = known();
    for (int i = 0; i < 20; ++i) std::thread([] { const PythonContextLock held; }).join();
    EXPECT_EQ(known(), before);
}

TEST(PythonTest, ConvertsEveryTypeOfItem) {
    PListDict dict;
    dict.SetValue("text", "a\nb");
    dict.SetValue("int", -7);
    dict.SetValue("most", 9223372036854775807LL);
    dict.SetItem("beyond", PListData(Velmora::IT_INT64, "123456789012345678901234567890"));
    dict.SetItem("no number", PListData(Velmora::IT_INT, "x"));
    dict.SetValue("real", 0.5);
    dict.SetValue("yes", true);
    dict.SetValue("no", false);
    dict.SetItem("nothing", PListData(Velmora::IT_NULL, ""));
    dict.SetItem("date", PListData(Velmora::IT_DATE, "2026-01-31T12:00:00+00:00"));
    dict.SetItem("data", PListData(Velmora::IT_DATA, "AAEC"));
    PListArray array;
    array.Append(PListArray());
    array.Append(dict);
    PListDict empty;
    array.Append(empty);

    const PythonContextLock held;
    PyObject* value = PyObject_FromPListItem(array);
    ASSERT_NE(value, nullptr);
    const char* const check =
        "result = value == [[], {'text': 'a\\nb', 'int': -7, 'most': 2**63 - 1, 'no number': 0,\n"
        "    'beyond': 123456789012345678901234567890, 'real': 0.5, 'yes': True, 'no': False, 'nothing': "
        "None,\n"
        "    'date': '2026-01-31T12:00:00+00:00', 'data': 'AAEC'}, {}] and (\n"
        "    type(value[1]['int']), type(value[1]['yes']), type(value[1]['real']), type(value[1]['text'])) "
        "== (\n"
        "    int, bool, float, str)";
    EXPECT_EQ(Execute(check, value), "True") << Execute("result = repr(value)", value);
    if (IsPython3) {
        EXPECT_EQ(Execute("result = ' '.join(value[1])", value),
                  "text int most beyond no number real yes no nothing date data");
    }
    Py_DECREF(value);
}

TEST(PythonTest, NumbersThatNoRealHoldsAreTheNearestOnes) {
    EXPECT_EQ(Repr(PListData(Velmora::IT_REAL, "-1E400")), "-inf");
    EXPECT_EQ(Repr(PListData(Velmora::IT_REAL, "1e-400")), "0.0");
    EXPECT_EQ(Repr(PListData(Velmora::IT_REAL, "1e4x")), "0.0");
}

TEST(PythonTest, TextThatIsNotUTF8IsNoError) {
    EXPECT_EQ(Repr(PListData("gr\xc3\xbc\xc3\x9f")),
              IsPython3 ? "'gr\xc3\xbc\xc3\x9f'" : R"('gr\xc3\xbc\xc3\x9f')");
    EXPECT_EQ(Repr(PListData("a\xff")), IsPython3 ? "'a\xef\xbf\xbd'" : R"('a\xff')");
    EXPECT_EQ(Repr(PListData(std::string_view("a\0b", 3))), R"('a\x00b')");
    // Keys that turn equal: the last value stays, whatever the ones before it hold.
    PListDict dict;
    PListDict inner;
    inner.SetItem("x", PListArray());
    for (const char* key : {"\xfe", "\xff"}) dict.SetItem(key, inner);
    const std::string bad = IsPython3 ? "'\xef\xbf\xbd': {'x': []}}" : R"('\xfe': {'x': []})";
    EXPECT_NE(Repr(dict).find(bad), std::string::npos) << Repr(dict);
}

TEST(PythonTest, NestingIsLimitedAndNeverEndsTheStack) {
    const auto nested = [](int levels) {
        PListArray array;
        for (int i = 1; i < levels; ++i) {
            PListArray outer;
            outer.Append(array);
            array = outer;
        }
        return array;
    };
    const PythonContextLock held;
    PyObject* value = PyObject_FromPListItem(nested(1000));
    ASSERT_NE(value, nullptr);
    Py_DECREF(value);
    for (const int levels : {1001, 200000}) {
        EXPECT_EQ(PyObject_FromPListItem(nested(levels)), nullptr);
        EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_ValueError));
        PyErr_Clear();
    }
}

TEST(PythonTest, ConversionLeavesNoReferenceBehind) {
    PListDict dict;
    PListArray array;
    for (int i = 0; i < 50; ++i) {
        const std::string own = std::string(200, 'x') + std::to_string(i);
        array.Append(PListData(own));
        dict.SetValue(own, 1.5);
    }
    dict.SetItem("list", array);
    const PythonContextLock held;
    PyObject* value = PyObject_FromPListItem(dict);
    EXPECT_EQ(Py_REFCNT(value), 1);
    Py_DECREF(value);

#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "freed memory is kept for a while; the leak check at the end looks instead";
#endif
    const auto work = [&dict](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            PyObject* again = PyObject_FromPListItem(dict);
            Py_DECREF(again);
            Execute("raise ValueError('x' * 1000)");
            const CapturedLog log;
            mr_log_python_exception(Mirel::LOG_ERROR);
        }
    };
    work(200);
    const long before = ResidentPages();
    work(2000);  // 100,000 texts, keys and numbers: at least 20, 20 and 2 MB where they stay
    EXPECT_LT(ResidentPages() - before, 400);
}

TEST(PythonTest, ConversionTakesAndGivesBackEveryReferenceToWhatThereIsOnce) {
    PListArray array;
    array.Append(PListData(Velmora::IT_NULL, ""));
    array.Append(PListData(Velmora::IT_TRUE, ""));
    array.Append(PListData(Velmora::IT_FALSE, ""));
    const PythonContextLock held;
    PyObject* const once[] = {Py_None, Py_True, Py_False};
    const Py_ssize_t before[] = {Py_REFCNT(Py_None), Py_REFCNT(Py_True), Py_REFCNT(Py_False)};
    for (int i = 0; i < 1000; ++i) {
        PyObject* value = PyObject_FromPListItem(array);
        Py_XDECREF(value);
    }
    for (int i = 0; i < 3; ++i) EXPECT_LT(std::abs(Py_REFCNT(once[i]) - before[i]), 100) << i;
}

TEST(PythonTest, EveryExceptionIsOneEntryAndEndsNothing) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"raise ValueError('of no value')", "ValueError: of no value"},
        {"import sys; sys.exit(3)", "SystemExit: 3"},
        {"raise KeyboardInterrupt", "KeyboardInterrupt"},
        {"def f(: pass", "SyntaxError: invalid syntax"},
        {"raise Exception(u'\\ud800 \\xfc said')", " said"},
        {"raise Exception('a\\0b')", "Exception: a\\x00b"},
        {"class E(Exception):\n    def __str__(self): raise KeyError\nraise E", "E"},
        {"class E(Exception):\n    def __str__(self): raise SystemExit\nraise E", "E"},
        {"class E(Exception):\n    def __init__(self): raise IOError('while made')\nraise E", "while made"},
        {"def f(): f()\nf()", "recursion depth exceeded"},
        {"import nowhere_to_be_found", "nowhere_to_be_found"},
    };
    for (const auto& [code, expected] : cases) {
        const std::vector<CapturedLog::Entry> entries = LoggedBy(code);
        ASSERT_EQ(entries.size(), 1U) << code;
        EXPECT_EQ(entries[0].first, Mirel::LOG_ERROR);
        EXPECT_NE(entries[0].second.find(expected), std::string::npos) << entries[0].second;
    }
    EXPECT_NE(LoggedBy("def inner(): 1 / 0\ninner()")[0].second.find("in inner"), std::string::npos);
    for (int level = Mirel::LOG_DEBUG; level <= Mirel::LOG_CRIT; ++level) {
        EXPECT_EQ(LoggedBy("raise ValueError", static_cast<Mirel::LogType_t>(level))[0].first, level);
    }
    EXPECT_TRUE(LoggedBy("pass").empty());
}

TEST(PythonTest, ExceptionsAreLoggedEvenWhereFormattingFails) {
    const std::string broken =
        "import traceback; before = traceback.format_exception; traceback.format_exception = None\n"
        "try: result = 1\nfinally: value.append(before)\nraise ";
    const PythonContextLock held;
    PyObject* kept = PyList_New(0);
    CapturedLog log;
    Execute(broken + "ValueError('still said')", kept);
    mr_log_python_exception(Mirel::LOG_WARN);
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    Execute("import traceback; traceback.format_exception = value[0]", kept);
    Py_DECREF(kept);
    ASSERT_EQ(log.At(Mirel::LOG_WARN).size(), 1U);
    EXPECT_NE(log.At(Mirel::LOG_WARN)[0].find("ValueError: still said"), std::string::npos);
}
