// Asks the interpreter whether it would find a module, without importing it.
#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include <memory>

#include "VL_Python.h"
#include "config/PythonModules.h"

namespace Server {

namespace {

struct Release {
    void operator()(PyObject* object) const { Py_DECREF(object); }
};
using Reference = std::unique_ptr<PyObject, Release>;

constexpr const char* HasModule = R"(
import sys
try:
    from importlib.util import find_spec as find
except ImportError:
    from pkgutil import find_loader as find

def has_module(name):
    return name in sys.modules or find(name) is not None
)";

}  // namespace

void FindPythonModulesIn(const std::vector<std::string>& directories) {
    InitPython(directories);
}

bool HasPythonModule(const std::string& module) {
    const PythonContextLock context;
    const Reference names(PyDict_New());
    const bool ready = names && PyDict_SetItemString(names.get(), "__builtins__", PyEval_GetBuiltins()) == 0;
    const Reference defined(ready ? PyRun_String(HasModule, Py_file_input, names.get(), names.get())
                                  : nullptr);
    PyObject* const function = defined ? PyDict_GetItemString(names.get(), "has_module") : nullptr;
    char text_with_size[] = "s#";  // Python 2.7 wants to be able to change it
    const Reference found(function ? PyObject_CallFunction(function, text_with_size, module.data(),
                                                           static_cast<Py_ssize_t>(module.size()))
                                   : nullptr);
    PyErr_Clear();  // no name of a module, or a package around it that cannot be imported
    return found && found.get() == Py_True;
}

}  // namespace Server
