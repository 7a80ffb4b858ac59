#include "markdown.h"

#include <algorithm>

namespace registry_docs {

namespace {

// `_cell` of a str in two passes: the first measures the result (length, widest character, whether
// anything changes), the second writes it into a str of exactly that size and kind.
template <typename Char>
struct CellPlan {
  Py_ssize_t length = 0;
  Py_UCS4 widest = 0;
  bool changed = false;
};

template <typename Char>
CellPlan<Char> plan_cell(const Char* data, Py_ssize_t size) {
  CellPlan<Char> plan;
  bool first = true;
  Py_ssize_t i = 0;
  while (true) {
    Py_ssize_t gap = i;
    while (i < size && Py_UNICODE_ISSPACE(data[i])) ++i;
    if (i == size) {
      plan.changed |= i != gap;  // whitespace at the end, or a text of whitespace only
      return plan;
    }
    if (first) {
      plan.changed |= i != gap;  // whitespace at the start
    } else {
      plan.changed |= i - gap != 1 || data[gap] != ' ';
      plan.length += 1;
      plan.widest = std::max<Py_UCS4>(plan.widest, ' ');
    }
    first = false;
    for (; i < size && !Py_UNICODE_ISSPACE(data[i]); ++i) {
      Py_UCS4 c = data[i];
      if (c == '|') {
        plan.changed = true;
        plan.length += 2;
      } else {
        plan.length += 1;
      }
      plan.widest = std::max(plan.widest, c);
    }
  }
}

template <typename Out, typename Char>
void fill_cell(Out* out, const Char* data, Py_ssize_t size) {
  Py_ssize_t i = 0;
  bool first = true;
  while (true) {
    while (i < size && Py_UNICODE_ISSPACE(data[i])) ++i;
    if (i == size) return;
    if (!first) *out++ = ' ';
    first = false;
    for (; i < size && !Py_UNICODE_ISSPACE(data[i]); ++i) {
      if (data[i] == '|') *out++ = '\\';
      *out++ = static_cast<Out>(data[i]);
    }
  }
}

template <typename Char>
Ref cell_of_kind(PyObject* text, const Char* data, Py_ssize_t size) {
  CellPlan<Char> plan = plan_cell(data, size);
  if (!plan.changed) return Ref::borrow(text);
  Ref result = Ref::steal(PyUnicode_New(plan.length, plan.widest));
  if (!result) return Ref();
  switch (PyUnicode_KIND(result.get())) {
    case PyUnicode_1BYTE_KIND:
      fill_cell(PyUnicode_1BYTE_DATA(result.get()), data, size);
      break;
    case PyUnicode_2BYTE_KIND:
      fill_cell(PyUnicode_2BYTE_DATA(result.get()), data, size);
      break;
    default:
      fill_cell(PyUnicode_4BYTE_DATA(result.get()), data, size);
      break;
  }
  return result;
}

Ref code_body(const Env&, PyObject* const* args) {
  Ref text = Ref::steal(PyObject_Format(args[0], nullptr));
  if (!text) return Ref();
  return enclosed('`', text.get(), '`');
}

Ref cell_body(const Env&, PyObject* const* args) {
  PyObject* text = args[0];
  if (PyUnicode_CheckExact(text)) return cell_text(text);
  // Anything else takes the path the operations themselves define (an override, or the error a
  // non-str raises).
  Ref words = call_method(text, Id::split, {});
  if (!words) return Ref();
  Ref joined = join(Id::space, words.get());
  if (!joined) return Ref();
  return Ref::steal(PyUnicode_Replace(joined.get(), name(Id::bar), name(Id::escaped_bar), -1));
}

Ref row_body(const Env&, PyObject* const* args) {
  Ref joined = join(Id::bar_sep, args[0]);
  if (!joined) return Ref();
  TextWriter out;
  if (!out.lit("| ") || !out.str(joined.get()) || !out.lit(" |")) return Ref();
  return out.finish();
}

// The rule under a header: one "---" for each title, read by iterating the header again.
Ref rule_cells(PyObject* header) {
  return collect(header, [](PyObject*) { return Ref::borrow(name(Id::rule)); });
}

Ref table_body(const Env& env, PyObject* const* args) {
  PyObject* header = args[0];
  Ref lines = Ref::steal(PyList_New(0));
  if (!lines) return Ref();
  auto append_row = [&](PyObject* cells) {
    Ref line = call_global(env, Id::row, {cells});
    return line && PyList_Append(lines.get(), line.get()) == 0;
  };
  if (!append_row(header)) return Ref();
  // `_row` is looked up before the rule's cells are made from the header, as the call reads it.
  Ref row_fn = lookup(env, Id::row);
  if (!row_fn) return Ref();
  Ref rule = rule_cells(header);
  if (!rule) return Ref();
  Ref rule_line = call_found(row_fn.get(), {rule.get()});
  if (!rule_line || PyList_Append(lines.get(), rule_line.get()) < 0) return Ref();
  return for_each(args[1], append_row) ? lines : Ref();
}

Ref value_body(const Env& env, PyObject* const* args) {
  PyObject* value = args[0];
  if (PyBool_Check(value)) {
    return Ref::steal(PyUnicode_FromString(value == Py_True ? "true" : "false"));
  }
  if (PyList_Check(value) || PyTuple_Check(value)) {
    Ref parts = collect(value, [&](PyObject* item) { return call_global(env, Id::value, {item}); });
    return parts ? join(Id::comma, parts.get()) : Ref();
  }
  return Ref::steal(PyObject_Str(value));
}

// The lazy rows a replaced `_table` or `_row` reads: each row's cells are computed as it reads
// them.
struct RowsObject {
  PyObject ob_base;
  RowSource* source;
  PyObject* module;
  bool done;  // ended or raised: like a generator, it yields nothing more
};

struct RowObject {
  PyObject ob_base;
  PyObject* rows;  // the RowsObject that owns the source
  PyObject* state;
  int column;
};

PyTypeObject* g_rows_type = nullptr;
PyTypeObject* g_row_type = nullptr;

Env env_of_module(PyObject* module) {
  return Env{module, PyModule_GetDict(module), nullptr};
}

int rows_traverse(PyObject* self, visitproc visit, void* arg) {
  auto* rows = reinterpret_cast<RowsObject*>(self);
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(rows->module);
  return rows->source ? rows->source->traverse(visit, arg) : 0;
}

int rows_clear(PyObject* self) {
  auto* rows = reinterpret_cast<RowsObject*>(self);
  delete std::exchange(rows->source, nullptr);
  Py_CLEAR(rows->module);
  return 0;
}

void rows_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  rows_clear(self);
  PyObject_GC_Del(self);
  Py_DECREF(type);
}

// The lazy row of one row state, reading its cells from the rows object's source.
Ref make_row(PyObject* rows, Ref state) {
  auto* row = PyObject_GC_New(RowObject, g_row_type);
  if (!row) return Ref();
  row->rows = Ref::borrow(rows).release();
  row->state = state.release();
  row->column = 0;
  PyObject_GC_Track(reinterpret_cast<PyObject*>(row));
  return Ref::steal(reinterpret_cast<PyObject*>(row));
}

PyObject* rows_next(PyObject* self) {
  auto* rows = reinterpret_cast<RowsObject*>(self);
  if (!rows->source || rows->done) return nullptr;
  Ref state;
  // The source may run host code; keep it alive while it does.
  Ref keep = Ref::borrow(self);
  if (!rows->source->next_row(env_of_module(rows->module), state)) {
    rows->done = true;
    return nullptr;
  }
  return make_row(self, std::move(state)).release();
}

int row_traverse(PyObject* self, visitproc visit, void* arg) {
  auto* row = reinterpret_cast<RowObject*>(self);
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(row->rows);
  Py_VISIT(row->state);
  return 0;
}

int row_clear(PyObject* self) {
  auto* row = reinterpret_cast<RowObject*>(self);
  Py_CLEAR(row->rows);
  Py_CLEAR(row->state);
  return 0;
}

void row_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  row_clear(self);
  PyObject_GC_Del(self);
  Py_DECREF(type);
}

PyObject* row_next(PyObject* self) {
  auto* row = reinterpret_cast<RowObject*>(self);
  if (!row->rows) return nullptr;
  Ref rows = Ref::borrow(row->rows);
  Ref state = Ref::borrow(row->state);
  auto* owner = reinterpret_cast<RowsObject*>(rows.get());
  if (!owner->source || row->column >= owner->source->columns()) return nullptr;
  int column = row->column++;
  Ref cell = owner->source->cell(env_of_module(owner->module), state.get(), column);
  // A row that raised is finished, as a generator is.
  if (!cell) row->column = owner->source->columns();
  return cell.release();
}

PyType_Slot rows_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(rows_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(rows_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(rows_clear)},
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(rows_next)},
    {0, nullptr},
};

PyType_Slot row_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(row_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(row_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(row_clear)},
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(row_next)},
    {0, nullptr},
};

constexpr unsigned kIteratorFlags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC |
                                    Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION;
PyType_Spec rows_spec = {"registry_docs.table_rows", sizeof(RowsObject), 0, kIteratorFlags,
                         rows_slots};
PyType_Spec row_spec = {"registry_docs.table_row", sizeof(RowObject), 0, kIteratorFlags, row_slots};

Ref make_rows(const Env& env, std::unique_ptr<RowSource> source) {
  if (!g_rows_type) {
    g_rows_type = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&rows_spec));
    if (!g_rows_type) return Ref();
  }
  if (!g_row_type) {
    g_row_type = reinterpret_cast<PyTypeObject*>(PyType_FromSpec(&row_spec));
    if (!g_row_type) return Ref();
  }
  auto* rows = PyObject_GC_New(RowsObject, g_rows_type);
  if (!rows) return Ref();
  rows->source = source.release();
  rows->module = Ref::borrow(env.module).release();
  rows->done = false;
  PyObject_GC_Track(reinterpret_cast<PyObject*>(rows));
  return Ref::steal(reinterpret_cast<PyObject*>(rows));
}

// One row written by our own `_row` from cells already computed: checked, then joined.
bool write_cells(const Ref* cells, int columns, LineJoiner& out) {
  for (int i = 0; i < columns; ++i) {
    if (!PyUnicode_Check(cells[i].get())) {
      join_type_error(i, cells[i].get());
      return false;
    }
  }
  return out.row(cells, columns);
}

// One row written by our own `_row`: every cell computed, in order, then checked and joined.
bool write_native_row(const Env& env, RowSource& source, PyObject* state, LineJoiner& out) {
  int columns = source.columns();
  Ref cells[8];
  for (int i = 0; i < columns; ++i) {
    cells[i] = source.cell(env, state, i);
    if (!cells[i]) return false;
  }
  return write_cells(cells, columns, out);
}

// What our own `_table` writes before the rows: `_row(header)`, then `_row` of the rule.
bool write_head(const Env& env, LineJoiner& out, PyObject* header) {
  Ref line = call_global(env, Id::row, {header});
  if (!line || !out.line(line.get())) return false;
  // `_row` is looked up before the rule's cells are made from the header, as the call reads it.
  Ref rule_row = lookup(env, Id::row);
  if (!rule_row) return false;
  Ref rule = rule_cells(header);
  if (!rule) return false;
  line = call_found(rule_row.get(), {rule.get()});
  return line && out.line(line.get());
}

// A row of computed cells as a caller's function receives it: a tuple.
Ref row_tuple(const Ref* cells, int columns) {
  Ref row = Ref::steal(PyTuple_New(columns));
  if (!row) return Ref();
  for (int i = 0; i < columns; ++i) PyTuple_SET_ITEM(row.get(), i, Ref(cells[i]).release());
  return row;
}

}  // namespace

Ref cell_text(PyObject* text) {
  if (PyUnicode_READY(text) < 0) return Ref();
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  switch (PyUnicode_KIND(text)) {
    case PyUnicode_1BYTE_KIND:
      return cell_of_kind(text, PyUnicode_1BYTE_DATA(text), size);
    case PyUnicode_2BYTE_KIND:
      return cell_of_kind(text, PyUnicode_2BYTE_DATA(text), size);
    default:
      return cell_of_kind(text, PyUnicode_4BYTE_DATA(text), size);
  }
}

Ref strip_text(PyObject* text) {
  if (!PyUnicode_CheckExact(text)) return call_method(text, Id::strip, {});
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  Py_ssize_t start = 0;
  Py_ssize_t end = size;
  while (start < end && Py_UNICODE_ISSPACE(PyUnicode_READ_CHAR(text, start))) ++start;
  while (end > start && Py_UNICODE_ISSPACE(PyUnicode_READ_CHAR(text, end - 1))) --end;
  if (start == 0 && end == size) return Ref::borrow(text);
  return Ref::steal(PyUnicode_Substring(text, start, end));
}

bool LineJoiner::lines(PyObject* iterable) {
  Ref iterator = Ref::steal(PyObject_GetIter(iterable));
  if (!iterator) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(iterable)->tp_iter == nullptr &&
        !PySequence_Check(iterable)) {
      PyErr_Clear();
      PyErr_Format(PyExc_TypeError, "Value after * must be an iterable, not %.200s",
                   Py_TYPE(iterable)->tp_name);
    }
    return false;
  }
  while (Ref item = Ref::steal(PyIter_Next(iterator.get()))) {
    if (!line(item.get())) return false;
  }
  return !PyErr_Occurred();
}

bool LineJoiner::row(const Ref* cells, int count) {
  TextWriter* out = start();
  if (!out) return !PyErr_Occurred();
  if (!out->lit("| ")) return false;
  for (int i = 0; i < count; ++i) {
    if ((i > 0 && !out->lit(" | ")) || !out->str(cells[i].get())) return false;
  }
  return out->lit(" |");
}

bool write_table(const Env& env, LineJoiner& out, PyObject* header,
                 std::unique_ptr<RowSource> rows) {
  Ref table = lookup(env, Id::table);
  if (!table) return false;
  if (!is_native(table.get(), kTable)) {
    Ref lazy = make_rows(env, std::move(rows));
    if (!lazy) return false;
    Ref lines = call_found(table.get(), {header, lazy.get()});
    return lines && out.lines(lines.get());
  }
  // Our own `_table`: the header row and the rule, then each row through `_row` as bound now.
  if (!write_head(env, out, header)) return false;
  Ref line;
  // `*(_row(row) for row in rows)`: each row is taken before `_row` is looked up for it.
  Ref lazy;  // made once a replaced `_row` needs row objects
  while (true) {
    Ref row_fn;
    if (!lazy) {
      Ref state;
      if (!rows->next_row(env, state)) return !PyErr_Occurred();
      row_fn = lookup(env, Id::row);
      if (!row_fn) return false;
      if (is_native(row_fn.get(), kRow)) {
        if (!write_native_row(env, *rows, state.get(), out)) return false;
        continue;
      } else {
        lazy = make_rows(env, std::move(rows));
        Ref row = lazy ? make_row(lazy.get(), std::move(state)) : Ref();
        line = row ? call_found(row_fn.get(), {row.get()}) : Ref();
      }
    } else {
      Ref row = Ref::steal(PyIter_Next(lazy.get()));
      if (!row) return !PyErr_Occurred();
      row_fn = lookup(env, Id::row);
      line = row_fn ? call_found(row_fn.get(), {row.get()}) : Ref();
    }
    if (!line || !out.line(line.get())) return false;
  }
}

bool write_built_table(const Env& env, LineJoiner& out, PyObject* header,
                       const std::vector<Ref>& cells, int columns) {
  const Py_ssize_t count = static_cast<Py_ssize_t>(cells.size()) / columns;
  Ref table = lookup(env, Id::table);
  if (!table) return false;
  if (!is_native(table.get(), kTable)) {
    Ref rows = Ref::steal(PyList_New(count));
    if (!rows) return false;
    for (Py_ssize_t i = 0; i < count; ++i) {
      Ref row = row_tuple(&cells[static_cast<size_t>(i * columns)], columns);
      if (!row) return false;
      PyList_SET_ITEM(rows.get(), i, row.release());
    }
    Ref lines = call_found(table.get(), {header, rows.get()});
    return lines && out.lines(lines.get());
  }
  if (!write_head(env, out, header)) return false;
  for (Py_ssize_t i = 0; i < count; ++i) {
    const Ref* row_cells = &cells[static_cast<size_t>(i * columns)];
    Ref row_fn = lookup(env, Id::row);
    if (!row_fn) return false;
    if (is_native(row_fn.get(), kRow)) {
      if (!write_cells(row_cells, columns, out)) return false;
      continue;
    }
    Ref row = row_tuple(row_cells, columns);
    Ref line = row ? call_found(row_fn.get(), {row.get()}) : Ref();
    if (!line || !out.line(line.get())) return false;
  }
  return true;
}

const FunctionDef kCode = {"_code",  "Text as a Markdown code span.", 1, {"text"}, {"str"}, "str",
                           code_body};
const FunctionDef kCell = {
    "_cell",  "Text made safe for one cell of a Markdown table.", 1, {"text"}, {"str"}, "str",
    cell_body};
const FunctionDef kRow = {
    "_row", "One row of a Markdown table.", 1, {"cells"}, {"Iterable[str]"}, "str", row_body};
const FunctionDef kTable = {
    "_table",           "A Markdown table: the header, its rule and the rows.", 2,
    {"header", "rows"}, {"tuple[str, ...]", "Iterable[Iterable[str]]"},         "list[str]",
    table_body};
const FunctionDef kValue = {
    "_value",  "A default or a bound as a reader writes it (JSON spelling for booleans).",
    1,         {"value"},
    {"Any"},   "str",
    value_body};

}  // namespace registry_docs
