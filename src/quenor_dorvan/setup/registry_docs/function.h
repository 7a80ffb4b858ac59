// The module's native function type and the resolver through which every module-level name is
// found at each call.
#pragma once
#include "module_state.h"

namespace registry_docs {

// A body gets exactly as many arguments as its definition names and returns a new reference; it
// throws PythonError with the exception set.
using Body = Ref (*)(const Env& env, PyObject* const* args);

struct FunctionDef {
  const char* name;
  const char* doc;  // null: None, as for a def without a docstring
  int nparams;
  const char* params[2];
  const char* annotations[2];  // null: the parameter has none
  const char* returns;         // null: no return annotation
  Body body;
  const char* qualname = nullptr;  // null: the name
};

// How the function type is made (once per module, into its state).
extern PyType_Spec function_type_spec;

// Creates one function object of the module.
Ref make_function(const State& state, PyObject* module, const FunctionDef& def);

// A function nested in the running one: a new function object of the same module that holds up to
// two values, as a closure holds the variables it uses.
Ref make_closure(const Env& env, const FunctionDef& def, std::initializer_list<PyObject*> values);
// The values that the running closure holds, in the order given (borrowed).
PyObject* const* closure_values(const Env& env);

// Whether obj is the module's own function of that definition (so its native form may be used).
bool is_native(PyObject* obj, const FunctionDef& def);

// A module-level name, looked up now: the module's dict, then the built-ins; NameError if absent.
Ref lookup(const Env& env, Id id);

// Calls a module-level name with positional arguments. When the name still holds one of the
// module's native functions its body runs directly; anything else goes through the call protocol.
Ref call_global(const Env& env, Id id, std::initializer_list<PyObject*> args);
// The same with the arguments listed plainly (usable inside a `co_yield` expression, which GCC 12
// does not compile with a braced list in it).
template <typename... Args>
Ref call_global(const Env& env, Id id, Args*... args) {
  return call_global(env, id, std::initializer_list<PyObject*>{args...});
}
// The same for an object already looked up.
Ref call_found(PyObject* callable, std::initializer_list<PyObject*> args);

// `fn(record.field)`: the name is looked up before the field is read, as Python evaluates a call.
inline Ref call_on_field(const Env& env, Id fn, PyObject* record, Id field) {
  Ref callee = lookup(env, fn);
  Ref value = env.attr(record, field);
  return call_found(callee.get(), {value.get()});
}

}  // namespace registry_docs
