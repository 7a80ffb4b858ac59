// The record of a maintained file, and the catalogue of the files that hold generated blocks.
#pragma once
#include "function.h"

namespace registry_docs {

extern const FunctionDef kParamsRenderer;
extern const FunctionDef kGeneratedFiles;

// Builds the frozen data class `GeneratedFile` through the module's `dataclass`.
Ref build_generated_file(PyObject* module);

}  // namespace registry_docs
