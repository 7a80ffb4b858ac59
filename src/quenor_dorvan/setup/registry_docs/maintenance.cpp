#include "maintenance.h"

#include <structmember.h>

#include <array>
#include <new>

#include "compat.h"

namespace registry_docs {

namespace {

const char kMarkerPattern[] =
    "(?P<open><!-- registry:(?P<name>[\\w:-]+) -->\\n)(?P<body>.*?)"
    "(?P<close><!-- /registry:(?P=name) -->)";

const char kGeneratedFileDoc[] =
    "A file of the repository that holds generated blocks.\n"
    "\n"
    "Attributes:\n"
    "    path: The file, relative to the repository's root.\n"
    "    blocks: The blocks it holds: each name with the function that renders the block.\n"
    "    encode: How the file holds a rendered block (the skill's template doubles braces).\n";

Ref substring(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  return Ref::steal(PyUnicode_Substring(text, start, end));
}

Ref text_of(const char* text) {
  return Ref::steal(PyUnicode_FromString(text));
}

// `sorted(iterable)`.
Ref sorted_list(PyObject* iterable) {
  Ref list = Ref::steal(PySequence_List(iterable));
  if (!list || PyList_Sort(list.get()) < 0) return Ref();
  return list;
}

// `bool(a <op> b)` without the identity shortcut of PyObject_RichCompareBool: `==` on host
// objects must reach their own comparison.
int compare(PyObject* a, PyObject* b, int op) {
  Ref result = Ref::steal(PyObject_RichCompare(a, b, op));
  return result ? PyObject_IsTrue(result.get()) : -1;
}

// ---------------------------------------------------------------------------------------------
// The scanner over CPython's str storage.

bool is_word(std::uint32_t c) {
  return Py_UNICODE_ISALNUM(static_cast<Py_UCS4>(c)) || c == '_';
}

// The Latin-1 range is what most texts are stored in; a table spares the Unicode database there.
const std::array<bool, 256>& latin1_words() {
  static const std::array<bool, 256> table = [] {
    std::array<bool, 256> words{};
    for (std::uint32_t c = 0; c < 256; ++c) words[c] = is_word(c);
    return words;
  }();
  return table;
}

// ---------------------------------------------------------------------------------------------
// Replacing blocks: what `_MARKER.sub(render, text)` does with a function `render` that returns
// `match["open"] + fill(match) + "\n" + match["close"]`.

// A str that `str + x` concatenates as is: anything else may take part through its own `__radd__`.
bool plain_str(PyObject* obj) {
  if (PyUnicode_CheckExact(obj)) return true;
  if (!PyUnicode_Check(obj)) return false;
  PyNumberMethods* number = Py_TYPE(obj)->tp_as_number;
  return !number || !number->nb_add;
}

// `open + filled + "\n" + close` for any `filled`, with the operators' own dispatch and errors.
Ref concatenate(PyObject* open, PyObject* filled, PyObject* close) {
  Ref piece = Ref::steal(PyNumber_Add(open, filled));
  if (!piece) return Ref();
  piece = Ref::steal(PyNumber_Add(piece.get(), name(Id::newline)));
  if (!piece) return Ref();
  return Ref::steal(PyNumber_Add(piece.get(), close));
}

// What `sub` collects (each nonempty stretch between matches, each replacement other than None)
// and joins at the end, written straight into one str: `str.join`'s error for an item that is not
// a str comes only once every match has been replaced, as `sub` raises it.
bool sub_stretch(JoinWriter& result, PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  if (start >= end) return true;
  TextWriter* out = result.start();
  return out ? out->substring(text, start, end) : !PyErr_Occurred();
}

// A replacement known to be `open + filled + "\n" + close` with filled a plain str.
bool sub_block(JoinWriter& result, PyObject* text, const MarkedBlock& block, PyObject* filled) {
  TextWriter* out = result.start();
  if (!out) return !PyErr_Occurred();
  return out->substring(text, block.open_start, block.body_start) && out->str(filled) &&
         out->lit("\n") && out->substring(text, block.close_start, block.close_end);
}

class ScannedMatch final : public BlockMatch {
 public:
  ScannedMatch(PyObject* text, const MarkedBlock& block) : text_(text), block_(block) {}
  Ref name() const override { return substring(text_, block_.name_start, block_.name_end); }

 private:
  PyObject* text_;
  const MarkedBlock& block_;
};

Ref replace_scanned(PyObject* text, const std::vector<MarkedBlock>& blocks, const BlockFill& fill) {
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  // Without a match `sub` hands back the text itself (a copy for a str subclass).
  if (blocks.empty()) return substring(text, 0, size);
  JoinWriter result("");
  Py_ssize_t done = 0;
  for (const MarkedBlock& block : blocks) {
    if (!sub_stretch(result, text, done, block.open_start)) return Ref();
    Ref filled = fill(ScannedMatch(text, block));
    if (!filled) return Ref();
    if (plain_str(filled.get())) {
      if (!sub_block(result, text, block, filled.get())) return Ref();
    } else {
      Ref open = substring(text, block.open_start, block.body_start);
      Ref close = open ? substring(text, block.close_start, block.close_end) : Ref();
      Ref piece = close ? concatenate(open.get(), filled.get(), close.get()) : Ref();
      if (!piece || (piece.get() != Py_None && !result.item(piece.get()))) return Ref();
    }
    done = block.close_end;
  }
  if (!sub_stretch(result, text, done, size)) return Ref();
  return result.finish();
}

// The function a rebound `_MARKER.sub` gets. It runs the caller's fill only while replace_blocks
// runs: the fill may refer to that call's locals.
struct FillSlot {
  const BlockFill* fill;
};

const char kFillSlotName[] = "registry_docs.block_fill";

void free_fill_slot(PyObject* capsule) {
  delete static_cast<FillSlot*>(PyCapsule_GetPointer(capsule, kFillSlotName));
}

class ObjectMatch final : public BlockMatch {
 public:
  explicit ObjectMatch(PyObject* match) : match_(match) {}
  Ref name() const override { return subscript(match_, Id::name); }

 private:
  PyObject* match_;
};

PyObject* render_match(PyObject* self, PyObject* match) {
  auto* slot = static_cast<FillSlot*>(PyCapsule_GetPointer(self, kFillSlotName));
  if (!slot) return nullptr;
  if (!slot->fill) {
    PyErr_SetString(PyExc_RuntimeError, "the block renderer was called after its file was done");
    return nullptr;
  }
  Ref keep = Ref::borrow(match);
  Ref open = subscript(match, Id::open);
  if (!open) return nullptr;
  Ref filled = (*slot->fill)(ObjectMatch(match));
  if (!filled) return nullptr;
  Ref piece = Ref::steal(PyNumber_Add(open.get(), filled.get()));
  if (!piece) return nullptr;
  piece = Ref::steal(PyNumber_Add(piece.get(), name(Id::newline)));
  if (!piece) return nullptr;
  Ref close = subscript(match, Id::close);
  if (!close) return nullptr;
  return PyNumber_Add(piece.get(), close.get());
}

PyMethodDef render_match_def = {"render", render_match, METH_O, nullptr};

Ref replace_through(PyObject* marker, PyObject* text, const BlockFill& fill) {
  auto* slot = new (std::nothrow) FillSlot{&fill};
  if (!slot) return Ref::steal(PyErr_NoMemory());
  Ref capsule = Ref::steal(PyCapsule_New(slot, kFillSlotName, free_fill_slot));
  if (!capsule) {
    delete slot;
    return Ref();
  }
  Ref render = Ref::steal(PyCFunction_New(&render_match_def, capsule.get()));
  if (!render) return Ref();
  Ref result = call_method(marker, Id::sub, {render.get(), text});
  slot->fill = nullptr;
  return result;
}

// ---------------------------------------------------------------------------------------------
// `_params_renderer`'s closure: `def render(): return mcp_params_block(tool)`.

Ref params_render_body(const Env& env, PyObject* const*) {
  return call_global(env, Id::mcp_params_block, {closure_value(env)});
}

const FunctionDef kParamsRender = {
    "render", nullptr, 0, {}, {}, nullptr, params_render_body, "_params_renderer.<locals>.render"};

Ref params_renderer_body(const Env& env, PyObject* const* args) {
  return make_closure(env, kParamsRender, args[0]);
}

// ---------------------------------------------------------------------------------------------
// The catalogue.

// `(block_name, renderer)` with the renderer looked up now.
Ref declared_block(const Env& env, const char* block_name, Id renderer) {
  Ref key = text_of(block_name);
  if (!key) return Ref();
  Ref found = lookup(env, renderer);
  if (!found) return Ref();
  return Ref::steal(PyTuple_Pack(2, key.get(), found.get()));
}

// `GeneratedFile(path, blocks[, encode])`, the record type looked up before its arguments.
Ref make_record(PyObject* record_type, const char* path, PyObject* blocks, PyObject* encode) {
  Ref path_text = text_of(path);
  if (!path_text) return Ref();
  if (encode) return call(record_type, {path_text.get(), blocks, encode});
  return call(record_type, {path_text.get(), blocks});
}

// The parameter blocks of `docs/mcp-tools.md`, one per tool in the documented order, appended.
bool append_params_blocks(const Env& env, PyObject* blocks) {
  Ref tools = call_global(env, Id::ordered_tools, {});
  if (!tools) return false;
  return for_each(tools.get(), [&](PyObject* tool) {
    Ref tool_name = getattr(tool, Id::name);
    Ref formatted = tool_name ? Ref::steal(PyObject_Format(tool_name.get(), nullptr)) : Ref();
    TextWriter key_writer;
    if (!formatted || !key_writer.lit("params:") || !key_writer.str(formatted.get())) {
      return false;
    }
    Ref key = key_writer.finish();
    Ref renderer = key ? call_global(env, Id::params_renderer, {tool}) : Ref();
    Ref pair = renderer ? Ref::steal(PyTuple_Pack(2, key.get(), renderer.get())) : Ref();
    return pair && PyList_Append(blocks, pair.get()) == 0;
  });
}

// The catalogue's files: path, fixed blocks (name and renderer), encoder (the record's default
// when absent) and whether the per-tool parameter blocks follow the fixed ones.
struct CatalogueEntry {
  const char* path;
  std::pair<const char*, Id> blocks[3];
  int block_count;
  bool has_encode;
  Id encode;
  bool params_blocks;
};

const CatalogueEntry kCatalogue[] = {
    {"src/quenor_dorvan/setup/skill_text.py",
     {{"skill-routes", Id::skill_routes_block}, {"skill-tools", Id::skill_tools_block}},
     2,
     true,
     Id::skill_text,
     false},
    {"src/quenor_dorvan/setup/config.py",
     {{"rules-routes", Id::rules_table}},
     1,
     true,
     Id::literal_text,
     false},
    {"docs/claude-instructions-template.md",
     {{"rules-block", Id::rules_block}},
     1,
     false,
     Id::literal_text,
     false},
    {"README.md", {{"readme-tools", Id::readme_tools_block}}, 1, false, Id::literal_text, false},
    {"docs/mcp-tools.md",
     {{"mcp-intro", Id::mcp_intro_block},
      {"mcp-overview", Id::mcp_overview_block},
      {"mcp-cli", Id::mcp_cli_block}},
     3,
     false,
     Id::literal_text,
     true},
};

// One record, its names looked up in the order the call `GeneratedFile(path, blocks, encode)`
// evaluates them.
Ref catalogue_record(const Env& env, const CatalogueEntry& entry) {
  Ref record = lookup(env, Id::GeneratedFile);
  if (!record) return Ref();
  Ref blocks = Ref::steal(PyList_New(0));
  if (!blocks) return Ref();
  for (int i = 0; i < entry.block_count; ++i) {
    Ref pair = declared_block(env, entry.blocks[i].first, entry.blocks[i].second);
    if (!pair || PyList_Append(blocks.get(), pair.get()) < 0) return Ref();
  }
  if (entry.params_blocks && !append_params_blocks(env, blocks.get())) return Ref();
  Ref tuple = Ref::steal(PyList_AsTuple(blocks.get()));
  if (!tuple) return Ref();
  if (!entry.has_encode) return make_record(record.get(), entry.path, tuple.get(), nullptr);
  Ref encode = lookup(env, entry.encode);
  return encode ? make_record(record.get(), entry.path, tuple.get(), encode.get()) : Ref();
}

Ref generated_files_body(const Env& env, PyObject* const*) {
  Ref files = Ref::steal(PyTuple_New(std::size(kCatalogue)));
  if (!files) return Ref();
  for (size_t i = 0; i < std::size(kCatalogue); ++i) {
    Ref file = catalogue_record(env, kCatalogue[i]);
    if (!file) return Ref();
    PyTuple_SET_ITEM(files.get(), static_cast<Py_ssize_t>(i), file.release());
  }
  return files;
}

// ---------------------------------------------------------------------------------------------
// Listing blocks.

Ref block_names_body(const Env& env, PyObject* const* args) {
  PyObject* text = args[0];
  Ref marker = lookup(env, Id::MARKER);
  if (!marker) return Ref();
  if (native_marker(env, marker.get(), text)) {
    std::vector<MarkedBlock> blocks;
    if (!scan_blocks(text, blocks)) return Ref();
    Ref names = Ref::steal(PyList_New(static_cast<Py_ssize_t>(blocks.size())));
    if (!names) return Ref();
    for (size_t i = 0; i < blocks.size(); ++i) {
      Ref block_name = substring(text, blocks[i].name_start, blocks[i].name_end);
      if (!block_name) return Ref();
      PyList_SET_ITEM(names.get(), static_cast<Py_ssize_t>(i), block_name.release());
    }
    return names;
  }
  Ref matches = call_method(marker.get(), Id::finditer, {text});
  if (!matches) return Ref();
  return collect(matches.get(), [](PyObject* match) { return subscript(match, Id::name); });
}

Ref blocks_body(const Env& env, PyObject* const* args) {
  PyObject* text = args[0];
  Ref marker = lookup(env, Id::MARKER);
  if (!marker) return Ref();
  Ref bodies = Ref::steal(PyDict_New());
  if (!bodies) return Ref();
  if (native_marker(env, marker.get(), text)) {
    std::vector<MarkedBlock> blocks;
    if (!scan_blocks(text, blocks)) return Ref();
    for (const MarkedBlock& block : blocks) {
      Ref block_name = substring(text, block.name_start, block.name_end);
      Ref body = block_name ? substring(text, block.body_start, block.close_start) : Ref();
      if (!body || PyDict_SetItem(bodies.get(), block_name.get(), body.get()) < 0) return Ref();
    }
    return bodies;
  }
  Ref matches = call_method(marker.get(), Id::finditer, {text});
  if (!matches) return Ref();
  bool ok = for_each(matches.get(), [&](PyObject* match) {
    Ref block_name = subscript(match, Id::name);
    Ref body = block_name ? subscript(match, Id::body) : Ref();
    return body && PyDict_SetItem(bodies.get(), block_name.get(), body.get()) == 0;
  });
  return ok ? bodies : Ref();
}

// ---------------------------------------------------------------------------------------------
// Rendering one file.

// Whether the names found differ from those declared:
// `sorted(found) != sorted(expected) or len(set(found)) != len(found)`. -1 with an exception set.
int markers_differ(PyObject* found, PyObject* expected) {
  Ref found_sorted = sorted_list(found);
  if (!found_sorted) return -1;
  Ref expected_sorted = sorted_list(expected);
  if (!expected_sorted) return -1;
  int differ = compare(found_sorted.get(), expected_sorted.get(), Py_NE);
  if (differ != 0) return differ;
  Ref unique = Ref::steal(PySet_New(found));
  if (!unique) return -1;
  Py_ssize_t distinct = PySet_GET_SIZE(unique.get());
  Py_ssize_t count = PyObject_Size(found);
  if (count < 0) return -1;
  return distinct != count ? 1 : 0;
}

// `sorted(set(a) - set(b))`.
Ref sorted_difference(PyObject* a, PyObject* b) {
  Ref left = Ref::steal(PySet_New(a));
  if (!left) return Ref();
  Ref right = Ref::steal(PySet_New(b));
  if (!right) return Ref();
  Ref difference = Ref::steal(PyNumber_Subtract(left.get(), right.get()));
  return difference ? sorted_list(difference.get()) : Ref();
}

// `{name for name in found if found.count(name) > 1}`.
Ref repeated_names(PyObject* found) {
  Ref repeated = Ref::steal(PySet_New(nullptr));
  if (!repeated) return Ref();
  bool plain = PyList_CheckExact(found);
  for (Py_ssize_t i = 0; plain && i < PyList_GET_SIZE(found); ++i) {
    plain = PyUnicode_CheckExact(PyList_GET_ITEM(found, i));
  }
  if (plain) {
    // A list of str: counting by hash gives what `list.count` gives, in linear time.
    Ref counts = Ref::steal(PyDict_New());
    if (!counts) return Ref();
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(found); ++i) {
      PyObject* item = PyList_GET_ITEM(found, i);
      PyObject* seen = PyDict_GetItemWithError(counts.get(), item);
      if (!seen && PyErr_Occurred()) return Ref();
      PyObject* value = seen ? Py_True : Py_False;  // seen once, or more than once
      if (PyDict_SetItem(counts.get(), item, value) < 0) return Ref();
    }
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(found); ++i) {
      PyObject* item = PyList_GET_ITEM(found, i);
      if (PyDict_GetItemWithError(counts.get(), item) == Py_True &&
          PySet_Add(repeated.get(), item) < 0) {
        return Ref();
      }
      if (PyErr_Occurred()) return Ref();
    }
    return repeated;
  }
  Ref one = Ref::steal(PyLong_FromLong(1));
  Ref count_name = text_of("count");
  if (!one || !count_name) return Ref();
  bool ok = for_each(found, [&](PyObject* item) {
    Ref count = Ref::steal(PyObject_CallMethodOneArg(found, count_name.get(), item));
    int many = count ? compare(count.get(), one.get(), Py_GT) : -1;
    return many == 0 || (many > 0 && PySet_Add(repeated.get(), item) == 0);
  });
  return ok ? repeated : Ref();
}

void raise_markers_mismatch(PyObject* generated, PyObject* expected, PyObject* found) {
  Ref missing = sorted_difference(expected, found);
  if (!missing) return;
  Ref unknown = sorted_difference(found, expected);
  if (!unknown) return;
  Ref repeated_set = repeated_names(found);
  if (!repeated_set) return;
  Ref repeated = sorted_list(repeated_set.get());
  if (!repeated) return;
  Ref path = getattr(generated, Id::path);
  if (!path) return;
  Ref texts[4] = {Ref::steal(PyObject_Format(path.get(), nullptr))};
  PyObject* lists[3] = {missing.get(), unknown.get(), repeated.get()};
  for (int i = 0; i < 3; ++i) {
    if (!texts[i]) return;
    texts[i + 1] = Ref::steal(PyObject_Format(lists[i], nullptr));
  }
  if (!texts[3]) return;
  TextWriter out;
  if (!out.str(texts[0].get()) ||
      !out.lit(": the markers do not match the blocks it holds (missing ") ||
      !out.str(texts[1].get()) || !out.lit(", unknown ") || !out.str(texts[2].get()) ||
      !out.lit(", repeated ") || !out.str(texts[3].get()) || !out.lit(")")) {
    return;
  }
  Ref message = out.finish();
  if (message) PyErr_SetObject(PyExc_ValueError, message.get());
}

Ref render_file_body(const Env& env, PyObject* const* args) {
  PyObject* text = args[0];
  Ref generated = Ref::borrow(args[1]);
  Ref declared = getattr(generated.get(), Id::blocks);
  if (!declared) return Ref();
  Ref pairs = collect(declared.get(), [](PyObject* item) -> Ref {
    Ref block_name, renderer;
    if (!unpack_pair(item, block_name, renderer)) return Ref();
    return Ref::steal(PyTuple_Pack(2, block_name.get(), renderer.get()));
  });
  Ref expected = pairs ? Ref::steal(PyList_New(0)) : Ref();
  if (!expected) return Ref();
  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(pairs.get()); ++i) {
    PyObject* block_name = PyTuple_GET_ITEM(PyList_GET_ITEM(pairs.get(), i), 0);
    if (PyList_Append(expected.get(), block_name) < 0) return Ref();
  }
  Ref found = call_global(env, Id::block_names, {text});
  if (!found) return Ref();
  int differ = markers_differ(found.get(), expected.get());
  if (differ < 0) return Ref();
  if (differ) {
    raise_markers_mismatch(generated.get(), expected.get(), found.get());
    return Ref();
  }
  Ref renderers = Ref::steal(PyDict_New());
  if (!renderers) return Ref();
  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(pairs.get()); ++i) {
    PyObject* pair = PyList_GET_ITEM(pairs.get(), i);
    if (PyDict_SetItem(renderers.get(), PyTuple_GET_ITEM(pair, 0), PyTuple_GET_ITEM(pair, 1)) < 0) {
      return Ref();
    }
  }
  // `generated.encode(renderers[match["name"]]())`, read in that order for each block.
  BlockFill fill = [&generated, &renderers](const BlockMatch& match) -> Ref {
    Ref encode = getattr(generated.get(), Id::encode);
    if (!encode) return Ref();
    Ref block_name = match.name();
    if (!block_name) return Ref();
    Ref renderer = subscript(renderers.get(), block_name.get());
    if (!renderer) return Ref();
    Ref rendered = call_found(renderer.get(), {});
    if (!rendered) return Ref();
    return call_found(encode.get(), {rendered.get()});
  };
  return replace_blocks(env, text, fill);
}

// ---------------------------------------------------------------------------------------------
// Files.

Ref read_body(const Env&, PyObject* const* args) {
  Ref relative = getattr(args[1], Id::path);
  if (!relative) return Ref();
  Ref path = Ref::steal(PyNumber_TrueDivide(args[0], relative.get()));
  if (!path) return Ref();
  Ref kwnames = Ref::steal(PyTuple_Pack(1, name(Id::encoding)));
  if (!kwnames) return Ref();
  PyObject* stack[] = {path.get(), name(Id::utf_8)};
  return Ref::steal(PyObject_VectorcallMethod(name(Id::read_text), stack,
                                              1 | PY_VECTORCALL_ARGUMENTS_OFFSET, kwnames.get()));
}

// `[name for name, body in old.items() if new.get(name) != body]`.
Ref stale_names(PyObject* old_blocks, PyObject* new_blocks) {
  Ref items = call_method(old_blocks, Id::items, {});
  if (!items) return Ref();
  Ref stale = Ref::steal(PyList_New(0));
  if (!stale) return Ref();
  bool ok = for_each(items.get(), [&](PyObject* item) {
    Ref block_name, body;
    if (!unpack_pair(item, block_name, body)) return false;
    Ref now = mapping_get(new_blocks, block_name.get());
    int differ = now ? compare(now.get(), body.get(), Py_NE) : -1;
    return differ == 0 || (differ > 0 && PyList_Append(stale.get(), block_name.get()) == 0);
  });
  return ok ? stale : Ref();
}

// While an exception is handled, as inside an `except` clause: what is raised meanwhile gets it
// as its context.
class Handling {
 public:
  explicit Handling(PyObject* error) {
    PyErr_GetExcInfo(&type_, &value_, &traceback_);
    PyErr_SetExcInfo(Ref::borrow(reinterpret_cast<PyObject*>(Py_TYPE(error))).release(),
                     Ref::borrow(error).release(), PyException_GetTraceback(error));
  }
  ~Handling() { PyErr_SetExcInfo(type_, value_, traceback_); }
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;

 private:
  PyObject* type_ = nullptr;
  PyObject* value_ = nullptr;
  PyObject* traceback_ = nullptr;
};

// One line for a file whose blocks are out of date, or null (with an exception set).
Ref stale_line(const Env& env, PyObject* generated, PyObject* text, PyObject* rendered) {
  Ref old_blocks = call_global(env, Id::blocks_, {text});
  if (!old_blocks) return Ref();
  Ref new_blocks = call_global(env, Id::blocks_, {rendered});
  if (!new_blocks) return Ref();
  Ref stale = stale_names(old_blocks.get(), new_blocks.get());
  if (!stale) return Ref();
  Ref path = getattr(generated, Id::path);
  if (!path) return Ref();
  Ref path_text = Ref::steal(PyObject_Format(path.get(), nullptr));
  if (!path_text) return Ref();
  Ref names = join(Id::comma, stale.get());
  if (!names) return Ref();
  TextWriter out;
  if (!out.str(path_text.get()) || !out.lit(": blocks out of date: ") || !out.str(names.get())) {
    return Ref();
  }
  return out.finish();
}

Ref stale_blocks_body(const Env& env, PyObject* const* args) {
  Ref root = Ref::borrow(args[0]);
  Ref problems = Ref::steal(PyList_New(0));
  if (!problems) return Ref();
  Ref catalogue = call_global(env, Id::generated_files, {});
  if (!catalogue) return Ref();
  bool ok = for_each(catalogue.get(), [&](PyObject* generated) {
    Ref text = call_global(env, Id::read, {root.get(), generated});
    if (!text) return false;
    Ref rendered = call_global(env, Id::render_file, {text.get(), generated});
    Ref line;
    if (rendered) {
      int same = compare(rendered.get(), text.get(), Py_EQ);
      if (same) return same > 0;
      line = stale_line(env, generated, text.get(), rendered.get());
    } else {
      if (!PyErr_ExceptionMatches(PyExc_ValueError)) return false;
      Ref error = Ref::steal(compat::take_exception());
      if (!error) return false;
      Handling handling(error.get());
      line = Ref::steal(PyObject_Str(error.get()));
    }
    return line && PyList_Append(problems.get(), line.get()) == 0;
  });
  return ok ? problems : Ref();
}

// `text.encode("utf-8")`.
Ref utf8_bytes(PyObject* text) {
  if (PyUnicode_CheckExact(text)) return Ref::steal(PyUnicode_AsUTF8String(text));
  return call_method(text, Id::encode, {name(Id::utf_8)});
}

// Renders every file, then encodes each changed one, then writes: nothing is written before every
// file has been read, rendered and encoded. As Python:
//
//     catalogue = generated_files()
//     rendered = {g.path: render_file(_read(root, g), g) for g in catalogue}
//     changes, scheduled = [], {}
//     for g in catalogue:
//         current = _read(root, g)
//         path = g.path
//         text = rendered[path]
//         if path in scheduled:  # the file as the earlier write leaves it
//             current = scheduled[path]
//         if current != text:
//             scheduled[path] = text
//             changes.append((path, text.encode("utf-8")))
//     for path, data in changes:
//         (root / path).write_bytes(data)
//     return [path for path, _ in changes]
Ref write_blocks_body(const Env& env, PyObject* const* args) {
  Ref root = Ref::borrow(args[0]);
  Ref catalogue = call_global(env, Id::generated_files, {});
  if (!catalogue) return Ref();
  Ref rendered = Ref::steal(PyDict_New());
  if (!rendered) return Ref();
  bool ok = for_each(catalogue.get(), [&](PyObject* generated) {
    Ref path = getattr(generated, Id::path);
    Ref render = path ? lookup(env, Id::render_file) : Ref();
    Ref text = render ? call_global(env, Id::read, {root.get(), generated}) : Ref();
    Ref result = text ? call_found(render.get(), {text.get(), generated}) : Ref();
    return result && PyDict_SetItem(rendered.get(), path.get(), result.get()) == 0;
  });
  if (!ok) return Ref();

  Ref paths = Ref::steal(PyList_New(0));
  Ref contents = Ref::steal(PyList_New(0));
  Ref scheduled = Ref::steal(PyDict_New());
  if (!paths || !contents || !scheduled) return Ref();
  ok = for_each(catalogue.get(), [&](PyObject* generated) {
    Ref current = call_global(env, Id::read, {root.get(), generated});
    Ref path = current ? getattr(generated, Id::path) : Ref();
    Ref text = path ? subscript(rendered.get(), path.get()) : Ref();
    if (!text) return false;
    PyObject* pending = nullptr;
    int status = compat::dict_get_ref(scheduled.get(), path.get(), &pending);
    if (status < 0) return false;
    if (status > 0) current = Ref::steal(pending);
    int differ = compare(current.get(), text.get(), Py_NE);
    if (differ <= 0) return differ == 0;
    Ref data = utf8_bytes(text.get());
    return data && PyDict_SetItem(scheduled.get(), path.get(), text.get()) == 0 &&
           PyList_Append(paths.get(), path.get()) == 0 &&
           PyList_Append(contents.get(), data.get()) == 0;
  });
  if (!ok) return Ref();

  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(paths.get()); ++i) {
    Ref path = Ref::borrow(PyList_GET_ITEM(paths.get(), i));
    Ref data = Ref::borrow(PyList_GET_ITEM(contents.get(), i));
    Ref file = Ref::steal(PyNumber_TrueDivide(root.get(), path.get()));
    if (!file) return Ref();
    Ref written = call_method(file.get(), Id::write_bytes, {data.get()});
    if (!written) return Ref();
  }
  return paths;
}

}  // namespace

Ref compile_marker(PyObject* module) {
  PyObject* globals = PyModule_GetDict(module);
  PyObject* re = PyDict_GetItemString(globals, "re");
  if (!re) {
    PyErr_SetString(PyExc_ImportError, "re is not imported");
    return Ref();
  }
  Ref flag = Ref::steal(PyObject_GetAttrString(re, "DOTALL"));
  Ref pattern = Ref::steal(PyUnicode_FromString(kMarkerPattern));
  if (!flag || !pattern) return Ref();
  Ref compile = Ref::steal(PyObject_GetAttrString(re, "compile"));
  if (!compile) return Ref();
  return call(compile.get(), {pattern.get(), flag.get()});
}

Ref build_generated_file(PyObject* module) {
  PyObject* globals = PyModule_GetDict(module);
  Ref module_name = Ref::steal(PyModule_GetNameObject(module));
  if (!module_name) return Ref();
  Ref annotations = Ref::steal(Py_BuildValue("{ssssss}", "path", "str", "blocks",
                                             "tuple[tuple[str, Callable[[], str]], ...]", "encode",
                                             "Callable[[str], str]"));
  Ref namespace_ = Ref::steal(Py_BuildValue(
      "{sOsssssOsO}", "__module__", module_name.get(), "__qualname__", "GeneratedFile", "__doc__",
      kGeneratedFileDoc, "__annotations__", annotations.get(), "encode", &PyUnicode_Type));
  Ref bases = Ref::steal(PyTuple_New(0));
  Ref class_name = Ref::steal(PyUnicode_FromString("GeneratedFile"));
  if (!annotations || !namespace_ || !bases || !class_name) return Ref();
  Ref cls = call(reinterpret_cast<PyObject*>(&PyType_Type),
                 {class_name.get(), bases.get(), namespace_.get()});
  if (!cls) return Ref();
  PyObject* dataclass = PyDict_GetItemString(globals, "dataclass");
  if (!dataclass) {
    PyErr_SetString(PyExc_ImportError, "dataclass is not imported");
    return Ref();
  }
  Ref kwargs = Ref::steal(Py_BuildValue("{sO}", "frozen", Py_True));
  Ref no_args = Ref::steal(PyTuple_New(0));
  if (!kwargs || !no_args) return Ref();
  Ref decorator = Ref::steal(PyObject_Call(dataclass, no_args.get(), kwargs.get()));
  if (!decorator) return Ref();
  return call(decorator.get(), {cls.get()});
}

bool scan_blocks(PyObject* text, std::vector<MarkedBlock>& blocks) {
  if (PyUnicode_READY(text) < 0) return false;
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  try {
    switch (PyUnicode_KIND(text)) {
      case PyUnicode_1BYTE_KIND: {
        const auto& words = latin1_words();
        scan_markers(
            PyUnicode_1BYTE_DATA(text), size, [&words](std::uint32_t c) { return words[c]; },
            blocks);
        break;
      }
      case PyUnicode_2BYTE_KIND:
        scan_markers(PyUnicode_2BYTE_DATA(text), size, is_word, blocks);
        break;
      default:
        scan_markers(PyUnicode_4BYTE_DATA(text), size, is_word, blocks);
        break;
    }
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
    return false;
  }
  return true;
}

Ref replace_blocks(const Env& env, PyObject* text, const BlockFill& fill) {
  Ref marker = lookup(env, Id::MARKER);
  return marker ? replace_blocks(env, marker.get(), text, fill) : Ref();
}

Ref replace_blocks(const Env& env, PyObject* marker, PyObject* text, const BlockFill& fill) {
  Ref keep_marker = Ref::borrow(marker);
  Ref keep_text = Ref::borrow(text);
  if (!native_marker(env, marker, text)) return replace_through(marker, text, fill);
  std::vector<MarkedBlock> blocks;
  if (!scan_blocks(text, blocks)) return Ref();
  return replace_scanned(text, blocks, fill);
}

const FunctionDef kParamsRenderer = {"_params_renderer",
                                     "The renderer of one tool's parameter block.",
                                     1,
                                     {"tool"},
                                     {"ToolSpec"},
                                     "Callable[[], str]",
                                     params_renderer_body};

const FunctionDef kGeneratedFiles = {
    "generated_files",
    "The files that hold generated blocks, made from the registry as it is when called.",
    0,
    {},
    {},
    "tuple[GeneratedFile, ...]",
    generated_files_body};

const FunctionDef kBlockNames = {"block_names",
                                 "The names of the generated blocks a text holds, in order.",
                                 1,
                                 {"text"},
                                 {"str"},
                                 "list[str]",
                                 block_names_body};

const FunctionDef kRenderFile = {
    "render_file",
    "The text with each of its generated blocks rendered anew from the registry.\n"
    "\n"
    "Raises:\n"
    "    ValueError: The text lacks a block the file must hold, holds one twice, or holds one the "
    "file does not declare.\n",
    2,
    {"text", "generated"},
    {"str", "GeneratedFile"},
    "str",
    render_file_body};

const FunctionDef kRead = {
    "_read",
    "A generated file's text, read as UTF-8 with its line endings as line feeds.",
    2,
    {"root", "generated"},
    {"Path", "GeneratedFile"},
    "str",
    read_body};

const FunctionDef kStaleBlocks = {
    "stale_blocks",
    "The generated files whose blocks differ from what the registry renders, one line each.\n"
    "\n"
    "Args:\n"
    "    root: The repository's root.\n"
    "\n"
    "Returns:\n"
    "    One problem per file that is out of date or whose markers are wrong; empty when every "
    "block is current.\n",
    1,
    {"root"},
    {"Path"},
    "list[str]",
    stale_blocks_body};

const FunctionDef kBlocks = {
    "_blocks",  "The bodies of the generated blocks a text holds, by name.",
    1,          {"text"},
    {"str"},    "dict[str, str]",
    blocks_body};

const FunctionDef kWriteBlocks = {
    "write_blocks",
    "Render every generated block anew and write the files that changed.\n"
    "\n"
    "Args:\n"
    "    root: The repository's root.\n"
    "\n"
    "Returns:\n"
    "    The paths of the files written, relative to the root.\n"
    "\n"
    "Raises:\n"
    "    ValueError: A file's markers are wrong; nothing is written then.\n",
    1,
    {"root"},
    {"Path"},
    "list[str]",
    write_blocks_body};

}  // namespace registry_docs
