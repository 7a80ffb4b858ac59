#include "markdown.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// The characters below 256 that `_cell` may change: whitespace and the bar.
const std::array<bool, 256>& cell_specials() {
  static const std::array<bool, 256> table = [] {
    std::array<bool, 256> specials{};
    for (Py_UCS4 c = 0; c < 256; ++c) specials[c] = c == '|' || Py_UNICODE_ISSPACE(c);
    return specials;
  }();
  return table;
}

// How far a one-byte text is plain, 16 characters at a time: a block passes when its only
// characters at or below the space, above ASCII or bars are spaces, none next to another. The
// blocks' first and last characters are left to the caller, and so is whatever follows.
template <typename Char>
Py_ssize_t plain_blocks(const Char* data, Py_ssize_t size) {
#if defined(__SSE2__)
  if constexpr (sizeof(Char) == 1) {
    const __m128i above = _mm_set1_epi8(0x20), bar = _mm_set1_epi8('|'), space = _mm_set1_epi8(' ');
    Py_ssize_t i = 0;
    unsigned ended_with_space = 0;
    for (; i + 16 <= size; i += 16) {
      __m128i chars = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
      // Signed: a character above ASCII counts as below the space.
      __m128i special = _mm_or_si128(_mm_cmpgt_epi8(above, chars), _mm_cmpeq_epi8(chars, bar));
      unsigned spaces = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chars, space)));
      unsigned others = static_cast<unsigned>(_mm_movemask_epi8(special));
      if (others != 0 || (spaces & ((spaces >> 1) | ended_with_space)) != 0) break;
      ended_with_space = spaces >> 15;
    }
    return i;
  }
#endif
  (void)data;
  (void)size;
  return 0;
}

// Whether `_cell` leaves a text as it is: single spaces between words, no other whitespace and no
// bar. Most cells are such texts, and one cheap pass over them decides it.
template <typename Char>
bool cell_unchanged(const Char* data, Py_ssize_t size) {
  const std::array<bool, 256>& specials = cell_specials();
  auto special = [&](Py_UCS4 c) { return c < 256 ? specials[c] : Py_UNICODE_ISSPACE(c); };
  Py_ssize_t plain = plain_blocks(data, size);
  if (plain > 0 && data[0] == ' ') return false;
  // The last character of the plain blocks is looked at again, with the one after it.
  for (Py_ssize_t i = plain > 0 ? plain - 1 : 0; i < size; ++i) {
    if (!special(data[i])) continue;
    // A lone space between two words is the only special character kept as it is.
    if (data[i] != ' ' || i == 0 || i == size - 1 || Py_UNICODE_ISSPACE(data[i + 1])) return false;
  }
  return true;
}

// `_cell` of an ASCII text that changes, in one pass into a buffer of the largest size it can take.
Ref ascii_cell(const Py_UCS1* data, Py_ssize_t size) {
  const std::array<bool, 256>& specials = cell_specials();
  std::vector<char> buffer(static_cast<size_t>(size) * 2);
  char* out = buffer.data();
  bool gap = false;
  for (Py_ssize_t i = 0; i < size; ++i) {
    Py_UCS1 c = data[i];
    if (specials[c] && c != '|') {
      gap = true;
      continue;
    }
    if (gap && out != buffer.data()) *out++ = ' ';
    gap = false;
    if (c == '|') *out++ = '\\';
    *out++ = static_cast<char>(c);
  }
  Py_ssize_t length = out - buffer.data();
  Ref result = own(PyUnicode_New(length, 127));
  memcpy(PyUnicode_1BYTE_DATA(result.get()), buffer.data(), static_cast<size_t>(length));
  return result;
}

template <typename Char>
Ref cell_of_kind(PyObject* text, const Char* data, Py_ssize_t size) {
  if (cell_unchanged(data, size)) return Ref::borrow(text);
  if constexpr (sizeof(Char) == 1) {
    if (PyUnicode_IS_ASCII(text)) return ascii_cell(data, size);
  }
  CellPlan<Char> plan = plan_cell(data, size);
  if (!plan.changed) return Ref::borrow(text);
  Ref result = own(PyUnicode_New(plan.length, plan.widest));
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
  Ref text = own(PyObject_Format(args[0], nullptr));
  return enclosed('`', text.get(), '`');
}

Ref cell_body(const Env& env, PyObject* const* args) {
  PyObject* text = args[0];
  if (PyUnicode_CheckExact(text)) return cell_text(text);
  // Anything else takes the path the operations themselves define (an override, or the error a
  // non-str raises).
  Ref joined = join(env.name(Id::space), env.method(text, Id::split, {}).get());
  return own(PyUnicode_Replace(joined.get(), env.name(Id::bar), env.name(Id::escaped_bar), -1));
}

Ref row_body(const Env& env, PyObject* const* args) {
  Ref joined = join(env.name(Id::bar_sep), args[0]);
  return TextWriter().lit("| ").str(joined.get()).lit(" |").finish();
}

// The rule under a header: one "---" for each title, read by iterating the header again.
Ref rule_cells(const Env& env, PyObject* header) {
  return collect(header, [&](PyObject*) { return Ref::borrow(env.name(Id::rule)); });
}

Ref table_body(const Env& env, PyObject* const* args) {
  PyObject* header = args[0];
  Ref lines = own(PyList_New(0));
  auto append = [&](Ref line) { check(PyList_Append(lines.get(), line.get())); };
  append(call_global(env, Id::row, {header}));
  // `_row` is looked up before the rule's cells are made from the header, as the call reads it.
  Ref rule_row = lookup(env, Id::row);
  append(call_found(rule_row.get(), {rule_cells(env, header).get()}));
  for_each(args[1], [&](PyObject* row) { append(call_global(env, Id::row, {row})); });
  return lines;
}

Ref value_body(const Env& env, PyObject* const* args) {
  PyObject* value = args[0];
  if (PyBool_Check(value)) return text(value == Py_True ? "true" : "false");
  if (PyList_Check(value) || PyTuple_Check(value)) {
    Ref parts = collect(value, [&](PyObject* item) { return call_global(env, Id::value, {item}); });
    return join(env.name(Id::comma), parts.get());
  }
  return str_of(value);
}

// ---------------------------------------------------------------------------------------------
// The lazy rows a replaced `_table` or `_row` reads: Python iterators over the renderer's own
// generators. Each holds the module and its state, which the generator's frame refers to.

template <typename G>
struct Lazy {
  PyObject ob_base;
  G generator;
  PyObject* module;
  PyObject* state;
};

template <typename G>
Ref wrap(const Env& env, PyObject* type, G generator) {
  // The frame no longer runs inside the call that made it.
  if (Env* frame = generator.env()) frame->function = nullptr;
  auto* lazy = PyObject_GC_New(Lazy<G>, reinterpret_cast<PyTypeObject*>(type));
  if (!lazy) raise();
  new (&lazy->generator) G(std::move(generator));
  lazy->module = Ref::borrow(env.module).release();
  lazy->state = Ref::borrow(env.state->object).release();
  PyObject_GC_Track(reinterpret_cast<PyObject*>(lazy));
  return Ref::steal(reinterpret_cast<PyObject*>(lazy));
}

template <typename G>
Env env_of(const Lazy<G>& lazy) {
  return Env{&state_of(lazy.state), lazy.module, PyModule_GetDict(lazy.module)};
}

Ref emit(const Lazy<Cells>&, Ref cell) {
  return cell;
}

Ref emit(const Lazy<Rows>& rows, Cells row) {
  Env env = env_of(rows);
  return wrap(env, env.state->row_type.get(), std::move(row));
}

template <typename G>
PyObject* lazy_next(PyObject* self) {
  auto* lazy = reinterpret_cast<Lazy<G>*>(self);
  Ref keep = Ref::borrow(self);  // the generator may run code that drops the last reference
  return guarded(
      [&]() -> PyObject* {
        auto value = lazy->generator.next();
        return value ? emit(*lazy, std::move(*value)).release() : nullptr;
      },
      static_cast<PyObject*>(nullptr));
}

template <typename G>
int lazy_traverse(PyObject* self, visitproc visit, void* arg) {
  auto* lazy = reinterpret_cast<Lazy<G>*>(self);
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(lazy->module);
  Py_VISIT(lazy->state);
  return lazy->generator.traverse(visit, arg);
}

template <typename G>
int lazy_clear(PyObject* self) {
  auto* lazy = reinterpret_cast<Lazy<G>*>(self);
  if (lazy->generator.running()) return 0;  // its frame is in use further up the stack
  lazy->generator = G();
  Py_CLEAR(lazy->module);
  Py_CLEAR(lazy->state);
  return 0;
}

template <typename G>
void lazy_dealloc(PyObject* self) {
  auto* lazy = reinterpret_cast<Lazy<G>*>(self);
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  lazy->generator.~G();
  Py_CLEAR(lazy->module);
  Py_CLEAR(lazy->state);
  PyObject_GC_Del(self);
  Py_DECREF(type);
}

template <typename G>
PyType_Slot lazy_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(lazy_dealloc<G>)},
    {Py_tp_traverse, reinterpret_cast<void*>(lazy_traverse<G>)},
    {Py_tp_clear, reinterpret_cast<void*>(lazy_clear<G>)},
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(lazy_next<G>)},
    {0, nullptr},
};

constexpr unsigned kLazyFlags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE |
                                Py_TPFLAGS_DISALLOW_INSTANTIATION;

// ---------------------------------------------------------------------------------------------
// Tables written by our own `_table`.

// Appends every cell of a row, computed in order (as `" | ".join(row)` reads a generator first).
void drain(Cells row, std::vector<Ref>& cells) {
  while (auto cell = row.next()) cells.push_back(std::move(*cell));
}

// A row as our own `_row` writes it: each cell (`cell(i)`, borrowed) checked to be a str, then
// joined.
template <typename Cell>
void write_row(LineJoiner& out, size_t count, Cell cell) {
  for (size_t i = 0; i < count; ++i) {
    if (!PyUnicode_Check(cell(i))) join_type_error(static_cast<Py_ssize_t>(i), cell(i));
  }
  TextWriter* writer = out.start();
  if (!writer) return;
  writer->lit("| ");
  for (size_t i = 0; i < count; ++i) {
    if (i > 0) writer->lit(" | ");
    writer->str(cell(i));
  }
  writer->lit(" |");
}

void write_row(LineJoiner& out, const Ref* cells, size_t count) {
  write_row(out, count, [cells](size_t i) { return cells[i].get(); });
}

// A row as a caller's function receives it when rows are built first.
Ref row_tuple(const Ref* cells, size_t count) {
  Ref row = own(PyTuple_New(static_cast<Py_ssize_t>(count)));
  for (size_t i = 0; i < count; ++i) {
    PyTuple_SET_ITEM(row.get(), static_cast<Py_ssize_t>(i), Ref(cells[i]).release());
  }
  return row;
}

// What our own `_table` writes before the rows: `_row(header)`, then `_row` of the rule.
// A header the renderers give is a tuple, which our own `_row` and the rule read without
// observable steps: those lines are written straight into the output.
void write_head(const Env& env, LineJoiner& out, PyObject* header) {
  bool tuple = PyTuple_CheckExact(header);
  auto size = static_cast<size_t>(tuple ? PyTuple_GET_SIZE(header) : 0);
  Ref header_row = lookup(env, Id::row);
  if (tuple && is_native(header_row.get(), kRow)) {
    write_row(out, size,
              [header](size_t i) { return PyTuple_GET_ITEM(header, static_cast<Py_ssize_t>(i)); });
  } else {
    out.line(call_found(header_row.get(), {header}).get());
  }
  Ref rule_row = lookup(env, Id::row);
  if (tuple && is_native(rule_row.get(), kRow)) {
    write_row(out, size, [&env](size_t) { return env.name(Id::rule); });
  } else {
    out.line(call_found(rule_row.get(), {rule_cells(env, header).get()}).get());
  }
}

}  // namespace

PyType_Spec rows_type_spec = {"registry_docs.table_rows", sizeof(Lazy<Rows>), 0, kLazyFlags,
                              lazy_slots<Rows>};
PyType_Spec row_type_spec = {"registry_docs.table_row", sizeof(Lazy<Cells>), 0, kLazyFlags,
                             lazy_slots<Cells>};

Ref cell_text(PyObject* text) {
  check(PyUnicode_READY(text));
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

Ref strip_text(const Env& env, PyObject* text) {
  if (!PyUnicode_CheckExact(text)) return env.method(text, Id::strip, {});
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  Py_ssize_t start = 0;
  Py_ssize_t end = size;
  while (start < end && Py_UNICODE_ISSPACE(PyUnicode_READ_CHAR(text, start))) ++start;
  while (end > start && Py_UNICODE_ISSPACE(PyUnicode_READ_CHAR(text, end - 1))) --end;
  if (start == 0 && end == size) return Ref::borrow(text);
  return own(PyUnicode_Substring(text, start, end));
}

void LineJoiner::lines(PyObject* iterable) {
  Ref iterator = Ref::steal(PyObject_GetIter(iterable));
  if (!iterator) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) && Py_TYPE(iterable)->tp_iter == nullptr &&
        !PySequence_Check(iterable)) {
      PyErr_Clear();
      PyErr_Format(PyExc_TypeError, "Value after * must be an iterable, not %.200s",
                   Py_TYPE(iterable)->tp_name);
    }
    raise();
  }
  while (Ref item = next(iterator.get())) line(item.get());
}

void write_table(const Env& env, LineJoiner& out, PyObject* header, Rows rows) {
  Ref table = lookup(env, Id::table);
  if (!is_native(table.get(), kTable)) {
    Ref lazy = wrap(env, env.state->rows_type.get(), std::move(rows));
    out.lines(call_found(table.get(), {header, lazy.get()}).get());
    return;
  }
  write_head(env, out, header);
  // `*(_row(row) for row in rows)`: each row is taken before `_row` is looked up for it.
  std::vector<Ref> cells;
  while (auto row = rows.next()) {
    Ref row_fn = lookup(env, Id::row);
    if (is_native(row_fn.get(), kRow)) {
      cells.clear();
      drain(std::move(*row), cells);
      write_row(out, cells.data(), cells.size());
    } else {
      Ref lazy = wrap(env, env.state->row_type.get(), std::move(*row));
      out.line(call_found(row_fn.get(), {lazy.get()}).get());
    }
  }
}

void write_table(const Env& env, LineJoiner& out, PyObject* header, BuiltRows rows) {
  Ref table = lookup(env, Id::table);
  if (!is_native(table.get(), kTable)) {
    Ref list = own(PyList_New(static_cast<Py_ssize_t>(rows.ends.size())));
    for (size_t i = 0, start = 0; i < rows.ends.size(); start = rows.ends[i++]) {
      Ref row = row_tuple(rows.cells.data() + start, rows.ends[i] - start);
      PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), row.release());
    }
    out.lines(call_found(table.get(), {header, list.get()}).get());
    return;
  }
  write_head(env, out, header);
  for (size_t i = 0, start = 0; i < rows.ends.size(); start = rows.ends[i++]) {
    Ref row_fn = lookup(env, Id::row);
    if (is_native(row_fn.get(), kRow)) {
      write_row(out, rows.cells.data() + start, rows.ends[i] - start);
    } else {
      out.line(call_found(row_fn.get(),
                          {row_tuple(rows.cells.data() + start, rows.ends[i] - start).get()})
                   .get());
    }
  }
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
