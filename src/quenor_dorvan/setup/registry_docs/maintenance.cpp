#include "maintenance.h"

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
  Ref annotations = Ref::steal(Py_BuildValue(
      "{ssssss}", "path", "str", "blocks", "tuple[tuple[str, Callable[[], str]], ...]", "encode",
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

}  // namespace registry_docs

namespace registry_docs {
static Ref stub(const Env&, PyObject* const*) { PyErr_SetString(PyExc_NotImplementedError, "x"); return Ref(); }
const FunctionDef kParamsRenderer = {"kParamsRenderer", "doc", 0, {}, {}, "str", stub};
const FunctionDef kGeneratedFiles = {"kGeneratedFiles", "doc", 0, {}, {}, "str", stub};
const FunctionDef kBlockNames = {"kBlockNames", "doc", 0, {}, {}, "str", stub};
const FunctionDef kRenderFile = {"kRenderFile", "doc", 0, {}, {}, "str", stub};
const FunctionDef kRead = {"kRead", "doc", 0, {}, {}, "str", stub};
const FunctionDef kStaleBlocks = {"kStaleBlocks", "doc", 0, {}, {}, "str", stub};
const FunctionDef kBlocks = {"kBlocks", "doc", 0, {}, {}, "str", stub};
const FunctionDef kWriteBlocks = {"kWriteBlocks", "doc", 0, {}, {}, "str", stub};
}
