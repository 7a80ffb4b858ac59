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

// `_cell` of a text that changes, in one pass into a buffer of the largest size it can take; the
// result gets the narrowest kind that holds its characters.
template <typename Char>
Ref changed_cell(const Char* data, Py_ssize_t size) {
  const std::array<bool, 256>& specials = cell_specials();
  std::vector<Char> buffer(static_cast<size_t>(size) * 2);
  Char* out = buffer.data();
  bool gap = false;
  for (Py_ssize_t i = 0; i < size; ++i) {
    Char c = data[i];
    if (c != '|' && (c < 256 ? specials[c] : Py_UNICODE_ISSPACE(c))) {
      gap = true;
      continue;
    }
    if (gap && out != buffer.data()) *out++ = ' ';
    gap = false;
    if (c == '|') *out++ = '\\';
    *out++ = c;
  }
  return own(PyUnicode_FromKindAndData(sizeof(Char), buffer.data(), out - buffer.data()));
}

template <typename Char>
Ref cell_of_kind(PyObject* text, const Char* data, Py_ssize_t size) {
  if (cell_unchanged(data, size)) return Ref::borrow(text);
  return changed_cell(data, size);
}

// `_cell` of a str.
Ref cell_text(PyObject* text) {
  check(PyUnicode_READY(text));
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  return with_chars(text, [&](auto* chars) { return cell_of_kind(text, chars, size); });
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
  Ref joined = join(env.name(Id::space), env.method(text, Id::split).get());
  return own(PyUnicode_Replace(joined.get(), env.name(Id::bar), env.name(Id::escaped_bar), -1));
}

// `"| " + " | ".join(items) + " |"` into `out` (none: only checked): every item is checked to be
// a str before any is written, as join checks them.
void put_row(TextWriter* out, PyObject* const* items, Py_ssize_t count) {
  for (Py_ssize_t i = 0; i < count; ++i) {
    if (!PyUnicode_Check(items[i])) join_type_error(i, items[i]);
  }
  if (!out) return;
  out->lit("| ");
  for (Py_ssize_t i = 0; i < count; ++i) (i > 0 ? out->lit(" | ") : *out).str(items[i]);
  out->lit(" |");
}

// The cells of a row as `" | ".join(cells)` takes them: all read first.
Ref row_items(PyObject* cells) {
  return own(PySequence_Fast(cells, "can only join an iterable"));
}

Ref row_body(const Env&, PyObject* const* args) {
  Ref items = row_items(args[0]);
  TextWriter out;
  put_row(&out, PySequence_Fast_ITEMS(items.get()), PySequence_Fast_GET_SIZE(items.get()));
  return out.finish();
}

// The rule under a header: one "---" for each title, read by iterating the header again.
Ref rule_cells(const Env& env, PyObject* header) {
  return collect(header, [&](PyObject*) { return Ref::borrow(env.name(Id::rule)); });
}

// `[_row(header), _row(["---" for _ in header]), *(_row(row) for row in rows)]`.
Ref table_body(const Env& env, PyObject* const* args) {
  PyObject* header = args[0];
  Ref lines = own(PyList_New(0));
  append(lines, lookup(env, Id::row)(header));
  append(lines, lookup(env, Id::row)(rule_cells(env, header)));
  for_each(args[1], [&](PyObject* row) { append(lines, lookup(env, Id::row)(row)); });
  return lines;
}

Ref value_body(const Env& env, PyObject* const* args) {
  PyObject* value = args[0];
  if (PyBool_Check(value)) return text(value == Py_True ? "true" : "false");
  if (PyList_Check(value) || PyTuple_Check(value)) {
    Ref parts = collect(value, [&](PyObject* item) { return lookup(env, Id::value)(item); });
    return join(env.name(Id::comma), parts.get());
  }
  return str_of(value);
}

// ---------------------------------------------------------------------------------------------
// Lazy rows: the rows of a table, and each row's cells, made as they are read, as Python's
// generators make them. Every reference they hold is a field of the object, seen by the collector.

// Every reference a lazy object holds is a field of it, seen by the collector.
struct LazyFields {
  Ref module, state;
  Ref builtins;  // those of the renderer that made it, as a generator keeps its function's
  Ref source;    // the rows: the iterator of tools; a row: its tool; null once finished
  RowOf row;
  Py_ssize_t number;  // the rows: tools taken so far; a row: its number
  int cell = 0;       // a row: the next cell
  bool running = false;
};

struct Lazy {
  PyObject ob_base;
  LazyFields l;
};

LazyFields& lazy_of(PyObject* self) {
  return reinterpret_cast<Lazy*>(self)->l;
}

Ref make_lazy(PyObject* type, LazyFields&& fields) {
  auto* lazy = PyObject_GC_New(Lazy, reinterpret_cast<PyTypeObject*>(type));
  if (!lazy) raise();
  new (&lazy->l) LazyFields(std::move(fields));
  PyObject_GC_Track(reinterpret_cast<PyObject*>(lazy));
  return Ref::steal(reinterpret_cast<PyObject*>(lazy));
}

// One step, as a generator takes one: refused while it runs, and finished at its end or once it
// raised.
template <typename Step>
PyObject* lazy_step(PyObject* self, Step step) {
  LazyFields& lazy = lazy_of(self);
  if (!lazy.source) return nullptr;
  if (lazy.running) {
    PyErr_SetString(PyExc_ValueError, "generator already executing");
    return nullptr;
  }
  Ref keep = Ref::borrow(self);  // the step may run code that drops the last other reference
  Ref source = lazy.source;
  Env env{&state_of(lazy.state.get()), lazy.module.get(), PyModule_GetDict(lazy.module.get()),
          lazy.builtins.get()};
  lazy.running = true;
  PyObject* result = guarded([&] { return step(lazy, env, source.get()).release(); },
                             static_cast<PyObject*>(nullptr));
  lazy.running = false;
  if (!result) lazy.source = Ref();
  return result;
}

PyObject* rows_next(PyObject* self) {
  return lazy_step(self, [](LazyFields& rows, const Env& env, PyObject* tools) {
    Ref tool = next(tools);
    if (!tool) return Ref();
    return make_lazy(env.state->row_type.get(), {rows.module, rows.state, rows.builtins,
                                                 std::move(tool), rows.row, ++rows.number});
  });
}

PyObject* row_next(PyObject* self) {
  return lazy_step(self, [](LazyFields& row, const Env& env, PyObject* tool) {
    return row.row(env, tool, row.number, row.cell++);
  });
}

int lazy_traverse(PyObject* self, visitproc visit, void* arg) {
  const LazyFields& lazy = lazy_of(self);
  Py_VISIT(Py_TYPE(self));
  for (const Ref* ref : {&lazy.module, &lazy.state, &lazy.builtins, &lazy.source}) {
    Py_VISIT(ref->get());
  }
  return 0;
}

int lazy_clear(PyObject* self) {
  LazyFields& lazy = lazy_of(self);
  if (lazy.running) return 0;  // its step is in use further up the stack
  Ref gone[] = {std::move(lazy.module), std::move(lazy.state), std::move(lazy.builtins),
                std::move(lazy.source)};
  return 0;
}

void lazy_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  lazy_of(self).~LazyFields();
  PyObject_GC_Del(self);
  Py_DECREF(type);
}

template <PyObject* (*Next)(PyObject*)>
PyType_Slot lazy_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(lazy_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(lazy_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(lazy_clear)},
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(Next)},
    {0, nullptr},
};

constexpr unsigned kLazyFlags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_IMMUTABLETYPE |
                                Py_TPFLAGS_DISALLOW_INSTANTIATION;

// `_row(cells)` as the next line of `out`; our own `_row` writes it in place, and makes the cells
// of a lazy row of ours, which only the writer holds, in order without a list.
void write_row(const Env& env, LineJoiner& out, const Global& row, PyObject* cells) {
  if (!row.is(kRow)) return out.line(row(cells).get());
  if (Py_TYPE(cells) != reinterpret_cast<PyTypeObject*>(env.state->row_type.get())) {
    Ref items = row_items(cells);
    put_row(out.start(), PySequence_Fast_ITEMS(items.get()), PySequence_Fast_GET_SIZE(items.get()));
    return;
  }
  LazyFields& lazy = lazy_of(cells);
  struct Drain {  // running while its cells are made, finished after
    LazyFields& row;
    Ref tool = row.source;
    explicit Drain(LazyFields& lazy) : row(lazy) { row.running = true; }
    ~Drain() {
      row.running = false;
      row.source = Ref();
    }
  } drain(lazy);
  constexpr int kMaxCells = 8;  // the widest table the module makes lazily has five columns
  Ref made[kMaxCells + 1];
  PyObject* items[kMaxCells];
  int count = 0;
  while ((made[count] = lazy.row(env, drain.tool.get(), lazy.number, count))) {
    if (count == kMaxCells) {
      PyErr_SetString(PyExc_SystemError, "a table row with more cells than the writer holds");
      raise();
    }
    items[count] = made[count].get();
    ++count;
  }
  put_row(out.start(), items, count);
}

}  // namespace

PyType_Spec rows_type_spec = {"registry_docs.table_rows", sizeof(Lazy), 0, kLazyFlags,
                              lazy_slots<rows_next>};
PyType_Spec row_type_spec = {"registry_docs.table_row", sizeof(Lazy), 0, kLazyFlags,
                             lazy_slots<row_next>};

Ref lazy_rows(const Env& env, Obj tools, RowOf row) {
  return make_lazy(env.state->rows_type.get(),
                   {Ref::borrow(env.module), Ref::borrow(env.state->object),
                    Ref::borrow(env.builtins), own(PyObject_GetIter(tools.get())), row, 0});
}

void LineJoiner::lines(PyObject* iterable) {
  Ref iterator = iterate(iterable, "Value after * must be an iterable, not %.200s");
  while (Ref item = next(iterator.get())) line(item.get());
}

void write_table(const Env& env, LineJoiner& out, PyObject* header, PyObject* rows) {
  Global table = lookup(env, Id::table);
  if (!table.is(kTable)) return out.lines(table(header, rows).get());
  write_row(env, out, lookup(env, Id::row), header);
  Global rule_row = lookup(env, Id::row);  // found before the rule's cells are made
  write_row(env, out, rule_row, rule_cells(env, header).get());
  // Each row is taken before `_row` is looked up for it.
  for_each(rows, [&](PyObject* cells) { write_row(env, out, lookup(env, Id::row), cells); });
}

const FunctionDef kCode("_code", "Text as a Markdown code span.", code_body, {{"text", "str"}},
                        "str");
const FunctionDef kCell("_cell", "Text made safe for one cell of a Markdown table.", cell_body,
                        {{"text", "str"}}, "str");
const FunctionDef kRow("_row", "One row of a Markdown table.", row_body,
                       {{"cells", "Iterable[str]"}}, "str");
const FunctionDef kTable("_table", "A Markdown table: the header, its rule and the rows.",
                         table_body,
                         {{"header", "tuple[str, ...]"}, {"rows", "Iterable[Iterable[str]]"}},
                         "list[str]");
const FunctionDef kValue("_value",
                         "A default or a bound as a reader writes it (JSON spelling for booleans).",
                         value_body, {{"value", "Any"}}, "str");

}  // namespace registry_docs
