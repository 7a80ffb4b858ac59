// Marked blocks in a str, found and replaced as the module's `_MARKER` finds and replaces them:
// by the native scanner (markers.h) while `_MARKER` is the pattern the module compiled, through
// the bound object's own `finditer` and `sub` once a caller rebinds it.
#pragma once
#include "function.h"
#include "markers.h"

namespace registry_docs {

extern const FunctionDef kBlockNames;
extern const FunctionDef kBlocks;

// The statement that binds the block-marker pattern, run by the module body.
inline constexpr char kMarkerStatement[] =
    "_MARKER = re.compile(r\"(?P<open><!-- registry:(?P<name>[\\w:-]+) -->\\n)(?P<body>.*?)\"\n"
    "                     r\"(?P<close><!-- /registry:(?P=name) -->)\", re.DOTALL)\n";

// A block being replaced, as the replacement function reads its match.
struct BlockMatch {
  PyObject* text;                  // the scanned text; null for a match object
  const MarkedBlock* block;        // where the block lies in the scanned text
  PyObject* match;                 // the match object
  Ref name(const Env& env) const;  // `match["name"]`
};

// The text that goes between a block's markers, from the block and the values that the
// replacement function holds (its closure's values).
using Fill = Ref (*)(const Env& env, const BlockMatch& match, PyObject* const* held);

// A replacement function `render(match)` returning `match["open"] + fill(...) + "\n" +
// match["close"]`: its definition, for a rebound `_MARKER.sub`, and its fill.
struct Replacement {
  const FunctionDef& render;
  Fill fill;
};

// The body of such a `render`: the match is a Python match object.
Ref render_match(const Env& env, PyObject* match, Fill fill, PyObject* const* held);

// `sub(render, text)`, `sub` being `marker.sub` as the caller read it (once, before the arguments,
// as Python reads it), with `render` the replacement holding `held`: each block of the text filled
// anew, in text order, the text between blocks kept.
Ref replace_blocks(const Env& env, PyObject* marker, PyObject* sub, PyObject* text,
                   const Replacement& replacement, std::initializer_list<PyObject*> held);

}  // namespace registry_docs
