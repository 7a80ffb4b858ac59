#include "listing.h"

#include <algorithm>
#include <numeric>
#include <vector>

#include "text.h"

namespace registry_docs {

namespace {

// `_TIERS.index(tool.tier)`, the key a tool is listed by.
Ref tier_key(const Env& env, PyObject* tool) {
  Ref tiers = lookup(env, Id::TIERS);
  if (!PyTuple_CheckExact(tiers.get())) {
    Ref index = env.attr(tiers.get(), Id::index);
    return call(index.get(), env.attr(tool, Id::tier).get());
  }
  // A tuple's own `index`, without a bound method and an argument tuple per tool.
  Ref tier = env.attr(tool, Id::tier);
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(tiers.get()); ++i) {
    if (check(PyObject_RichCompareBool(PyTuple_GET_ITEM(tiers.get(), i), tier.get(), Py_EQ))) {
      return own(PyLong_FromSsize_t(i));
    }
  }
  PyErr_SetString(PyExc_ValueError, "tuple.index(x): x not in tuple");
  raise();
}

// Sorts positions by their keys as `list.sort` would, stable and with the keys' own `<`: keys that
// are all small exact ints, whose comparison nobody observes, natively; any others through
// `list.sort` itself.
void sort_positions(std::vector<Py_ssize_t>& order, PyObject* keys) {
  std::vector<long> numbers;
  for (size_t i = 0; i < order.size(); ++i) {
    PyObject* key = PyList_GET_ITEM(keys, static_cast<Py_ssize_t>(i));
    int overflow = 0;
    long number = PyLong_CheckExact(key) ? PyLong_AsLongAndOverflow(key, &overflow) : 0;
    if (!PyLong_CheckExact(key) || overflow) break;
    numbers.push_back(number);
  }
  if (numbers.size() == order.size()) {
    std::stable_sort(order.begin(), order.end(),
                     [&numbers](Py_ssize_t a, Py_ssize_t b) { return numbers[a] < numbers[b]; });
    return;
  }
  Ref positions = own(PyList_New(static_cast<Py_ssize_t>(order.size())));
  for (size_t i = 0; i < order.size(); ++i) {
    PyList_SET_ITEM(positions.get(), static_cast<Py_ssize_t>(i),
                    own(PyLong_FromSize_t(i)).release());
  }
  Ref key_of = own(PyObject_GetAttrString(keys, "__getitem__"));
  Ref sort = own(PyObject_GetAttrString(positions.get(), "sort"));
  Ref kwnames = own(Py_BuildValue("(s)", "key"));
  PyObject* stack[] = {key_of.get()};
  own(PyObject_Vectorcall(sort.get(), stack, 0, kwnames.get()));
  for (size_t i = 0; i < order.size(); ++i) {
    order[i] = PyLong_AsSsize_t(PyList_GET_ITEM(positions.get(), static_cast<Py_ssize_t>(i)));
  }
}

// `sorted(TOOLS, key=lambda tool: _TIERS.index(tool.tier))`: every key made first, in order, then
// the tools sorted by them.
Ref ordered_tools_body(const Env& env, PyObject* const*) {
  Ref tools = own(PySequence_List(lookup(env, Id::TOOLS).get()));
  Py_ssize_t count = PyList_GET_SIZE(tools.get());
  Ref keys = own(PyList_New(count));
  for (Py_ssize_t i = 0; i < count; ++i) {
    PyList_SET_ITEM(keys.get(), i, tier_key(env, PyList_GET_ITEM(tools.get(), i)).release());
  }
  std::vector<Py_ssize_t> order(static_cast<size_t>(count));
  std::iota(order.begin(), order.end(), 0);
  sort_positions(order, keys.get());
  Ref result = own(PyList_New(count));
  for (Py_ssize_t i = 0; i < count; ++i) {
    PyObject* tool = PyList_GET_ITEM(tools.get(), order[static_cast<size_t>(i)]);
    PyList_SET_ITEM(result.get(), i, Py_NewRef(tool));
  }
  return result;
}

// `[tool for tool in TOOLS if tool.tier == tier]`.
Ref tier_tools_body(const Env& env, PyObject* const* args) {
  Ref result = own(PyList_New(0));
  for_each(lookup(env, Id::TOOLS).get(), [&](PyObject* tool) {
    if (compare(env.attr(tool, Id::tier).get(), args[0], Py_EQ)) append(result, tool);
  });
  return result;
}

Ref tier_counts_body(const Env& env, PyObject* const*) {
  Ref counts = collect(lookup(env, Id::TIERS).get(), [&](PyObject* tier) {
    return fstr({len(lookup(env, Id::tier_tools)(tier)), " ", tier});
  });
  return join(env.name(Id::and_sep), counts.get());
}

Ref actions_cell_body(const Env& env, PyObject* const* args) {
  Ref names = env.attr(args[0], Id::action_names);
  return truth(names.get()) ? code_spans(env, names.get(), ", ") : Ref::borrow(args[1]);
}

Ref cli_usage_body(const Env& env, PyObject* const* args) {
  PyObject* tool = args[0];
  JoinWriter words(" ");
  words.start()->lit("quenor-dorvan query");
  words.item(lookup(env, Id::snake_to_kebab)(env.attr(tool, Id::name)));
  for_each(env.attr(tool, Id::all_params).get(), [&](PyObject* p) {
    if (truth(env.attr(p, Id::required).get())) {
      words.item(fstr({"--", lookup(env, Id::snake_to_kebab)(env.attr(p, Id::name)), " <",
                       env.attr(p, Id::name), ">"}));
    }
  });
  return words.finish();
}

}  // namespace

Ref code_spans(const Env& env, PyObject* iterable, const char* separator, bool by_name) {
  JoinWriter spans(separator);
  for_each(iterable, [&](PyObject* item) {
    Global code = lookup(env, Id::code);
    spans.item(by_name ? code(env.attr(item, Id::name)) : code(item));
  });
  return spans.finish();
}

const FunctionDef kOrderedTools(
    "ordered_tools", "The tools in the order the docs list them: by tier, then in registry order.",
    ordered_tools_body, {}, "list[ToolSpec]");
const FunctionDef kTierTools("_tier_tools", "The tools of one tier, in registry order.",
                             tier_tools_body, {{"tier", "ToolTier"}}, "list[ToolSpec]");
const FunctionDef kActionsCell(
    "_actions_cell",
    "A tool's actions as code spans, or the placeholder for a tool without actions.",
    actions_cell_body, {{"tool", "ToolSpec"}, {"placeholder", "str"}}, "str");
const FunctionDef kTierCounts("_tier_counts",
                              "How many tools each tier has, such as ``8 core and 6 extended``.",
                              tier_counts_body, {}, "str");
const FunctionDef kCliUsage(
    "cli_usage",
    "The shortest command line that runs the tool: its required parameters, as placeholders.",
    cli_usage_body, {{"tool", "ToolSpec"}}, "str");

}  // namespace registry_docs
