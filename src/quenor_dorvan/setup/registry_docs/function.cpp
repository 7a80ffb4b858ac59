#include "function.h"

#include <structmember.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>

#include "compat.h"
#include "module_state.h"

namespace registry_docs {

namespace {

struct FunctionObject {
  PyObject ob_base;
  vectorcallfunc vectorcall;
  const FunctionDef* def;
  PyObject* module;
  PyObject* globals;
  PyObject* state;     // the module's state object
  PyObject* bound[2];  // a closure's values, held inline: a tuple would add a tracked object
  PyObject* name;
  PyObject* qualname;
  PyObject* module_name;
  PyObject* doc;
  PyObject* annotations;
  PyObject* signature;
  PyObject* weakrefs;
  PyObject* dict;  // a caller's own attributes, made when first set
};

int function_traverse(PyObject* self, visitproc visit, void* arg) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(f->module);
  Py_VISIT(f->globals);
  Py_VISIT(f->state);
  Py_VISIT(f->bound[0]);
  Py_VISIT(f->bound[1]);
  Py_VISIT(f->annotations);
  Py_VISIT(f->signature);
  Py_VISIT(f->dict);
  return 0;
}

int function_clear(PyObject* self) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  Py_CLEAR(f->module);
  Py_CLEAR(f->globals);
  Py_CLEAR(f->state);
  Py_CLEAR(f->bound[0]);
  Py_CLEAR(f->bound[1]);
  Py_CLEAR(f->annotations);
  Py_CLEAR(f->signature);
  Py_CLEAR(f->dict);
  return 0;
}

void function_dealloc(PyObject* self) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  if (f->weakrefs) PyObject_ClearWeakRefs(self);
  function_clear(self);
  Py_CLEAR(f->name);
  Py_CLEAR(f->qualname);
  Py_CLEAR(f->module_name);
  Py_CLEAR(f->doc);
  PyObject_GC_Del(self);
  Py_DECREF(type);
}

inline Env env_of(const FunctionObject* f) {
  return Env{&state_of(f->state), f->module, f->globals};
}

// Leaves the interpreter's recursion depth as it found it, however the body ends.
class RecursionGuard {
 public:
  RecursionGuard() { check(Py_EnterRecursiveCall(" while calling a Python object") ? -1 : 0); }
  ~RecursionGuard() { Py_LeaveRecursiveCall(); }
  RecursionGuard(const RecursionGuard&) = delete;
  RecursionGuard& operator=(const RecursionGuard&) = delete;
};

Ref run_body(const FunctionObject* f, PyObject* const* args) {
  RecursionGuard guard;
  if (!f->bound[0]) return f->def->body(env_of(f), args);
  // A closure's body reads its values after its arguments.
  PyObject* all[4];
  std::copy_n(args, f->def->nparams, all);
  std::copy_n(f->bound, 2, all + f->def->nparams);
  return f->def->body(env_of(f), all);
}

// The interpreter's edit distance between two UTF-8 names: a case flip costs 1, any other edit 2;
// max_cost + 1 as soon as the distance is sure to exceed max_cost.
size_t edit_distance(const char* a, size_t a_size, const char* b, size_t b_size, size_t max_cost) {
  constexpr size_t kMove = 2, kCase = 1, kLongest = 40;
  while (a_size && b_size && a[0] == b[0]) ++a, ++b, --a_size, --b_size;
  while (a_size && b_size && a[a_size - 1] == b[b_size - 1]) --a_size, --b_size;
  if (a_size == 0 || b_size == 0) return (a_size + b_size) * kMove;
  if (a_size > kLongest || b_size > kLongest) return max_cost + 1;
  if (b_size < a_size) std::swap(a, b), std::swap(a_size, b_size);
  if ((b_size - a_size) * kMove > max_cost) return max_cost + 1;
  auto substitution = [](char x, char y) -> size_t {
    if ((x & 31) != (y & 31)) return kMove;
    if (x == y) return 0;
    if ('A' <= x && x <= 'Z') x = static_cast<char>(x + ('a' - 'A'));
    if ('A' <= y && y <= 'Z') y = static_cast<char>(y + ('a' - 'A'));
    return x == y ? kCase : kMove;
  };
  size_t row[kLongest];
  for (size_t i = 0; i < a_size; ++i) row[i] = (i + 1) * kMove;
  size_t result = 0;
  for (size_t j = 0; j < b_size; ++j) {
    size_t distance = result = j * kMove;
    size_t minimum = SIZE_MAX;
    for (size_t i = 0; i < a_size; ++i) {
      size_t substitute = distance + substitution(b[j], a[i]);
      distance = row[i];
      result = std::min(std::min(result, distance) + kMove, substitute);
      row[i] = result;
      minimum = std::min(minimum, result);
    }
    if (minimum > max_cost) return max_cost + 1;
  }
  return result;
}

// The parameter the interpreter suggests for a misspelt keyword, or null.
const char* suggested_param(const FunctionDef& def, PyObject* key) {
  Py_ssize_t key_size = 0;
  const char* key_text = PyUnicode_AsUTF8AndSize(key, &key_size);
  if (!key_text) {
    PyErr_Clear();
    return nullptr;
  }
  const char* best = nullptr;
  size_t best_distance = SIZE_MAX;
  for (int i = 0; i < def.nparams; ++i) {
    const char* param = def.params[i];
    size_t param_size = strlen(param);
    if (static_cast<size_t>(key_size) == param_size && memcmp(key_text, param, param_size) == 0) {
      continue;
    }
    size_t max_distance = (static_cast<size_t>(key_size) + param_size + 3) * 2 / 6;
    if (best) max_distance = std::min(max_distance, best_distance - 1);
    size_t distance =
        edit_distance(key_text, static_cast<size_t>(key_size), param, param_size, max_distance);
    if (distance > max_distance) continue;
    if (!best || distance < best_distance) {
      best = param;
      best_distance = distance;
    }
  }
  return best;
}

// The error for a keyword that names no parameter; from 3.13 the interpreter suggests a close one.
void unexpected_keyword(PyObject* function_name, const FunctionDef& def, PyObject* key) {
  if (compat::kSuggestsKeywords) {
    if (const char* suggestion = suggested_param(def, key)) {
      PyErr_Format(PyExc_TypeError,
                   "%U() got an unexpected keyword argument '%S'. Did you mean '%s'?",
                   function_name, key, suggestion);
      return;
    }
  }
  PyErr_Format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", function_name, key);
}

// Binds the keywords after the positional arguments, in the order given; false with the error
// set at the first keyword that names no parameter, or one already bound.
bool bind_keywords(const FunctionObject* f, PyObject* const* values, PyObject* kwnames,
                   PyObject** bound) {
  const FunctionDef& def = *f->def;
  for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(kwnames); ++k) {
    PyObject* key = PyTuple_GET_ITEM(kwnames, k);
    if (!PyUnicode_Check(key)) {
      PyErr_Format(PyExc_TypeError, "%U() keywords must be strings", f->qualname);
      return false;
    }
    int slot = -1;
    for (int i = 0; i < def.nparams; ++i) {
      if (PyUnicode_CompareWithASCIIString(key, def.params[i]) == 0) {
        slot = i;
        break;
      }
    }
    if (slot < 0) {
      unexpected_keyword(f->qualname, def, key);
      return false;
    }
    if (bound[slot]) {
      PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'", f->qualname, key);
      return false;
    }
    bound[slot] = values[k];
  }
  return true;
}

// False with the error set when a parameter is left without a value.
bool all_bound(const FunctionObject* f, PyObject* const* bound) {
  const FunctionDef& def = *f->def;
  int missing = 0;
  const char* names[2];
  for (int i = 0; i < def.nparams; ++i) {
    if (!bound[i]) names[missing++] = def.params[i];
  }
  if (missing == 1) {
    PyErr_Format(PyExc_TypeError, "%U() missing 1 required positional argument: '%s'", f->qualname,
                 names[0]);
    return false;
  }
  if (missing == 2) {
    PyErr_Format(PyExc_TypeError, "%U() missing 2 required positional arguments: '%s' and '%s'",
                 f->qualname, names[0], names[1]);
    return false;
  }
  return true;
}

// Binds positional and keyword arguments the way CPython binds a plain def with no defaults,
// with its error texts, which name the function by its qualified name as a def's do. Keyword
// errors come before a count of positional arguments that is too high, as the interpreter's do.
bool bind_arguments(const FunctionObject* f, PyObject* const* args, Py_ssize_t nargs,
                    PyObject* kwnames, PyObject** bound) {
  const FunctionDef& def = *f->def;
  for (int i = 0; i < def.nparams; ++i) bound[i] = i < nargs ? args[i] : nullptr;
  if (kwnames && !bind_keywords(f, args + nargs, kwnames, bound)) return false;
  if (nargs > def.nparams) {
    PyErr_Format(PyExc_TypeError, "%U() takes %d positional argument%s but %zd %s given",
                 f->qualname, def.nparams, def.nparams == 1 ? "" : "s", nargs,
                 nargs == 1 ? "was" : "were");
    return false;
  }
  return all_bound(f, bound);
}

PyObject* function_vectorcall(PyObject* self, PyObject* const* args, size_t nargsf,
                              PyObject* kwnames) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
  PyObject* bound[2] = {nullptr, nullptr};
  if (kwnames || nargs != f->def->nparams) {
    if (!bind_arguments(f, args, nargs, kwnames, bound)) return nullptr;
    args = bound;
  }
  // The boundary of the error channel: a body throws, its caller gets null.
  return guarded([&] { return run_body(f, args).release(); }, static_cast<PyObject*>(nullptr));
}

PyObject* function_repr(PyObject* self) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  return PyUnicode_FromFormat("<function %U at %p>", f->qualname, self);
}

PyObject* get_name(PyObject* self, void*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->name).release();
}
PyObject* get_qualname(PyObject* self, void*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->qualname).release();
}
PyObject* get_module(PyObject* self, void*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->module_name).release();
}
PyObject* get_doc(PyObject* self, void*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->doc).release();
}
// The annotation texts by parameter name, and the return's.
Ref build_annotations(const FunctionDef& def) {
  Ref annotations = own(PyDict_New());
  for (int i = 0; i < def.nparams; ++i) {
    if (!def.annotations[i]) continue;  // a parameter written without one
    check(PyDict_SetItemString(annotations.get(), def.params[i], text(def.annotations[i]).get()));
  }
  if (def.returns) {
    check(PyDict_SetItemString(annotations.get(), "return", text(def.returns).get()));
  }
  return annotations;
}

// A field made from the definition when first read, and kept.
PyObject* made_on_first_use(PyObject*& field, const FunctionDef& def,
                            Ref (*build)(const FunctionDef&)) {
  return guarded(
      [&] {
        if (!field) field = build(def).release();
        return Ref::borrow(field).release();
      },
      static_cast<PyObject*>(nullptr));
}

// Made on first use, as a def's own dict is: most closures are never asked.
PyObject* get_annotations(PyObject* self, void*) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  return made_on_first_use(f->annotations, *f->def, build_annotations);
}
PyObject* get_globals(PyObject* self, void*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->globals).release();
}

// inspect.Signature with the annotation texts, built on first use.
Ref build_signature(const FunctionDef& def) {
  Ref inspect = own(PyImport_ImportModule("inspect"));
  Ref parameter = own(PyObject_GetAttrString(inspect.get(), "Parameter"));
  Ref signature_type = own(PyObject_GetAttrString(inspect.get(), "Signature"));
  Ref kind = own(PyObject_GetAttrString(parameter.get(), "POSITIONAL_OR_KEYWORD"));
  Ref params = own(PyList_New(0));
  for (int i = 0; i < def.nparams; ++i) {
    Ref args = own(Py_BuildValue("(sO)", def.params[i], kind.get()));
    Ref kwargs = def.annotations[i] ? own(Py_BuildValue("{ss}", "annotation", def.annotations[i]))
                                    : own(PyDict_New());
    check(PyList_Append(params.get(),
                        own(PyObject_Call(parameter.get(), args.get(), kwargs.get())).get()));
  }
  Ref args = own(PyTuple_Pack(1, params.get()));
  Ref kwargs = own(PyDict_New());
  if (def.returns) {
    check(PyDict_SetItemString(kwargs.get(), "return_annotation", text(def.returns).get()));
  }
  return own(PyObject_Call(signature_type.get(), args.get(), kwargs.get()));
}

PyObject* get_signature(PyObject* self, void*) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  return made_on_first_use(f->signature, *f->def, build_signature);
}

PyObject* get_no_defaults(PyObject*, void*) {
  return Ref::borrow(Py_None).release();
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
  if (!obj || obj == Py_None) return Ref::borrow(self).release();
  return PyMethod_New(self, obj);
}

// Pickled, copied and deep-copied by reference to the module attribute, as a def is.
PyObject* function_reduce(PyObject* self, PyObject*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->name).release();
}

PyMethodDef function_methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef function_getset[] = {
    {"__name__", get_name, nullptr, nullptr, nullptr},
    {"__qualname__", get_qualname, nullptr, nullptr, nullptr},
    {"__module__", get_module, nullptr, nullptr, nullptr},
    {"__doc__", get_doc, nullptr, nullptr, nullptr},
    {"__annotations__", get_annotations, nullptr, nullptr, nullptr},
    {"__globals__", get_globals, nullptr, nullptr, nullptr},
    {"__signature__", get_signature, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {"__defaults__", get_no_defaults, set_no_defaults, nullptr, nullptr},
    {"__kwdefaults__", get_no_defaults, set_no_defaults, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef function_members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FunctionObject, vectorcall), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FunctionObject, weakrefs), READONLY, nullptr},
    {"__dictoffset__", T_PYSSIZET, offsetof(FunctionObject, dict), READONLY, nullptr},
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

}  // namespace

PyType_Spec function_type_spec = {
    "registry_docs.function",
    sizeof(FunctionObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
        Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    function_slots,
};

namespace {

Ref new_function(const State& state, PyObject* module, const FunctionDef& def,
                 std::initializer_list<PyObject*> bound) {
  Ref name = Ref::borrow(state.function_name(def.name));
  Ref qualname = Ref::borrow(state.function_name(def.qualname ? def.qualname : def.name));
  Ref module_name = own(PyModule_GetNameObject(module));
  Ref doc = def.doc ? text(def.doc) : Ref::borrow(Py_None);

  auto* type = reinterpret_cast<PyTypeObject*>(state.function_type.get());
  Ref self = own(reinterpret_cast<PyObject*>(PyObject_GC_New(FunctionObject, type)));
  auto* f = reinterpret_cast<FunctionObject*>(self.get());
  f->vectorcall = function_vectorcall;
  f->def = &def;
  f->module = Ref::borrow(module).release();
  f->globals = Ref::borrow(PyModule_GetDict(module)).release();
  f->state = Ref::borrow(state.object).release();
  f->bound[0] = f->bound[1] = nullptr;
  PyObject** slot = f->bound;
  for (PyObject* value : bound) *slot++ = Ref::borrow(value).release();
  f->name = name.release();
  f->qualname = qualname.release();
  f->module_name = module_name.release();
  f->doc = doc.release();
  f->annotations = nullptr;
  f->signature = nullptr;
  f->weakrefs = nullptr;
  f->dict = nullptr;
  PyObject_GC_Track(self.get());
  return self;
}

// The function object behind obj if it is one of the module's native functions, else null.
const FunctionObject* native(PyObject* obj) {
  if (Py_TYPE(obj)->tp_dealloc != function_dealloc) return nullptr;
  return reinterpret_cast<const FunctionObject*>(obj);
}

}  // namespace

Ref make_function(const State& state, PyObject* module, const FunctionDef& def) {
  return new_function(state, module, def, {});
}

Ref make_closure(const Env& env, const FunctionDef& def, std::initializer_list<PyObject*> held) {
  return new_function(*env.state, env.module, def, held);
}

bool Global::is(const FunctionDef& def) const {
  const FunctionObject* f = native(get());
  return f && f->def == &def;
}

Global lookup(const Env& env, Id id) {
  PyObject* key = env.name(id);
  PyObject* found = nullptr;
  if (check(compat::dict_get_ref(env.globals, key, &found))) return Global(Ref::steal(found));
  if (PyObject* builtins = PyEval_GetBuiltins()) {
    if (check(compat::dict_get_ref(builtins, key, &found))) return Global(Ref::steal(found));
  }
  // The interpreter names the missing global on the error (`name`), which tracebacks use.
  Ref message = own(PyUnicode_FromFormat("name '%U' is not defined", key));
  Ref error = own(PyObject_CallOneArg(PyExc_NameError, message.get()));
  check(PyObject_SetAttr(error.get(), env.name(Id::name), key));
  PyErr_SetObject(PyExc_NameError, error.get());
  raise();
}

Ref call_found(PyObject* callable, std::initializer_list<PyObject*> args) {
  const FunctionObject* f = native(callable);
  if (f && static_cast<int>(args.size()) == f->def->nparams) return run_body(f, args.begin());
  return call(callable, args);
}

}  // namespace registry_docs
