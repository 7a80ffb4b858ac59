// Generated-file maintenance: the marker scanner, the GeneratedFile record, the catalogue, the
// file renderer, the staleness check and the writer.
#pragma once
#include <functional>
#include <vector>

#include "function.h"
#include "markers.h"

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

// The blocks of a str, found as the module's own `_MARKER.finditer` finds them, in one linear
// pass; false with an exception set on failure. Only valid for the pattern the module made: see
// native_marker.
bool scan_blocks(PyObject* text, std::vector<MarkedBlock>& blocks);

// Whether `marker` (the `_MARKER` found now) is the module's own pattern and `text` a str, so that
// scan_blocks gives exactly its matches; otherwise the found object's own methods must be used.
inline bool native_marker(const Env& env, PyObject* marker, PyObject* text) {
  return marker == env.marker && PyUnicode_Check(text);
}

// One block that a replacement is asked to fill.
class BlockMatch {
 public:
  // The block's name, `match["name"]`: a new reference, or null with an exception set.
  virtual Ref name() const = 0;

 protected:
  ~BlockMatch() = default;
};

// Gives the text that goes between a block's markers: a new reference, or null with an exception
// set. It is called only while replace_blocks runs (it may refer to the caller's locals).
using BlockFill = std::function<Ref(const BlockMatch& match)>;

// `_MARKER.sub(lambda match: match["open"] + fill(match) + "\n" + match["close"], text)` with the
// `_MARKER` bound now: each block of the text rendered anew in text order, the text between them
// kept. The native scanner does the work when `_MARKER` is still the module's own pattern;
// otherwise the found object's `sub` gets a function that does the same.
Ref replace_blocks(const Env& env, PyObject* text, const BlockFill& fill);
// The same with the `_MARKER` the caller looked up itself (where its expression reads the name
// before the text).
Ref replace_blocks(const Env& env, PyObject* marker, PyObject* text, const BlockFill& fill);

}  // namespace registry_docs
