#include "blocks.h"

#include <cstring>

#include "listing.h"
#include "markdown.h"
#include "marker_blocks.h"
#include "registry_inputs.h"

namespace registry_docs {

namespace {

// The texts and headers the renderers show, in the order of `Shown`.
enum Shown : Py_ssize_t {
  kOneCall,
  kYes,
  kNo,
  kAll,
  kStars,
  kTiersTitle,
  kParamsHeading,
  kCliNote,
  kSkillHeader,
  kReadmeHeader,
  kOverviewHeader,
  kCliHeader,
  kParamsHeader,
  kPlainParamsHeader,
  kShownCount
};

// A tuple of fixed column titles.
Ref header_of(std::initializer_list<const char*> titles) {
  Ref header = own(PyTuple_New(static_cast<Py_ssize_t>(titles.size())));
  Py_ssize_t i = 0;
  for (const char* title : titles) PyTuple_SET_ITEM(header.get(), i++, text(title).release());
  return header;
}

PyObject* shown(const Env& env, Shown which) {
  return PyTuple_GET_ITEM(env.state->shown.get(), which);
}

// `iter(ordered_tools())`, as a generator expression takes its iterable when it is made.
Ref iter_ordered_tools(const Env& env) {
  return own(PyObject_GetIter(call_global(env, Id::ordered_tools, {}).get()));
}

// `(row(tool) for tool in tools)`.
Rows rows_of(Env env, Ref tools, Cells (*row)(Env, Ref)) {
  while (Ref tool = next(tools.get())) co_yield row(env, std::move(tool));
}

// A body made of one line, an empty line and a table.
Ref line_then_table(const Env& env, PyObject* line, PyObject* header, Rows rows) {
  LineJoiner out;
  out.line(line);
  out.line(env.name(Id::empty));
  write_table(env, out, header, std::move(rows));
  return out.finish();
}

Cells skill_row(Env env, Ref tool) {
  co_yield call_on_field(env, Id::code, tool.get(), Id::name);
  co_yield call_global(env, Id::actions_cell, tool.get(), shown(env, kOneCall));
  co_yield call_on_field(env, Id::cell, tool.get(), Id::mcp_text);
}

Ref skill_tools_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  Ref heading = TextWriter()
                    .lit("## Tool reference (")
                    .number(host::tool_count(env))
                    .lit(" tools; MCP name = CLI `quenor-dorvan query <tool>`)")
                    .finish();
  return line_then_table(env, heading.get(), shown(env, kSkillHeader),
                         rows_of(env, std::move(tools), skill_row));
}

// `_actions_cell(tool, _NONE)`.
Ref actions_with_none(const Env& env, PyObject* tool) {
  Ref actions_cell = lookup(env, Id::actions_cell);
  return call_found(actions_cell.get(), {tool, lookup(env, Id::NONE).get()});
}

// `"**" + tool.tier.capitalize() + "**"`: concatenated with `+`, not formatted.
Ref bold_tier(const Env& env, PyObject* tool) {
  Ref tier = capitalized(env, host::tier(env, tool).get());
  Ref opened = own(PyNumber_Add(shown(env, kStars), tier.get()));
  return own(PyNumber_Add(opened.get(), shown(env, kStars)));
}

Cells readme_row(Env env, Ref tool) {
  co_yield bold_tier(env, tool.get());
  co_yield call_on_field(env, Id::code, tool.get(), Id::name);
  co_yield actions_with_none(env, tool.get());
  co_yield call_on_field(env, Id::cell, tool.get(), Id::summary);
}

Ref readme_tools_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  TextWriter line;
  line.number(host::tool_count(env)).lit(" tools for code intelligence, ");
  line.format(call_global(env, Id::tier_counts, {}).get());
  line.lit(". A tool with actions takes an `action` parameter that selects one.");
  return line_then_table(env, line.finish().get(), shown(env, kReadmeHeader),
                         rows_of(env, std::move(tools), readme_row));
}

Ref mcp_intro_block_body(const Env& env, PyObject* const*) {
  TextWriter out;
  out.lit("Complete reference for the **").number(host::tool_count(env));
  out.lit(" MCP tools** provided by Quenor Dorvan, ");
  out.format(call_global(env, Id::tier_counts, {}).get());
  out.lit(
      ".\n\nEach tool groups related functionality behind a single endpoint; a tool with actions "
      "takes an `action` parameter that selects the operation.");
  return out.finish();
}

// "- **Core** (8 tools): `a`, `b`": one tier's line of the overview.
Ref tier_line(const Env& env, PyObject* tier) {
  TextWriter prefix;
  prefix.lit("- **").format(capitalized(env, tier).get()).lit("** (");
  prefix.number(check_size(PyObject_Size(call_global(env, Id::tier_tools, {tier}).get())));
  prefix.lit(" tools): ");
  Ref head = prefix.finish();
  Ref names = code_spans(env, call_global(env, Id::tier_tools, {tier}).get(), ", ", true);
  return own(PyUnicode_Concat(head.get(), names.get()));
}

Cells overview_row(Env env, Py_ssize_t number, Ref tool) {
  co_yield str_of(own(PyLong_FromSsize_t(number)).get());
  co_yield call_on_field(env, Id::code, tool.get(), Id::name);
  co_yield actions_with_none(env, tool.get());
  co_yield capitalized(env, host::tier(env, tool.get()).get());
  co_yield call_on_field(env, Id::cell, tool.get(), Id::summary);
}

// `(row(number, tool) for number, tool in enumerate(tools, 1))`.
Rows overview_rows(Env env, Ref tools) {
  Py_ssize_t number = 0;
  while (Ref tool = next(tools.get())) co_yield overview_row(env, ++number, std::move(tool));
}

Ref mcp_overview_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  Ref tier_lines =
      collect(host::tiers(env).get(), [&](PyObject* tier) { return tier_line(env, tier); });
  LineJoiner out;
  write_table(env, out, shown(env, kOverviewHeader), overview_rows(env, std::move(tools)));
  out.line(env.name(Id::empty));
  out.line(shown(env, kTiersTitle));
  out.line(env.name(Id::empty));
  out.lines(tier_lines.get());
  return out.finish();
}

// `_code(cli_usage(tool))`.
Ref usage_cell(const Env& env, PyObject* tool) {
  Ref code = lookup(env, Id::code);
  return call_found(code.get(), {call_global(env, Id::cli_usage, {tool}).get()});
}

Cells cli_row(Env env, Ref tool) {
  co_yield call_on_field(env, Id::code, tool.get(), Id::name);
  co_yield usage_cell(env, tool.get());
}

Ref mcp_cli_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  return line_then_table(env, shown(env, kCliNote), shown(env, kCliHeader),
                         rows_of(env, std::move(tools), cli_row));
}

// `_NONE if param.default is None else _value(param.default)`, then the defaults by action.
Ref default_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  Ref shown = host::default_value(env, param).get() == Py_None
                  ? lookup(env, Id::NONE)
                  : call_on_field(env, Id::value, param, Id::default_);
  // `", ".join(f"{action}: {_value(value)}" for action, value in param.action_defaults)`
  JoinWriter pieces(", ");
  for_each(host::action_defaults(env, param).get(), [&](PyObject* pair) {
    auto [action, value] = unpack_pair(pair);
    TextWriter piece;
    piece.format(action.get()).lit(": ");
    pieces.item(piece.format(call_global(env, Id::value, {value.get()}).get()).finish().get());
  });
  Ref by_action = pieces.finish();
  if (PyUnicode_GET_LENGTH(by_action.get()) == 0) return shown;
  return TextWriter().format(shown.get()).lit(" (").str(by_action.get()).lit(")").finish();
}

Ref type_cell_body(const Env& env, PyObject* const* args) {
  PyObject* prop = args[0];
  if (compare(subscript(prop, env.name(Id::type)).get(), env.name(Id::array), Py_EQ) &&
      check(PySequence_Contains(prop, env.name(Id::items)))) {
    Ref items = subscript(prop, env.name(Id::items));
    return TextWriter().format(subscript(items.get(), env.name(Id::type)).get()).lit("[]").finish();
  }
  return str_of(subscript(prop, env.name(Id::type)).get());  // `str(prop["type"])` reads it again
}

// `prop.get("description", "")`.
Ref description_text(const Env& env, PyObject* prop) {
  PyObject* key = env.name(Id::description);
  if (!PyDict_CheckExact(prop)) return env.method(prop, Id::get, {key, env.name(Id::empty)});
  Ref found = mapping_get(prop, key, env.name(Id::get));
  if (found.get() == Py_None && !check(PyDict_Contains(prop, key))) {
    return Ref::borrow(env.name(Id::empty));
  }
  return found;
}

// `description += "."` unless it is empty or ends with a full stop already.
Ref with_full_stop(const Env& env, Ref description) {
  if (PyUnicode_CheckExact(description.get())) {
    Py_ssize_t size = PyUnicode_GET_LENGTH(description.get());
    if (size == 0 || PyUnicode_READ_CHAR(description.get(), size - 1) == '.') return description;
    return own(PyUnicode_Concat(description.get(), env.name(Id::dot)));
  }
  if (!truth(description.get()) ||
      truth(env.method(description.get(), Id::endswith, {env.name(Id::dot)}).get())) {
    return description;
  }
  return own(PyNumber_InPlaceAdd(description.get(), env.name(Id::dot)));
}

// "Range: 1-100.", "At least 0.", "At most 9." or "" from the schema's bounds.
Ref bound_sentence(const Env& env, PyObject* prop) {
  Ref low = mapping_get(prop, env.name(Id::minimum), env.name(Id::get));
  Ref high = mapping_get(prop, env.name(Id::maximum), env.name(Id::get));
  bool has_low = low.get() != Py_None;
  bool has_high = high.get() != Py_None;
  TextWriter out;
  if (has_low && has_high) {
    out.lit("Range: ").format(call_global(env, Id::value, {low.get()}).get()).lit("-");
    return out.format(call_global(env, Id::value, {high.get()}).get()).lit(".").finish();
  }
  if (!has_low && !has_high) return Ref::borrow(env.name(Id::empty));
  if (has_low) {
    out.lit("At least ");
  } else {
    out.lit("At most ");
  }
  PyObject* bound = has_low ? low.get() : high.get();
  return out.format(call_global(env, Id::value, {bound}).get()).lit(".").finish();
}

Ref description_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  PyObject* prop = args[1];
  Ref description = with_full_stop(env, strip_text(env, description_text(env, prop).get()));
  Ref values = host::values_text(env, param, Id::code);
  Ref bound = bound_sentence(env, prop);
  // `_cell(" ".join(piece for piece in (description, values, bound) if piece))`
  Ref cell = lookup(env, Id::cell);
  JoinWriter pieces(" ");
  for (PyObject* piece : {description.get(), values.get(), bound.get()}) {
    if (truth(piece)) pieces.item(piece);
  }
  return call_found(cell.get(), {pieces.finish().get()});
}

// `_code(f"--{snake_to_kebab(param.name)}")`.
Ref option_cell(const Env& env, PyObject* param) {
  Ref code = lookup(env, Id::code);
  Ref option = host::kebab_name(env, param);
  return call_found(code.get(), {TextWriter().lit("--").format(option.get()).finish().get()});
}

// `_cell(_default_cell(param))`.
Ref default_cell(const Env& env, PyObject* param) {
  Ref cell = lookup(env, Id::cell);
  return call_found(cell.get(), {call_global(env, Id::default_cell, {param}).get()});
}

// `"Yes" if param.name in required else "No"`.
Ref required_cell(const Env& env, PyObject* param, PyObject* required) {
  return Ref::borrow(
      shown(env, check(PySequence_Contains(required, host::name(env, param).get())) ? kYes : kNo));
}

// `", ".join(param.applies_to) or "all"`.
Ref served_actions(const Env& env, PyObject* param) {
  Ref served = join(env.name(Id::comma), host::applies_to(env, param).get());
  return PyUnicode_GET_LENGTH(served.get()) ? served : Ref::borrow(shown(env, kAll));
}

// `rows.append((...))` for one parameter: its cells, computed in order. The parameter table is
// built in full before `_table` is called, so its rows need no generator.
void add_param_row(const Env& env, BuiltRows& rows, PyObject* param, PyObject* prop,
                   PyObject* required, bool has_actions) {
  auto add = [&rows](Ref cell) { rows.cells.push_back(std::move(cell)); };
  add(call_on_field(env, Id::code, param, Id::name));
  add(option_cell(env, param));
  add(call_global(env, Id::type_cell, {prop}));
  add(required_cell(env, param, required));
  add(default_cell(env, param));
  if (has_actions) add(served_actions(env, param));
  add(call_global(env, Id::description_cell, {param, prop}));
  rows.ends.push_back(rows.cells.size());
}

// The schema must name the tool's parameters, in the registry's order.
void check_same_params(const Env& env, PyObject* tool, PyObject* properties) {
  Ref schema_names = own(PySequence_List(properties));
  Ref registry_names = collect(host::all_params(env, tool).get(),
                               [&](PyObject* param) { return host::name(env, param); });
  if (check(PyObject_RichCompareBool(schema_names.get(), registry_names.get(), Py_EQ))) return;
  TextWriter message;
  message.format(host::name(env, tool).get());
  message.lit(": the CLI schema and the registry name different parameters");
  PyErr_SetObject(PyExc_ValueError, message.finish().get());
  raise();
}

Ref mcp_params_block_body(const Env& env, PyObject* const* args) {
  PyObject* tool = args[0];
  Ref schema = host::cli_schema(env, tool);
  Ref properties = subscript(schema.get(), env.name(Id::properties));
  check_same_params(env, tool, properties.get());
  Ref required = own(PySet_New(subscript(schema.get(), env.name(Id::required)).get()));
  bool has_actions = host::has_actions(env, tool);
  PyObject* header = shown(env, has_actions ? kParamsHeader : kPlainParamsHeader);
  // Every row is built before the lines around the table and before `_table` is looked up:
  // `for param in tool.all_params: prop = properties[param.name]; rows.append((...))`.
  BuiltRows rows;
  for_each(host::all_params(env, tool).get(), [&](PyObject* param) {
    Ref prop = subscript(properties.get(), host::name(env, param).get());
    add_param_row(env, rows, param, prop.get(), required.get(), has_actions);
  });
  LineJoiner out;
  if (has_actions) {
    Ref listed = code_spans(env, host::action_names(env, tool).get(), " | ");
    out.line(TextWriter().lit("**Actions:** ").str(listed.get()).finish().get());
    out.line(env.name(Id::empty));
  }
  out.line(shown(env, kParamsHeading));
  out.line(env.name(Id::empty));
  write_table(env, out, header, std::move(rows));
  return out.finish();
}

// `text.replace(old, new)` for a one-byte str, one character by an ASCII text: the interpreter
// counts the character one by one over a whole block, memchr finds it far faster.
Ref replaced_in_bytes(PyObject* text, Py_UCS1 old, PyObject* replacement) {
  const auto* data = reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(text));
  Py_ssize_t size = PyUnicode_GET_LENGTH(text);
  const char* end = data + size;
  Py_ssize_t count = 0;
  for (const char* at = data; (at = static_cast<const char*>(memchr(at, old, end - at))); ++at) {
    ++count;
  }
  if (count == 0) return Ref::borrow(text);  // `replace` hands back the str itself
  Py_ssize_t added = PyUnicode_GET_LENGTH(replacement);
  Ref result = own(PyUnicode_New(size + count * (added - 1), PyUnicode_MAX_CHAR_VALUE(text)));
  char* out = reinterpret_cast<char*>(PyUnicode_1BYTE_DATA(result.get()));
  const char* with = reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(replacement));
  for (const char* from = data; from < end;) {
    const char* at = static_cast<const char*>(memchr(from, old, end - from));
    const char* stop = at ? at : end;
    memcpy(out, from, static_cast<size_t>(stop - from));
    out += stop - from;
    if (!at) break;
    memcpy(out, with, static_cast<size_t>(added));
    out += added;
    from = at + 1;
  }
  return result;
}

// `text.replace(old, new)`, natively for a str and through the method otherwise.
Ref replaced(const Env& env, PyObject* text, Id old_text, Id new_text) {
  PyObject* old = env.name(old_text);
  PyObject* replacement = env.name(new_text);
  if (PyUnicode_CheckExact(text)) {
    check(PyUnicode_READY(text));
    if (PyUnicode_KIND(text) == PyUnicode_1BYTE_KIND && PyUnicode_GET_LENGTH(old) == 1 &&
        PyUnicode_IS_ASCII(old) && PyUnicode_IS_ASCII(replacement)) {
      return replaced_in_bytes(text, PyUnicode_1BYTE_DATA(old)[0], replacement);
    }
    return own(PyUnicode_Replace(text, old, replacement, -1));
  }
  return env.method(text, Id::replace, {old, replacement});
}

Ref literal_text_body(const Env& env, PyObject* const* args) {
  return replaced(env, args[0], Id::backslash, Id::two_backslashes);
}

Ref skill_text_body(const Env& env, PyObject* const* args) {
  Ref literal = call_global(env, Id::literal_text, {args[0]});
  Ref braces = replaced(env, literal.get(), Id::open_brace, Id::two_open_braces);
  return replaced(env, braces.get(), Id::close_brace, Id::two_close_braces);
}

// `skill_table({"frameworks": ", ".join(ENDPOINT_FRAMEWORKS.values())})`.
Ref skill_routes_block_body(const Env& env, PyObject* const*) {
  Ref table = lookup(env, Id::skill_table);
  Ref frameworks = lookup(env, Id::ENDPOINT_FRAMEWORKS);
  Ref joined = join(env.name(Id::comma), env.method(frameworks.get(), Id::values, {}).get());
  Ref facts = own(PyDict_New());
  check(PyDict_SetItem(facts.get(), env.name(Id::frameworks), joined.get()));
  return call_found(table.get(), {facts.get()});
}

// Each marked block of the rules text gets a fresh routing table.
Ref routes_for_block(const Env& env, const BlockMatch&, PyObject* const*) {
  return host::rules_table(env);
}

Ref rules_render_body(const Env& env, PyObject* const* args) {
  return render_match(env, args[0], routes_for_block);
}

const FunctionDef kRulesRender = {"render",
                                  nullptr,
                                  1,
                                  {"match"},
                                  {nullptr},
                                  nullptr,
                                  rules_render_body,
                                  "rules_block.<locals>.render"};

// `without_markers(_MARKER.sub(render, QUENOR_INSTRUCTION_CONTENT)).strip()`.
Ref rules_block_body(const Env& env, PyObject* const*) {
  Ref strip_markers = lookup(env, Id::without_markers);
  // `_MARKER.sub` is evaluated before its arguments: a missing `_MARKER`, or a rebound one without
  // `sub`, fails before the content is looked up.
  Ref marker = lookup(env, Id::MARKER);
  if (marker.get() != env.marker()) env.attr(marker.get(), Id::sub);
  Ref content = lookup(env, Id::QUENOR_INSTRUCTION_CONTENT);
  Ref rendered =
      replace_blocks(env, marker.get(), content.get(), {kRulesRender, routes_for_block}, {});
  return strip_text(env, call_found(strip_markers.get(), {rendered.get()}).get());
}

}  // namespace

Ref make_shown_texts() {
  Ref texts = own(PyTuple_New(kShownCount));
  auto set = [&](Shown which, Ref value) { PyTuple_SET_ITEM(texts.get(), which, value.release()); };
  set(kOneCall, text("*(one call)*"));
  set(kYes, text("Yes"));
  set(kNo, text("No"));
  set(kAll, text("all"));
  set(kStars, text("**"));
  set(kTiersTitle, text("**Tiers:**"));
  set(kParamsHeading, text("#### Parameters"));
  set(kCliNote,
      text("Every parameter is an option of the same name in kebab-case (`token_budget` is "
           "`--token-budget`), an array is a comma-separated list, and a boolean is `--flag` or "
           "`--flag true|false`. `quenor-dorvan query <tool> --help` prints a tool's options with "
           "their full texts and `quenor-dorvan query --schema` prints them all as JSON Schema."));
  set(kSkillHeader, header_of({"Tool", "Actions", "Use for"}));
  set(kReadmeHeader, header_of({"Tier", "Tool", "Actions", "Purpose"}));
  set(kOverviewHeader, header_of({"#", "Tool", "Actions", "Tier", "Purpose"}));
  set(kCliHeader, header_of({"Tool", "CLI usage"}));
  set(kParamsHeader,
      header_of({"Parameter", "CLI", "Type", "Required", "Default", "Actions", "Description"}));
  set(kPlainParamsHeader,
      header_of({"Parameter", "CLI", "Type", "Required", "Default", "Description"}));
  return texts;
}

const FunctionDef kSkillToolsBlock = {
    "skill_tools_block",
    "The tool reference of the ``dorvan`` skill: its heading and one row per tool.\n\n"
    "A row tells what each action is for in the words MCP sends (``mcp_text``), so that the skill\n"
    "and ``tools/list`` never tell an agent two different things.",
    0,
    {},
    {},
    "str",
    skill_tools_block_body};
const FunctionDef kReadmeToolsBlock = {
    "readme_tools_block",
    "The tool table of ``README.md``, with the count of the tools.",
    0,
    {},
    {},
    "str",
    readme_tools_block_body};
const FunctionDef kMcpIntroBlock = {
    "mcp_intro_block",
    "The opening of ``docs/mcp-tools.md``: what the reference covers, with the counts.",
    0,
    {},
    {},
    "str",
    mcp_intro_block_body};
const FunctionDef kMcpOverviewBlock = {
    "mcp_overview_block",
    "The overview table of ``docs/mcp-tools.md`` and the tools of each tier.",
    0,
    {},
    {},
    "str",
    mcp_overview_block_body};
const FunctionDef kMcpCliBlock = {
    "mcp_cli_block",
    "The command line that runs each tool, for ``docs/mcp-tools.md``.",
    0,
    {},
    {},
    "str",
    mcp_cli_block_body};
const FunctionDef kDefaultCell = {
    "_default_cell",
    "A parameter's default, with the defaults that differ by action after it.",
    1,
    {"param"},
    {"ParamSpec"},
    "str",
    default_cell_body};
const FunctionDef kTypeCell = {
    "_type_cell",
    "A parameter's JSON Schema type; an array shows the type of its items.",
    1,
    {"prop"},
    {"dict[str, Any]"},
    "str",
    type_cell_body};
const FunctionDef kDescriptionCell = {
    "_description_cell",
    "A parameter's full text, with the values and the bounds the schema holds it to.",
    2,
    {"param", "prop"},
    {"ParamSpec", "dict[str, Any]"},
    "str",
    description_cell_body};
const FunctionDef kMcpParamsBlock = {
    "mcp_params_block",
    "One tool's actions line and parameter table, for the file ``docs/mcp-tools.md``.\n\n"
    "The table shows what ``query --schema`` prints for the tool, parameter by parameter in its\n"
    "order, and adds the CLI option and, for a tool with actions, the actions each one serves.\n\n"
    "Raises:\n"
    "    ValueError: The CLI schema and the registry name different parameters (they never\n"
    "        should).",
    1,
    {"tool"},
    {"ToolSpec"},
    "str",
    mcp_params_block_body};
const FunctionDef kSkillText = {
    "_skill_text",
    "A block as the skill's template holds it.\n\n"
    "The template is a Python string literal that ``str.format`` renders, so a backslash is\n"
    "escaped for the literal and a brace doubled for the formatting.",
    1,
    {"block"},
    {"str"},
    "str",
    skill_text_body};
const FunctionDef kLiteralText = {
    "_literal_text",
    "A block as a Python string literal holds it: a backslash is escaped.",
    1,
    {"block"},
    {"str"},
    "str",
    literal_text_body};
const FunctionDef kSkillRoutesBlock = {
    "skill_routes_block",
    "The \"Route by need\" table of the ``dorvan`` skill, with the facts its notes name.",
    0,
    {},
    {},
    "str",
    skill_routes_block_body};
const FunctionDef kRulesBlock = {
    "rules_block",
    "The rules block that ``quenor-dorvan init`` writes, as "
    "``docs/claude-instructions-template.md``\n"
    "shows it: ``QUENOR_INSTRUCTION_CONTENT`` with its routing table rendered from the routes.",
    0,
    {},
    {},
    "str",
    rules_block_body};

}  // namespace registry_docs
