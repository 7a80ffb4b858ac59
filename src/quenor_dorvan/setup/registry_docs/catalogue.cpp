#include "catalogue.h"

#include <iterator>

#include "text.h"

namespace registry_docs {

namespace {

// `_params_renderer`'s closure: `def render(): return mcp_params_block(tool)`.
Ref params_render_body(const Env& env, PyObject* const* held) {
  return lookup(env, Id::mcp_params_block)(captured(env, held, 0));
}

const FunctionDef kParamsRender("render", nullptr, params_render_body, {}, nullptr,
                                "_params_renderer.<locals>.render", {"tool"});

Ref params_renderer_body(const Env& env, PyObject* const* args) {
  return make_closure(env, kParamsRender, {args[0]});
}

// `(block_name, renderer)` with the renderer looked up now.
Ref declared_block(const Env& env, const char* block_name, Id renderer) {
  Ref key = text(block_name);
  return own(PyTuple_Pack(2, key.get(), lookup(env, renderer).get()));
}

// The parameter blocks of `docs/mcp-tools.md`, one per tool in the listing order, appended:
// `("params:" + f"{tool.name}", _params_renderer(tool))`.
void append_params_blocks(const Env& env, PyObject* blocks) {
  for_each(lookup(env, Id::ordered_tools)().get(), [&](PyObject* tool) {
    Ref key = TextWriter().lit("params:").format(env.attr(tool, Id::name).get()).finish();
    Ref renderer = lookup(env, Id::params_renderer)(tool);
    check(PyList_Append(blocks, own(PyTuple_Pack(2, key.get(), renderer.get())).get()));
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
  Ref path = text(entry.path);
  Ref blocks = own(PyList_New(0));
  for (int i = 0; i < entry.block_count; ++i) {
    check(PyList_Append(blocks.get(),
                        declared_block(env, entry.blocks[i].first, entry.blocks[i].second).get()));
  }
  if (entry.params_blocks) append_params_blocks(env, blocks.get());
  Ref tuple = own(PyList_AsTuple(blocks.get()));
  if (!entry.has_encode) return call(record.get(), {path.get(), tuple.get()});
  return call(record.get(), {path.get(), tuple.get(), lookup(env, entry.encode).get()});
}

Ref generated_files_body(const Env& env, PyObject* const*) {
  Ref files = own(PyTuple_New(std::size(kCatalogue)));
  for (size_t i = 0; i < std::size(kCatalogue); ++i) {
    PyTuple_SET_ITEM(files.get(), static_cast<Py_ssize_t>(i),
                     catalogue_record(env, kCatalogue[i]).release());
  }
  return files;
}

}  // namespace

const FunctionDef kParamsRenderer("_params_renderer", "The renderer of one tool's parameter block.",
                                  params_renderer_body, {{"tool", "ToolSpec"}},
                                  "Callable[[], str]");

const FunctionDef kGeneratedFiles(
    "generated_files",
    "The files that hold generated blocks, made from the registry as it is when called.",
    generated_files_body, {}, "tuple[GeneratedFile, ...]");

}  // namespace registry_docs
