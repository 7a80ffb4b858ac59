#include "registry_inputs.h"

#include "compat.h"

namespace registry_docs {

namespace {

// `from m import x`: the attribute, then a submodule of that name, then the ImportError that names
// the module and its file.
Ref import_name(PyObject* from, PyObject* attr) {
  PyObject* found = nullptr;
  if (check(compat::lookup_attr(from, attr, &found))) return Ref::steal(found);
  Ref package = Ref::steal(PyObject_GetAttrString(from, "__name__"));
  if (!package || !PyUnicode_Check(package.get())) {
    PyErr_Clear();
    package = Ref();
  } else {
    Ref full = own(PyUnicode_FromFormat("%U.%U", package.get(), attr));
    Ref submodule = Ref::steal(PyImport_GetModule(full.get()));
    if (submodule) return submodule;
    if (PyErr_Occurred()) raise();
  }
  Ref shown = package ? package : Ref::steal(PyUnicode_FromString("<unknown module name>"));
  Ref path = Ref::steal(PyModule_GetFilenameObject(from));
  if (!path || !PyUnicode_Check(path.get())) {
    PyErr_Clear();
    Ref message = own(PyUnicode_FromFormat("cannot import name %R from %R (unknown location)", attr,
                                           shown.get()));
    PyErr_SetImportError(message.get(), package.get(), nullptr);
    raise();
  }
  bool initializing = false;
  if (Ref spec = Ref::steal(PyObject_GetAttrString(from, "__spec__"))) {
    Ref flag = Ref::steal(PyObject_GetAttrString(spec.get(), "_initializing"));
    initializing = flag && PyObject_IsTrue(flag.get()) > 0;
  }
  PyErr_Clear();
  const char* format = initializing
                           ? "cannot import name %R from partially initialized module %R (most "
                             "likely due to a circular import) (%S)"
                           : "cannot import name %R from %R (%S)";
  Ref message = own(PyUnicode_FromFormat(format, attr, shown.get(), path.get()));
  PyErr_SetImportError(message.get(), package.get(), path.get());
  raise();
}

}  // namespace

void import_from(PyObject* module, PyObject* importer, const char* module_name,
                 std::initializer_list<const char*> names) {
  PyObject* globals = PyModule_GetDict(module);
  Ref fromlist = own(PyTuple_New(static_cast<Py_ssize_t>(names.size())));
  Py_ssize_t i = 0;
  for (const char* attr : names) {
    PyTuple_SET_ITEM(fromlist.get(), i++, own(PyUnicode_InternFromString(attr)).release());
  }
  Ref target = text(module_name);
  Ref level = own(PyLong_FromLong(0));
  Ref from = call(importer, {target.get(), globals, Py_None, fromlist.get(), level.get()});
  for (i = 0; i < PyTuple_GET_SIZE(fromlist.get()); ++i) {
    PyObject* attr = PyTuple_GET_ITEM(fromlist.get(), i);
    check(PyDict_SetItem(globals, attr, import_name(from.get(), attr).get()));
  }
}

void import_host_names(PyObject* module, PyObject* importer) {
  import_from(module, importer, "quenor_dorvan.setup.config",
              {"QUENOR_INSTRUCTION_CONTENT", "without_markers"});
  import_from(module, importer, "quenor_dorvan.tool_registry",
              {"TOOLS", "ParamSpec", "ToolSpec", "ToolTier"});
  import_from(module, importer, "quenor_dorvan.tool_routes", {"rules_table", "skill_table"});
  import_from(module, importer, "quenor_dorvan.tool_schemas", {"get_cli_schema", "snake_to_kebab"});
  import_from(module, importer, "quenor_dorvan.workers.api_endpoints", {"ENDPOINT_FRAMEWORKS"});
}

}  // namespace registry_docs
