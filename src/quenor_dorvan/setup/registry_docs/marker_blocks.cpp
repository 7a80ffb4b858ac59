#include "marker_blocks.h"

#include <array>
#include <vector>

#include "text.h"

namespace registry_docs {

namespace {

// A word character as `re` counts it for a str pattern: never the C library's notion.
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

// The blocks of a str, as the module's own pattern finds them with `finditer`, in one linear pass.
std::vector<MarkedBlock> scan(PyObject* text) {
  check(PyUnicode_READY(text));
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  std::vector<MarkedBlock> blocks;
  with_chars(text, [&](auto* chars) {
    if constexpr (sizeof(*chars) == 1) {
      const auto& words = latin1_words();
      scan_markers(
          chars, size, [&words](std::uint32_t c) { return words[c]; }, blocks);
    } else {
      scan_markers(chars, size, is_word, blocks);
    }
  });
  return blocks;
}

// Whether `_MARKER`, as found now, is the module's own pattern and `text` a str, so that the
// scanner gives exactly its matches; otherwise the found object's own methods must be used.
bool native_marker(const Env& env, PyObject* marker, PyObject* text) {
  return marker == env.marker() && PyUnicode_Check(text);
}

Ref substring(PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  return own(PyUnicode_Substring(text, start, end));
}

// A str that `str + x` concatenates as is: anything else may take part through its own `__radd__`.
bool plain_str(PyObject* obj) {
  if (PyUnicode_CheckExact(obj)) return true;
  if (!PyUnicode_Check(obj)) return false;
  PyNumberMethods* number = Py_TYPE(obj)->tp_as_number;
  return !number || !number->nb_add;
}

// What `sub` collects (each nonempty stretch between matches, each replacement other than None)
// and joins at the end, written straight into one str: `str.join`'s error for an item that is not
// a str comes only once every match has been replaced, as `sub` raises it.
void sub_stretch(JoinWriter& result, PyObject* text, Py_ssize_t start, Py_ssize_t end) {
  if (start >= end) return;
  if (TextWriter* out = result.start()) out->substring(text, start, end);
}

Ref replace_scanned(const Env& env, PyObject* text, const std::vector<MarkedBlock>& blocks,
                    Fill fill, PyObject* const* held) {
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  // Without a match `sub` hands back the text itself (a copy for a str subclass).
  if (blocks.empty()) return substring(text, 0, size);
  JoinWriter result("");
  Py_ssize_t done = 0;
  for (const MarkedBlock& block : blocks) {
    sub_stretch(result, text, done, block.open_start);
    Ref filled = fill(env, {text, &block, nullptr}, held);
    if (plain_str(filled.get())) {
      // `open + filled + "\n" + close`, written in place.
      if (TextWriter* out = result.start()) {
        out->substring(text, block.open_start, block.body_start).str(filled.get()).lit("\n");
        out->substring(text, block.close_start, block.close_end);
      }
    } else {
      // Anything else meets the operators' own dispatch and errors.
      Ref piece = add({substring(text, block.open_start, block.body_start), filled,
                       env.name(Id::newline), substring(text, block.close_start, block.close_end)});
      if (piece.get() != Py_None) result.item(piece);
    }
    done = block.close_end;
  }
  sub_stretch(result, text, done, size);
  return result.finish();
}

Ref block_names_body(const Env& env, PyObject* const* args) {
  PyObject* text = args[0];
  Ref marker = lookup(env, Id::MARKER);
  if (!native_marker(env, marker.get(), text)) {
    Ref matches = env.method(marker.get(), Id::finditer, text);
    return collect(matches.get(),
                   [&](PyObject* match) { return subscript(match, env.name(Id::name)); });
  }
  std::vector<MarkedBlock> blocks = scan(text);
  Ref names = own(PyList_New(static_cast<Py_ssize_t>(blocks.size())));
  for (size_t i = 0; i < blocks.size(); ++i) {
    PyList_SET_ITEM(names.get(), static_cast<Py_ssize_t>(i),
                    substring(text, blocks[i].name_start, blocks[i].name_end).release());
  }
  return names;
}

Ref blocks_body(const Env& env, PyObject* const* args) {
  PyObject* text = args[0];
  Ref marker = lookup(env, Id::MARKER);
  Ref bodies = own(PyDict_New());
  if (!native_marker(env, marker.get(), text)) {
    for_each(env.method(marker.get(), Id::finditer, text).get(), [&](PyObject* match) {
      Ref block_name = subscript(match, env.name(Id::name));
      check(PyDict_SetItem(bodies.get(), block_name.get(),
                           subscript(match, env.name(Id::body)).get()));
    });
    return bodies;
  }
  for (const MarkedBlock& block : scan(text)) {
    Ref block_name = substring(text, block.name_start, block.name_end);
    check(PyDict_SetItem(bodies.get(), block_name.get(),
                         substring(text, block.body_start, block.close_start).get()));
  }
  return bodies;
}

}  // namespace

Ref BlockMatch::name(const Env& env) const {
  if (text) return substring(text, block->name_start, block->name_end);
  return subscript(match, env.name(Id::name));
}

Ref render_match(const Env& env, PyObject* match, Fill fill, PyObject* const* held) {
  Ref open = subscript(match, env.name(Id::open));
  Ref filled = fill(env, {nullptr, nullptr, match}, held);
  Ref piece = own(PyNumber_Add(open.get(), filled.get()));
  piece = own(PyNumber_Add(piece.get(), env.name(Id::newline)));
  Ref close = subscript(match, env.name(Id::close));
  return own(PyNumber_Add(piece.get(), close.get()));
}

Ref replace_blocks(const Env& env, PyObject* marker, PyObject* sub, PyObject* text,
                   const Replacement& replacement, std::initializer_list<PyObject*> held) {
  Ref keep_text = Ref::borrow(text);
  if (native_marker(env, marker, text)) {
    return replace_scanned(env, text, scan(text), replacement.fill, held.begin());
  }
  // The replacement stays a function of its own: `sub` may keep it and call it later.
  Ref render = make_closure(env, replacement.render, held);
  return call(sub, render.get(), text);
}

const FunctionDef kBlockNames("block_names",
                              "The names of the generated blocks a text holds, in order.",
                              block_names_body, {{"text", "str"}}, "list[str]");

const FunctionDef kBlocks("_blocks", "The bodies of the generated blocks a text holds, by name.",
                          blocks_body, {{"text", "str"}}, "dict[str, str]");

}  // namespace registry_docs
