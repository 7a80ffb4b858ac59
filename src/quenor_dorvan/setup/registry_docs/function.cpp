#include "function.h"

#include <structmember.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "compat.h"

namespace registry_docs {

namespace {

struct FunctionObject {
  PyObject ob_base;
  vectorcallfunc vectorcall;
  const FunctionDef* def;
  PyObject* module;
  PyObject* globals;
  PyObject* marker;
  PyObject* bound;  // a closure's value, or null
  PyObject* name;
  PyObject* qualname;
  PyObject* module_name;
  PyObject* doc;
  PyObject* annotations;
  PyObject* signature;
  PyObject* weakrefs;
};

int function_traverse(PyObject* self, visitproc visit, void* arg) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(f->module);
  Py_VISIT(f->globals);
  Py_VISIT(f->marker);
  Py_VISIT(f->bound);
  Py_VISIT(f->annotations);
  Py_VISIT(f->signature);
  return 0;
}

int function_clear(PyObject* self) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  Py_CLEAR(f->module);
  Py_CLEAR(f->globals);
  Py_CLEAR(f->marker);
  Py_CLEAR(f->bound);
  Py_CLEAR(f->annotations);
  Py_CLEAR(f->signature);
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
  return Env{f->module, f->globals, f->marker,
             reinterpret_cast<PyObject*>(const_cast<FunctionObject*>(f))};
}

Ref run_body(const FunctionObject* f, PyObject* const* args) {
  if (Py_EnterRecursiveCall(" while calling a Python object")) return Ref();
  Ref result = f->def->body(env_of(f), args);
  Py_LeaveRecursiveCall();
  return result;
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

// Binds positional and keyword arguments the way CPython binds a plain def with no defaults,
// with its error texts.
bool bind_arguments(const FunctionObject* f, PyObject* const* args, Py_ssize_t nargs,
                    PyObject* kwnames, PyObject** bound) {
  const FunctionDef& def = *f->def;
  PyObject* shown = compat::kArgumentErrorsUseQualname ? f->qualname : f->name;
  for (int i = 0; i < def.nparams; ++i) bound[i] = i < nargs ? args[i] : nullptr;
  Py_ssize_t nkw = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
  for (Py_ssize_t k = 0; k < nkw; ++k) {
    PyObject* key = PyTuple_GET_ITEM(kwnames, k);
    if (!PyUnicode_Check(key)) {
      PyErr_Format(PyExc_TypeError, "%U() keywords must be strings", shown);
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
      unexpected_keyword(shown, def, key);
      return false;
    }
    if (bound[slot]) {
      PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'", shown, key);
      return false;
    }
    bound[slot] = args[nargs + k];
  }
  if (nargs > def.nparams) {
    PyErr_Format(PyExc_TypeError, "%U() takes %d positional argument%s but %zd %s given", shown,
                 def.nparams, def.nparams == 1 ? "" : "s", nargs, nargs == 1 ? "was" : "were");
    return false;
  }
  int missing = 0;
  const char* names[2];
  for (int i = 0; i < def.nparams; ++i) {
    if (!bound[i]) names[missing++] = def.params[i];
  }
  if (missing == 1) {
    PyErr_Format(PyExc_TypeError, "%U() missing 1 required positional argument: '%s'", shown,
                 names[0]);
    return false;
  }
  if (missing == 2) {
    PyErr_Format(PyExc_TypeError, "%U() missing 2 required positional arguments: '%s' and '%s'",
                 shown, names[0], names[1]);
    return false;
  }
  return true;
}

PyObject* function_vectorcall(PyObject* self, PyObject* const* args, size_t nargsf,
                              PyObject* kwnames) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
  if (!kwnames && nargs == f->def->nparams) return run_body(f, args).release();
  PyObject* bound[2] = {nullptr, nullptr};
  if (!bind_arguments(f, args, nargs, kwnames, bound)) return nullptr;
  return run_body(f, bound).release();
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
PyObject* get_annotations(PyObject* self, void*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->annotations).release();
}
PyObject* get_globals(PyObject* self, void*) {
  return Ref::borrow(reinterpret_cast<FunctionObject*>(self)->globals).release();
}

// inspect.Signature with the annotation texts, built on first use.
PyObject* get_signature(PyObject* self, void*) {
  auto* f = reinterpret_cast<FunctionObject*>(self);
  if (f->signature) return Ref::borrow(f->signature).release();
  Ref inspect = Ref::steal(PyImport_ImportModule("inspect"));
  if (!inspect) return nullptr;
  Ref parameter = Ref::steal(PyObject_GetAttrString(inspect.get(), "Parameter"));
  Ref signature_type = Ref::steal(PyObject_GetAttrString(inspect.get(), "Signature"));
  if (!parameter || !signature_type) return nullptr;
  Ref kind = Ref::steal(PyObject_GetAttrString(parameter.get(), "POSITIONAL_OR_KEYWORD"));
  if (!kind) return nullptr;
  Ref params = Ref::steal(PyList_New(0));
  if (!params) return nullptr;
  for (int i = 0; i < f->def->nparams; ++i) {
    Ref param_name = Ref::steal(PyUnicode_FromString(f->def->params[i]));
    Ref annotation = Ref::steal(PyUnicode_FromString(f->def->annotations[i]));
    if (!param_name || !annotation) return nullptr;
    Ref args = Ref::steal(PyTuple_Pack(2, param_name.get(), kind.get()));
    Ref kwargs = Ref::steal(Py_BuildValue("{sO}", "annotation", annotation.get()));
    if (!args || !kwargs) return nullptr;
    Ref param = Ref::steal(PyObject_Call(parameter.get(), args.get(), kwargs.get()));
    if (!param || PyList_Append(params.get(), param.get()) < 0) return nullptr;
  }
  Ref args = Ref::steal(PyTuple_Pack(1, params.get()));
  Ref kwargs = Ref::steal(PyDict_New());
  if (!args || !kwargs) return nullptr;
  if (f->def->returns) {
    Ref returns = Ref::steal(PyUnicode_FromString(f->def->returns));
    if (!returns || PyDict_SetItemString(kwargs.get(), "return_annotation", returns.get()) < 0) {
      return nullptr;
    }
  }
  Ref signature = Ref::steal(PyObject_Call(signature_type.get(), args.get(), kwargs.get()));
  if (!signature) return nullptr;
  if (!f->signature) f->signature = Ref(signature).release();
  return signature.release();
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
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef function_members[] = {
    {"__vectorcalloffset__", T_PYSSIZET, offsetof(FunctionObject, vectorcall), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FunctionObject, weakrefs), READONLY, nullptr},
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

PyType_Spec function_spec = {
    "registry_docs.function",
    sizeof(FunctionObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
        Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    function_slots,
};

}  // namespace

Ref make_function_type(PyObject* module) {
  return Ref::steal(PyType_FromModuleAndSpec(module, &function_spec, nullptr));
}

namespace {

Ref new_function(PyObject* type, PyObject* module, PyObject* marker, const FunctionDef& def,
                 PyObject* bound) {
  Ref name = Ref::steal(PyUnicode_InternFromString(def.name));
  Ref qualname = Ref::steal(PyUnicode_InternFromString(def.qualname ? def.qualname : def.name));
  Ref module_name = Ref::steal(PyModule_GetNameObject(module));
  Ref doc = def.doc ? Ref::steal(PyUnicode_FromString(def.doc)) : Ref::borrow(Py_None);
  Ref annotations = Ref::steal(PyDict_New());
  if (!name || !qualname || !module_name || !doc || !annotations) return Ref();
  for (int i = 0; i < def.nparams; ++i) {
    Ref text = Ref::steal(PyUnicode_FromString(def.annotations[i]));
    if (!text || PyDict_SetItemString(annotations.get(), def.params[i], text.get()) < 0) {
      return Ref();
    }
  }
  if (def.returns) {
    Ref returns = Ref::steal(PyUnicode_FromString(def.returns));
    if (!returns || PyDict_SetItemString(annotations.get(), "return", returns.get()) < 0) {
      return Ref();
    }
  }

  auto* f = PyObject_GC_New(FunctionObject, reinterpret_cast<PyTypeObject*>(type));
  if (!f) return Ref();
  f->vectorcall = function_vectorcall;
  f->def = &def;
  f->module = Ref::borrow(module).release();
  f->globals = Ref::borrow(PyModule_GetDict(module)).release();
  f->marker = Ref::borrow(marker).release();
  f->bound = Ref::borrow(bound).release();
  f->name = name.release();
  f->qualname = qualname.release();
  f->module_name = module_name.release();
  f->doc = doc.release();
  f->annotations = annotations.release();
  f->signature = nullptr;
  f->weakrefs = nullptr;
  PyObject_GC_Track(reinterpret_cast<PyObject*>(f));
  return Ref::steal(reinterpret_cast<PyObject*>(f));
}

}  // namespace

Ref make_function(PyObject* type, PyObject* module, PyObject* marker, const FunctionDef& def) {
  return new_function(type, module, marker, def, nullptr);
}

Ref make_closure(const Env& env, const FunctionDef& def, PyObject* value) {
  PyObject* type = reinterpret_cast<PyObject*>(Py_TYPE(env.function));
  return new_function(type, env.module, env.marker, def, value);
}

PyObject* closure_value(const Env& env) {
  return reinterpret_cast<FunctionObject*>(env.function)->bound;
}

const FunctionDef* native_def(PyObject* obj) {
  if (Py_TYPE(obj)->tp_dealloc != function_dealloc) return nullptr;
  return reinterpret_cast<FunctionObject*>(obj)->def;
}

Ref lookup(const Env& env, Id id) {
  PyObject* key = name(id);
  PyObject* found = nullptr;
  int status = compat::dict_get_ref(env.globals, key, &found);
  if (status > 0) return Ref::steal(found);
  if (status < 0) return Ref();
  PyObject* builtins = PyEval_GetBuiltins();
  if (builtins) {
    status = compat::dict_get_ref(builtins, key, &found);
    if (status > 0) return Ref::steal(found);
    if (status < 0) return Ref();
  }
  // The interpreter names the missing global on the error (`name`), which tracebacks use.
  Ref message = Ref::steal(PyUnicode_FromFormat("name '%U' is not defined", key));
  if (!message) return Ref();
  Ref error = Ref::steal(PyObject_CallOneArg(PyExc_NameError, message.get()));
  if (!error || PyObject_SetAttr(error.get(), name(Id::name), key) < 0) return Ref();
  PyErr_SetObject(PyExc_NameError, error.get());
  return Ref();
}

Ref call_found(PyObject* callable, std::initializer_list<PyObject*> args) {
  if (Py_TYPE(callable)->tp_dealloc == function_dealloc) {
    auto* f = reinterpret_cast<FunctionObject*>(callable);
    if (static_cast<int>(args.size()) == f->def->nparams) return run_body(f, args.begin());
  }
  return call(callable, args);
}

Ref call_global(const Env& env, Id id, std::initializer_list<PyObject*> args) {
  Ref callable = lookup(env, id);
  if (!callable) return Ref();
  return call_found(callable.get(), args);
}

}  // namespace registry_docs
