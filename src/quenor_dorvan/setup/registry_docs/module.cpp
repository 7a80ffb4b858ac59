// The module's entry point and the module body that runs once, at import.
//
// The layers, bottom to top; an include only points down:
//   compat.h          every difference between CPython versions
//   py.*              the owning handle, the error channel, calls
//   text.*            the text builder
//   markers.h         the linear marker scanner (pure C++)
//   module_state.*    what one imported module owns: interned names, marker, types
//   function.*        the native function type and the per-call name lookup
//   registry_inputs.h the host imports
//   markdown.*        code spans, cells, rows, the one table writer, value spelling, lazy rows
//   listing.*         tool order, tier groups and counts, action cells, CLI usage
//   marker_blocks.*   blocks found and replaced through `_MARKER`
//   blocks.*          one renderer per block kind, the two string-literal encoders
//   catalogue.*       GeneratedFile and the catalogue
//   maintenance.*     the file renderer, the check and the writer
//   module.cpp        this file: the state assembled, the module body
#include <string>

#include "blocks.h"
#include "catalogue.h"
#include "compat.h"
#include "listing.h"
#include "maintenance.h"
#include "markdown.h"
#include "marker_blocks.h"
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

const char kImports[] =
    "from __future__ import annotations\n"
    "import re\n"
    "from collections.abc import Callable, Iterable\n"
    "from dataclasses import dataclass\n"
    "from pathlib import Path\n"
    "from typing import Any, get_args\n";

const char kGlobals[] =
    "__all__ = ['GeneratedFile', 'rules_block', 'skill_routes_block', 'block_names',\n"
    "           'generated_files', 'cli_usage', 'mcp_cli_block', 'mcp_intro_block',\n"
    "           'mcp_overview_block', 'mcp_params_block', 'ordered_tools', 'readme_tools_block',\n"
    "           'render_file', 'skill_tools_block', 'stale_blocks', 'write_blocks']\n"
    "_TIERS: tuple[ToolTier, ...] = get_args(ToolTier)\n"
    "_NONE = '--'\n";

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

void set(PyObject* globals, const char* key, PyObject* value) {
  check(PyDict_SetItemString(globals, key, value));
}

// The bookkeeping a module body starts with: its docstring, file, spec, cache and annotations.
void bookkeeping(PyObject* globals) {
  set(globals, "__doc__", text(kModuleDoc).get());
  if (!PyDict_GetItemString(globals, "__file__")) {
    PyObject* spec = PyDict_GetItemString(globals, "__spec__");
    if (spec && spec != Py_None) {
      set(globals, "__file__", own(PyObject_GetAttrString(spec, "origin")).get());
    }
  }
  set(globals, "__cached__", Py_None);
  // A module body runs with `__builtins__` bound before its first statement.
  if (!PyDict_GetItemString(globals, "__builtins__")) {
    set(globals, "__builtins__", PyEval_GetBuiltins());
  }
  set(globals, "__annotations__", own(PyDict_New()).get());
}

void bind_functions(const State& state, PyObject* module, const FunctionDef* const* defs,
                    size_t count) {
  PyObject* globals = PyModule_GetDict(module);
  for (size_t i = 0; i < count; ++i) {
    set(globals, defs[i]->name, make_function(state, module, *defs[i]).get());
  }
}

Ref type_from(PyObject* module, PyType_Spec& spec) {
  return own(PyType_FromModuleAndSpec(module, &spec, nullptr));
}

// Statements of the module body that are plain Python, run as such in the module's namespace,
// with annotations kept as texts.
void run_statements(PyObject* globals, const std::string& source) {
  PyCompilerFlags flags = {CO_FUTURE_ANNOTATIONS, PY_MINOR_VERSION};
  own(PyRun_StringFlags(source.c_str(), Py_file_input, globals, globals, &flags));
}

// The module body, in its order: bookkeeping, imports, globals, functions and the record type.
void run_module_body(PyObject* module) {
  PyObject* globals = PyModule_GetDict(module);
  Ref state_object = make_state(module);
  State& state = state_of(state_object.get());
  state.function_type = type_from(module, function_type_spec);
  state.rows_type = type_from(module, rows_type_spec);
  state.row_type = type_from(module, row_type_spec);
  bookkeeping(globals);
  // The file its functions' code names, as a def's names the file it was compiled from; without
  // one, the name code run from a string gets.
  PyObject* file = PyDict_GetItemString(globals, "__file__");
  state.file = file && PyUnicode_Check(file) ? Ref::borrow(file) : text("<string>");
  run_statements(globals, std::string(kImports) + kHostImports + kGlobals + kMarkerStatement);
  state.marker = Ref::borrow(PyDict_GetItemString(globals, "_MARKER"));
  bind_functions(state, module, kFunctionsBeforeRecord, std::size(kFunctionsBeforeRecord));
  run_statements(globals, kGeneratedFileClass);
  bind_functions(state, module, kFunctionsAfterRecord, std::size(kFunctionsAfterRecord));
}

int exec_module(PyObject* module) {
  return guarded(
      [&] {
        run_module_body(module);
        return 0;
      },
      -1);
}

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_module)},
    REGISTRY_DOCS_INTERPRETER_SLOTS{0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "registry_docs",
    nullptr,  // the docstring is set by the module body
    0,        // no per-module state: what the module owns lives in its state object
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
