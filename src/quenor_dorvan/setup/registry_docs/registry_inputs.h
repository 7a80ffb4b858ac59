// The host data the module reads: which names it imports from which host module, and the reads
// of tool and parameter records that every renderer shares.
#pragma once
#include "function.h"

namespace registry_docs {

// Imports the host names into the module's namespace, in the host's import order, with the
// errors `from m import x` raises.
bool import_host_names(PyObject* module);

// Imports `from module_name import names...` into the module's namespace.
bool import_from(PyObject* module, const char* module_name,
                 std::initializer_list<const char*> names);

}  // namespace registry_docs
