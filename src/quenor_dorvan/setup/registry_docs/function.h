// The module's native function type and the resolver through which every module-level name is
// found at each call.
#pragma once
#include "py.h"

namespace registry_docs {

// What a running body needs: the namespace its names are looked up in.
struct Env {
  PyObject* module;              // borrowed: the running function object holds it
  PyObject* globals;             // the module's dict, borrowed likewise
  PyObject* marker;              // the `_MARKER` pattern the module made at import, likewise
  PyObject* function = nullptr;  // the running function object, when a body runs in one
};

// A body gets exactly as many arguments as its definition names; it returns a new reference or
// null with an exception set.
using Body = Ref (*)(const Env& env, PyObject* const* args);

struct FunctionDef {
  const char* name;
  const char* doc;  // null: None, as for a def without a docstring
  int nparams;
  const char* params[2];
  const char* annotations[2];
  const char* returns;  // null: no return annotation
  Body body;
  const char* qualname = nullptr;  // null: the name
};

// Creates the function type for one module (called once per module execution).
Ref make_function_type(PyObject* module);
// Creates one function object bound to the module.
Ref make_function(PyObject* type, PyObject* module, PyObject* marker, const FunctionDef& def);

// A function nested in the running one: a new function object of the same module that holds one
// value, as a closure holds the variable it uses.
Ref make_closure(const Env& env, const FunctionDef& def, PyObject* value);
// The value the running closure holds (borrowed).
PyObject* closure_value(const Env& env);

// The function definition behind obj if it is one of this module's native functions, else null.
const FunctionDef* native_def(PyObject* obj);

// A module-level name, looked up now: the module's dict, then the built-ins; NameError if absent.
Ref lookup(const Env& env, Id id);

// Calls a module-level name with positional arguments. When the name still holds one of the
// module's native functions its body runs directly; anything else goes through the call protocol.
Ref call_global(const Env& env, Id id, std::initializer_list<PyObject*> args);
// The same for an object already looked up.
Ref call_found(PyObject* callable, std::initializer_list<PyObject*> args);

// Whether obj is the module's own function of that definition (so its native form may be used).
inline bool is_native(PyObject* obj, const FunctionDef& def) {
  return native_def(obj) == &def;
}

}  // namespace registry_docs
