// The embedded Python interpreter. Needs no header of Python's; who calls Python itself includes Python.h,
// before any standard header (Python's own rule).
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "MR_log.h"
#include "MR_types.h"
#include "VL_PList.h"

struct _object;
/// Python's object, as Python.h has it as well.
using PyObject = _object;

/// Starts the interpreter, once: further calls only add directories. No signal handlers are installed, the
/// process's locale stays as it is, and the interpreter lock is free when the call returns. `directories`
/// (absolute, or relative to the working directory at the time of the call) are put in front of the module
/// search path, in their order, those already on it left out. What Python code prints appears line by line.
/// May be called from any thread.
///
/// An interpreter that the program has started itself is used as it is; its lock must then be free. The
/// interpreter is never ended. Where it cannot be started (its standard modules are missing, say) the process
/// ends with one Crit line.
MR_EXPORT void InitPython(const std::vector<std::string>& directories = {});

/// Holds the interpreter lock for the calling thread, from any thread, nested too. Starts the interpreter
/// where nobody has yet. A thread that has held it once keeps its Python state (thread-local values, say)
/// until it ends, and waits for the lock once more then.
class MR_EXPORT PythonContextLock {
  public:
    PythonContextLock();
    ~PythonContextLock();
    PythonContextLock(const PythonContextLock&) = delete;
    PythonContextLock& operator=(const PythonContextLock&) = delete;

  private:
    int m_State;  // Python's PyGILState_STATE
};

/// A new Python object with the item's value: dict, list, str, int (long where an int of Python 2 is too
/// small), float, bool, None; dates and data as str. Text that is not UTF-8 has its bad bytes replaced
/// (Python 3) or is taken as the bytes it is (Python 2). Null with a pending Python error only when memory is
/// out or the tree is nested beyond 1,000 levels. The interpreter lock must be held.
MR_EXPORT PyObject* PyObject_FromPListItem(const Velmora::PListItem& item);

/// Logs the pending Python exception (type, message, traceback) at `level` and clears it; nothing when none
/// is pending. It is one entry, or with HandlerOptions::LineByLine one for each of its lines. SystemExit and
/// KeyboardInterrupt are logged like any other. The interpreter lock must be held.
MR_EXPORT void mr_log_python_exception(const Mirel::LogType_t& level);

namespace Velmora {

/// How far the call of a Python handler came.
enum class HandlerOutcome {
    Ok,         ///< the handler returned
    Import,     ///< its module could not be imported
    NoHandler,  ///< the module has no "event_handler", or one that cannot be called
    Raised,     ///< the handler raised, or was not called for want of its argument
};

/// "ok", "import", "no_handler" or "raised".
MR_EXPORT const char* HandlerOutcomeName(HandlerOutcome outcome);

/// What is kept of one call of a Python handler.
struct HandlerReport {
    HandlerOutcome Outcome = HandlerOutcome::Ok;  ///< how far it came
    Mirel::ui64_t Duration_us = 0;  ///< from when the interpreter was free for it; an import counts
    std::string Reason;             ///< of a failure, one line: "ValueError: of no value"
    std::string Traceback;          ///< its last lines, at most 4 KiB, without a newline at the end
};

/// Of the last handler that the calling thread has called; that of a success before the first one. Valid
/// until the thread calls the next.
MR_EXPORT const HandlerReport& LastHandlerReport();

/// What is done around the calls of handlers; nothing, as it stands.
struct HandlerOptions {
    Mirel::ui32_t Slow_ms = 0;    ///< a handler that takes longer gets a Warn line; 0: none does
    bool LineByLine = false;      ///< exceptions are logged with one entry a line, each with the same prefix
    bool ExplainImports = false;  ///< a module that is there and cannot be imported says why in one line more
    bool RunCoroutines = false;   ///< what an "async def" handler returns is run to its end
    bool Reload = false;          ///< before each call, as ReloadHandlers() does
    std::vector<std::string> ReloadBelow;  ///< directories with the modules that may be loaded anew
};

/// To be called before the first handler is. May be called again, also while handlers run.
MR_EXPORT void SetHandlerOptions(const HandlerOptions& options);

/// One call of a handler, from looking for its module to its end: made by whoever calls a handler, under the
/// interpreter lock, for the scope of the call. Makes the thread's LastHandlerReport() and the counters, and
/// does what the options ask for. Exceptions that the thread logs meanwhile become the report's traceback.
class MR_EXPORT HandlerCall {
  public:
    /// `payload` is what the handler is called with. Both must outlive the object.
    HandlerCall(const std::string& module, const PListDict& payload);
    ~HandlerCall();
    HandlerCall(const HandlerCall&) = delete;
    HandlerCall& operator=(const HandlerCall&) = delete;

    /// To be called at each step: how the call ends should it come no further. It begins with Import.
    void Reached(HandlerOutcome outcome);
    /// After a failed import has been logged.
    void NotImported();
    /// With what the handler returned, which is run to its end where it is a coroutine and the options ask
    /// for it. False with a pending error where that raises.
    bool Finish(PyObject* result);

    /// The calling thread's call; null outside of one.
    static HandlerCall* Current();
    /// The module's name.
    const std::string& Module() const { return m_Module; }
    /// The argument.
    const PListDict& Payload() const { return m_Payload; }
    /// Takes the texts of an exception that is logged meanwhile: its traceback, and its type and message.
    void TakeException(std::string_view traceback, std::string_view reason);

  private:
    void WarnIfSlow(Mirel::ui64_t duration_us) const;

    const std::string& m_Module;
    const PListDict& m_Payload;
    HandlerCall* const m_Outer;
    const Mirel::ui64_t m_Began_us;
    HandlerOutcome m_Outcome = HandlerOutcome::Import;
};

/// Calls of handlers since the process began.
struct HandlerCounters {
    Mirel::ui64_t Calls[4] = {};        ///< by HandlerOutcome
    Mirel::ui64_t Duration_us = 0;      ///< added up
    Mirel::ui64_t Reloads = 0;          ///< modules that were loaded anew
    Mirel::ui64_t FailedReloads = 0;    ///< whose new version could not be
    Mirel::ui64_t Posted = 0;           ///< by handlers, and made
    Mirel::ui64_t PostedNowhere = 0;    ///< by handlers, of events that there are none of
    Mirel::ui64_t PostingsRefused = 0;  ///< too many waited, or were dropped at the end
    Mirel::ui64_t PostingsWaiting = 0;  ///< now
    Mirel::ui64_t Slow = 0;             ///< that took longer than the options' Slow_ms
};

/// May be called from any thread.
MR_EXPORT HandlerCounters GetHandlerCounters();

/// While one lives no module of a handler is loaded anew: made by whoever calls a handler, before the
/// interpreter lock is taken.
class MR_EXPORT HandlerTurn {
  public:
    HandlerTurn();   ///< waits for a reload
    ~HandlerTurn();  ///< ends
    HandlerTurn(const HandlerTurn&) = delete;
    HandlerTurn& operator=(const HandlerTurn&) = delete;
};

/// What came of loading modules anew.
struct HandlerReload {
    std::vector<std::string> Reloaded;  ///< names of modules that are in use in their new version
    /// Modules that stay as they were, with the traceback that says why.
    std::vector<std::pair<std::string, std::string>> Failed;
};

/// Loads the modules below HandlerOptions::ReloadBelow whose files have changed since they were loaded, and
/// those that import them; those that hang together all or not at all. Waits for the handler that is running.
/// What came of it is logged as well. Neither the interpreter lock nor one that a handler waits for may be
/// held.
MR_EXPORT HandlerReload ReloadHandlers();

/// Makes an event's posting; false where there is no such event. `data` may be null.
using HandlerPoster = std::function<bool(const std::string& event_name, const PListDict* data)>;

/// Lets handlers `import velmora`, and makes what they post with `post`, on a thread of its own that lasts
/// until StopHandlerPostings(). Once; later calls only change `post`. The interpreter lock must not be held.
MR_EXPORT Result_t StartHandlerPostings(HandlerPoster post);

/// Takes no more postings of handlers, makes those that wait and ends the thread. What is not made within
/// `limit_ms` is dropped, and a line says how many.
MR_EXPORT void StopHandlerPostings(Mirel::ui32_t limit_ms);

}  // namespace Velmora
