// Every difference between the CPython versions the module builds for lives here.
#pragma once
#include <Python.h>

namespace registry_docs::compat {

// Mapping lookup that reports absence without raising: 1 found, 0 absent, -1 error.
inline int dict_get_ref(PyObject* dict, PyObject* key, PyObject** result) {
#if PY_VERSION_HEX >= 0x030D0000
  return PyDict_GetItemRef(dict, key, result);
#else
  *result = PyDict_GetItemWithError(dict, key);
  Py_XINCREF(*result);
  if (*result) return 1;
  return PyErr_Occurred() ? -1 : 0;
#endif
}

// Takes the exception being raised out of the thread state, normalized; null when none is.
inline PyObject* take_exception() {
#if PY_VERSION_HEX >= 0x030C0000
  return PyErr_GetRaisedException();
#else
  PyObject* type = nullptr;
  PyObject* value = nullptr;
  PyObject* traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  if (value && traceback) PyException_SetTraceback(value, traceback);
  Py_XDECREF(type);
  Py_XDECREF(traceback);
  return value;
#endif
}

// What a def's body raises when it reads a free variable whose cell a caller emptied.
#if PY_VERSION_HEX >= 0x030B0000
inline constexpr char kEmptyFreeVariable[] =
    "cannot access free variable '%U' where it is not associated with a value in enclosing scope";
#else
inline constexpr char kEmptyFreeVariable[] =
    "free variable '%U' referenced before assignment in enclosing scope";
#endif

}  // namespace registry_docs::compat

// From 3.12 a module says whether it may be loaded in interpreters with a GIL of their own; this
// one keeps nothing per process, so it may.
#if PY_VERSION_HEX >= 0x030C0000
#define REGISTRY_DOCS_INTERPRETER_SLOTS \
  {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
#else
#define REGISTRY_DOCS_INTERPRETER_SLOTS
#endif
