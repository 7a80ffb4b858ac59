// Generated-file maintenance: the marker scanner, the GeneratedFile record, the catalogue, the
// file renderer, the staleness check and the writer.
#pragma once
#include <functional>
#include <vector>

#include "function.h"

namespace registry_docs {

extern const FunctionDef kParamsRenderer;
extern const FunctionDef kGeneratedFiles;
extern const FunctionDef kBlockNames;
extern const FunctionDef kRenderFile;
extern const FunctionDef kRead;
extern const FunctionDef kStaleBlocks;
extern const FunctionDef kBlocks;
extern const FunctionDef kWriteBlocks;

// The compiled block-marker pattern, as the module binds it to `_MARKER`.
Ref compile_marker(PyObject* module);

// Builds the frozen data class `GeneratedFile` through the module's `dataclass`.
Ref build_generated_file(PyObject* module);

// One marked block found in a text: positions of its pieces, in code points.
struct MarkedBlock {
  Py_ssize_t open_start;  // "<!-- registry:"
  Py_ssize_t name_start, name_end;
  Py_ssize_t body_start;  // after the open marker's line feed
  Py_ssize_t close_start;
  Py_ssize_t close_end;
};

// The blocks of a str, found as `_MARKER.finditer` finds them, in one linear pass. When the
// module's `_MARKER` was rebound, the found object's own methods give the matches instead (see
// for_each_match).
bool scan_blocks(PyObject* text, std::vector<MarkedBlock>& blocks);

// One block as a replacement sees it: its name (a str).
struct BlockMatch {
  PyObject* name;
};
// What replaces a block's body: a str, or null with an exception set.
using BlockRenderer = std::function<Ref(const BlockMatch&)>;

// The text with every block found through the module's `_MARKER` (as bound now) replaced, left to
// right, by its open marker, the renderer's text, "\n" and its close marker; the renderer's text
// is inserted literally. Natively when `_MARKER` is the module's own pattern, otherwise through
// the bound object's `sub`. A renderer result that is not a str raises the TypeError of `str + x`.
Ref replace_blocks(const Env& env, PyObject* text, const BlockRenderer& render);

}  // namespace registry_docs
