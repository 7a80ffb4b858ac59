#include "listing.h"

#include <vector>

#include "registry_inputs.h"

namespace registry_docs {

namespace {

// `_TIERS.index(tool.tier)`: the position of the tool's tier, with tuple.index's own error. The
// method is read before the tier, as the call evaluates them.
Ref tier_position(const Env& env, PyObject* tiers, PyObject* tool) {
  if (!PyTuple_CheckExact(tiers)) {
    Ref index = env.attr(tiers, Id::index);
    return call(index.get(), {host::tier(env, tool).get()});
  }
  Ref tier = host::tier(env, tool);
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(tiers); ++i) {
    if (check(PyObject_RichCompareBool(PyTuple_GET_ITEM(tiers, i), tier.get(), Py_EQ))) {
      return own(PyLong_FromSsize_t(i));
    }
  }
  PyErr_SetString(PyExc_ValueError, "tuple.index(x): x not in tuple");
  raise();
}

// A stable merge sort of positions by exact int keys, whose comparisons nobody can observe.
void sort_by_numbers(std::vector<Py_ssize_t>& order, const std::vector<long long>& numbers) {
  std::vector<Py_ssize_t> buffer(order.size());
  size_t size = order.size();
  for (size_t width = 1; width < size; width *= 2) {
    for (size_t left = 0; left < size; left += 2 * width) {
      size_t mid = std::min(left + width, size);
      size_t right = std::min(left + 2 * width, size);
      size_t i = left, j = mid, k = left;
      while (i < mid && j < right) {
        buffer[k++] = numbers[order[j]] < numbers[order[i]] ? order[j++] : order[i++];
      }
      while (i < mid) buffer[k++] = order[i++];
      while (j < right) buffer[k++] = order[j++];
    }
    order.swap(buffer);
  }
}

// Any other keys go through list.sort itself (positions sorted by `keys.__getitem__`), so that
// their `<` runs on the same pairs, in the same order, and fails with the same error.
void sort_by_objects(std::vector<Py_ssize_t>& order, const std::vector<Ref>& keys) {
  Ref key_list = own(PyList_New(static_cast<Py_ssize_t>(keys.size())));
  Ref positions = own(PyList_New(static_cast<Py_ssize_t>(keys.size())));
  for (size_t i = 0; i < keys.size(); ++i) {
    PyList_SET_ITEM(key_list.get(), static_cast<Py_ssize_t>(i), Ref(keys[i]).release());
    PyList_SET_ITEM(positions.get(), static_cast<Py_ssize_t>(i),
                    own(PyLong_FromSize_t(i)).release());
  }
  Ref key_of = own(PyObject_GetAttrString(key_list.get(), "__getitem__"));
  Ref sort = own(PyObject_GetAttrString(positions.get(), "sort"));
  Ref kwargs = own(Py_BuildValue("{sO}", "key", key_of.get()));
  Ref no_args = own(PyTuple_New(0));
  own(PyObject_Call(sort.get(), no_args.get(), kwargs.get()));
  for (size_t i = 0; i < order.size(); ++i) {
    order[i] = PyLong_AsSsize_t(PyList_GET_ITEM(positions.get(), static_cast<Py_ssize_t>(i)));
  }
}

// `sorted(TOOLS, key=lambda tool: _TIERS.index(tool.tier))`.
Ref ordered_tools_body(const Env& env, PyObject* const*) {
  Ref tools = own(PySequence_List(host::tools(env).get()));
  std::vector<Ref> keys;
  std::vector<long long> numbers;  // the keys while every one is a small exact int
  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(tools.get()); ++i) {
    Ref tool = Ref::borrow(PyList_GET_ITEM(tools.get(), i));
    Ref tiers = host::tiers(env);
    Ref key = tier_position(env, tiers.get(), tool.get());
    if (numbers.size() == keys.size() && PyLong_CheckExact(key.get())) {
      int overflow = 0;
      long long number = PyLong_AsLongLongAndOverflow(key.get(), &overflow);
      if (!overflow) numbers.push_back(number);
    }
    keys.push_back(std::move(key));
  }
  std::vector<Py_ssize_t> order(keys.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<Py_ssize_t>(i);
  if (numbers.size() == keys.size()) {
    sort_by_numbers(order, numbers);
  } else {
    sort_by_objects(order, keys);
  }
  Ref result = own(PyList_New(static_cast<Py_ssize_t>(order.size())));
  for (size_t i = 0; i < order.size(); ++i) {
    PyList_SET_ITEM(result.get(), static_cast<Py_ssize_t>(i),
                    Ref::borrow(PyList_GET_ITEM(tools.get(), order[i])).release());
  }
  return result;
}

// `[tool for tool in TOOLS if tool.tier == tier]`.
Ref tier_tools_body(const Env& env, PyObject* const* args) {
  Ref result = own(PyList_New(0));
  for_each(host::tools(env).get(), [&](PyObject* tool) {
    if (compare(host::tier(env, tool).get(), args[0], Py_EQ)) {
      check(PyList_Append(result.get(), tool));
    }
  });
  return result;
}

// `" and ".join(f"{len(_tier_tools(tier))} {tier}" for tier in _TIERS)`.
Ref tier_counts_body(const Env& env, PyObject* const*) {
  Ref pieces = collect(host::tiers(env).get(), [&](PyObject* tier) {
    Py_ssize_t count = check_size(PyObject_Size(call_global(env, Id::tier_tools, {tier}).get()));
    return TextWriter().number(count).lit(" ").format(tier).finish();
  });
  return join(env.name(Id::and_sep), pieces.get());
}

Ref actions_cell_body(const Env& env, PyObject* const* args) {
  Ref names = host::action_names(env, args[0]);
  if (!truth(names.get())) return Ref::borrow(args[1]);
  return code_spans(env, names.get(), ", ");
}

// `" ".join(["quenor-dorvan query", snake_to_kebab(tool.name), *(f"--{snake_to_kebab(p.name)}
// <{p.name}>" for p in tool.all_params if p.required)])`.
Ref cli_usage_body(const Env& env, PyObject* const* args) {
  PyObject* tool = args[0];
  JoinWriter words(" ");
  words.start()->lit("quenor-dorvan query");
  words.item(host::kebab_name(env, tool).get());
  for_each(host::all_params(env, tool).get(), [&](PyObject* param) {
    if (!host::required(env, param)) return;
    TextWriter word;
    word.lit("--").format(host::kebab_name(env, param).get());
    word.lit(" <").format(host::name(env, param).get()).lit(">");
    words.item(word.finish().get());
  });
  return words.finish();
}

}  // namespace

Ref code_spans(const Env& env, PyObject* iterable, const char* separator, bool by_name) {
  JoinWriter spans(separator);
  for_each(iterable, [&](PyObject* item) {
    spans.item((by_name ? call_on_field(env, Id::code, item, Id::name)
                        : call_global(env, Id::code, {item}))
                   .get());
  });
  return spans.finish();
}

const FunctionDef kOrderedTools = {
    "ordered_tools",
    "The tools in the order the docs list them: by tier, then in registry order.",
    0,
    {},
    {},
    "list[ToolSpec]",
    ordered_tools_body};
const FunctionDef kTierTools = {"_tier_tools",
                                "The tools of one tier, in registry order.",
                                1,
                                {"tier"},
                                {"ToolTier"},
                                "list[ToolSpec]",
                                tier_tools_body};
const FunctionDef kActionsCell = {
    "_actions_cell",
    "A tool's actions as code spans, or the placeholder for a tool without actions.",
    2,
    {"tool", "placeholder"},
    {"ToolSpec", "str"},
    "str",
    actions_cell_body};
const FunctionDef kTierCounts = {"_tier_counts",
                                 "How many tools each tier has, such as ``8 core and 6 extended``.",
                                 0,
                                 {},
                                 {},
                                 "str",
                                 tier_counts_body};
const FunctionDef kCliUsage = {
    "cli_usage",
    "The shortest command line that runs the tool: its required parameters, as placeholders.",
    1,
    {"tool"},
    {"ToolSpec"},
    "str",
    cli_usage_body};

}  // namespace registry_docs
