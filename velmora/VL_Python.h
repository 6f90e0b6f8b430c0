// The embedded Python interpreter. Needs no header of Python's; who calls Python itself includes Python.h,
// before any standard header (Python's own rule).
#pragma once

#include <string>
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

/// Logs the pending Python exception as one entry (type, message, traceback) at `level` and clears it;
/// nothing when none is pending. SystemExit and KeyboardInterrupt are logged like any other. The interpreter
/// lock must be held.
MR_EXPORT void mr_log_python_exception(const Mirel::LogType_t& level);
