// What surrounds the call of a Python handler: its report, its time, what an "async def" handler returns.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include <algorithm>
#include <atomic>
#include <chrono>
#include <new>
#include <utility>

#include "MR_log.h"
#include "VL_Python.h"
#include "python/HandlerLog.h"
#include "python/HandlerPostings.h"
#include "python/HandlerReloadCounts.h"
#include "python/HandlerReloading.h"

namespace Velmora {

using Mirel::DefaultLogSink;
using Mirel::ui32_t;
using Mirel::ui64_t;

namespace {

constexpr std::size_t LongestTraceback = 4096;
constexpr std::size_t LongestReason = 512;
constexpr ui64_t us_per_ms = 1000;

std::atomic<ui32_t> s_Slow_ms{0};
std::atomic<bool> s_ExplainImports{false};
std::atomic<bool> s_RunCoroutines{false};

std::atomic<ui64_t> s_Calls[4];
std::atomic<ui64_t> s_Duration_us{0};
std::atomic<ui64_t> s_SlowCalls{0};

thread_local HandlerCall* t_Current = nullptr;
thread_local HandlerReport t_Report;

ui64_t Now_us() {
    using std::chrono::microseconds;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<ui64_t>(std::chrono::duration_cast<microseconds>(now).count());
}

// Whole lines from the end, as many as there is room for.
std::string_view LastLines(std::string_view text) {
    if (text.size() <= LongestTraceback) return text;
    text.remove_prefix(text.size() - LongestTraceback);
    const std::size_t end = text.find('\n');
    if (end != text.npos) text.remove_prefix(end + 1);
    return text;
}

// Whether a failed import says of the module itself, or of a package around it, that there is none.
bool SaysThereIsNone(std::string_view reason, const std::string& module) {
    constexpr std::string_view Nowhere = "No module named ";
    const std::size_t at = reason.find(Nowhere);
    if (module.empty()) return true;
    if (at == reason.npos) return false;
    reason.remove_prefix(at + Nowhere.size());
    if (reason.starts_with('\'')) reason.remove_prefix(1);
    const std::string name(reason.substr(0, reason.find_first_of("';")));
    // Python 2 names the last part only.
    return module == name || module.starts_with(name + '.') || ('.' + module).ends_with('.' + name);
}

// Of a failure without an exception.
const char* UsualReason(HandlerOutcome outcome) {
    if (outcome == HandlerOutcome::NoHandler) return "event_handler cannot be called";
    return outcome == HandlerOutcome::Import ? "The module cannot be imported" : "Out of memory";
}

}  // namespace

const char* HandlerOutcomeName(HandlerOutcome outcome) {
    constexpr const char* Names[] = {"ok", "import", "no_handler", "raised"};
    return Names[static_cast<std::size_t>(outcome)];
}

const HandlerReport& LastHandlerReport() {
    return t_Report;
}

void SetHandlerOptions(const HandlerOptions& options) {
    s_Slow_ms = options.Slow_ms;
    s_ExplainImports = options.ExplainImports;
    s_RunCoroutines = options.RunCoroutines;
    LogLineByLine(options.LineByLine);
    const PythonContextLock context;
    WatchHandlers(options.ReloadBelow, options.Reload);
}

HandlerCall::HandlerCall(const std::string& module, const PListDict& payload)
    : m_Module(module), m_Payload(payload), m_Outer(std::exchange(t_Current, this)), m_Began_us(Now_us()) {
    t_Report.Reason.clear();
    t_Report.Traceback.clear();
    ReloadBeforeCall();
}

HandlerCall::~HandlerCall() {
    t_Current = m_Outer;
    t_Report.Outcome = m_Outcome;
    t_Report.Duration_us = Now_us() - m_Began_us;
    s_Calls[static_cast<std::size_t>(m_Outcome)].fetch_add(1, std::memory_order_relaxed);
    s_Duration_us.fetch_add(t_Report.Duration_us, std::memory_order_relaxed);
    try {
        NoteLoadedModules();
        if (m_Outcome != HandlerOutcome::Ok && t_Report.Reason.empty())
            t_Report.Reason = UsualReason(m_Outcome);
        WarnIfSlow(t_Report.Duration_us);
    } catch (const std::bad_alloc&) {  // it is counted
    }
}

void HandlerCall::WarnIfSlow(ui64_t duration_us) const {
    const ui64_t limit_ms = s_Slow_ms;
    if (limit_ms == 0 || duration_us < limit_ms * us_per_ms) return;
    s_SlowCalls.fetch_add(1, std::memory_order_relaxed);
    DefaultLogSink().Warn("Python handler \"%s\" took %llu ms for event \"%s\"; everything else waited.\n",
                          m_Module.c_str(), static_cast<unsigned long long>(duration_us / us_per_ms),
                          m_Payload.GetData("event_name").Text().c_str());
}

void HandlerCall::Reached(HandlerOutcome outcome) {
    m_Outcome = outcome;
}

// A module that is not there at all has been named already.
void HandlerCall::NotImported() {
    if (!s_ExplainImports || SaysThereIsNone(t_Report.Reason, m_Module)) return;
    DefaultLogSink().Error("Python module \"%s\" is there, but importing it failed: %s\n", m_Module.c_str(),
                           t_Report.Reason.c_str());
}

HandlerCall* HandlerCall::Current() {
    return t_Current;
}

void HandlerCall::TakeException(std::string_view traceback, std::string_view reason) {
    t_Report.Reason = reason.substr(0, std::min(reason.find('\n'), LongestReason));
    t_Report.Traceback = LastLines(traceback);
}

HandlerCounters GetHandlerCounters() {
    HandlerCounters counters;
    for (std::size_t i = 0; i < std::size(counters.Calls); ++i) counters.Calls[i] = s_Calls[i];
    counters.Duration_us = s_Duration_us;
    counters.Slow = s_SlowCalls;
    counters.Reloads = HandlerReloads;
    counters.FailedReloads = FailedHandlerReloads;
    HandlerPostings::Instance().AddTo(counters);
    return counters;
}

#if PY_MAJOR_VERSION >= 3

namespace {

constexpr const char* RunToEnd = R"(
import asyncio

def run(coroutine):
    asyncio.run(coroutine)
)";

// A function for the process's life; null with a pending error. The interpreter lock must be held.
PyObject* Runner() {
    static PyObject* runner = nullptr;  // guarded by the interpreter lock
    if (runner != nullptr) return runner;
    PyObject* const names = PyDict_New();
    if (names == nullptr || PyDict_SetItemString(names, "__builtins__", PyEval_GetBuiltins()) != 0)
        return nullptr;
    PyObject* const ran = PyRun_String(RunToEnd, Py_file_input, names, names);
    if (ran == nullptr) return nullptr;
    Py_DECREF(ran);
    runner = PyDict_GetItemString(names, "run");  // borrowed from the names, which stay
    return runner;
}

}  // namespace

bool HandlerCall::Finish(PyObject* result) {
    if (!PyCoro_CheckExact(result) || !s_RunCoroutines) return true;
    PyObject* const runner = Runner();
    PyObject* const ended =
        runner == nullptr ? nullptr : PyObject_CallFunctionObjArgs(runner, result, nullptr);
    Py_XDECREF(ended);
    return ended != nullptr;
}

#else

bool HandlerCall::Finish(PyObject*) {
    return true;
}

#endif

}  // namespace Velmora
