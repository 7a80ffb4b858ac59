// The module's native function type and the resolver through which every module-level name is
// found at each call.
#pragma once
#include <algorithm>

#include "module_state.h"

namespace registry_docs {

// A body gets exactly as many arguments as its definition names (and a closure's values after
// them, read through `captured`) and returns a new reference; it throws PythonError with the
// exception set.
using Body = Ref (*)(const Env& env, PyObject* const* args);

// A parameter: its name and its annotation text (null: none).
struct Param {
  const char* name;
  const char* annotation;
};

struct FunctionDef {
  // At most this many parameters, and as many free variables: a body gets both in one array.
  static constexpr int kMaxValues = 2;
  // Made while compiling: a definition with more values than that does not compile.
  consteval FunctionDef(const char* name_, const char* doc_, Body body_,
                        std::initializer_list<Param> params_, const char* returns_,
                        const char* qualname_ = nullptr,
                        std::initializer_list<const char*> freevars_ = {})
      : name(name_),
        doc(doc_),
        nparams(static_cast<int>(params_.size())),
        returns(returns_),
        body(body_),
        qualname(qualname_),
        nfree(static_cast<int>(freevars_.size())) {
    if (nparams > kMaxValues || nfree > kMaxValues) throw "too many parameters or free variables";
    std::copy(params_.begin(), params_.end(), params);
    std::copy(freevars_.begin(), freevars_.end(), freevars);
  }
  const char* name;
  const char* doc;  // null: None, as for a def without a docstring
  int nparams;
  Param params[kMaxValues] = {};
  const char* returns;  // null: no return annotation
  Body body;
  const char* qualname;  // null: the name
  // A nested function's free variables, in the order of its code's `co_freevars` (by name, as the
  // compiler orders them): the values it holds, in that order.
  int nfree;
  const char* freevars[kMaxValues] = {};
};

// How the function type is made (once per module, into its state).
extern PyType_Spec function_type_spec;

// Creates one function object of the module.
Ref make_function(const State& state, PyObject* module, const FunctionDef& def);

// A function nested in the running one: a new function object of the same module that holds the
// values of its definition's free variables, as a closure does. Its body gets them after its
// arguments.
Ref make_closure(const Env& env, const FunctionDef& def, std::initializer_list<PyObject*> held);

// Free variable `i` of the running body, read where a def's body reads it: once a caller has the
// function's cells (`__closure__`), from its cell, so that a write to one is seen and an emptied
// one raises as a def's read does; until then, and on the native path, the value held.
Ref captured(const Env& env, PyObject* const* held, int i);

// Calls any callable with positional arguments, in an array with a slot before it; the module's own
// functions run their body directly.
Ref call_vector(PyObject* callable, PyObject* const* args, size_t nargs);
// The same for arguments given one by one.
template <typename... Args>
Ref call_found(PyObject* callable, Args... args) {
  PyObject* stack[] = {nullptr, args...};
  return call_vector(callable, stack + 1, sizeof...(Args));
}

// A module-level name as found at one moment. Looking it up is the first step of a call, as in
// Python: `lookup(env, Id::code)(text)` finds `_code` before it evaluates `text`.
class Global : public Ref {
 public:
  explicit Global(Ref value) : Ref(std::move(value)) {}
  // Whether it is still the module's own function of that definition.
  bool is(const FunctionDef& def) const;
  template <typename... Args>
  Ref operator()(const Args&... args) const {
    return call_found(get(), Obj(args).get()...);
  }
};

// A module-level name, looked up now: the module's dict, then the built-ins; NameError if absent.
Global lookup(const Env& env, Id id);

}  // namespace registry_docs
