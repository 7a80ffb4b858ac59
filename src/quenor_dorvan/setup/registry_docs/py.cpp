#include "py.h"

#include <algorithm>

#include "compat.h"

namespace registry_docs {

Ref mapping_get(PyObject* mapping, PyObject* key, PyObject* get_method_name, PyObject* fallback) {
  if (!PyDict_CheckExact(mapping)) {
    if (fallback) return call_method(mapping, get_method_name, key, fallback);
    return call_method(mapping, get_method_name, key);
  }
  PyObject* found = nullptr;
  if (check(compat::dict_get_ref(mapping, key, &found))) return Ref::steal(found);
  return Ref::borrow(fallback ? fallback : Py_None);
}

Ref tuple_of(std::initializer_list<Obj> items) {
  auto given = [](Obj item) { return item.get() != nullptr; };
  Ref tuple = own(PyTuple_New(std::count_if(items.begin(), items.end(), given)));
  Py_ssize_t size = 0;
  for (Obj item : items) {
    if (given(item)) PyTuple_SET_ITEM(tuple.get(), size++, Py_NewRef(item.get()));
  }
  return tuple;
}

Ref add(std::initializer_list<Obj> operands) {
  Ref sum = Ref::borrow(operands.begin()->get());
  for (const Obj* operand = operands.begin() + 1; operand != operands.end(); ++operand) {
    sum = own(PyNumber_Add(sum.get(), operand->get()));
  }
  return sum;
}

bool ends_with(PyObject* text, PyObject* suffix, PyObject* endswith_method_name) {
  if (!PyUnicode_CheckExact(text))
    return truth(call_method(text, endswith_method_name, suffix).get());
  check(PyUnicode_READY(text));
  Py_ssize_t size = PyUnicode_GET_LENGTH(suffix), at = PyUnicode_GET_LENGTH(text) - size;
  for (Py_ssize_t i = 0; at >= 0 && i < size; ++i) {
    if (PyUnicode_READ_CHAR(text, at + i) != PyUnicode_READ_CHAR(suffix, i)) return false;
  }
  return at >= 0;
}

void join_type_error(Py_ssize_t index, PyObject* item) {
  PyErr_Format(PyExc_TypeError, "sequence item %zd: expected str instance, %.80s found", index,
               Py_TYPE(item)->tp_name);
  raise();
}

Ref iterate(PyObject* obj, const char* format) {
  Ref iterator = Ref::steal(PyObject_GetIter(obj));
  if (!iterator) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(obj)->tp_iter == nullptr &&
        !PySequence_Check(obj)) {
      PyErr_Clear();
      PyErr_Format(PyExc_TypeError, format, Py_TYPE(obj)->tp_name);
    }
    raise();
  }
  return iterator;
}

std::pair<Ref, Ref> unpack_pair(PyObject* item) {
  Ref iterator = iterate(item, "cannot unpack non-iterable %.200s object");
  Ref parts[2];
  for (int i = 0; i < 2; ++i) {
    parts[i] = next(iterator.get());
    if (!parts[i]) {
      PyErr_Format(PyExc_ValueError, "not enough values to unpack (expected 2, got %d)", i);
      raise();
    }
  }
  if (next(iterator.get())) {
    PyErr_SetString(PyExc_ValueError, "too many values to unpack (expected 2)");
    raise();
  }
  return {std::move(parts[0]), std::move(parts[1])};
}

}  // namespace registry_docs
