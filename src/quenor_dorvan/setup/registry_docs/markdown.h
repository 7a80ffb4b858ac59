// Markdown primitives: code spans, table cells, rows, tables and the spelling of values.
#pragma once
#include "function.h"
#include "text.h"

namespace registry_docs {

extern const FunctionDef kCode;
extern const FunctionDef kCell;
extern const FunctionDef kRow;
extern const FunctionDef kTable;
extern const FunctionDef kValue;

// The lazy rows a renderer hands to `_table`, and one lazy row; made per module into its state.
extern PyType_Spec rows_type_spec;
extern PyType_Spec row_type_spec;

// Lines joined with "\n", as `"\n".join(lines)` joins them.
class LineJoiner : public JoinWriter {
 public:
  LineJoiner() : JoinWriter("\n") {}
  void line(Obj text) { item(text); }
  void lines(PyObject* iterable);  // every item of an iterable, as `*iterable` spreads it
};

// A table row stated as its cells, as a generator states them with `yield`: `row(env, tool,
// number, i)` computes cell i of the row of `tool` (numbered from 1), or gives null past the last.
// A row holds nothing but its tool and number, so each cell is made from the module as it is when
// the cell is read, however late.
using RowOf = Ref (*)(const Env& env, PyObject* tool, Py_ssize_t number, int cell);

// `(row(number, tool) for number, tool in enumerate(tools, 1))`.
Ref lazy_rows(const Env& env, Obj tools, RowOf row);

// Appends `*_table(header, rows)` to `out`, with `_table` and `_row` as bound now; our own
// `_table` and `_row` write the lines straight into it.
void write_table(const Env& env, LineJoiner& out, PyObject* header, PyObject* rows);

}  // namespace registry_docs
