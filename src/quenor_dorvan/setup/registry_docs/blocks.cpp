#include "blocks.h"

#include <cstring>
#include <vector>

#include "listing.h"
#include "maintenance.h"
#include "markdown.h"

namespace registry_docs {

namespace {

// A tuple of fixed column titles.
Ref header_of(std::initializer_list<const char*> titles) {
  Ref header = Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(titles.size())));
  if (!header) return Ref();
  Py_ssize_t i = 0;
  for (const char* title : titles) {
    PyObject* text = PyUnicode_FromString(title);
    if (!text) return Ref();
    PyTuple_SET_ITEM(header.get(), i++, text);
  }
  return header;
}

// `f"{a}{b}..."` for pieces that are fixed ASCII texts or objects written as format() writes them.
class Text {
 public:
  Text& lit(const char* text) {
    if (ok_) ok_ = out_.ascii(text, static_cast<Py_ssize_t>(strlen(text)));
    return *this;
  }
  Text& value(PyObject* obj) {
    if (!ok_) return *this;
    if (!obj) {
      ok_ = false;
      return *this;
    }
    Ref text = format_text(obj);
    ok_ = text && out_.str(text.get());
    return *this;
  }
  // A text format() has made already (an f-string formats each field as it reaches it).
  Text& formatted(PyObject* text) {
    if (!ok_) return *this;
    ok_ = text && out_.str(text);
    return *this;
  }
  Text& number(Py_ssize_t n) {
    if (!ok_) return *this;
    if (n < 0) {
      ok_ = false;
      return *this;
    }
    Ref text = ssize_text(n);
    ok_ = text && out_.str(text.get());
    return *this;
  }
  Ref finish() { return ok_ ? out_.finish() : Ref(); }

 private:
  TextWriter out_;
  bool ok_ = true;
};

// `len(TOOLS)`, -1 with an exception set.
Py_ssize_t registry_length(const Env& env) {
  Ref tools = lookup(env, Id::TOOLS);
  return tools ? PyObject_Size(tools.get()) : -1;
}

// The tools of `ordered_tools()`, as the iterator a generator expression takes at its creation.
Ref iter_ordered_tools(const Env& env) {
  Ref tools = call_global(env, Id::ordered_tools, {});
  return tools ? Ref::steal(PyObject_GetIter(tools.get())) : Ref();
}

// Rows with one tool each, taken from an iterator of tools.
class ToolRows : public RowSource {
 public:
  explicit ToolRows(Ref tools) : tools_(std::move(tools)) {}
  bool next_row(const Env&, Ref& state) override {
    state = Ref::steal(PyIter_Next(tools_.get()));
    return static_cast<bool>(state);
  }
  int traverse(visitproc visit, void* arg) override {
    Py_VISIT(tools_.get());
    return 0;
  }

 private:
  Ref tools_;
};

// `fn(record.field)`, with the module function looked up when it is called.
Ref apply_to_field(const Env& env, Id fn, PyObject* record, Id field) {
  Ref value = getattr(record, field);
  return value ? call_global(env, fn, {value.get()}) : Ref();
}

class SkillRows : public ToolRows {
 public:
  using ToolRows::ToolRows;
  int columns() const override { return 3; }
  Ref cell(const Env& env, PyObject* tool, int column) override {
    switch (column) {
      case 0:
        return apply_to_field(env, Id::code, tool, Id::name);
      case 1:
        return call_global(env, Id::actions_cell, {tool, name(Id::one_call)});
      default:
        return apply_to_field(env, Id::cell, tool, Id::mcp_text);
    }
  }
};

Ref actions_with_none(const Env& env, PyObject* tool) {
  Ref none = lookup(env, Id::NONE);
  return none ? call_global(env, Id::actions_cell, {tool, none.get()}) : Ref();
}

Ref tier_capitalized(PyObject* tool) {
  Ref tier = getattr(tool, Id::tier);
  return tier ? capitalized(tier.get()) : Ref();
}

class ReadmeRows : public ToolRows {
 public:
  using ToolRows::ToolRows;
  int columns() const override { return 4; }
  Ref cell(const Env& env, PyObject* tool, int column) override {
    switch (column) {
      case 0: {
        // `"**" + tier + "**"`: concatenated with `+`, not formatted.
        Ref tier = tier_capitalized(tool);
        Ref stars = tier ? Ref::steal(PyUnicode_FromString("**")) : Ref();
        Ref opened = stars ? Ref::steal(PyNumber_Add(stars.get(), tier.get())) : Ref();
        return opened ? Ref::steal(PyNumber_Add(opened.get(), stars.get())) : Ref();
      }
      case 1:
        return apply_to_field(env, Id::code, tool, Id::name);
      case 2:
        return actions_with_none(env, tool);
      default:
        return apply_to_field(env, Id::cell, tool, Id::summary);
    }
  }
};

// Numbered rows: the state of a row is the pair (number, tool), as enumerate gives it.
class OverviewRows : public ToolRows {
 public:
  using ToolRows::ToolRows;
  int columns() const override { return 5; }
  bool next_row(const Env& env, Ref& state) override {
    Ref tool;
    if (!ToolRows::next_row(env, tool)) return false;
    Ref number = Ref::steal(PyLong_FromSsize_t(++count_));
    state = number ? Ref::steal(PyTuple_Pack(2, number.get(), tool.get())) : Ref();
    return static_cast<bool>(state);
  }
  Ref cell(const Env& env, PyObject* state, int column) override {
    PyObject* tool = PyTuple_GET_ITEM(state, 1);
    switch (column) {
      case 0:
        return Ref::steal(PyObject_Str(PyTuple_GET_ITEM(state, 0)));
      case 1:
        return apply_to_field(env, Id::code, tool, Id::name);
      case 2:
        return actions_with_none(env, tool);
      case 3:
        return tier_capitalized(tool);
      default:
        return apply_to_field(env, Id::cell, tool, Id::summary);
    }
  }

 private:
  Py_ssize_t count_ = 0;
};

class CliRows : public ToolRows {
 public:
  using ToolRows::ToolRows;
  int columns() const override { return 2; }
  Ref cell(const Env& env, PyObject* tool, int column) override {
    if (column == 0) return apply_to_field(env, Id::code, tool, Id::name);
    Ref usage = call_global(env, Id::cli_usage, {tool});
    return usage ? call_global(env, Id::code, {usage.get()}) : Ref();
  }
};

// The cells of one parameter's row, in column order, appended to `cells`; the property is looked
// up first, as the row is built from it.
bool append_param_row(const Env& env, PyObject* param, PyObject* properties, PyObject* required,
                      bool has_actions, std::vector<Ref>& cells) {
  Ref param_name = getattr(param, Id::name);
  Ref prop = param_name ? subscript(properties, param_name.get()) : Ref();
  if (!prop) return false;
  auto add = [&cells](Ref cell) {
    if (!cell) return false;
    cells.push_back(std::move(cell));
    return true;
  };
  if (!add(apply_to_field(env, Id::code, param, Id::name))) return false;
  param_name = getattr(param, Id::name);
  Ref option = param_name ? call_global(env, Id::snake_to_kebab, {param_name.get()}) : Ref();
  Ref option_text = option ? Text().lit("--").value(option.get()).finish() : Ref();
  if (!add(option_text ? call_global(env, Id::code, {option_text.get()}) : Ref())) return false;
  if (!add(call_global(env, Id::type_cell, {prop.get()}))) return false;
  param_name = getattr(param, Id::name);
  int found = param_name ? PySequence_Contains(required, param_name.get()) : -1;
  if (found < 0 || !add(Ref::borrow(name(found ? Id::yes : Id::no)))) return false;
  Ref default_text = call_global(env, Id::default_cell, {param});
  if (!add(default_text ? call_global(env, Id::cell, {default_text.get()}) : Ref())) return false;
  if (has_actions) {
    Ref actions = getattr(param, Id::applies_to);
    Ref text = actions ? join(Id::comma, actions.get()) : Ref();
    if (text && PyUnicode_GET_LENGTH(text.get()) == 0) text = Ref::borrow(name(Id::all));
    if (!add(std::move(text))) return false;
  }
  return add(call_global(env, Id::description_cell, {param, prop.get()}));
}

// A body made of one line, an empty line and a table.
Ref line_then_table(const Env& env, PyObject* line, PyObject* header,
                    std::unique_ptr<RowSource> rows) {
  LineJoiner out;
  if (!out.line(line) || !out.line(name(Id::empty)) ||
      !write_table(env, out, header, std::move(rows))) {
    return Ref();
  }
  return out.finish();
}

Ref skill_tools_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  if (!tools) return Ref();
  Ref heading = Text()
                    .lit("## Tool reference (")
                    .number(registry_length(env))
                    .lit(" tools; MCP name = CLI `quenor-dorvan query <tool>`)")
                    .finish();
  Ref header = header_of({"Tool", "Actions", "Use for"});
  if (!heading || !header) return Ref();
  return line_then_table(env, heading.get(), header.get(),
                         std::make_unique<SkillRows>(std::move(tools)));
}

Ref readme_tools_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  if (!tools) return Ref();
  Py_ssize_t count = registry_length(env);
  if (count < 0) return Ref();
  Ref counts = call_global(env, Id::tier_counts, {});
  if (!counts) return Ref();
  Ref line = Text()
                 .number(count)
                 .lit(" tools for code intelligence, ")
                 .value(counts.get())
                 .lit(". A tool with actions takes an `action` parameter that selects one.")
                 .finish();
  Ref header = header_of({"Tier", "Tool", "Actions", "Purpose"});
  if (!line || !header) return Ref();
  return line_then_table(env, line.get(), header.get(),
                         std::make_unique<ReadmeRows>(std::move(tools)));
}

Ref mcp_intro_block_body(const Env& env, PyObject* const*) {
  Py_ssize_t count = registry_length(env);
  if (count < 0) return Ref();
  Ref counts = call_global(env, Id::tier_counts, {});
  if (!counts) return Ref();
  return Text()
      .lit("Complete reference for the **")
      .number(count)
      .lit(" MCP tools** provided by Quenor Dorvan, ")
      .value(counts.get())
      .lit(
          ".\n\nEach tool groups related functionality behind a single endpoint; a tool with "
          "actions takes an `action` parameter that selects the operation.")
      .finish();
}

// "- **Core** (8 tools): `a`, `b`": one tier's line of the overview.
Ref tier_line(const Env& env, PyObject* tier) {
  Ref title = capitalized(tier);
  Ref shown = title ? format_text(title.get()) : Ref();
  if (!shown) return Ref();
  Ref counted = call_global(env, Id::tier_tools, {tier});
  if (!counted) return Ref();
  Py_ssize_t count = PyObject_Size(counted.get());
  if (count < 0) return Ref();
  Ref prefix =
      Text().lit("- **").formatted(shown.get()).lit("** (").number(count).lit(" tools): ").finish();
  if (!prefix) return Ref();
  Ref listed = call_global(env, Id::tier_tools, {tier});
  if (!listed) return Ref();
  Ref names = code_spans(env, listed.get(), Id::comma, true);
  return names ? Ref::steal(PyUnicode_Concat(prefix.get(), names.get())) : Ref();
}

Ref mcp_overview_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  if (!tools) return Ref();
  Ref tiers = lookup(env, Id::TIERS);
  if (!tiers) return Ref();
  Ref tier_lines = collect(tiers.get(), [&](PyObject* tier) { return tier_line(env, tier); });
  if (!tier_lines) return Ref();
  Ref header = header_of({"#", "Tool", "Actions", "Tier", "Purpose"});
  Ref title = Ref::steal(PyUnicode_FromString("**Tiers:**"));
  if (!header || !title) return Ref();
  LineJoiner out;
  if (!write_table(env, out, header.get(), std::make_unique<OverviewRows>(std::move(tools))) ||
      !out.line(name(Id::empty)) || !out.line(title.get()) || !out.line(name(Id::empty))) {
    return Ref();
  }
  return out.lines(tier_lines.get()) ? out.finish() : Ref();
}

Ref mcp_cli_block_body(const Env& env, PyObject* const*) {
  Ref tools = iter_ordered_tools(env);
  if (!tools) return Ref();
  Ref note = Ref::steal(PyUnicode_FromString(
      "Every parameter is an option of the same name in kebab-case (`token_budget` is "
      "`--token-budget`), an array is a comma-separated list, and a boolean is `--flag` or "
      "`--flag true|false`. `quenor-dorvan query <tool> --help` prints a tool's options with "
      "their full texts and `quenor-dorvan query --schema` prints them all as JSON Schema."));
  Ref header = header_of({"Tool", "CLI usage"});
  if (!note || !header) return Ref();
  return line_then_table(env, note.get(), header.get(),
                         std::make_unique<CliRows>(std::move(tools)));
}

Ref default_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  // `_NONE if param.default is None else _value(param.default)`: read again for the spelling.
  Ref value = getattr(param, Id::default_);
  if (!value) return Ref();
  Ref text;
  if (value.get() == Py_None) {
    text = lookup(env, Id::NONE);
  } else {
    value = getattr(param, Id::default_);
    text = value ? call_global(env, Id::value, {value.get()}) : Ref();
  }
  if (!text) return Ref();
  Ref pairs = getattr(param, Id::action_defaults);
  if (!pairs) return Ref();
  Ref pieces = collect(pairs.get(), [&](PyObject* pair) -> Ref {
    Ref action, action_value;
    if (!unpack_pair(pair, action, action_value)) return Ref();
    Ref action_text = format_text(action.get());
    Ref spelled = action_text ? call_global(env, Id::value, {action_value.get()}) : Ref();
    return spelled ? Text().formatted(action_text.get()).lit(": ").value(spelled.get()).finish()
                   : Ref();
  });
  Ref by_action = pieces ? join(Id::comma, pieces.get()) : Ref();
  if (!by_action) return Ref();
  if (PyUnicode_GET_LENGTH(by_action.get()) == 0) return text;
  return Text().value(text.get()).lit(" (").value(by_action.get()).lit(")").finish();
}

Ref type_cell_body(const Env&, PyObject* const* args) {
  PyObject* prop = args[0];
  Ref type = subscript(prop, Id::type);
  if (!type) return Ref();
  Ref is_array = Ref::steal(PyObject_RichCompare(type.get(), name(Id::array), Py_EQ));
  if (!is_array) return Ref();
  int array = PyObject_IsTrue(is_array.get());
  if (array < 0) return Ref();
  if (array) {
    int has_items = PySequence_Contains(prop, name(Id::items));
    if (has_items < 0) return Ref();
    if (has_items) {
      Ref items = subscript(prop, Id::items);
      if (!items) return Ref();
      Ref item_type = subscript(items.get(), Id::type);
      return item_type ? Text().value(item_type.get()).lit("[]").finish() : Ref();
    }
  }
  type = subscript(prop, Id::type);  // `str(prop["type"])` reads it again
  return type ? Ref::steal(PyObject_Str(type.get())) : Ref();
}

// `prop.get("description", "")`.
Ref description_of(PyObject* prop) {
  if (PyDict_CheckExact(prop)) {
    Ref found = mapping_get(prop, Id::description);
    if (found && found.get() == Py_None && PyDict_Contains(prop, name(Id::description)) == 0) {
      return Ref::borrow(name(Id::empty));
    }
    return found;
  }
  return call_method(prop, Id::get, {name(Id::description), name(Id::empty)});
}

// A description with a full stop at its end, unless it is empty or has one already.
Ref with_full_stop(PyObject* description) {
  if (PyUnicode_CheckExact(description)) {
    Py_ssize_t size = PyUnicode_GET_LENGTH(description);
    if (size == 0 || PyUnicode_READ_CHAR(description, size - 1) == '.') {
      return Ref::borrow(description);
    }
    return Ref::steal(PyUnicode_Concat(description, name(Id::dot)));
  }
  int truth = PyObject_IsTrue(description);
  if (truth < 0) return Ref();
  if (!truth) return Ref::borrow(description);
  Ref ends = call_method(description, Id::endswith, {name(Id::dot)});
  if (!ends) return Ref();
  int ended = PyObject_IsTrue(ends.get());
  if (ended < 0) return Ref();
  if (ended) return Ref::borrow(description);
  return Ref::steal(PyNumber_InPlaceAdd(description, name(Id::dot)));
}

Ref bound_sentence(const Env& env, PyObject* prop) {
  Ref low = mapping_get(prop, Id::minimum);
  if (!low) return Ref();
  Ref high = mapping_get(prop, Id::maximum);
  if (!high) return Ref();
  bool has_low = low.get() != Py_None;
  bool has_high = high.get() != Py_None;
  if (has_low && has_high) {
    Ref low_text = call_global(env, Id::value, {low.get()});
    Ref low_shown = low_text ? format_text(low_text.get()) : Ref();
    if (!low_shown) return Ref();
    Ref high_text = call_global(env, Id::value, {high.get()});
    if (!high_text) return Ref();
    return Text()
        .lit("Range: ")
        .formatted(low_shown.get())
        .lit("-")
        .value(high_text.get())
        .lit(".")
        .finish();
  }
  if (has_low || has_high) {
    Ref text = call_global(env, Id::value, {has_low ? low.get() : high.get()});
    if (!text) return Ref();
    return Text().lit(has_low ? "At least " : "At most ").value(text.get()).lit(".").finish();
  }
  return Ref::borrow(name(Id::empty));
}

Ref description_cell_body(const Env& env, PyObject* const* args) {
  PyObject* param = args[0];
  PyObject* prop = args[1];
  Ref raw = description_of(prop);
  if (!raw) return Ref();
  Ref stripped = strip_text(raw.get());
  if (!stripped) return Ref();
  Ref description = with_full_stop(stripped.get());
  if (!description) return Ref();
  Ref formatter = lookup(env, Id::code);
  if (!formatter) return Ref();
  Ref values = call_method(param, Id::values_text, {formatter.get()});
  if (!values) return Ref();
  Ref bound = bound_sentence(env, prop);
  if (!bound) return Ref();
  Ref pieces = Ref::steal(PyList_New(0));
  if (!pieces) return Ref();
  for (PyObject* piece : {description.get(), values.get(), bound.get()}) {
    int truth = PyObject_IsTrue(piece);
    if (truth < 0) return Ref();
    if (truth && PyList_Append(pieces.get(), piece) < 0) return Ref();
  }
  Ref joined = join(Id::space, pieces.get());
  return joined ? call_global(env, Id::cell, {joined.get()}) : Ref();
}

Ref mcp_params_block_body(const Env& env, PyObject* const* args) {
  PyObject* tool = args[0];
  Ref tool_name = getattr(tool, Id::name);
  if (!tool_name) return Ref();
  Ref schema = call_global(env, Id::get_cli_schema, {tool_name.get()});
  if (!schema) return Ref();
  Ref properties = subscript(schema.get(), Id::properties);
  if (!properties) return Ref();
  Ref schema_names = Ref::steal(PySequence_List(properties.get()));
  if (!schema_names) return Ref();
  Ref params = getattr(tool, Id::all_params);
  if (!params) return Ref();
  Ref registry_names =
      collect(params.get(), [](PyObject* param) { return getattr(param, Id::name); });
  if (!registry_names) return Ref();
  int same = PyObject_RichCompareBool(schema_names.get(), registry_names.get(), Py_EQ);
  if (same < 0) return Ref();
  if (!same) {
    Ref shown = getattr(tool, Id::name);
    Ref message = shown ? Text()
                              .value(shown.get())
                              .lit(": the CLI schema and the registry name different parameters")
                              .finish()
                        : Ref();
    if (message) PyErr_SetObject(PyExc_ValueError, message.get());
    return Ref();
  }
  Ref required_names = subscript(schema.get(), Id::required);
  if (!required_names) return Ref();
  Ref required = Ref::steal(PySet_New(required_names.get()));
  if (!required) return Ref();
  Ref actions = getattr(tool, Id::actions);
  if (!actions) return Ref();
  int has_actions = PyObject_IsTrue(actions.get());
  if (has_actions < 0) return Ref();
  Ref header =
      has_actions
          ? header_of({"Parameter", "CLI", "Type", "Required", "Default", "Actions", "Description"})
          : header_of({"Parameter", "CLI", "Type", "Required", "Default", "Description"});
  if (!header) return Ref();
  // Every row is built before the lines around the table and before `_table` is looked up.
  params = getattr(tool, Id::all_params);
  if (!params) return Ref();
  const int columns = has_actions ? 7 : 6;
  std::vector<Ref> cells;
  if (!for_each(params.get(), [&](PyObject* param) {
        return append_param_row(env, param, properties.get(), required.get(), has_actions != 0,
                                cells);
      })) {
    return Ref();
  }
  LineJoiner out;
  if (has_actions) {
    Ref names = getattr(tool, Id::action_names);
    if (!names) return Ref();
    Ref listed = code_spans(env, names.get(), Id::bar_sep);
    if (!listed) return Ref();
    Ref line = Text().lit("**Actions:** ").value(listed.get()).finish();
    if (!line || !out.line(line.get()) || !out.line(name(Id::empty))) return Ref();
  }
  Ref heading = Ref::steal(PyUnicode_FromString("#### Parameters"));
  if (!heading || !out.line(heading.get()) || !out.line(name(Id::empty))) return Ref();
  if (!write_built_table(env, out, header.get(), cells, columns)) return Ref();
  return out.finish();
}

// `text.replace(old, new)`, natively for a str and through the method otherwise.
Ref replaced(PyObject* text, Id old_text, Id new_text) {
  if (PyUnicode_CheckExact(text)) {
    return Ref::steal(PyUnicode_Replace(text, name(old_text), name(new_text), -1));
  }
  return call_method(text, Id::replace, {name(old_text), name(new_text)});
}

Ref literal_text_body(const Env&, PyObject* const* args) {
  return replaced(args[0], Id::backslash, Id::two_backslashes);
}

Ref skill_text_body(const Env& env, PyObject* const* args) {
  Ref literal = call_global(env, Id::literal_text, {args[0]});
  if (!literal) return Ref();
  Ref braces = replaced(literal.get(), Id::open_brace, Id::two_open_braces);
  return braces ? replaced(braces.get(), Id::close_brace, Id::two_close_braces) : Ref();
}

Ref skill_routes_block_body(const Env& env, PyObject* const*) {
  Ref table = lookup(env, Id::skill_table);
  if (!table) return Ref();
  Ref frameworks = lookup(env, Id::ENDPOINT_FRAMEWORKS);
  if (!frameworks) return Ref();
  Ref names = call_method(frameworks.get(), Id::values, {});
  if (!names) return Ref();
  Ref joined = join(Id::comma, names.get());
  if (!joined) return Ref();
  Ref facts = Ref::steal(PyDict_New());
  if (!facts || PyDict_SetItem(facts.get(), name(Id::frameworks), joined.get()) < 0) return Ref();
  return call_found(table.get(), {facts.get()});
}

// Each marked block of the rules text gets a fresh routing table. It is joined to the markers
// with `+` by replace_blocks, so a table that is no str meets the operator's own dispatch.
Ref routes_for_block(const Env& env) {
  return call_global(env, Id::rules_table, {});
}

Ref rules_block_body(const Env& env, PyObject* const*) {
  Ref strip_markers = lookup(env, Id::without_markers);
  if (!strip_markers) return Ref();
  // `_MARKER.sub` is evaluated before its argument: a missing `_MARKER`, or a rebound one without
  // `sub`, fails before the content is looked up.
  Ref marker = lookup(env, Id::MARKER);
  if (!marker) return Ref();
  if (marker.get() != env.marker && !getattr(marker.get(), Id::sub)) return Ref();
  Ref content = lookup(env, Id::QUENOR_INSTRUCTION_CONTENT);
  if (!content) return Ref();
  Ref rendered = replace_blocks(env, marker.get(), content.get(),
                                [&env](const BlockMatch&) { return routes_for_block(env); });
  if (!rendered) return Ref();
  Ref plain = call_found(strip_markers.get(), {rendered.get()});
  return plain ? strip_text(plain.get()) : Ref();
}

}  // namespace

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
