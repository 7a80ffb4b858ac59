// The owning reference handle and the few CPython helpers every subsystem shares.
#pragma once
#include <Python.h>

#include <initializer_list>
#include <utility>

namespace registry_docs {

// Owns one strong reference (or none). A null Ref returned from a function means that a Python
// exception is set.
class Ref {
 public:
  Ref() = default;
  static Ref steal(PyObject* obj) {
    Ref ref;
    ref.obj_ = obj;
    return ref;
  }
  static Ref borrow(PyObject* obj) {
    Py_XINCREF(obj);
    return steal(obj);
  }
  Ref(const Ref& other) : obj_(other.obj_) { Py_XINCREF(obj_); }
  Ref(Ref&& other) noexcept : obj_(std::exchange(other.obj_, nullptr)) {}
  Ref& operator=(Ref other) noexcept {
    std::swap(obj_, other.obj_);
    return *this;
  }
  ~Ref() { Py_XDECREF(obj_); }

  PyObject* get() const { return obj_; }
  PyObject* release() { return std::exchange(obj_, nullptr); }
  explicit operator bool() const { return obj_ != nullptr; }

 private:
  PyObject* obj_ = nullptr;
};

// Builds one str from pieces without repeated concatenation.
class TextWriter {
 public:
  TextWriter();
  ~TextWriter();
  TextWriter(const TextWriter&) = delete;
  TextWriter& operator=(const TextWriter&) = delete;

  bool str(PyObject* text);  // text must be a str (any subclass)
  bool ascii(const char* text, Py_ssize_t size);
  template <Py_ssize_t N>
  bool lit(const char (&text)[N]) {
    return ascii(text, N - 1);
  }
  bool substring(PyObject* text, Py_ssize_t start, Py_ssize_t end);
  bool ch(Py_UCS4 c);
  Ref finish();

 private:
  _PyUnicodeWriter writer_;
  bool finished_ = false;
};

// Writes `separator.join(items)` item by item into one str. An item that is not a str is reported
// as join reports it, and only once every item has been given (join sees them all first).
class JoinWriter {
 public:
  explicit JoinWriter(const char* separator);
  // One whole item.
  bool item(PyObject* text);
  // Starts the next item and gives the writer for its pieces, or null: with an exception set when
  // writing failed, without one when an earlier item was not a str (the rest is only counted).
  TextWriter* start();
  Ref finish();

 private:
  TextWriter writer_;
  const char* separator_;
  Py_ssize_t separator_size_;
  Py_ssize_t count_ = 0;
  Ref bad_item_;
  Py_ssize_t bad_index_ = -1;
};

// Interned names the code reads: module globals, attributes, mapping keys and fixed words.
#define REGISTRY_DOCS_NAMES(X)                                \
  X(TOOLS, "TOOLS")                                           \
  X(TIERS, "_TIERS")                                          \
  X(NONE, "_NONE")                                            \
  X(MARKER, "_MARKER")                                        \
  X(QUENOR_INSTRUCTION_CONTENT, "QUENOR_INSTRUCTION_CONTENT") \
  X(without_markers, "without_markers")                       \
  X(rules_table, "rules_table")                               \
  X(skill_table, "skill_table")                               \
  X(get_cli_schema, "get_cli_schema")                         \
  X(snake_to_kebab, "snake_to_kebab")                         \
  X(ENDPOINT_FRAMEWORKS, "ENDPOINT_FRAMEWORKS")               \
  X(GeneratedFile, "GeneratedFile")                           \
  X(ordered_tools, "ordered_tools")                           \
  X(tier_tools, "_tier_tools")                                \
  X(code, "_code")                                            \
  X(cell, "_cell")                                            \
  X(row, "_row")                                              \
  X(table, "_table")                                          \
  X(value, "_value")                                          \
  X(actions_cell, "_actions_cell")                            \
  X(tier_counts, "_tier_counts")                              \
  X(cli_usage, "cli_usage")                                   \
  X(skill_tools_block, "skill_tools_block")                   \
  X(readme_tools_block, "readme_tools_block")                 \
  X(mcp_intro_block, "mcp_intro_block")                       \
  X(mcp_overview_block, "mcp_overview_block")                 \
  X(mcp_cli_block, "mcp_cli_block")                           \
  X(default_cell, "_default_cell")                            \
  X(type_cell, "_type_cell")                                  \
  X(description_cell, "_description_cell")                    \
  X(mcp_params_block, "mcp_params_block")                     \
  X(skill_text, "_skill_text")                                \
  X(literal_text, "_literal_text")                            \
  X(skill_routes_block, "skill_routes_block")                 \
  X(rules_block, "rules_block")                               \
  X(params_renderer, "_params_renderer")                      \
  X(generated_files, "generated_files")                       \
  X(block_names, "block_names")                               \
  X(render_file, "render_file")                               \
  X(read, "_read")                                            \
  X(stale_blocks, "stale_blocks")                             \
  X(blocks_, "_blocks")                                       \
  X(write_blocks, "write_blocks")                             \
  X(name, "name")                                             \
  X(tier, "tier")                                             \
  X(summary, "summary")                                       \
  X(mcp_text, "mcp_text")                                     \
  X(action_names, "action_names")                             \
  X(actions, "actions")                                       \
  X(all_params, "all_params")                                 \
  X(required, "required")                                     \
  X(default_, "default")                                      \
  X(action_defaults, "action_defaults")                       \
  X(applies_to, "applies_to")                                 \
  X(values_text, "values_text")                               \
  X(path, "path")                                             \
  X(blocks, "blocks")                                         \
  X(encode, "encode")                                         \
  X(capitalize, "capitalize")                                 \
  X(split, "split")                                           \
  X(replace, "replace")                                       \
  X(strip, "strip")                                           \
  X(join, "join")                                             \
  X(get, "get")                                               \
  X(index, "index")                                           \
  X(values, "values")                                         \
  X(finditer, "finditer")                                     \
  X(sub, "sub")                                               \
  X(read_text, "read_text")                                   \
  X(write_bytes, "write_bytes")                               \
  X(encoding, "encoding")                                     \
  X(utf_8, "utf-8")                                           \
  X(properties, "properties")                                 \
  X(type, "type")                                             \
  X(items, "items")                                           \
  X(description, "description")                               \
  X(minimum, "minimum")                                       \
  X(maximum, "maximum")                                       \
  X(array, "array")                                           \
  X(open, "open")                                             \
  X(body, "body")                                             \
  X(close, "close")                                           \
  X(frameworks, "frameworks")                                 \
  X(empty, "")                                                \
  X(space, " ")                                               \
  X(newline, "\n")                                            \
  X(comma, ", ")                                              \
  X(bar_sep, " | ")                                           \
  X(and_sep, " and ")                                         \
  X(bar, "|")                                                 \
  X(escaped_bar, "\\|")                                       \
  X(backslash, "\\")                                          \
  X(two_backslashes, "\\\\")                                  \
  X(open_brace, "{")                                          \
  X(two_open_braces, "{{")                                    \
  X(close_brace, "}")                                         \
  X(two_close_braces, "}}")                                   \
  X(rule, "---")                                              \
  X(dunder_name, "__name__")                                  \
  X(dunder_file, "__file__")                                  \
  X(dunder_spec, "__spec__")                                  \
  X(dunder_import, "__import__")                              \
  X(initializing, "_initializing")                            \
  X(endswith, "endswith")                                     \
  X(dot, ".")                                                 \
  X(yes, "Yes")                                               \
  X(no, "No")                                                 \
  X(all, "all")                                               \
  X(one_call, "*(one call)*")

enum class Id {
#define REGISTRY_DOCS_ENUM(id, text) id,
  REGISTRY_DOCS_NAMES(REGISTRY_DOCS_ENUM)
#undef REGISTRY_DOCS_ENUM
      count
};

// Creates the interned names once per process; false with an exception set on failure.
bool init_names();
// The interned str of a name (borrowed; the names live as long as the process).
PyObject* name(Id id);

inline Ref getattr(PyObject* obj, Id id) {
  return Ref::steal(PyObject_GetAttr(obj, name(id)));
}

// Calls fn(item) for each item of an iterable, as a for loop does; false with an exception set
// when taking an item fails or fn does (fn returns false).
template <typename F>
bool for_each(PyObject* iterable, F fn) {
  Ref iterator = Ref::steal(PyObject_GetIter(iterable));
  if (!iterator) return false;
  while (Ref item = Ref::steal(PyIter_Next(iterator.get()))) {
    if (!fn(item.get())) return false;
  }
  return !PyErr_Occurred();
}

// `[fn(item) for item in iterable]`: fn gives each element, or null with an exception set.
template <typename F>
Ref collect(PyObject* iterable, F fn) {
  Ref list = Ref::steal(PyList_New(0));
  if (!list) return Ref();
  bool ok = for_each(iterable, [&](PyObject* item) {
    Ref element = fn(item);
    return element && PyList_Append(list.get(), element.get()) == 0;
  });
  return ok ? list : Ref();
}

// Calls a method by name with positional arguments.
Ref call_method(PyObject* obj, Id method, std::initializer_list<PyObject*> args);
// Calls any callable with positional arguments.
Ref call(PyObject* callable, std::initializer_list<PyObject*> args);

// `obj[key]` and `obj.get(key)` as Python spells them (exact dicts take the direct path).
Ref subscript(PyObject* obj, Id key);
Ref subscript(PyObject* obj, PyObject* key);
Ref mapping_get(PyObject* mapping, PyObject* key);  // None when absent
Ref mapping_get(PyObject* mapping, Id key);

// `open + text + close` for a str and two ASCII characters, built at its exact size.
Ref enclosed(char open, PyObject* text, char close);

// An int (any size) as str() spells it.
inline Ref ssize_text(Py_ssize_t n) {
  Ref number = Ref::steal(PyLong_FromSsize_t(n));
  return number ? Ref::steal(PyObject_Str(number.get())) : Ref();
}

// `str + str` with Python's error for a non-str right operand.
bool check_concat(PyObject* obj);
// The error `str.join` raises for item `index` of a sequence that is not a str.
void join_type_error(Py_ssize_t index, PyObject* item);
// Unpacks one item into exactly two, with the interpreter's own unpacking errors.
bool unpack_pair(PyObject* item, Ref& first, Ref& second);
// `sep.join(items)` for items that are all str.
Ref join(Id separator, PyObject* list);

}  // namespace registry_docs
