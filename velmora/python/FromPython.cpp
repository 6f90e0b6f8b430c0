#define PY_SSIZE_T_CLEAN
#include <Python.h>
// (Python wants to be first)
#include "python/FromPython.h"

#include <climits>
#include <cmath>

#include "python/PythonReference.h"

namespace Velmora {

namespace {

constexpr int DeepestNesting = 256;
constexpr std::size_t BytesForEach = 64;  // beside its text

bool IsText(PyObject* object) {
#if PY_MAJOR_VERSION < 3
    if (PyString_Check(object)) return true;
#endif
    return PyUnicode_Check(object);
}

bool IsInteger(PyObject* object) {
#if PY_MAJOR_VERSION < 3
    if (PyInt_Check(object)) return true;
#endif
    return PyLong_Check(object);
}

/// False with a pending error: half of a surrogate pair, say.
bool ReadText(PyObject* object, std::string& text) {
    const PythonReference encoded(PyUnicode_Check(object) ? PyUnicode_AsUTF8String(object)
                                                          : (Py_INCREF(object), object));
    char* bytes = nullptr;
    Py_ssize_t size = 0;
    if (!encoded || PyBytes_AsStringAndSize(encoded.get(), &bytes, &size) != 0) return false;
    text.assign(bytes, static_cast<std::size_t>(size));
    return true;
}

/// An integer of any size.
bool ReadInteger(PyObject* object, PListData& data) {
    const long long value = PyLong_AsLongLong(object);
    if (value != -1 || PyErr_Occurred() == nullptr) {
        data = value >= INT_MIN && value <= INT_MAX ? PListData(static_cast<int>(value)) : PListData(value);
        return true;
    }
    if (!PyErr_ExceptionMatches(PyExc_OverflowError)) return false;
    PyErr_Clear();
    const PythonReference digits(PyObject_Str(object));
    std::string text;
    if (!digits || !ReadText(digits.get(), text)) return false;
    data = PListData(IT_REAL, text);
    return true;
}

bool ReadReal(PyObject* object, PListData& data) {
    const double value = PyFloat_AsDouble(object);
    if (!std::isfinite(value)) {
        PyErr_SetString(PyExc_ValueError,
                        "velmora.post: an infinity, or what is no number, cannot be posted");
        return false;
    }
    data = PListData(value);
    return true;
}

/// Every function is false with a pending error.
class Reader {
  public:
    explicit Reader(std::size_t& bytes) : m_Bytes(bytes) {}

    bool ReadDict(PyObject* object, PListDict& dict, int depth) {
        if (!MayNest(depth)) return false;
        Py_ssize_t place = 0;
        PyObject* key = nullptr;
        PyObject* value = nullptr;
        while (PyDict_Next(object, &place, &key, &value)) {  // borrowed; nothing below runs Python code
            std::string name;
            if (!TextFromPython(key, "velmora.post: a key", name)) return false;
            const auto store = [&](PListItem&& item) { dict.SetItem(name, std::move(item)); };
            m_Bytes += name.size();
            if (!ReadValue(value, depth, store)) return false;
        }
        return true;
    }

  private:
    bool MayNest(int depth) {
        if (depth <= DeepestNesting) return true;
        PyErr_Format(PyExc_ValueError, "velmora.post: data is nested beyond %d levels", DeepestNesting);
        return false;
    }

    template <class Store>
    bool ReadValue(PyObject* object, int depth, const Store& store) {
        if (PyDict_Check(object)) {
            PListDict dict;
            if (!ReadDict(object, dict, depth + 1)) return false;
            store(std::move(dict));
            return true;
        }
        if (PyList_Check(object) || PyTuple_Check(object)) {
            PListArray array;
            if (!ReadArray(object, array, depth + 1)) return false;
            store(std::move(array));
            return true;
        }
        PListData data;
        if (!ReadScalar(object, data)) return false;
        m_Bytes += BytesForEach + data.TextView().size();
        store(std::move(data));
        return true;
    }

    bool ReadArray(PyObject* object, PListArray& array, int depth) {
        if (!MayNest(depth)) return false;
        const Py_ssize_t size = PySequence_Size(object);
        for (Py_ssize_t i = 0; i < size; ++i) {
            PyObject* item = PyList_Check(object) ? PyList_GetItem(object, i) : PyTuple_GetItem(object, i);
            const auto store = [&](PListItem&& read) { array.Append(std::move(read)); };
            if (item == nullptr || !ReadValue(item, depth, store)) return false;
        }
        return true;
    }

    static bool ReadScalar(PyObject* object, PListData& data) {
        if (object == Py_None) {
            data = PListData(IT_NULL, "");
        } else if (PyBool_Check(object)) {
            data = PListData(object == Py_True);
        } else if (IsInteger(object)) {
            return ReadInteger(object, data);
        } else if (PyFloat_Check(object)) {
            return ReadReal(object, data);
        } else {
            std::string text;
            if (!TextFromPython(object, {}, text)) return false;
            data = PListData(text);
        }
        return true;
    }

    std::size_t& m_Bytes;
};

}  // namespace

bool TextFromPython(PyObject* object, const std::string& what, std::string& text) {
    if (IsText(object)) return ReadText(object, text);
    if (what.empty()) {
        PyErr_Format(PyExc_TypeError,
                     "velmora.post: a %s cannot be posted; dict, list, str, int, float, bool and None can",
                     Py_TYPE(object)->tp_name);
    } else {
        PyErr_Format(PyExc_TypeError, "%s must be a str, not %s", what.c_str(), Py_TYPE(object)->tp_name);
    }
    return false;
}

bool DictFromPython(PyObject* object, PListDict& dict, std::size_t& bytes) {
    if (PyDict_Check(object)) return Reader(bytes).ReadDict(object, dict, 1);
    PyErr_Format(PyExc_TypeError, "velmora.post: data must be a dict, not %s", Py_TYPE(object)->tp_name);
    return false;
}

}  // namespace Velmora
