// An owned reference to a Python object. To be included behind Python.h.
#pragma once

#include <memory>

namespace Velmora {

struct PythonRelease {
    void operator()(PyObject* object) const { Py_DECREF(object); }
};

/// A reference that is given back at the end of its scope, under the interpreter lock; or null.
using PythonReference = std::unique_ptr<PyObject, PythonRelease>;

}  // namespace Velmora
