// The host's names, imported into the module's namespace at import. Every later read of host data
// goes through that namespace at the moment it is made (`lookup`), as the renderers show.
#pragma once
#include "function.h"

namespace registry_docs {

// Imports `from module_name import names...` into the module's namespace, with the errors that
// statement raises.
void import_from(PyObject* module, PyObject* importer, const char* module_name,
                 std::initializer_list<const char*> names);
// Imports the host names, in the host's import order.
void import_host_names(PyObject* module, PyObject* importer);

// `len(TOOLS)`.
inline Py_ssize_t tool_count(const Env& env) {
  return check_size(PyObject_Size(lookup(env, Id::TOOLS).get()));
}

}  // namespace registry_docs
