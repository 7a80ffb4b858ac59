// The module's entry point and the module body that runs once, at import.
#include "blocks.h"
#include "function.h"
#include "listing.h"
#include "maintenance.h"
#include "markdown.h"
#include "registry_inputs.h"

namespace registry_docs {
namespace {

const char kModuleDoc[] =
    "The generated blocks of the host's documentation, rendered from the tool registry.\n"
    "\n"
    "The tools, their actions and their parameters are written once, in\n"
    "``quenor_dorvan.tool_registry``, and which call answers which need once, in\n"
    "``quenor_dorvan.tool_routes``. The texts that list them for a reader (the route and tool\n"
    "tables of the ``dorvan`` skill, the routing table of the rules block that ``quenor-dorvan\n"
    "init`` writes and the template that shows that block, the tool table of ``README.md``, and\n"
    "the overview, the CLI usage and the parameter tables of ``docs/mcp-tools.md``) are made from\n"
    "them here, each between two marker comments in its file, ``<!-- registry:NAME -->`` and\n"
    "``<!-- /registry:NAME -->``. The text around the markers is written by hand and never\n"
    "touched.\n"
    "\n"
    "Callers: the maintenance script ``scripts/gen_registry_docs.py``, whose ``--check`` mode\n"
    "reports every block that differs from what the registry renders and writes nothing and whose\n"
    "``--write`` mode rewrites them, and host code that calls ``stale_blocks(repo_root)`` to get\n"
    "the list of problems.\n";

const char* const kAll[] = {
    "GeneratedFile",      "rules_block",       "skill_routes_block", "block_names",
    "generated_files",    "cli_usage",         "mcp_cli_block",      "mcp_intro_block",
    "mcp_overview_block", "mcp_params_block",  "ordered_tools",      "readme_tools_block",
    "render_file",        "skill_tools_block", "stale_blocks",       "write_blocks",
};

// The functions in the order the module body defines them: those before the record type...
const FunctionDef* const kFunctionsBeforeRecord[] = {
    &kOrderedTools,
    &kTierTools,
    &kCode,
    &kCell,
    &kRow,
    &kTable,
    &kValue,
    &kActionsCell,
    &kTierCounts,
    &kCliUsage,
    &kSkillToolsBlock,
    &kReadmeToolsBlock,
    &kMcpIntroBlock,
    &kMcpOverviewBlock,
    &kMcpCliBlock,
    &kDefaultCell,
    &kTypeCell,
    &kDescriptionCell,
    &kMcpParamsBlock,
    &kSkillText,
    &kLiteralText,
    &kSkillRoutesBlock,
    &kRulesBlock,
};

// ...and those after it.
const FunctionDef* const kFunctionsAfterRecord[] = {
    &kParamsRenderer, &kGeneratedFiles, &kBlockNames, &kRenderFile,
    &kRead,           &kStaleBlocks,    &kBlocks,     &kWriteBlocks,
};

bool set(PyObject* globals, const char* key, PyObject* value) {
  return value && PyDict_SetItemString(globals, key, value) == 0;
}

// The bookkeeping a module body starts with: its docstring, file, spec, cache and annotations.
bool bookkeeping(PyObject* module, PyObject* globals) {
  Ref doc = Ref::steal(PyUnicode_FromString(kModuleDoc));
  if (!set(globals, "__doc__", doc.get())) return false;
  PyObject* file = PyDict_GetItemWithError(globals, name(Id::dunder_file));
  if (!file && PyErr_Occurred()) return false;
  if (!file) {
    PyObject* spec = PyDict_GetItemWithError(globals, name(Id::dunder_spec));
    if (!spec && PyErr_Occurred()) return false;
    if (spec && spec != Py_None) {
      Ref origin = Ref::steal(PyObject_GetAttrString(spec, "origin"));
      if (!origin || !set(globals, "__file__", origin.get())) return false;
    }
  }
  (void)module;
  // A module body runs with `__builtins__` bound before its first statement.
  if (!set(globals, "__cached__", Py_None)) return false;
  Ref builtins_key = Ref::steal(PyUnicode_InternFromString("__builtins__"));
  int has_builtins = builtins_key ? PyDict_Contains(globals, builtins_key.get()) : -1;
  if (has_builtins < 0 || (!has_builtins && !set(globals, "__builtins__", PyEval_GetBuiltins()))) {
    return false;
  }
  Ref annotations = Ref::steal(PyDict_New());
  return set(globals, "__annotations__", annotations.get());
}

bool bind_functions(PyObject* module, PyObject* type, PyObject* marker,
                    const FunctionDef* const* defs, size_t count) {
  PyObject* globals = PyModule_GetDict(module);
  for (size_t i = 0; i < count; ++i) {
    Ref function = make_function(type, module, marker, *defs[i]);
    if (!set(globals, defs[i]->name, function.get())) return false;
  }
  return true;
}

int exec_module(PyObject* module) {
  if (!init_names()) return -1;
  PyObject* globals = PyModule_GetDict(module);
  if (!bookkeeping(module, globals)) return -1;
  if (!import_from(module, "__future__", {"annotations"})) return -1;
  {
    Ref re = Ref::steal(PyImport_ImportModule("re"));
    if (!set(globals, "re", re.get())) return -1;
  }
  if (!import_from(module, "collections.abc", {"Callable", "Iterable"}) ||
      !import_from(module, "dataclasses", {"dataclass"}) ||
      !import_from(module, "pathlib", {"Path"}) ||
      !import_from(module, "typing", {"Any", "get_args"})) {
    return -1;
  }
  if (!import_host_names(module)) return -1;

  Ref all = Ref::steal(PyList_New(0));
  if (!all) return -1;
  for (const char* entry : kAll) {
    Ref text = Ref::steal(PyUnicode_InternFromString(entry));
    if (!text || PyList_Append(all.get(), text.get()) < 0) return -1;
  }
  if (!set(globals, "__all__", all.get())) return -1;

  Ref get_args = Ref::borrow(PyDict_GetItemString(globals, "get_args"));
  Ref tier_type = Ref::borrow(PyDict_GetItemString(globals, "ToolTier"));
  if (!get_args || !tier_type) {
    PyErr_SetString(PyExc_ImportError, "get_args or ToolTier is missing");
    return -1;
  }
  Ref tiers = call(get_args.get(), {tier_type.get()});
  if (!set(globals, "_TIERS", tiers.get())) return -1;
  PyObject* annotations = PyDict_GetItemString(globals, "__annotations__");
  Ref tiers_annotation = Ref::steal(PyUnicode_FromString("tuple[ToolTier, ...]"));
  if (!annotations || !tiers_annotation ||
      PyObject_SetItem(annotations, name(Id::TIERS), tiers_annotation.get()) < 0) {
    return -1;
  }
  Ref none = Ref::steal(PyUnicode_FromString("--"));
  if (!set(globals, "_NONE", none.get())) return -1;
  Ref marker = compile_marker(module);
  if (!set(globals, "_MARKER", marker.get())) return -1;

  Ref type = make_function_type(module);
  if (!type) return -1;
  if (!bind_functions(module, type.get(), marker.get(), kFunctionsBeforeRecord,
                      std::size(kFunctionsBeforeRecord))) {
    return -1;
  }
  Ref record = build_generated_file(module);
  if (!set(globals, "GeneratedFile", record.get())) return -1;
  if (!bind_functions(module, type.get(), marker.get(), kFunctionsAfterRecord,
                      std::size(kFunctionsAfterRecord))) {
    return -1;
  }
  return 0;
}

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_module)},
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "registry_docs",
    nullptr,  // the docstring is set by the module body
    0,
    nullptr,
    module_slots,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace
}  // namespace registry_docs

PyMODINIT_FUNC PyInit_registry_docs() {
  return PyModuleDef_Init(&registry_docs::module_def);
}
