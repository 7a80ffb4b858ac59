#include "registry_inputs.h"

#include "compat.h"

namespace registry_docs {

namespace {

// `from m import x`: the attribute, then a submodule of that name, then the ImportError that names
// the module and its file.
Ref import_name(PyObject* from, PyObject* attr) {
  PyObject* found = nullptr;
  if (compat::lookup_attr(from, attr, &found) != 0) return Ref::steal(found);
  Ref package = getattr(from, Id::dunder_name);
  if (!package || !PyUnicode_Check(package.get())) {
    PyErr_Clear();
    package = Ref();
  } else {
    Ref full = Ref::steal(PyUnicode_FromFormat("%U.%U", package.get(), attr));
    if (!full) return Ref();
    Ref submodule = Ref::steal(PyImport_GetModule(full.get()));
    if (submodule) return submodule;
    if (PyErr_Occurred()) return Ref();
  }
  Ref shown = package ? package : Ref::steal(PyUnicode_FromString("<unknown module name>"));
  Ref path = Ref::steal(PyModule_GetFilenameObject(from));
  if (!path || !PyUnicode_Check(path.get())) {
    PyErr_Clear();
    Ref message = Ref::steal(PyUnicode_FromFormat(
        "cannot import name %R from %R (unknown location)", attr, shown.get()));
    if (message) PyErr_SetImportError(message.get(), package.get(), nullptr);
    return Ref();
  }
  bool initializing = false;
  Ref spec = getattr(from, Id::dunder_spec);
  if (spec) {
    Ref flag = getattr(spec.get(), Id::initializing);
    initializing = flag && PyObject_IsTrue(flag.get()) > 0;
  }
  PyErr_Clear();
  const char* format = initializing
                           ? "cannot import name %R from partially initialized module %R (most "
                             "likely due to a circular import) (%S)"
                           : "cannot import name %R from %R (%S)";
  Ref message = Ref::steal(PyUnicode_FromFormat(format, attr, shown.get(), path.get()));
  if (message) PyErr_SetImportError(message.get(), package.get(), path.get());
  return Ref();
}

}  // namespace

bool import_from(PyObject* module, const char* module_name,
                 std::initializer_list<const char*> names) {
  PyObject* globals = PyModule_GetDict(module);
  Ref importer =
      Ref::borrow(PyDict_GetItemWithError(PyEval_GetBuiltins(), name(Id::dunder_import)));
  if (!importer) {
    if (!PyErr_Occurred()) PyErr_SetString(PyExc_ImportError, "__import__ not found");
    return false;
  }
  Ref fromlist = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(names.size())));
  if (!fromlist) return false;
  Py_ssize_t i = 0;
  for (const char* attr : names) {
    PyObject* text = PyUnicode_InternFromString(attr);
    if (!text) return false;
    PyTuple_SET_ITEM(fromlist.get(), i++, text);
  }
  Ref target = Ref::steal(PyUnicode_FromString(module_name));
  Ref level = Ref::steal(PyLong_FromLong(0));
  if (!target || !level) return false;
  Ref from = call(importer.get(), {target.get(), globals, Py_None, fromlist.get(), level.get()});
  if (!from) return false;
  for (i = 0; i < PyTuple_GET_SIZE(fromlist.get()); ++i) {
    PyObject* attr = PyTuple_GET_ITEM(fromlist.get(), i);
    Ref value = import_name(from.get(), attr);
    if (!value || PyDict_SetItem(globals, attr, value.get()) < 0) return false;
  }
  return true;
}

bool import_host_names(PyObject* module) {
  return import_from(module, "quenor_dorvan.setup.config",
                     {"QUENOR_INSTRUCTION_CONTENT", "without_markers"}) &&
         import_from(module, "quenor_dorvan.tool_registry",
                     {"TOOLS", "ParamSpec", "ToolSpec", "ToolTier"}) &&
         import_from(module, "quenor_dorvan.tool_routes", {"rules_table", "skill_table"}) &&
         import_from(module, "quenor_dorvan.tool_schemas", {"get_cli_schema", "snake_to_kebab"}) &&
         import_from(module, "quenor_dorvan.workers.api_endpoints", {"ENDPOINT_FRAMEWORKS"});
}

}  // namespace registry_docs
