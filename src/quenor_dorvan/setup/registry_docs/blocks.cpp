#include "blocks.h"

#include <cstring>

#include "listing.h"
#include "markdown.h"
#include "marker_blocks.h"

namespace registry_docs {

namespace {

// A body made of one line, an empty line and a table: `"\n".join([line, "", *_table(...)])`.
Ref line_then_table(const Env& env, Obj line, PyObject* header, PyObject* rows) {
  LineJoiner lines;
  lines.line(line);
  lines.line(env.name(Id::empty));
  write_table(env, lines, header, rows);
  return lines.finish();
}

// `tool.tier.capitalize()`.
Ref capitalized_tier(const Env& env, PyObject* tool) {
  return env.method(env.attr(tool, Id::tier).get(), Id::capitalize);
}

Ref skill_row(const Env& env, PyObject* tool, Py_ssize_t, int cell) {
  switch (cell) {
    case 0: return lookup(env, Id::code)(env.attr(tool, Id::name));
    case 1: return lookup(env, Id::actions_cell)(tool, env.constant("*(one call)*"));
    case 2: return lookup(env, Id::cell)(env.attr(tool, Id::mcp_text));
    default: return Ref();
  }
}

Ref skill_tools_block_body(const Env& env, PyObject* const*) {
  Ref rows = lazy_rows(env, lookup(env, Id::ordered_tools)(), skill_row);
  return line_then_table(env,
                         fstr({"## Tool reference (", len(lookup(env, Id::TOOLS)),
                               " tools; MCP name = CLI `quenor-dorvan query <tool>`)"}),
                         env.header("Tool\tActions\tUse for"), rows.get());
}

Ref readme_row(const Env& env, PyObject* tool, Py_ssize_t, int cell) {
  switch (cell) {
    case 0: return add({env.constant("**"), capitalized_tier(env, tool), env.constant("**")});
    case 1: return lookup(env, Id::code)(env.attr(tool, Id::name));
    case 2: return lookup(env, Id::actions_cell)(tool, lookup(env, Id::NONE));
    case 3: return lookup(env, Id::cell)(env.attr(tool, Id::summary));
    default: return Ref();
  }
}

Ref readme_tools_block_body(const Env& env, PyObject* const*) {
  Ref rows = lazy_rows(env, lookup(env, Id::ordered_tools)(), readme_row);
  return line_then_table(
      env,
      fstr({len(lookup(env, Id::TOOLS)), " tools for code intelligence, ",
            lookup(env, Id::tier_counts)(),
            ". A tool with actions takes an `action` parameter that selects one."}),
      env.header("Tier\tTool\tActions\tPurpose"), rows.get());
}

Ref mcp_intro_block_body(const Env& env, PyObject* const*) {
  return fstr({"Complete reference for the **", len(lookup(env, Id::TOOLS)),
               " MCP tools** provided by Quenor Dorvan, ", lookup(env, Id::tier_counts)(),
               ".\n\nEach tool groups related functionality behind a single endpoint; a tool with "
               "actions takes an `action` parameter that selects the operation."});
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
  Ref rows = lazy_rows(env, lookup(env, Id::ordered_tools)(), overview_row);
  Ref tiers = collect(lookup(env, Id::TIERS).get(), [&](PyObject* tier) {
    return add({fstr({"- **", env.method(tier, Id::capitalize), "** (",
                      len(lookup(env, Id::tier_tools)(tier)), " tools): "}),
                code_spans(env, lookup(env, Id::tier_tools)(tier).get(), ", ", true)});
  });
  LineJoiner lines;
  write_table(env, lines, env.header("#\tTool\tActions\tTier\tPurpose"), rows.get());
  lines.line(env.name(Id::empty));
  lines.line(env.constant("**Tiers:**"));
  lines.line(env.name(Id::empty));
  lines.lines(tiers.get());
  return lines.finish();
}

Ref cli_row(const Env& env, PyObject* tool, Py_ssize_t, int cell) {
  switch (cell) {
    case 0: return lookup(env, Id::code)(env.attr(tool, Id::name));
    case 1: return lookup(env, Id::code)(lookup(env, Id::cli_usage)(tool));
    default: return Ref();
  }
}

Ref mcp_cli_block_body(const Env& env, PyObject* const*) {
  Ref rows = lazy_rows(env, lookup(env, Id::ordered_tools)(), cli_row);
  return line_then_table(
      env,
      env.constant(
          "Every parameter is an option of the same name in kebab-case (`token_budget` is "
          "`--token-budget`), an array is a comma-separated list, and a boolean is `--flag` or "
          "`--flag true|false`. `quenor-dorvan query <tool> --help` prints a tool's options with "
          "their full texts and `quenor-dorvan query --schema` prints them all as JSON Schema."),
      env.header("Tool\tCLI usage"), rows.get());
}

Ref default_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  Ref text = env.attr(param, Id::default_).get() == Py_None
                 ? lookup(env, Id::NONE)
                 : lookup(env, Id::value)(env.attr(param, Id::default_));
  JoinWriter by_action(", ");
  for_each(env.attr(param, Id::action_defaults).get(), [&](PyObject* pair) {
    auto [action, value] = unpack_pair(pair);
    by_action.item(fstr({action, ": ", lookup(env, Id::value)(value)}));
  });
  Ref joined = by_action.finish();
  return PyUnicode_GET_LENGTH(joined.get()) ? fstr({text, " (", joined, ")"}) : text;
}

Ref type_cell_body(const Env& env, PyObject* const* args) {
  PyObject* prop = args[0];
  if (compare(subscript(prop, env.name(Id::type)).get(), env.name(Id::array), Py_EQ) &&
      check(PySequence_Contains(prop, env.name(Id::items)))) {
    return fstr({subscript(subscript(prop, env.name(Id::items)).get(), env.name(Id::type)), "[]"});
  }
  return str_of(subscript(prop, env.name(Id::type)).get());
}

Ref description_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  PyObject* prop = args[1];
  Ref description = env.method(
      mapping_get(prop, env.name(Id::description), env.name(Id::get), env.name(Id::empty)).get(),
      Id::strip);
  if (truth(description.get()) &&
      !ends_with(description.get(), env.name(Id::dot), env.name(Id::endswith))) {
    description = own(PyNumber_InPlaceAdd(description.get(), env.name(Id::dot)));
  }
  Ref values_text = env.attr(param, Id::values_text);
  Ref values = call(values_text.get(), lookup(env, Id::code).get());
  Ref low = mapping_get(prop, env.name(Id::minimum), env.name(Id::get));
  Ref high = mapping_get(prop, env.name(Id::maximum), env.name(Id::get));
  Ref bound =
      low.get() != Py_None && high.get() != Py_None
          ? fstr({"Range: ", lookup(env, Id::value)(low), "-", lookup(env, Id::value)(high), "."})
      : low.get() != Py_None  ? fstr({"At least ", lookup(env, Id::value)(low), "."})
      : high.get() != Py_None ? fstr({"At most ", lookup(env, Id::value)(high), "."})
                              : Ref::borrow(env.name(Id::empty));
  Global cell = lookup(env, Id::cell);
  JoinWriter pieces(" ");
  for (PyObject* piece : {description.get(), values.get(), bound.get()}) {
    if (truth(piece)) pieces.item(piece);
  }
  return cell(pieces.finish());
}

Ref mcp_params_block_body(const Env& env, PyObject* const* args) {
  PyObject* tool = args[0];
  Ref schema = lookup(env, Id::get_cli_schema)(env.attr(tool, Id::name));
  Ref properties = subscript(schema.get(), env.name(Id::properties));
  Ref listed = own(PySequence_List(properties.get()));
  Ref names = collect(env.attr(tool, Id::all_params).get(),
                      [&](PyObject* param) { return env.attr(param, Id::name); });
  if (compare(listed.get(), names.get(), Py_NE)) {
    raise(PyExc_ValueError, fstr({env.attr(tool, Id::name),
                                  ": the CLI schema and the registry name different parameters"}));
  }
  Ref required = own(PySet_New(subscript(schema.get(), env.name(Id::required)).get()));
  bool has_actions = truth(env.attr(tool, Id::actions).get());
  PyObject* header =
      env.header(has_actions ? "Parameter\tCLI\tType\tRequired\tDefault\tActions\tDescription"
                             : "Parameter\tCLI\tType\tRequired\tDefault\tDescription");

  Ref rows = own(PyList_New(0));
  for_each(env.attr(tool, Id::all_params).get(), [&](PyObject* param) {
    Ref prop = subscript(properties.get(), env.attr(param, Id::name).get());
    append(rows,
           tuple_of({lookup(env, Id::code)(env.attr(param, Id::name)),
                     lookup(env, Id::code)(
                         fstr({"--", lookup(env, Id::snake_to_kebab)(env.attr(param, Id::name))})),
                     lookup(env, Id::type_cell)(prop),
                     env.constant(contains(required, env.attr(param, Id::name)) ? "Yes" : "No"),
                     lookup(env, Id::cell)(lookup(env, Id::default_cell)(param)),
                     has_actions ? otherwise(join(env.name(Id::comma),
                                                  env.attr(param, Id::applies_to).get()),
                                             env.constant("all"))
                                 : Ref(),
                     lookup(env, Id::description_cell)(param, prop)}));
  });
  LineJoiner lines;
  if (has_actions) {
    lines.line(add({env.constant("**Actions:** "),
                    code_spans(env, env.attr(tool, Id::action_names).get(), " | ")}));
    lines.line(env.name(Id::empty));
  }
  lines.line(env.constant("#### Parameters"));
  lines.line(env.name(Id::empty));
  write_table(env, lines, header, rows.get());
  return lines.finish();
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
  return env.method(text, Id::replace, old, replacement);
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
  Ref joined = join(env.name(Id::comma), env.method(frameworks.get(), Id::values).get());
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
  // `_MARKER.sub` is read before its arguments: a `_MARKER` missing or without `sub` fails first.
  Global marker = lookup(env, Id::MARKER);
  Ref sub = env.attr(marker.get(), Id::sub);
  Global content = lookup(env, Id::QUENOR_INSTRUCTION_CONTENT);
  Ref rendered = replace_blocks(env, marker.get(), sub.get(), content.get(),
                                {kRulesRender, routes_for_block}, {});
  return env.method(strip_markers(rendered).get(), Id::strip);
}

}  // namespace

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
