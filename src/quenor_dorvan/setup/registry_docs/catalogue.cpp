#include "catalogue.h"

#include <optional>

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

// `GeneratedFile(path, blocks, encode)`, its names looked up in the order the call evaluates them:
// the record type, each block's renderer, then `encode` (none: the record's default). With
// `params`, the blocks end with `*((f"params:{tool.name}", _params_renderer(tool)) for tool in
// ordered_tools())`.
Ref record(const Env& env, const char* path,
           std::initializer_list<std::pair<const char*, Id>> blocks, std::optional<Id> encode = {},
           bool params = false) {
  Global generated_file = lookup(env, Id::GeneratedFile);
  Ref listed = own(PyList_New(0));
  for (auto [name, renderer] : blocks) {
    append(listed, tuple_of({env.constant(name), lookup(env, renderer)}));
  }
  if (params) {
    for_each(lookup(env, Id::ordered_tools)().get(), [&](PyObject* tool) {
      append(listed, tuple_of({fstr({"params:", env.attr(tool, Id::name)}),
                               lookup(env, Id::params_renderer)(tool)}));
    });
  }
  Ref tuple = own(PyList_AsTuple(listed.get()));
  if (!encode) return generated_file(env.constant(path), tuple);
  return generated_file(env.constant(path), tuple, lookup(env, *encode));
}

Ref generated_files_body(const Env& env, PyObject* const*) {
  return tuple_of({
      record(env, "src/quenor_dorvan/setup/skill_text.py",
             {{"skill-routes", Id::skill_routes_block}, {"skill-tools", Id::skill_tools_block}},
             Id::skill_text),
      record(env, "src/quenor_dorvan/setup/config.py", {{"rules-routes", Id::rules_table}},
             Id::literal_text),
      record(env, "docs/claude-instructions-template.md", {{"rules-block", Id::rules_block}}),
      record(env, "README.md", {{"readme-tools", Id::readme_tools_block}}),
      record(env, "docs/mcp-tools.md",
             {{"mcp-intro", Id::mcp_intro_block},
              {"mcp-overview", Id::mcp_overview_block},
              {"mcp-cli", Id::mcp_cli_block}},
             {}, true),
  });
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
