#include "maintenance.h"

#include <vector>

#include "compat.h"
#include "marker_blocks.h"
#include "text.h"

namespace registry_docs {

namespace {

// `sorted(iterable)`.
Ref sorted_list(PyObject* iterable) {
  Ref list = own(PySequence_List(iterable));
  check(PyList_Sort(list.get()));
  return list;
}

// `sorted(found) != sorted(expected) or len(set(found)) != len(found)`.
bool markers_differ(PyObject* found, PyObject* expected) {
  if (compare(sorted_list(found).get(), sorted_list(expected).get(), Py_NE)) return true;
  Py_ssize_t distinct = PySet_GET_SIZE(own(PySet_New(found)).get());
  return distinct != check_size(PyObject_Size(found));
}

// `sorted(set(a) - set(b))`.
Ref sorted_difference(PyObject* a, PyObject* b) {
  Ref left = own(PySet_New(a));
  Ref right = own(PySet_New(b));
  return sorted_list(own(PyNumber_Subtract(left.get(), right.get())).get());
}

// `{name for name in found if found.count(name) > 1}`: only a broken file gets here.
Ref repeated_names(PyObject* found) {
  Ref repeated = own(PySet_New(nullptr));
  Ref one = own(PyLong_FromLong(1));
  Ref count_name = text("count");
  for_each(found, [&](PyObject* item) {
    Ref count = own(PyObject_CallMethodOneArg(found, count_name.get(), item));
    if (compare(count.get(), one.get(), Py_GT)) check(PySet_Add(repeated.get(), item));
  });
  return repeated;
}

[[noreturn]] void raise_markers_mismatch(const Env& env, PyObject* generated, PyObject* expected,
                                         PyObject* found) {
  Ref missing = sorted_difference(expected, found);
  Ref unknown = sorted_difference(found, expected);
  Ref repeated = sorted_list(repeated_names(found).get());
  raise(PyExc_ValueError, fstr({env.attr(generated, Id::path),
                                ": the markers do not match the blocks it holds (missing ", missing,
                                ", unknown ", unknown, ", repeated ", repeated, ")"}));
}

// `generated.encode(renderers[match["name"]]())`, read in that order; the closure of `render`
// holds `generated` and `renderers`.
Ref fill_block(const Env& env, const BlockMatch& match, PyObject* const* held) {
  Ref encode = env.attr(captured(env, held, 0).get(), Id::encode);
  Ref renderers = captured(env, held, 1);
  Ref renderer = subscript(renderers.get(), match.name(env).get());
  Ref rendered = call_found(renderer.get());
  return call_found(encode.get(), rendered.get());
}

Ref file_render_body(const Env& env, PyObject* const* args) {
  return render_match(env, args[0], fill_block, args + 1);
}

const FunctionDef kFileRender("render", nullptr, file_render_body, {{"match", nullptr}}, nullptr,
                              "render_file.<locals>.render", {"generated", "renderers"});

// pairs = [(name, renderer) for name, renderer in generated.blocks]; the names are checked
// against block_names(text); then `_MARKER.sub(render, text)` fills each block.
Ref render_file_body(const Env& env, PyObject* const* args) {
  PyObject* text = args[0];
  Ref generated = Ref::borrow(args[1]);
  // The pairs are kept natively: their tuples would be collected garbage, and nobody sees them.
  std::vector<std::pair<Ref, Ref>> pairs;
  for_each(env.attr(generated.get(), Id::blocks).get(),
           [&](PyObject* item) { pairs.push_back(unpack_pair(item)); });
  Ref expected = own(PyList_New(static_cast<Py_ssize_t>(pairs.size())));
  for (size_t i = 0; i < pairs.size(); ++i) {
    PyList_SET_ITEM(expected.get(), static_cast<Py_ssize_t>(i), Ref(pairs[i].first).release());
  }
  Ref found = lookup(env, Id::block_names)(text);
  if (markers_differ(found.get(), expected.get())) {
    raise_markers_mismatch(env, generated.get(), expected.get(), found.get());
  }
  Ref renderers = own(PyDict_New());
  for (const auto& [block_name, renderer] : pairs) {
    check(PyDict_SetItem(renderers.get(), block_name.get(), renderer.get()));
  }
  Ref marker = lookup(env, Id::MARKER);
  Ref sub = env.attr(marker.get(), Id::sub);
  return replace_blocks(env, marker.get(), sub.get(), text, {kFileRender, fill_block},
                        {generated.get(), renderers.get()});
}

// `(root / generated.path).read_text(encoding="utf-8")`.
Ref read_body(const Env& env, PyObject* const* args) {
  Ref path = own(PyNumber_TrueDivide(args[0], env.attr(args[1], Id::path).get()));
  Ref kwnames = own(PyTuple_Pack(1, env.name(Id::encoding)));
  PyObject* stack[] = {path.get(), env.name(Id::utf_8)};
  return own(PyObject_VectorcallMethod(env.name(Id::read_text), stack,
                                       1 | PY_VECTORCALL_ARGUMENTS_OFFSET, kwnames.get()));
}

// `[name for name, body in old.items() if new.get(name) != body]`.
Ref stale_names(const Env& env, PyObject* old_blocks, PyObject* new_blocks) {
  Ref stale = own(PyList_New(0));
  for_each(env.method(old_blocks, Id::items).get(), [&](PyObject* item) {
    auto [block_name, body] = unpack_pair(item);
    Ref now = mapping_get(new_blocks, block_name.get(), env.name(Id::get));
    if (compare(now.get(), body.get(), Py_NE)) append(stale, block_name);
  });
  return stale;
}

// While an exception is handled, as inside an `except` clause: what is raised meanwhile gets it
// as its context.
class Handling {
 public:
  explicit Handling(PyObject* error) {
    PyObject* saved[3];
    PyErr_GetExcInfo(&saved[0], &saved[1], &saved[2]);
    for (int i = 0; i < 3; ++i) saved_[i] = Ref::steal(saved[i]);
    PyErr_SetExcInfo(Py_NewRef(reinterpret_cast<PyObject*>(Py_TYPE(error))), Py_NewRef(error),
                     PyException_GetTraceback(error));
  }
  ~Handling() { PyErr_SetExcInfo(saved_[0].release(), saved_[1].release(), saved_[2].release()); }
  Handling(const Handling&) = delete;
  Handling& operator=(const Handling&) = delete;

 private:
  Ref saved_[3];  // the type, value and traceback handled before
};

// f"{generated.path}: blocks out of date: {', '.join(stale)}".
Ref stale_line(const Env& env, PyObject* generated, PyObject* text, PyObject* rendered) {
  Ref old_blocks = lookup(env, Id::blocks_)(text);
  Ref new_blocks = lookup(env, Id::blocks_)(rendered);
  Ref stale = stale_names(env, old_blocks.get(), new_blocks.get());
  return fstr({env.attr(generated, Id::path),
               ": blocks out of date: ", join(env.name(Id::comma), stale.get())});
}

// The file's problem line, or null when it is current: a value error while rendering becomes
// the line, as `except ValueError as error: problems.append(str(error))` makes it.
Ref problem_of(const Env& env, PyObject* root, PyObject* generated) {
  Ref text = lookup(env, Id::read)(root, generated);
  Ref rendered;
  try {
    rendered = lookup(env, Id::render_file)(text, generated);
  } catch (const PythonError&) {
    if (!PyErr_ExceptionMatches(PyExc_ValueError)) throw;
    Ref error = own(compat::take_exception());
    Handling handling(error.get());
    return str_of(error.get());
  }
  if (compare(rendered.get(), text.get(), Py_EQ)) return Ref();
  return stale_line(env, generated, text.get(), rendered.get());
}

Ref stale_blocks_body(const Env& env, PyObject* const* args) {
  Ref root = Ref::borrow(args[0]);
  Ref problems = own(PyList_New(0));
  for_each(lookup(env, Id::generated_files)().get(), [&](PyObject* generated) {
    if (Ref line = problem_of(env, root.get(), generated)) append(problems, line);
  });
  return problems;
}

// Renders every file, then encodes each changed one, then writes: nothing is written before every
// file has been read, rendered and encoded. A path listed twice is compared with the text the
// earlier write leaves, and written once.
Ref write_blocks_body(const Env& env, PyObject* const* args) {
  Ref root = Ref::borrow(args[0]);
  Ref catalogue = lookup(env, Id::generated_files)();
  Ref rendered = own(PyDict_New());
  for_each(catalogue.get(), [&](PyObject* generated) {
    Ref path = env.attr(generated, Id::path);
    Ref text = lookup(env, Id::render_file)(lookup(env, Id::read)(root, generated), generated);
    check(PyDict_SetItem(rendered.get(), path.get(), text.get()));
  });

  Ref paths = own(PyList_New(0));
  Ref contents = own(PyList_New(0));
  Ref scheduled = own(PyDict_New());
  for_each(catalogue.get(), [&](PyObject* generated) {
    Ref current = lookup(env, Id::read)(root, generated);
    Ref path = env.attr(generated, Id::path);
    Ref text = subscript(rendered.get(), path.get());
    PyObject* pending = nullptr;
    if (check(compat::dict_get_ref(scheduled.get(), path.get(), &pending))) {
      current = Ref::steal(pending);
    }
    if (!compare(current.get(), text.get(), Py_NE)) return;
    Ref data = env.method(text.get(), Id::encode, env.name(Id::utf_8));
    check(PyDict_SetItem(scheduled.get(), path.get(), text.get()));
    append(paths, path);
    append(contents, data);
  });

  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(paths.get()); ++i) {
    Ref path = Ref::borrow(PyList_GET_ITEM(paths.get(), i));
    Ref data = Ref::borrow(PyList_GET_ITEM(contents.get(), i));
    Ref file = own(PyNumber_TrueDivide(root.get(), path.get()));
    env.method(file.get(), Id::write_bytes, data.get());
  }
  return paths;
}

}  // namespace

const FunctionDef kRenderFile(
    "render_file",
    "The text with each of its generated blocks rendered anew from the registry.\n"
    "\n"
    "Raises:\n"
    "    ValueError: The text lacks a block the file must hold, holds one twice, or holds one the "
    "file does not declare.\n",
    render_file_body, {{"text", "str"}, {"generated", "GeneratedFile"}}, "str");

const FunctionDef kRead(
    "_read", "A generated file's text, read as UTF-8 with its line endings as line feeds.",
    read_body, {{"root", "Path"}, {"generated", "GeneratedFile"}}, "str");

const FunctionDef kStaleBlocks(
    "stale_blocks",
    "The generated files whose blocks differ from what the registry renders, one line each.\n"
    "\n"
    "Args:\n"
    "    root: The repository's root.\n"
    "\n"
    "Returns:\n"
    "    One problem per file that is out of date or whose markers are wrong; empty when every "
    "block is current.\n",
    stale_blocks_body, {{"root", "Path"}}, "list[str]");

const FunctionDef kWriteBlocks(
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
    write_blocks_body, {{"root", "Path"}}, "list[str]");

}  // namespace registry_docs
