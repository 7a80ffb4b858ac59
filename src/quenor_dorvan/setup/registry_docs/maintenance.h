// Generated-file maintenance: rendering one file's blocks anew, the staleness check and the writer.
#pragma once
#include "function.h"

namespace registry_docs {

extern const FunctionDef kRenderFile;
extern const FunctionDef kRead;
extern const FunctionDef kStaleBlocks;
extern const FunctionDef kWriteBlocks;

}  // namespace registry_docs
