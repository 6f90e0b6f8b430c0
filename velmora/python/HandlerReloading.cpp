#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "python/HandlerReloading.h"

#include <atomic>
#include <shared_mutex>

#include "MR_log.h"
#include "VL_Python.h"
#include "python/HandlerLog.h"
#include "python/HandlerReloadCounts.h"
#include "python/PythonReference.h"
#include "python/PythonSources.h"

namespace Velmora {

using Mirel::DefaultLogSink;

std::atomic<Mirel::ui64_t> HandlerReloads{0};
std::atomic<Mirel::ui64_t> FailedHandlerReloads{0};

namespace {

// Calls share it, a reload has it alone. Taken before the interpreter lock.
std::shared_mutex s_Turns;

// Guarded by the interpreter lock.
PyObject* s_Names = nullptr;  // of the code that does it; null: nobody asked for it
bool s_BeforeEachCall = false;
Py_ssize_t s_ModulesNoted = 0;

/// Null with a pending error.
PythonReference Call(const char* function, PyObject* argument) {
    PyObject* const callable = PyDict_GetItemString(s_Names, function);  // borrowed
    return PythonReference(PyObject_CallFunctionObjArgs(callable, argument, nullptr));
}

/// False with a pending error.
bool LoadCode() {
    if (s_Names != nullptr) return true;
    PythonReference names(PyDict_New());
    const bool ready = names && PyDict_SetItemString(names.get(), "__builtins__", PyEval_GetBuiltins()) == 0;
    const PythonReference ran(ready ? PyRun_String(ReloadSource, Py_file_input, names.get(), names.get())
                                    : nullptr);
    if (ran) s_Names = names.release();
    return ran != nullptr;
}

PythonReference PathList(const std::vector<std::string>& directories) {
    PythonReference list(PyList_New(0));
    for (const std::string& directory : directories) {
#if PY_MAJOR_VERSION >= 3
        const PythonReference text(PyUnicode_DecodeFSDefault(directory.c_str()));
#else
        const PythonReference text(PyString_FromString(directory.c_str()));
#endif
        if (!list || !text || PyList_Append(list.get(), text.get()) != 0) return nullptr;
    }
    return list;
}

std::string Text(PyObject* object) {
#if PY_MAJOR_VERSION >= 3
    const PythonReference bytes(PyUnicode_AsEncodedString(object, "utf-8", "backslashreplace"));
    return bytes ? PyBytes_AsString(bytes.get()) : "";
#else
    const char* text = PyString_AsString(object);
    return text == nullptr ? "" : text;
#endif
}

void Say(const std::string& names, const std::string* traceback) {
    if (traceback == nullptr) {
        ++HandlerReloads;
        DefaultLogSink().Notice("Python module loaded anew: %s\n", names.c_str());
        return;
    }
    ++FailedHandlerReloads;
    LogPythonText(Mirel::LOG_ERROR, *traceback);
    DefaultLogSink().Error(
        "Python module \"%s\" does not load in its new version; the one before stays in use.\n",
        names.c_str());
}

/// Logs and adds to `reload` a list of (names, traceback or None).
void Read(PyObject* results, HandlerReload& reload) {
    for (Py_ssize_t i = 0; i < PyList_Size(results); ++i) {
        PyObject* const result = PyList_GetItem(results, i);  // borrowed, as what is in it
        const std::string names = Text(PyTuple_GetItem(result, 0));
        PyObject* const failure = PyTuple_GetItem(result, 1);
        if (failure == Py_None) {
            reload.Reloaded.push_back(names);
            Say(names, nullptr);
        } else {
            reload.Failed.emplace_back(names, Text(failure));
            Say(names, &reload.Failed.back().second);
        }
    }
}

void Reload(bool again, HandlerReload& reload) {
    const PythonReference results = Call("reload", again ? Py_True : Py_False);
    if (results) Read(results.get(), reload);
    if (PyErr_Occurred() != nullptr) mr_log_python_exception(Mirel::LOG_ERROR);
    s_ModulesNoted = PyDict_Size(PyImport_GetModuleDict());
}

}  // namespace

HandlerTurn::HandlerTurn() {
    s_Turns.lock_shared();
}

HandlerTurn::~HandlerTurn() {
    s_Turns.unlock_shared();
}

HandlerReload ReloadHandlers() {
    const std::unique_lock<std::shared_mutex> alone(s_Turns);
    const PythonContextLock context;
    HandlerReload reload;
    if (s_Names != nullptr) Reload(true, reload);
    return reload;
}

void WatchHandlers(const std::vector<std::string>& directories, bool before_each_call) {
    s_BeforeEachCall = before_each_call && !directories.empty();
    if (directories.empty() && s_Names == nullptr) return;
    const PythonReference list = PathList(directories);
    if (!list || !LoadCode() || !Call("below", list.get())) mr_log_python_exception(Mirel::LOG_ERROR);
    s_ModulesNoted = PyDict_Size(PyImport_GetModuleDict());
}

void ReloadBeforeCall() {
    if (!s_BeforeEachCall) return;
    HandlerReload reload;
    Reload(false, reload);
}

void NoteLoadedModules() {
    if (s_Names == nullptr) return;
    const Py_ssize_t now = PyDict_Size(PyImport_GetModuleDict());
    if (now == s_ModulesNoted) return;
    s_ModulesNoted = now;
    if (!Call("note", nullptr)) mr_log_python_exception(Mirel::LOG_ERROR);
}

}  // namespace Velmora
