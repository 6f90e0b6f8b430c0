// The module "velmora" that handlers import.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include <new>
#include <utility>

#include "MR_log.h"
#include "VL_Python.h"
#include "python/FromPython.h"
#include "python/HandlerLog.h"
#include "python/HandlerPostings.h"
#include "python/PythonReference.h"
#include "python/PythonSources.h"

namespace Velmora {

namespace {

PyObject* None() {
    Py_INCREF(Py_None);
    return Py_None;
}

/// What a function may throw becomes Python's.
template <class Function>
PyObject* Guarded(const Function& function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
}

PyObject* Answer(HandlerPostings::Taken taken) {
    if (taken == HandlerPostings::Taken::Yes) return None();
    PyErr_SetString(PyExc_RuntimeError, taken == HandlerPostings::Taken::Ending
                                            ? "velmora.post: the server is ending"
                                            : "velmora.post: too many postings of handlers wait already");
    return nullptr;
}

PyObject* Post(PyObject*, PyObject* arguments) {
    PyObject* name = nullptr;
    PyObject* data = Py_None;
    if (!PyArg_ParseTuple(arguments, "O|O:post", &name, &data)) return nullptr;
    return Guarded([&]() -> PyObject* {
        HandlerPosting posting;
        if (!TextFromPython(name, "velmora.post: the event's name", posting.EventName)) return nullptr;
        posting.Bytes = posting.EventName.size();
        if (data != Py_None && !DictFromPython(data, posting.Data.emplace(), posting.Bytes)) return nullptr;
        return Answer(HandlerPostings::Instance().Take(std::move(posting)));
    });
}

PyObject* Log(PyObject*, PyObject* arguments) {
    PyObject* level_name = nullptr;
    PyObject* object = nullptr;
    if (!PyArg_ParseTuple(arguments, "OO:log", &level_name, &object)) return nullptr;
    return Guarded([&]() -> PyObject* {
        std::string name, text;
        Mirel::LogType_t level{};
        if (!TextFromPython(level_name, "velmora.log: the level", name)) return nullptr;
        if (!Mirel::LogTypeFromName(name, level)) {
            PyErr_Format(
                PyExc_ValueError,
                "velmora.log: there is no level '%.50s'; take one of debug, info, notice, warn, error, "
                "crit, alert",
                name.c_str());
            return nullptr;
        }
        if (!Mirel::DefaultLogSink().Logs(level)) return None();
        const PythonReference said(PyUnicode_Check(object) ? (Py_INCREF(object), object)
                                                           : PyObject_Str(object));
        if (!said || !TextFromPython(said.get(), "velmora.log: the text", text)) return nullptr;
        LogPythonText(level, std::move(text));
        return None();
    });
}

PyObject* ListenerData(PyObject*, PyObject*) {
    return Guarded([] {
        const HandlerCall* call = HandlerCall::Current();
        return PyObject_FromPListItem(call == nullptr ? PListDict()
                                                      : call->Payload().GetDict("listener_data"));
    });
}

PyMethodDef s_Functions[] = {{"post", Post, METH_VARARGS, nullptr},
                             {"log", Log, METH_VARARGS, nullptr},
                             {"listener_data", ListenerData, METH_NOARGS, nullptr},
                             {nullptr, nullptr, 0, nullptr}};

#if PY_MAJOR_VERSION >= 3
PyModuleDef s_Module = {
    PyModuleDef_HEAD_INIT, "_velmora", nullptr, -1, s_Functions, nullptr, nullptr, nullptr, nullptr};

/// Among the loaded modules; false with a pending error.
bool MakeInnerModule() {
    const PythonReference module(PyModule_Create(&s_Module));
    return module && PyDict_SetItemString(PyImport_GetModuleDict(), "_velmora", module.get()) == 0;
}
#else
bool MakeInnerModule() {
    return Py_InitModule("_velmora", s_Functions) != nullptr;
}
#endif

bool MakeModule() {
    if (!MakeInnerModule()) return false;
    const PythonReference code(Py_CompileString(VelmoraModuleSource, "velmora.py", Py_file_input));
    static char name[] = "velmora";
    return code && PythonReference(PyImport_ExecCodeModule(name, code.get()));
}

}  // namespace

Result_t StartHandlerPostings(HandlerPoster post) {
    HandlerPostings& postings = HandlerPostings::Instance();
    postings.Poster(std::move(post));
    {
        const PythonContextLock context;
        if (PyDict_GetItemString(PyImport_GetModuleDict(), "_velmora") != nullptr) return Mirel::RESULT_OK;
        if (!MakeModule()) {
            mr_log_python_exception(Mirel::LOG_ERROR);
            return Mirel::RESULT_FAIL.WithMessage("The module \"velmora\" cannot be made");
        }
    }
    return postings.Start("EventQueue::HandlerPostings");
}

void StopHandlerPostings(Mirel::ui32_t limit_ms) {
    HandlerPostings::Instance().End(limit_ms);
}

}  // namespace Velmora
