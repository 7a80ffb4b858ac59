// Markdown primitives: code spans, table cells, rows, tables and the spelling of values.
#pragma once
#include <vector>

#include "function.h"
#include "generator.h"

namespace registry_docs {

extern const FunctionDef kCode;
extern const FunctionDef kCell;
extern const FunctionDef kRow;
extern const FunctionDef kTable;
extern const FunctionDef kValue;

// The lazy rows a replaced `_table` reads, and one lazy row; made per module into its state.
extern PyType_Spec rows_type_spec;
extern PyType_Spec row_type_spec;

// Text as `_cell` makes it, for a str: whitespace runs collapsed, ends trimmed, bars escaped.
Ref cell_text(PyObject* text);
// `text.strip()`: natively for a str, through the method otherwise.
Ref strip_text(const Env& env, PyObject* text);

// Lines joined with "\n", as `"\n".join(lines)` joins them.
class LineJoiner : public JoinWriter {
 public:
  LineJoiner() : JoinWriter("\n") {}
  void line(PyObject* text) { item(text); }
  void lines(PyObject* iterable);  // every item of an iterable, as `*iterable` spreads it
};

// Rows read in full before the table is made: every row's cells, in order, one after another.
struct BuiltRows {
  std::vector<Ref> cells;
  std::vector<size_t> ends;  // where each row's cells end
};

// Appends `*_table(header, rows)` to `out`, with `_table` as bound now: our own writes the lines
// natively (through `_row` as bound for each row), a replacement gets the rows as lazy iterators
// of lazy cells that stay valid after the renderer returned.
void write_table(const Env& env, LineJoiner& out, PyObject* header, Rows rows);
// The same for rows built first: a replacement gets them as a list of tuples.
void write_table(const Env& env, LineJoiner& out, PyObject* header, BuiltRows rows);

}  // namespace registry_docs
