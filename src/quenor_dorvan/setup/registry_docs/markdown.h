// Markdown primitives: code spans, table cells, rows, tables and the spelling of values.
#pragma once
#include <memory>
#include <vector>

#include "function.h"

namespace registry_docs {

extern const FunctionDef kCode;
extern const FunctionDef kCell;
extern const FunctionDef kRow;
extern const FunctionDef kTable;
extern const FunctionDef kValue;

// Text as `_cell` makes it, for a str: whitespace runs collapsed, ends trimmed, bars escaped.
Ref cell_text(PyObject* text);
// A str with the whitespace that `str.strip()` removes taken off both ends.
Ref strip_text(PyObject* text);

// A table's rows as a renderer supplies them: computed one by one, each row's cells in order, as
// they are read.
class RowSource {
 public:
  virtual ~RowSource() = default;
  // Moves to the next row; false at the end, or with an exception set.
  virtual bool next_row(const Env& env, Ref& row_state) = 0;
  // Number of cells in a row.
  virtual int columns() const = 0;
  // Computes cell `column` of the row whose state next_row gave.
  virtual Ref cell(const Env& env, PyObject* row_state, int column) = 0;
  // Objects the source keeps, for the garbage collector of a lazy iterator that holds it.
  virtual int traverse(visitproc visit, void* arg) = 0;
};

// Lines joined with "\n", as `"\n".join(lines)` joins them.
class LineJoiner : public JoinWriter {
 public:
  LineJoiner() : JoinWriter("\n") {}
  bool line(PyObject* text) { return item(text); }
  bool lines(PyObject* iterable);  // every item of an iterable, as `*iterable` spreads it
  // A table row as our own `_row` writes it, from cells already checked to be str.
  bool row(const Ref* cells, int count);
};

// Appends the table of `header` and the rows to `out`, through the module's `_table` as it is
// bound now: our own builds the lines natively, a replacement gets a lazy iterator of lazy rows.
bool write_table(const Env& env, LineJoiner& out, PyObject* header,
                 std::unique_ptr<RowSource> rows);

// The same for rows built in full before the table: `columns` cells per row, in row order. A
// replaced `_table` gets them as a list of tuples, a replaced `_row` each row as a tuple.
bool write_built_table(const Env& env, LineJoiner& out, PyObject* header,
                       const std::vector<Ref>& cells, int columns);

}  // namespace registry_docs
