#include "function.h"

#include <structmember.h>

#include <algorithm>
#include <new>
#include <string>
#include <string_view>

#include "compat.h"
#include "module_state.h"

namespace registry_docs {

namespace {

// What a function object holds, every reference with its owner: those the collector may clear,
// and apart from them those that stay until the object goes (its repr and reduce read them).
struct Held {
  Ref module, globals;
  Ref state;                           // the module's state object
  Ref builtins;                        // taken when made, as a def takes them
  Ref bound[FunctionDef::kMaxValues];  // a closure's values, inline until a caller asks for cells
  Ref closure;                         // the cells, once asked for: they then hold the values
  Ref binder;                          // a def of the same signature, made when first needed
  Ref dict;  // a caller's own attributes, made when first set (the interpreter's slot)
};

struct Fields {
  const FunctionDef* def;
  Ref name, qualname, module_name, doc;  // its `__name__`, `__qualname__`, `__module__`, `__doc__`
  Held held;
};

struct FunctionObject {
  PyObject ob_base;
  vectorcallfunc vectorcall;
  PyObject* weakrefs;  // the interpreter's list of weak references, not a reference
  Fields f;
};

Fields& fields_of(PyObject* self) {
  return reinterpret_cast<FunctionObject*>(self)->f;
}
const Fields& fields_of(const PyObject* self) {
  return reinterpret_cast<const FunctionObject*>(self)->f;
}

int function_traverse(PyObject* self, visitproc visit, void* arg) {
  const Held& held = fields_of(self).held;
  Py_VISIT(Py_TYPE(self));
  static_assert(FunctionDef::kMaxValues == 2, "every bound value is visited");
  for (const Ref* ref : {&held.module, &held.globals, &held.state, &held.builtins, &held.bound[0],
                         &held.bound[1], &held.closure, &held.binder, &held.dict}) {
    Py_VISIT(ref->get());
  }
  return 0;
}

int function_clear(PyObject* self) {
  Held gone = std::move(fields_of(self).held);  // each field null before its old value goes
  return 0;
}

void function_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  if (reinterpret_cast<FunctionObject*>(self)->weakrefs) PyObject_ClearWeakRefs(self);
  fields_of(self).~Fields();
  PyObject_GC_Del(self);
  Py_DECREF(type);
}

Env env_of(const PyObject* self) {
  const Held& held = fields_of(self).held;
  return Env{&state_of(held.state.get()), held.module.get(), held.globals.get(),
             held.builtins.get(), self};
}

// Leaves the interpreter's recursion depth as it found it, however the body ends.
class RecursionGuard {
 public:
  RecursionGuard() { check(Py_EnterRecursiveCall(" while calling a Python object") ? -1 : 0); }
  ~RecursionGuard() { Py_LeaveRecursiveCall(); }
  RecursionGuard(const RecursionGuard&) = delete;
  RecursionGuard& operator=(const RecursionGuard&) = delete;
};

Ref run_body(const PyObject* self, PyObject* const* args) {
  RecursionGuard guard;
  const Fields& f = fields_of(self);
  if (!f.def->nfree) return f.def->body(env_of(self), args);
  // A closure's body reads its values after its arguments.
  PyObject* all[2 * FunctionDef::kMaxValues];
  std::copy_n(args, f.def->nparams, all);
  for (int i = 0; i < f.def->nfree; ++i) all[f.def->nparams + i] = f.held.bound[i].get();
  return f.def->body(env_of(self), all);
}

// The source of a def with the function's parameters, annotation texts and qualified name, that
// returns its arguments bound: `def NAME(tool: ToolSpec) -> str: return (tool,)` (compiled with
// annotations postponed), inside its enclosing def when it is a nested one, where it reads the
// free variables its function holds, so that its code names them as the function's.
std::string binder_source(const FunctionDef& def) {
  std::string params, values;
  for (int i = 0; i < def.nparams; ++i) {
    params += std::string(i ? ", " : "") + def.params[i].name;
    if (def.params[i].annotation) params += std::string(": ") + def.params[i].annotation;
    values += std::string(def.params[i].name) + ", ";
  }
  std::string returns = def.returns ? std::string(" -> ") + def.returns : "";
  std::string freevars, assigned;
  for (int i = 0; i < def.nfree; ++i) {
    freevars += std::string(i ? ", " : "") + def.freevars[i];
    assigned += std::string(def.freevars[i]) + " = ";
  }
  std::string line = std::string("def ") + def.name + "(" + params + ")" + returns + ": " +
                     (def.nfree ? freevars + "; " : "") + "return (" + values + ")\n";
  std::string_view qualname = def.qualname ? def.qualname : def.name;
  size_t nested = qualname.find(".<locals>.");
  if (nested == std::string_view::npos) return line + "binder = " + def.name + "\n";
  std::string outer(qualname.substr(0, nested));
  if (def.nfree) assigned = "    " + assigned + "None\n";
  return "def " + outer + "():\n" + assigned + "    " + line + "    return " + def.name +
         "\nbinder = " + outer + "()\n";
}

// The def that stands for the function wherever a def's own behaviour is the answer: binding
// arguments other than plain positional ones, with the interpreter's own errors, the annotations
// and signature it shows, and its code, which names the module's file as a def's does.
PyObject* binder_of(Fields& f) {
  if (!f.held.binder) {
    PyCompilerFlags flags = {CO_FUTURE_ANNOTATIONS, PY_MINOR_VERSION};
    Ref code = own(Py_CompileStringObject(binder_source(*f.def).c_str(),
                                          state_of(f.held.state.get()).file.get(), Py_file_input,
                                          &flags, -1));
    Ref globals = own(Py_BuildValue("{sO}", "__builtins__", PyEval_GetBuiltins()));
    own(PyEval_EvalCode(code.get(), globals.get(), globals.get()));
    f.held.binder = subscript(globals.get(), text("binder").get());
  }
  return f.held.binder.get();
}

PyObject* function_vectorcall(PyObject* self, PyObject* const* args, size_t nargsf,
                              PyObject* kwnames) {
  Fields& f = fields_of(self);
  // The boundary of the error channel: a body throws, its caller gets null.
  return guarded(
      [&] {
        if (!kwnames && PyVectorcall_NARGS(nargsf) == f.def->nparams) {
          return run_body(self, args).release();
        }
        Ref bound = own(PyObject_Vectorcall(binder_of(f), args, nargsf, kwnames));
        return run_body(self, PySequence_Fast_ITEMS(bound.get())).release();
      },
      static_cast<PyObject*>(nullptr));
}

PyObject* function_repr(PyObject* self) {
  return PyUnicode_FromFormat("<function %U at %p>", fields_of(self).qualname.get(), self);
}

// The binder's own attribute named by the closure (`__annotations__`, `__code__`), the binder made
// on first use, as a def's own dict is: most closures are never asked.
PyObject* get_from_binder(PyObject* self, void* name) {
  return guarded(
      [&] {
        PyObject* binder = binder_of(fields_of(self));
        return getattr(binder, text(static_cast<const char*>(name)).get()).release();
      },
      static_cast<PyObject*>(nullptr));
}

// None for a function that holds nothing. Else a cell per free variable, made once and kept, as a
// def's are; the cells then hold the values, so that a write to one is what the next call reads.
PyObject* get_closure(PyObject* self, void*) {
  Fields& f = fields_of(self);
  if (!f.def->nfree) return Py_NewRef(Py_None);
  return guarded(
      [&] {
        if (!f.held.closure) {
          Ref cells = own(PyTuple_New(f.def->nfree));
          for (int i = 0; i < f.def->nfree; ++i) {
            PyTuple_SET_ITEM(cells.get(), i, own(PyCell_New(f.held.bound[i].get())).release());
          }
          f.held.closure = std::move(cells);
          for (Ref& value : f.held.bound) value = Ref();
        }
        return Py_NewRef(f.held.closure.get());
      },
      static_cast<PyObject*>(nullptr));
}

// What isinstance and inspect take it for: a function (`inspect.getclosurevars` accepts nothing
// else), while its type stays this one.
PyObject* get_class(PyObject*, void*) {
  return Py_NewRef(reinterpret_cast<PyObject*>(&PyFunction_Type));
}

PyObject* get_no_defaults(PyObject*, void*) {
  return Py_NewRef(Py_None);
}

// The functions take no defaults. None, which they hold, may be assigned, and the attribute
// deleted, which a def reads back as None; any other value would go unused, so it is refused.
int set_no_defaults(PyObject*, PyObject* value, void*) {
  if (!value || value == Py_None) return 0;
  PyErr_SetString(PyExc_TypeError,
                  "registry_docs.function takes no defaults; only None can be assigned");
  return -1;
}

// Bound to an instance when read through a class, as a def is.
PyObject* function_descr_get(PyObject* self, PyObject* obj, PyObject*) {
  if (!obj || obj == Py_None) return Py_NewRef(self);
  return PyMethod_New(self, obj);
}

// Pickled, copied and deep-copied by reference to the module attribute, as a def is.
PyObject* function_reduce(PyObject* self, PyObject*) {
  return Py_NewRef(fields_of(self).name.get());
}

PyMethodDef function_methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef function_getset[] = {
    {"__annotations__", get_from_binder, nullptr, nullptr, const_cast<char*>("__annotations__")},
    {"__code__", get_from_binder, nullptr, nullptr, const_cast<char*>("__code__")},
    {"__closure__", get_closure, nullptr, nullptr, nullptr},
    {"__class__", get_class, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {"__defaults__", get_no_defaults, set_no_defaults, nullptr, nullptr},
    {"__kwdefaults__", get_no_defaults, set_no_defaults, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

// Read-only members, as the interpreter's own function type declares them.
PyMemberDef function_members[] = {
    {"__name__", T_OBJECT, offsetof(FunctionObject, f.name), READONLY, nullptr},
    {"__qualname__", T_OBJECT, offsetof(FunctionObject, f.qualname), READONLY, nullptr},
    {"__module__", T_OBJECT, offsetof(FunctionObject, f.module_name), READONLY, nullptr},
    {"__doc__", T_OBJECT, offsetof(FunctionObject, f.doc), READONLY, nullptr},
    {"__globals__", T_OBJECT, offsetof(FunctionObject, f.held.globals), READONLY, nullptr},
    {"__builtins__", T_OBJECT, offsetof(FunctionObject, f.held.builtins), READONLY, nullptr},
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FunctionObject, vectorcall), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FunctionObject, weakrefs), READONLY, nullptr},
    {"__dictoffset__", T_PYSSIZET, offsetof(FunctionObject, f.held.dict), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot function_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_repr, reinterpret_cast<void*>(function_repr)},
    {Py_tp_getset, function_getset},
    {Py_tp_members, function_members},
    {Py_tp_descr_get, reinterpret_cast<void*>(function_descr_get)},
    {Py_tp_methods, function_methods},
    {0, nullptr},
};

// The built-ins a def takes when it is made: its globals' `__builtins__` (a module stands for its
// dict), else those of the code that makes it.
Ref builtins_for(const State& state, PyObject* globals, PyObject* running) {
  PyObject* found = nullptr;
  if (check(compat::dict_get_ref(globals, state.name(Id::builtins), &found))) {
    Ref builtins = Ref::steal(found);
    if (PyModule_Check(builtins.get())) return Ref::borrow(PyModule_GetDict(builtins.get()));
    return builtins;
  }
  if (!running) {
    PyErr_SetString(PyExc_SystemError, "no built-ins to give a function");
    raise();
  }
  return Ref::borrow(running);
}

Ref new_function(const State& state, PyObject* module, const FunctionDef& def,
                 std::initializer_list<PyObject*> bound, PyObject* running_builtins) {
  PyObject* globals = PyModule_GetDict(module);
  Ref builtins = builtins_for(state, globals, running_builtins);
  Ref name = Ref::borrow(state.constant(def.name));
  Ref qualname = Ref::borrow(state.constant(def.qualname ? def.qualname : def.name));
  Ref module_name = own(PyModule_GetNameObject(module));
  Ref doc = def.doc ? text(def.doc) : Ref::borrow(Py_None);

  auto* type = reinterpret_cast<PyTypeObject*>(state.function_type.get());
  auto* object = PyObject_GC_New(FunctionObject, type);
  if (!object) raise();
  object->vectorcall = function_vectorcall;
  object->weakrefs = nullptr;
  new (&object->f) Fields{&def,
                          std::move(name),
                          std::move(qualname),
                          std::move(module_name),
                          std::move(doc),
                          Held{.module = Ref::borrow(module),
                               .globals = Ref::borrow(globals),
                               .state = Ref::borrow(state.object),
                               .builtins = std::move(builtins)}};
  Ref* slot = object->f.held.bound;
  for (PyObject* value : bound) *slot++ = Ref::borrow(value);
  Ref self = Ref::steal(reinterpret_cast<PyObject*>(object));
  PyObject_GC_Track(self.get());
  return self;
}

// The function object behind obj if it is one of the module's native functions, else null.
const Fields* native(PyObject* obj) {
  if (Py_TYPE(obj)->tp_dealloc != function_dealloc) return nullptr;
  return &fields_of(obj);
}

// The interpreter names the missing variable on the error (`name`), which tracebacks use.
[[noreturn]] void raise_name_error(const State& state, const char* format, PyObject* key) {
  Ref message = own(PyUnicode_FromFormat(format, key));
  Ref error = own(PyObject_CallOneArg(PyExc_NameError, message.get()));
  check(PyObject_SetAttr(error.get(), state.name(Id::name), key));
  PyErr_SetObject(PyExc_NameError, error.get());
  raise();
}

// A def's read of a built-in: a plain dict directly, anything else through its own `[]`.
bool builtin(PyObject* builtins, PyObject* key, PyObject** found) {
  if (PyDict_CheckExact(builtins)) return check(compat::dict_get_ref(builtins, key, found)) != 0;
  *found = PyObject_GetItem(builtins, key);
  if (*found) return true;
  if (!PyErr_ExceptionMatches(PyExc_KeyError)) raise();
  PyErr_Clear();
  return false;
}

}  // namespace

PyType_Spec function_type_spec = {
    "registry_docs.function",
    sizeof(FunctionObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
        Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    function_slots,
};

Ref make_function(const State& state, PyObject* module, const FunctionDef& def) {
  return new_function(state, module, def, {}, PyEval_GetBuiltins());
}

Ref make_closure(const Env& env, const FunctionDef& def, std::initializer_list<PyObject*> held) {
  if (static_cast<int>(held.size()) != def.nfree) {
    PyErr_SetString(PyExc_SystemError, "a closure made with other values than it names");
    raise();
  }
  return new_function(*env.state, env.module, def, held, env.builtins);
}

bool Global::is(const FunctionDef& def) const {
  const Fields* f = native(get());
  return f && f->def == &def;
}

Ref captured(const Env& env, PyObject* const* held, int i) {
  const Fields* f = env.function ? &fields_of(env.function) : nullptr;
  if (!f || !f->held.closure) return Ref::borrow(held[i]);
  Ref value = Ref::steal(PyCell_Get(PyTuple_GET_ITEM(f->held.closure.get(), i)));
  if (!value) {
    raise_name_error(*env.state, compat::kEmptyFreeVariable, text(f->def->freevars[i]).get());
  }
  return value;
}

Global lookup(const Env& env, Id id) {
  PyObject* key = env.name(id);
  PyObject* found = nullptr;
  if (check(compat::dict_get_ref(env.globals, key, &found))) return Global(Ref::steal(found));
  if (builtin(env.builtins, key, &found)) return Global(Ref::steal(found));
  raise_name_error(*env.state, "name '%U' is not defined", key);
}

Ref call_vector(PyObject* callable, PyObject* const* args, size_t nargs) {
  const Fields* f = native(callable);
  if (f && static_cast<int>(nargs) == f->def->nparams) return run_body(callable, args);
  return own(PyObject_Vectorcall(callable, args, nargs | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

}  // namespace registry_docs
