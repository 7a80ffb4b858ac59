// Tool listing: the order tools are listed in, tier groups and counts, action cells, and the
// shortest command line of a tool.
#pragma once
#include "function.h"

namespace registry_docs {

extern const FunctionDef kOrderedTools;
extern const FunctionDef kTierTools;
extern const FunctionDef kActionsCell;
extern const FunctionDef kTierCounts;
extern const FunctionDef kCliUsage;

// `separator.join(_code(item) for item in iterable)`, or of each item's `name` when by_name;
// `_code` is looked up for every item.
Ref code_spans(const Env& env, PyObject* iterable, const char* separator, bool by_name = false);

}  // namespace registry_docs
