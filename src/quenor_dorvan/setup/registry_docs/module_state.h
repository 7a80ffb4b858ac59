// What one imported module owns: the names its code looks up, the marker pattern it compiled and
// the types it made. Every function object and every lazy row reaches it; nothing is kept per
// process, so each interpreter that imports the module has its own.
#pragma once
#include <array>
#include <unordered_map>
#include <utility>

#include "py.h"

namespace registry_docs {

// Interned names the code reads, grouped by kind.
// clang-format off
#define REGISTRY_DOCS_NAMES(X)                                                                     \
  /* the host's names */                                                                           \
  X(TOOLS, "TOOLS") X(QUENOR_INSTRUCTION_CONTENT, "QUENOR_INSTRUCTION_CONTENT")                    \
  X(without_markers, "without_markers") X(rules_table, "rules_table")                              \
  X(skill_table, "skill_table") X(get_cli_schema, "get_cli_schema")                                \
  X(snake_to_kebab, "snake_to_kebab") X(ENDPOINT_FRAMEWORKS, "ENDPOINT_FRAMEWORKS")                \
  /* the module's own names */                                                                     \
  X(TIERS, "_TIERS") X(NONE, "_NONE") X(MARKER, "_MARKER") X(GeneratedFile, "GeneratedFile")       \
  X(builtins, "__builtins__") X(ordered_tools, "ordered_tools") X(tier_tools, "_tier_tools")       \
  X(code, "_code") X(cell, "_cell") X(row, "_row") X(table, "_table") X(value, "_value")           \
  X(actions_cell, "_actions_cell") X(tier_counts, "_tier_counts") X(cli_usage, "cli_usage")        \
  X(skill_tools_block, "skill_tools_block") X(readme_tools_block, "readme_tools_block")            \
  X(mcp_intro_block, "mcp_intro_block") X(mcp_overview_block, "mcp_overview_block")                \
  X(mcp_cli_block, "mcp_cli_block") X(default_cell, "_default_cell") X(type_cell, "_type_cell")    \
  X(description_cell, "_description_cell") X(mcp_params_block, "mcp_params_block")                 \
  X(skill_text, "_skill_text") X(literal_text, "_literal_text")                                    \
  X(skill_routes_block, "skill_routes_block") X(rules_block, "rules_block")                        \
  X(params_renderer, "_params_renderer") X(generated_files, "generated_files")                     \
  X(block_names, "block_names") X(render_file, "render_file") X(read, "_read")                     \
  X(blocks_, "_blocks")                                                                            \
  /* attributes */                                                                                 \
  X(name, "name") X(tier, "tier") X(summary, "summary") X(mcp_text, "mcp_text")                    \
  X(action_names, "action_names") X(actions, "actions") X(all_params, "all_params")                \
  X(required, "required") X(default_, "default") X(action_defaults, "action_defaults")             \
  X(applies_to, "applies_to") X(values_text, "values_text") X(path, "path") X(blocks, "blocks")    \
  X(encode, "encode")                                                                              \
  /* methods */                                                                                    \
  X(capitalize, "capitalize") X(split, "split") X(replace, "replace") X(strip, "strip")            \
  X(get, "get") X(index, "index") X(values, "values") X(items, "items") X(endswith, "endswith")    \
  X(finditer, "finditer") X(sub, "sub") X(read_text, "read_text") X(write_bytes, "write_bytes")    \
  /* keys and keyword names */                                                                     \
  X(encoding, "encoding") X(utf_8, "utf-8") X(properties, "properties") X(type, "type")            \
  X(description, "description") X(minimum, "minimum") X(maximum, "maximum") X(array, "array")      \
  X(open, "open") X(body, "body") X(close, "close") X(frameworks, "frameworks")                    \
  /* separators and the texts that replace */                                                      \
  X(empty, "") X(space, " ") X(newline, "\n") X(tab, "\t") X(comma, ", ") X(and_sep, " and ")      \
  X(bar, "|") X(escaped_bar, "\\|") X(backslash, "\\") X(two_backslashes, "\\\\")                  \
  X(open_brace, "{") X(two_open_braces, "{{") X(close_brace, "}") X(two_close_braces, "}}")        \
  X(dot, ".") X(rule, "---")
// clang-format on

enum class Id {
#define REGISTRY_DOCS_ENUM(id, text) id,
  REGISTRY_DOCS_NAMES(REGISTRY_DOCS_ENUM)
#undef REGISTRY_DOCS_ENUM
      count
};

struct State {
  Ref names[static_cast<int>(Id::count)];
  Ref marker;                  // the `_MARKER` pattern the module compiled at import
  Ref function_type;           // the module's function type
  Ref rows_type;               // the lazy rows a replaced `_table` reads
  Ref row_type;                // one lazy row
  Ref file;                    // the module's file as its body ran: its functions' code names it
  PyObject* object = nullptr;  // the object this state lives in, for what must keep it alive

  PyObject* name(Id id) const { return names[static_cast<int>(id)].get(); }
  // What may reach back to the module, for the collector.
  std::array<Ref*, 5> references() {
    return {&marker, &function_type, &rows_type, &row_type, &file};
  }
  // A constant of the code, by the text that states it, made once: the same object at each call, as
  // a def's constants are. A str (interned, as the names of functions are), or with `header` a
  // tuple of the titles the text separates with tabs.
  PyObject* constant(const char* text, bool header = false) const;

 private:
  mutable std::unordered_map<const char*, Ref> constants_[2];  // strs, headers
};

// Makes the state object of a module being executed, with its interned names; the module body
// sets the rest.
Ref make_state(PyObject* module);
// The state held by a state object.
State& state_of(PyObject* state_object);

// What a running body needs: the module state and the namespaces its names are looked up in.
struct Env {
  const State* state;
  PyObject* module;                    // borrowed: the running function object holds it
  PyObject* globals;                   // the module's dict, borrowed likewise
  PyObject* builtins;                  // the running function's own built-ins, borrowed likewise
  const PyObject* function = nullptr;  // the running function: a nested body reads its closure

  PyObject* name(Id id) const { return state->name(id); }
  PyObject* marker() const { return state->marker.get(); }
  PyObject* constant(const char* text) const { return state->constant(text); }
  PyObject* header(const char* titles) const { return state->constant(titles, true); }
  // `obj.attr` for a name of the table.
  Ref attr(PyObject* obj, Id id) const { return getattr(obj, name(id)); }
  template <typename... Args>
  Ref method(PyObject* obj, Id id, Args... args) const {
    return call_method(obj, name(id), args...);
  }
};

}  // namespace registry_docs
