// The module's native function type and the resolver through which every module-level name is
// found at each call.
#pragma once
#include "module_state.h"

namespace registry_docs {

// A body gets exactly as many arguments as its definition names (and a closure's values after
// them) and returns a new reference; it throws PythonError with the exception set.
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
// two values, as a closure holds the variables it uses. Its body gets them after its arguments.
Ref make_closure(const Env& env, const FunctionDef& def, std::initializer_list<PyObject*> held);

// Calls any callable with positional arguments; the module's own functions run their body directly.
Ref call_found(PyObject* callable, std::initializer_list<PyObject*> args);

// A module-level name as found at one moment. Looking it up is the first step of a call, as in
// Python: `lookup(env, Id::code)(text)` finds `_code` before it evaluates `text`.
class Global : public Ref {
 public:
  explicit Global(Ref value) : Ref(std::move(value)) {}
  // Whether it is still the module's own function of that definition.
  bool is(const FunctionDef& def) const;
  template <typename... Args>
  Ref operator()(const Args&... args) const {
    return call_found(get(), {ptr(args)...});
  }
};

// A module-level name, looked up now: the module's dict, then the built-ins; NameError if absent.
Global lookup(const Env& env, Id id);

}  // namespace registry_docs
