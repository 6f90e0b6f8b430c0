// Property lists from Python's values. To be included behind Python.h.
#pragma once

#include <cstddef>
#include <string>

#include "VL_PList.h"

namespace Velmora {

/// The text of a str (Python 2: or unicode); false with a pending error that begins with `what`.
bool TextFromPython(PyObject* object, const std::string& what, std::string& text);

/// The dictionary that `object` is: dicts, lists and tuples, texts, numbers, booleans and None inside, nested
/// at most 256 levels. Adds to `bytes` about what it takes. False with a pending TypeError or ValueError for
/// all else.
bool DictFromPython(PyObject* object, PListDict& dict, std::size_t& bytes);

}  // namespace Velmora
