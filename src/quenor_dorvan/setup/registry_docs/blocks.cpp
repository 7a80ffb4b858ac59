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
  return own(PyObject_GetIter(lookup(env, Id::ordered_tools)().get()));
}

// A body made of one line, an empty line and a table.
Ref line_then_table(const Env& env, PyObject* line, PyObject* header, PyObject* rows) {
  LineJoiner out;
  out.line(line);
  out.line(env.name(Id::empty));
  write_table(env, out, header, rows);
  return out.finish();
}

// `tool.tier.capitalize()`.
Ref capitalized_tier(const Env& env, PyObject* tool) {
  return env.method(env.attr(tool, Id::tier).get(), Id::capitalize, {});
}

Ref skill_row(const Env& env, PyObject* tool, Py_ssize_t, int cell) {
  switch (cell) {
    case 0: return lookup(env, Id::code)(env.attr(tool, Id::name));
    case 1: return lookup(env, Id::actions_cell)(tool, shown(env, kOneCall));
    case 2: return lookup(env, Id::cell)(env.attr(tool, Id::mcp_text));
    default: return Ref();
  }
}

Ref skill_tools_block_body(const Env& env, PyObject* const*) {
  Ref rows = lazy_rows(env, iter_ordered_tools(env), skill_row);
  Ref heading = own(PyUnicode_FromFormat(
      "## Tool reference (%zd tools; MCP name = CLI `quenor-dorvan query <tool>`)",
      tool_count(env)));
  return line_then_table(env, heading.get(), shown(env, kSkillHeader), rows.get());
}

// `"**" + tool.tier.capitalize() + "**"`: concatenated with `+`, not formatted.
Ref bold_tier(const Env& env, PyObject* tool) {
  Ref opened = own(PyNumber_Add(shown(env, kStars), capitalized_tier(env, tool).get()));
  return own(PyNumber_Add(opened.get(), shown(env, kStars)));
}

Ref readme_row(const Env& env, PyObject* tool, Py_ssize_t, int cell) {
  switch (cell) {
    case 0: return bold_tier(env, tool);
    case 1: return lookup(env, Id::code)(env.attr(tool, Id::name));
    case 2: return lookup(env, Id::actions_cell)(tool, lookup(env, Id::NONE));
    case 3: return lookup(env, Id::cell)(env.attr(tool, Id::summary));
    default: return Ref();
  }
}

Ref readme_tools_block_body(const Env& env, PyObject* const*) {
  Ref rows = lazy_rows(env, iter_ordered_tools(env), readme_row);
  TextWriter line;
  line.number(tool_count(env)).lit(" tools for code intelligence, ");
  line.format(lookup(env, Id::tier_counts)().get());
  line.lit(". A tool with actions takes an `action` parameter that selects one.");
  return line_then_table(env, line.finish().get(), shown(env, kReadmeHeader), rows.get());
}

Ref mcp_intro_block_body(const Env& env, PyObject* const*) {
  TextWriter out;
  out.lit("Complete reference for the **").number(tool_count(env));
  out.lit(" MCP tools** provided by Quenor Dorvan, ");
  out.format(lookup(env, Id::tier_counts)().get());
  out.lit(
      ".\n\nEach tool groups related functionality behind a single endpoint; a tool with actions "
      "takes an `action` parameter that selects the operation.");
  return out.finish();
}

// "- **Core** (8 tools): `a`, `b`": one tier's line of the overview.
Ref tier_line(const Env& env, PyObject* tier) {
  TextWriter prefix;
  prefix.lit("- **").format(env.method(tier, Id::capitalize, {}).get()).lit("** (");
  prefix.number(check_size(PyObject_Size(lookup(env, Id::tier_tools)(tier).get())));
  prefix.lit(" tools): ");
  Ref head = prefix.finish();
  Ref names = code_spans(env, lookup(env, Id::tier_tools)(tier).get(), ", ", true);
  return own(PyUnicode_Concat(head.get(), names.get()));
}

Ref overview_row(const Env& env, PyObject* tool, Py_ssize_t number, int cell) {
  switch (cell) {
    case 0: return str_of(own(PyLong_FromSsize_t(number)).get());
    case 1: return lookup(env, Id::code)(env.attr(tool, Id::name));
    case 2: return lookup(env, Id::actions_cell)(tool, lookup(env, Id::NONE));
    case 3: return capitalized_tier(env, tool);
    case 4: return lookup(env, Id::cell)(env.attr(tool, Id::summary));
    default: return Ref();
  }
}

Ref mcp_overview_block_body(const Env& env, PyObject* const*) {
  Ref rows = lazy_rows(env, iter_ordered_tools(env), overview_row);
  Ref tier_lines =
      collect(lookup(env, Id::TIERS).get(), [&](PyObject* tier) { return tier_line(env, tier); });
  LineJoiner out;
  write_table(env, out, shown(env, kOverviewHeader), rows.get());
  for (PyObject* line : {env.name(Id::empty), shown(env, kTiersTitle), env.name(Id::empty)}) {
    out.line(line);
  }
  out.lines(tier_lines.get());
  return out.finish();
}

Ref cli_row(const Env& env, PyObject* tool, Py_ssize_t, int cell) {
  switch (cell) {
    case 0: return lookup(env, Id::code)(env.attr(tool, Id::name));
    case 1: return lookup(env, Id::code)(lookup(env, Id::cli_usage)(tool));
    default: return Ref();
  }
}

Ref mcp_cli_block_body(const Env& env, PyObject* const*) {
  Ref rows = lazy_rows(env, iter_ordered_tools(env), cli_row);
  return line_then_table(env, shown(env, kCliNote), shown(env, kCliHeader), rows.get());
}

// `_NONE if param.default is None else _value(param.default)`, then the defaults by action.
Ref default_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  Ref shown = env.attr(param, Id::default_).get() == Py_None
                  ? lookup(env, Id::NONE)
                  : lookup(env, Id::value)(env.attr(param, Id::default_));
  // `", ".join(f"{action}: {_value(value)}" for action, value in param.action_defaults)`
  JoinWriter pieces(", ");
  for_each(env.attr(param, Id::action_defaults).get(), [&](PyObject* pair) {
    auto [action, value] = unpack_pair(pair);
    TextWriter piece;
    piece.format(action.get()).lit(": ");
    pieces.item(piece.format(lookup(env, Id::value)(value).get()).finish().get());
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
  return mapping_get(prop, env.name(Id::description), env.name(Id::get), env.name(Id::empty));
}

// `description += "."` unless it is empty or ends with a full stop already.
Ref with_full_stop(const Env& env, Ref description) {
  if (PyUnicode_CheckExact(description.get())) {  // the usual case, without two method calls
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

// `f"{before}{_value(bound)}."`.
Ref bound_text(const Env& env, const char* before, PyObject* bound) {
  return TextWriter()
      .ascii(before, static_cast<Py_ssize_t>(strlen(before)))
      .format(lookup(env, Id::value)(bound).get())
      .lit(".")
      .finish();
}

// "Range: 1-100.", "At least 0.", "At most 9." or "" from the schema's bounds.
Ref bound_sentence(const Env& env, PyObject* prop) {
  Ref low = mapping_get(prop, env.name(Id::minimum), env.name(Id::get));
  Ref high = mapping_get(prop, env.name(Id::maximum), env.name(Id::get));
  bool has_low = low.get() != Py_None;
  bool has_high = high.get() != Py_None;
  if (has_low && has_high) {
    TextWriter out;
    out.lit("Range: ").format(lookup(env, Id::value)(low).get()).lit("-");
    return out.format(lookup(env, Id::value)(high).get()).lit(".").finish();
  }
  if (has_low) return bound_text(env, "At least ", low.get());
  if (has_high) return bound_text(env, "At most ", high.get());
  return Ref::borrow(env.name(Id::empty));
}

Ref description_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  PyObject* prop = args[1];
  Ref description =
      with_full_stop(env, env.method(description_text(env, prop).get(), Id::strip, {}));
  Ref values_text = env.attr(param, Id::values_text);
  Ref values = call(values_text.get(), {lookup(env, Id::code).get()});
  Ref bound = bound_sentence(env, prop);
  // `_cell(" ".join(piece for piece in (description, values, bound) if piece))`
  Global cell = lookup(env, Id::cell);
  JoinWriter pieces(" ");
  for (PyObject* piece : {description.get(), values.get(), bound.get()}) {
    if (truth(piece)) pieces.item(piece);
  }
  return cell(pieces.finish());
}

// The cells of one parameter's row, in order: `(_code(param.name), ..., _description_cell(...))`.
Ref param_row(const Env& env, PyObject* param, PyObject* prop, PyObject* required,
              bool has_actions) {
  Ref cells[7];
  int n = 0;
  cells[n++] = lookup(env, Id::code)(env.attr(param, Id::name));
  Global code = lookup(env, Id::code);
  Ref option = lookup(env, Id::snake_to_kebab)(env.attr(param, Id::name));
  cells[n++] = code(TextWriter().lit("--").format(option.get()).finish());
  cells[n++] = lookup(env, Id::type_cell)(prop);
  bool is_required = check(PySequence_Contains(required, env.attr(param, Id::name).get()));
  cells[n++] = Ref::borrow(shown(env, is_required ? kYes : kNo));
  cells[n++] = lookup(env, Id::cell)(lookup(env, Id::default_cell)(param));
  if (has_actions) {  // `", ".join(param.applies_to) or "all"`
    Ref served = join(env.name(Id::comma), env.attr(param, Id::applies_to).get());
    cells[n++] = PyUnicode_GET_LENGTH(served.get()) ? served : Ref::borrow(shown(env, kAll));
  }
  cells[n++] = lookup(env, Id::description_cell)(param, prop);
  Ref row = own(PyTuple_New(n));
  for (int i = 0; i < n; ++i) PyTuple_SET_ITEM(row.get(), i, cells[i].release());
  return row;
}

// The schema must name the tool's parameters, in the registry's order.
void check_same_params(const Env& env, PyObject* tool, PyObject* properties) {
  Ref schema_names = own(PySequence_List(properties));
  Ref registry_names = collect(env.attr(tool, Id::all_params).get(),
                               [&](PyObject* param) { return env.attr(param, Id::name); });
  if (check(PyObject_RichCompareBool(schema_names.get(), registry_names.get(), Py_EQ))) return;
  TextWriter message;
  message.format(env.attr(tool, Id::name).get());
  message.lit(": the CLI schema and the registry name different parameters");
  PyErr_SetObject(PyExc_ValueError, message.finish().get());
  raise();
}

Ref mcp_params_block_body(const Env& env, PyObject* const* args) {
  PyObject* tool = args[0];
  Ref schema = lookup(env, Id::get_cli_schema)(env.attr(tool, Id::name));
  Ref properties = subscript(schema.get(), env.name(Id::properties));
  check_same_params(env, tool, properties.get());
  Ref required = own(PySet_New(subscript(schema.get(), env.name(Id::required)).get()));
  bool has_actions = truth(env.attr(tool, Id::actions).get());
  PyObject* header = shown(env, has_actions ? kParamsHeader : kPlainParamsHeader);
  // Every row is built before the lines around the table and before `_table` is looked up.
  Ref rows = own(PyList_New(0));
  for_each(env.attr(tool, Id::all_params).get(), [&](PyObject* param) {
    Ref prop = subscript(properties.get(), env.attr(param, Id::name).get());
    Ref row = param_row(env, param, prop.get(), required.get(), has_actions);
    check(PyList_Append(rows.get(), row.get()));
  });
  LineJoiner out;
  if (has_actions) {
    Ref listed = code_spans(env, env.attr(tool, Id::action_names).get(), " | ");
    out.line(TextWriter().lit("**Actions:** ").str(listed.get()).finish().get());
    out.line(env.name(Id::empty));
  }
  out.line(shown(env, kParamsHeading));
  out.line(env.name(Id::empty));
  write_table(env, out, header, rows.get());
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
  Ref literal = lookup(env, Id::literal_text)(args[0]);
  Ref braces = replaced(env, literal.get(), Id::open_brace, Id::two_open_braces);
  return replaced(env, braces.get(), Id::close_brace, Id::two_close_braces);
}

// `skill_table({"frameworks": ", ".join(ENDPOINT_FRAMEWORKS.values())})`.
Ref skill_routes_block_body(const Env& env, PyObject* const*) {
  Global table = lookup(env, Id::skill_table);
  Global frameworks = lookup(env, Id::ENDPOINT_FRAMEWORKS);
  Ref joined = join(env.name(Id::comma), env.method(frameworks.get(), Id::values, {}).get());
  Ref facts = own(PyDict_New());
  check(PyDict_SetItem(facts.get(), env.name(Id::frameworks), joined.get()));
  return table(facts);
}

// Each marked block of the rules text gets a fresh routing table.
Ref routes_for_block(const Env& env, const BlockMatch&, PyObject* const*) {
  return lookup(env, Id::rules_table)();
}

Ref rules_render_body(const Env& env, PyObject* const* args) {
  return render_match(env, args[0], routes_for_block, args + 1);
}

const FunctionDef kRulesRender("render", nullptr, rules_render_body, {{"match", nullptr}}, nullptr,
                               "rules_block.<locals>.render");

// `without_markers(_MARKER.sub(render, QUENOR_INSTRUCTION_CONTENT)).strip()`.
Ref rules_block_body(const Env& env, PyObject* const*) {
  Global strip_markers = lookup(env, Id::without_markers);
  // `_MARKER.sub` is read before its arguments are evaluated: a missing `_MARKER`, or a rebound one
  // without `sub`, fails before the content is looked up.
  Global marker = lookup(env, Id::MARKER);
  Ref sub = env.attr(marker.get(), Id::sub);
  Global content = lookup(env, Id::QUENOR_INSTRUCTION_CONTENT);
  Ref rendered = replace_blocks(env, marker.get(), sub.get(), content.get(),
                                {kRulesRender, routes_for_block}, {});
  return env.method(strip_markers(rendered).get(), Id::strip, {});
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

const FunctionDef kSkillToolsBlock(
    "skill_tools_block",
    "The tool reference of the ``dorvan`` skill: its heading and one row per tool.\n\n"
    "A row tells what each action is for in the words MCP sends (``mcp_text``), so that the skill\n"
    "and ``tools/list`` never tell an agent two different things.",
    skill_tools_block_body, {}, "str");
const FunctionDef kReadmeToolsBlock("readme_tools_block",
                                    "The tool table of ``README.md``, with the count of the tools.",
                                    readme_tools_block_body, {}, "str");
const FunctionDef kMcpIntroBlock(
    "mcp_intro_block",
    "The opening of ``docs/mcp-tools.md``: what the reference covers, with the counts.",
    mcp_intro_block_body, {}, "str");
const FunctionDef kMcpOverviewBlock(
    "mcp_overview_block", "The overview table of ``docs/mcp-tools.md`` and the tools of each tier.",
    mcp_overview_block_body, {}, "str");
const FunctionDef kMcpCliBlock("mcp_cli_block",
                               "The command line that runs each tool, for ``docs/mcp-tools.md``.",
                               mcp_cli_block_body, {}, "str");
const FunctionDef kDefaultCell(
    "_default_cell", "A parameter's default, with the defaults that differ by action after it.",
    default_cell_body, {{"param", "ParamSpec"}}, "str");
const FunctionDef kTypeCell("_type_cell",
                            "A parameter's JSON Schema type; an array shows the type of its items.",
                            type_cell_body, {{"prop", "dict[str, Any]"}}, "str");
const FunctionDef kDescriptionCell(
    "_description_cell",
    "A parameter's full text, with the values and the bounds the schema holds it to.",
    description_cell_body, {{"param", "ParamSpec"}, {"prop", "dict[str, Any]"}}, "str");
const FunctionDef kMcpParamsBlock(
    "mcp_params_block",
    "One tool's actions line and parameter table, for the file ``docs/mcp-tools.md``.\n\n"
    "The table shows what ``query --schema`` prints for the tool, parameter by parameter in its\n"
    "order, and adds the CLI option and, for a tool with actions, the actions each one serves.\n\n"
    "Raises:\n"
    "    ValueError: The CLI schema and the registry name different parameters (they never\n"
    "        should).",
    mcp_params_block_body, {{"tool", "ToolSpec"}}, "str");
const FunctionDef kSkillText(
    "_skill_text",
    "A block as the skill's template holds it.\n\n"
    "The template is a Python string literal that ``str.format`` renders, so a backslash is\n"
    "escaped for the literal and a brace doubled for the formatting.",
    skill_text_body, {{"block", "str"}}, "str");
const FunctionDef kLiteralText(
    "_literal_text", "A block as a Python string literal holds it: a backslash is escaped.",
    literal_text_body, {{"block", "str"}}, "str");
const FunctionDef kSkillRoutesBlock(
    "skill_routes_block",
    "The \"Route by need\" table of the ``dorvan`` skill, with the facts its notes name.",
    skill_routes_block_body, {}, "str");
const FunctionDef kRulesBlock(
    "rules_block",
    "The rules block that ``quenor-dorvan init`` writes, as "
    "``docs/claude-instructions-template.md``\n"
    "shows it: ``QUENOR_INSTRUCTION_CONTENT`` with its routing table rendered from the routes.",
    rules_block_body, {}, "str");

}  // namespace registry_docs
