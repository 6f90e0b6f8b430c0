// Starts the interpreter, converts values, and logs exceptions.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "VL_Python.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <system_error>
#include <utility>

#include "MR_log.h"
#include "VL_PList.h"
#include "python/ExceptionText.h"

using Mirel::DefaultLogSink;
using Velmora::PListArray;
using Velmora::PListData;
using Velmora::PListDict;
using Velmora::PListItem;

namespace {

struct Release {
    void operator()(PyObject* object) const { Py_DECREF(object); }
};

// A reference that is given back at the end of its scope, under the interpreter lock.
using PyRef = std::unique_ptr<PyObject, Release>;

#if PY_MAJOR_VERSION >= 3
PyObject* NativeText(std::string_view text) {
    return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
}
PyObject* PathText(const std::string& path) {
    return PyUnicode_DecodeFSDefault(path.c_str());
}
#else
PyObject* NativeText(std::string_view text) {
    return PyString_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
}
PyObject* PathText(const std::string& path) {
    return NativeText(path);
}
#endif

// ---- Start ----

// Python's extension modules expect the interpreter among the symbols that all of the process sees. Where a
// program has loaded this library for itself alone (RTLD_LOCAL), it is not there yet.
void MakeInterpreterGlobal() {
    Dl_info library{};
    if (dladdr(reinterpret_cast<void*>(&Py_IsInitialized), &library) == 0) return;
    // Null where the interpreter is part of the program itself, whose symbols are global.
    (void)dlopen(library.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_GLOBAL);
}

[[noreturn]] void GiveUp(const char* reason) {
    DefaultLogSink().Crit("Unable to start the Python interpreter: %s\n", reason);
    std::exit(EXIT_FAILURE);
}

#if PY_MAJOR_VERSION >= 3
[[noreturn]] void GiveUp(const PyStatus& status) {
    GiveUp(status.err_msg ? status.err_msg : "no reason given");
}

// Python is kept from changing the process around it: no signal handlers, no locale, no settings of C's own
// stdio. Text is UTF-8 whatever the locale (services often run in the "C" one).
void StartInterpreter() {
    PyPreConfig pre;
    PyPreConfig_InitPythonConfig(&pre);
    pre.configure_locale = 0;
    pre.coerce_c_locale = 0;
    pre.utf8_mode = 1;
    PyStatus status = Py_PreInitialize(&pre);
    if (PyStatus_Exception(status)) GiveUp(status);

    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.install_signal_handlers = 0;
    config.configure_c_stdio = 0;
    // The library's own standard modules, not those of a python3 that comes first on the PATH.
    status = PyConfig_SetBytesString(&config, &config.program_name, VELMORA_PYTHON_PROGRAM);
    if (!PyStatus_Exception(status)) status = Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    if (PyStatus_Exception(status)) GiveUp(status);
}

// What handlers print appears line by line, also where standard output is a file or a journal.
void PrintByLine() {
    PyObject* out = PySys_GetObject("stdout");  // borrowed
    if (out == nullptr || out == Py_None) return;
    const PyRef reconfigure(PyObject_GetAttrString(out, "reconfigure"));
    const PyRef arguments(PyTuple_New(0));
    const PyRef options(Py_BuildValue("{s:O}", "line_buffering", Py_True));
    if (reconfigure && arguments && options)
        PyRef(PyObject_Call(reconfigure.get(), arguments.get(), options.get()));
    mr_log_python_exception(Mirel::LOG_WARN);
}
#else
void StartInterpreter() {
    static char program[] = VELMORA_PYTHON_PROGRAM;
    static char no_script[] = "";
    static char* arguments[] = {no_script};
    Py_SetProgramName(program);
    // This Python ends the process itself where it cannot load its standard modules; "site" needs the rest of
    // them, so it is loaded here, where the log can still be told.
    Py_NoSiteFlag = 1;
    Py_InitializeEx(0);
    Py_NoSiteFlag = 0;
    if (!PyRef(PyImport_ImportModule("site"))) {
        mr_log_python_exception(Mirel::LOG_ERROR);
        GiveUp("its standard modules cannot be loaded");
    }
    PyEval_InitThreads();
    PySys_SetArgvEx(1, arguments, 0);  // many modules expect sys.argv to be there
}

// What handlers print appears line by line. This Python prints through C's own stream.
void PrintByLine() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}
#endif

// The thread that starts the interpreter holds its lock at first and must let it go for the others.
void StartOnce() {
    static std::once_flag started;
    std::call_once(started, [] {
        if (Py_IsInitialized()) return;  // the program's own: used as it is
        MakeInterpreterGlobal();
        StartInterpreter();
        PrintByLine();
        PyEval_SaveThread();
    });
}

std::string AbsolutePath(const std::string& directory) {
    std::error_code failure;
    const std::filesystem::path path = std::filesystem::absolute(directory, failure);
    return failure ? directory : path.lexically_normal().string();
}

// False with a pending error.
bool AddDirectories(const std::vector<std::string>& directories) {
    static char name[] = "path";
    PyObject* search_path = PySys_GetObject(name);  // borrowed
    Py_ssize_t place = 0;
    for (const std::string& directory : directories) {
        const PyRef text(PathText(AbsolutePath(directory)));
        if (!text || search_path == nullptr) return false;
        const int known = PySequence_Contains(search_path, text.get());
        if (known < 0) return false;
        if (known == 0 && PyList_Insert(search_path, place++, text.get()) != 0) return false;
    }
    return true;
}

}  // namespace

void InitPython(const std::vector<std::string>& directories) {
    StartOnce();
    if (directories.empty()) return;
    const PythonContextLock held;
    if (!AddDirectories(directories)) mr_log_python_exception(Mirel::LOG_ERROR);
}

namespace {

// Keeps what Python knows of a thread from the thread's first use of the interpreter to the thread's end.
// Made anew for every posting it would cost several times what the handler's call does.
class KeptThreadState {
  public:
    KeptThreadState() {
        const PyGILState_STATE before = PyGILState_Ensure();
        if (before == PyGILState_LOCKED) {  // a thread of Python's own, which keeps its state itself
            PyGILState_Release(before);
        } else {
            m_Kept = PyEval_SaveThread();
        }
    }

    ~KeptThreadState() {
        // The main thread ends with the process, which must not wait for a handler that may still be running.
        if (m_Kept == nullptr || gettid() == getpid()) return;
        PyEval_RestoreThread(m_Kept);
        PyGILState_Release(PyGILState_UNLOCKED);
    }

    KeptThreadState(const KeptThreadState&) = delete;
    KeptThreadState& operator=(const KeptThreadState&) = delete;

  private:
    PyThreadState* m_Kept = nullptr;
};

}  // namespace

PythonContextLock::PythonContextLock() {
    StartOnce();
    static thread_local const KeptThreadState kept;
    m_State = PyGILState_Ensure();
}

PythonContextLock::~PythonContextLock() {
    PyGILState_Release(static_cast<PyGILState_STATE>(m_State));
}

// ---- Values ----

namespace {

constexpr std::size_t DeepestNesting = 1000;

// An integer of any size; text that is none is 0.
PyObject* NewInteger(const PListData& data) {
    long long value = 0;
    if (data.GetValue(value)) {
#if PY_MAJOR_VERSION < 3
        if (value >= LONG_MIN && value <= LONG_MAX) return PyInt_FromLong(static_cast<long>(value));
#endif
        return PyLong_FromLongLong(value);
    }
    std::string text = data.Text();
    if (PyObject* big = PyLong_FromString(text.data(), nullptr, 10)) return big;
    if (!PyErr_ExceptionMatches(PyExc_ValueError)) return nullptr;
    PyErr_Clear();
    return PyLong_FromLong(0);
}

// A number that no double can hold is the nearest that one can, an infinity at the last, as Python's own
// reader of JSON has it; text that is no number is 0.
PyObject* NewReal(const PListData& data) {
    double real = 0;
    if (data.GetValue(real)) return PyFloat_FromDouble(real);
    real = PyOS_string_to_double(data.Text().c_str(), nullptr, nullptr);
    if (!PyErr_Occurred()) return PyFloat_FromDouble(real);
    if (!PyErr_ExceptionMatches(PyExc_ValueError)) return nullptr;
    PyErr_Clear();
    return PyFloat_FromDouble(0);
}

PyObject* NewScalar(const PListData& data) {
    switch (data.GetType()) {
        case Velmora::IT_TRUE:
            return PyBool_FromLong(1);
        case Velmora::IT_FALSE:
            return PyBool_FromLong(0);
        case Velmora::IT_NULL:
            Py_INCREF(Py_None);
            return Py_None;
        case Velmora::IT_INT:
        case Velmora::IT_INT64:
            return NewInteger(data);
        case Velmora::IT_REAL:
            return NewReal(data);
        default:
            return NativeText(data.TextView());
    }
}

// Converts a tree level by level, with a list of the containers that are still empty in the place of
// recursion: a deep tree must not depend on the stack of the thread that happens to post.
class TreeConverter {
  public:
    PyObject* Convert(const PListItem& item) {
        m_Pending.reserve(16);
        PyRef root(NewObject(item, 1));
        while (root && !m_Pending.empty()) {
            const Pending next = std::move(m_Pending.back());
            m_Pending.pop_back();
            if (!Fill(next)) root.reset();
        }
        return root.release();
    }

  private:
    struct Pending {
        PyRef Object;  // its own reference: keys that turn equal replace one another's values
        const PListItem* item;
        std::size_t Level;
    };

    // A scalar, or an empty container that is noted to be filled.
    PyObject* NewObject(const PListItem& item, std::size_t level) {
        const bool is_dict = item.HasType(Velmora::IT_DICT);
        if (!is_dict && !item.HasType(Velmora::IT_ARRAY))
            return NewScalar(static_cast<const PListData&>(item));
        if (level > DeepestNesting) {
            PyErr_SetString(PyExc_ValueError, "property list is nested too deeply");
            return nullptr;
        }
        PyObject* object = is_dict ? PyDict_New() : PyList_New(0);
        if (object == nullptr) return nullptr;
        Py_INCREF(object);
        m_Pending.push_back({PyRef(object), &item, level});
        return object;
    }

    bool Fill(const Pending& pending) {
        return pending.item->HasType(Velmora::IT_DICT)
                   ? FillDict(pending.Object.get(), static_cast<const PListDict&>(*pending.item),
                              pending.Level)
                   : FillList(pending.Object.get(), static_cast<const PListArray&>(*pending.item),
                              pending.Level);
    }

    bool FillDict(PyObject* object, const PListDict& dict, std::size_t level) {
        for (const auto& [key, item] : dict) {
            const PyRef name(NativeText(key));
            const PyRef value(NewObject(item, level + 1));
            if (!name || !value || PyDict_SetItem(object, name.get(), value.get()) != 0) return false;
        }
        return true;
    }

    bool FillList(PyObject* object, const PListArray& array, std::size_t level) {
        for (const PListItem& item : array) {
            const PyRef value(NewObject(item, level + 1));
            if (!value || PyList_Append(object, value.get()) != 0) return false;
        }
        return true;
    }

    std::vector<Pending> m_Pending;
};

}  // namespace

PyObject* PyObject_FromPListItem(const PListItem& item) {
    return TreeConverter().Convert(item);
}

// ---- Exceptions ----

namespace {

struct Exception {
    PyRef Type;
    PyRef Value;
    PyRef Traceback;
};

// Takes the pending exception; all null when there is none.
Exception TakeException() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    if (type != nullptr) PyErr_NormalizeException(&type, &value, &traceback);
#if PY_MAJOR_VERSION >= 3
    if (value != nullptr && traceback != nullptr) PyException_SetTraceback(value, traceback);
#endif
    return {PyRef(type), PyRef(value), PyRef(traceback)};
}

// The bytes of a text object; empty, with a pending error, where it is none.
std::string TextOf(PyObject* object) {
    const PyRef encoded(PyUnicode_Check(object)
                            ? PyUnicode_AsEncodedString(object, "utf-8", "backslashreplace")
                            : (Py_INCREF(object), object));
    char* bytes = nullptr;
    Py_ssize_t size = 0;
    if (!encoded || PyBytes_AsStringAndSize(encoded.get(), &bytes, &size) != 0) return {};
    return {bytes, static_cast<std::size_t>(size)};
}

// What Python itself would print; empty, with a pending error, where that fails.
std::string FormatWithTraceback(const Exception& exception) {
    const auto or_none = [](const PyRef& object) { return object ? object.get() : Py_None; };
    const PyRef module(PyImport_ImportModule("traceback"));
    const PyRef format(module ? PyObject_GetAttrString(module.get(), "format_exception") : nullptr);
    if (!format) return {};
    const PyRef lines(PyObject_CallFunctionObjArgs(
        format.get(), exception.Type.get(), or_none(exception.Value), or_none(exception.Traceback), nullptr));
    const PyRef nothing(NativeText(""));
    if (!lines || !nothing) return {};
    static char join[] = "join";
    static char one_object[] = "O";
    const PyRef text(PyObject_CallMethod(nothing.get(), join, one_object, lines.get()));
    return text ? TextOf(text.get()) : std::string();
}

// Type and message, as far as they can be had: for exceptions that fail to describe themselves.
std::string FormatPlainly(const Exception& exception) {
    PyErr_Clear();
    std::string text = PyExceptionClass_Check(exception.Type.get())
                           ? PyExceptionClass_Name(exception.Type.get())
                           : "Unknown Python exception";
    const PyRef message(exception.Value ? PyObject_Str(exception.Value.get()) : nullptr);
    const std::string said = message ? TextOf(message.get()) : std::string();
    const std::string own_types = "exceptions.";  // the module of Python 2's
    if (text.starts_with(own_types)) text.erase(0, own_types.size());
    return said.empty() ? text : text + ": " + said;
}

}  // namespace

ExceptionText TakeExceptionText() {
    const Exception exception = TakeException();
    ExceptionText text;
    text.Traceback = FormatWithTraceback(exception);
    text.Reason = FormatPlainly(exception);
    PyErr_Clear();
    if (text.Traceback.empty()) text.Traceback = text.Reason;
    while (text.Traceback.ends_with('\n')) text.Traceback.pop_back();
    return text;
}
