#include "module_state.h"

#include <new>

namespace registry_docs {

namespace {

const char* const kNameTexts[] = {
#define REGISTRY_DOCS_TEXT(id, text) text,
    REGISTRY_DOCS_NAMES(REGISTRY_DOCS_TEXT)
#undef REGISTRY_DOCS_TEXT
};

struct StateObject {
  PyObject ob_base;
  State state;
};

int state_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  for (Ref* ref : reinterpret_cast<StateObject*>(self)->state.references()) Py_VISIT(ref->get());
  return 0;
}

int state_clear(PyObject* self) {
  for (Ref* ref : reinterpret_cast<StateObject*>(self)->state.references()) *ref = Ref();
  return 0;
}

void state_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  reinterpret_cast<StateObject*>(self)->state.~State();
  PyObject_GC_Del(self);
  Py_DECREF(type);
}

PyType_Slot state_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(state_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(state_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(state_clear)},
    {0, nullptr},
};

PyType_Spec state_spec = {
    "registry_docs.state",
    sizeof(StateObject),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE |
        Py_TPFLAGS_DISALLOW_INSTANTIATION,
    state_slots,
};

}  // namespace

PyObject* State::constant(const char* text, bool header) const {
  Ref& value = constants_[header][text];
  if (value) return value.get();
  Ref made = own(PyUnicode_InternFromString(text));
  value = header ? own(PyList_AsTuple(own(PyUnicode_Split(made.get(), name(Id::tab), -1)).get()))
                 : std::move(made);
  return value.get();
}

State& state_of(PyObject* state_object) {
  return reinterpret_cast<StateObject*>(state_object)->state;
}

Ref make_state(PyObject* module) {
  Ref type = own(PyType_FromModuleAndSpec(module, &state_spec, nullptr));
  auto* object = PyObject_GC_New(StateObject, reinterpret_cast<PyTypeObject*>(type.get()));
  if (!object) raise();
  new (&object->state) State();
  Ref holder = Ref::steal(reinterpret_cast<PyObject*>(object));
  State& state = object->state;
  state.object = holder.get();
  for (int i = 0; i < static_cast<int>(Id::count); ++i) {
    state.names[i] = own(PyUnicode_InternFromString(kNameTexts[i]));
  }
  PyObject_GC_Track(holder.get());
  return holder;
}

}  // namespace registry_docs
