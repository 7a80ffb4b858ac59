#include "listing.h"

#include <vector>

#include "registry_inputs.h"

namespace registry_docs {

namespace {

// `tiers.index(tier)`: the position of a tier name, with tuple.index's own error.
Ref tier_position(PyObject* tiers, PyObject* tier) {
  if (!PyTuple_CheckExact(tiers)) return call_method(tiers, Id::index, {tier});
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(tiers); ++i) {
    int equal = PyObject_RichCompareBool(PyTuple_GET_ITEM(tiers, i), tier, Py_EQ);
    if (equal < 0) return Ref();
    if (equal) return Ref::steal(PyLong_FromSsize_t(i));
  }
  PyErr_SetString(PyExc_ValueError, "tuple.index(x): x not in tuple");
  return Ref();
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
bool sort_by_objects(std::vector<Py_ssize_t>& order, const std::vector<Ref>& keys) {
  Ref key_list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(keys.size())));
  Ref positions = Ref::steal(PyList_New(static_cast<Py_ssize_t>(keys.size())));
  if (!key_list || !positions) return false;
  for (size_t i = 0; i < keys.size(); ++i) {
    PyObject* position = PyLong_FromSize_t(i);
    if (!position) return false;
    PyList_SET_ITEM(key_list.get(), static_cast<Py_ssize_t>(i), Ref(keys[i]).release());
    PyList_SET_ITEM(positions.get(), static_cast<Py_ssize_t>(i), position);
  }
  Ref key_of = Ref::steal(PyObject_GetAttrString(key_list.get(), "__getitem__"));
  Ref sort = Ref::steal(PyObject_GetAttrString(positions.get(), "sort"));
  Ref kwargs = key_of ? Ref::steal(Py_BuildValue("{sO}", "key", key_of.get())) : Ref();
  Ref no_args = Ref::steal(PyTuple_New(0));
  if (!sort || !kwargs || !no_args) return false;
  if (!Ref::steal(PyObject_Call(sort.get(), no_args.get(), kwargs.get()))) return false;
  for (size_t i = 0; i < order.size(); ++i) {
    order[i] = PyLong_AsSsize_t(PyList_GET_ITEM(positions.get(), static_cast<Py_ssize_t>(i)));
  }
  return true;
}

Ref ordered_tools_body(const Env& env, PyObject* const*) {
  Ref registry = lookup(env, Id::TOOLS);
  if (!registry) return Ref();
  Ref tools = Ref::steal(PySequence_List(registry.get()));
  if (!tools) return Ref();
  Py_ssize_t count = PyList_GET_SIZE(tools.get());
  std::vector<Ref> keys;
  keys.reserve(static_cast<size_t>(count));
  bool small_ints = true;
  std::vector<long long> numbers;
  for (Py_ssize_t i = 0; i < PyList_GET_SIZE(tools.get()); ++i) {
    Ref tool = Ref::borrow(PyList_GET_ITEM(tools.get(), i));
    Ref tiers = lookup(env, Id::TIERS);
    if (!tiers) return Ref();
    Ref tier = getattr(tool.get(), Id::tier);
    if (!tier) return Ref();
    Ref key = tier_position(tiers.get(), tier.get());
    if (!key) return Ref();
    if (small_ints && PyLong_CheckExact(key.get())) {
      int overflow = 0;
      long long number = PyLong_AsLongLongAndOverflow(key.get(), &overflow);
      if (overflow || (number == -1 && PyErr_Occurred())) {
        PyErr_Clear();
        small_ints = false;
      } else {
        numbers.push_back(number);
      }
    } else {
      small_ints = false;
    }
    keys.push_back(std::move(key));
  }
  std::vector<Py_ssize_t> order(keys.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<Py_ssize_t>(i);
  if (small_ints) {
    sort_by_numbers(order, numbers);
  } else if (!sort_by_objects(order, keys)) {
    return Ref();
  }
  Ref result = Ref::steal(PyList_New(static_cast<Py_ssize_t>(order.size())));
  if (!result) return Ref();
  for (size_t i = 0; i < order.size(); ++i) {
    PyObject* tool = PyList_GET_ITEM(tools.get(), order[i]);
    Py_INCREF(tool);
    PyList_SET_ITEM(result.get(), static_cast<Py_ssize_t>(i), tool);
  }
  return result;
}

Ref tier_tools_body(const Env& env, PyObject* const* args) {
  PyObject* wanted = args[0];
  Ref tools = lookup(env, Id::TOOLS);
  Ref result = tools ? Ref::steal(PyList_New(0)) : Ref();
  if (!result) return Ref();
  bool ok = for_each(tools.get(), [&](PyObject* tool) {
    Ref tier = getattr(tool, Id::tier);
    Ref equal = tier ? Ref::steal(PyObject_RichCompare(tier.get(), wanted, Py_EQ)) : Ref();
    int truth = equal ? PyObject_IsTrue(equal.get()) : -1;
    return truth >= 0 && (!truth || PyList_Append(result.get(), tool) == 0);
  });
  return ok ? result : Ref();
}

Ref tier_counts_body(const Env& env, PyObject* const*) {
  Ref tiers = lookup(env, Id::TIERS);
  if (!tiers) return Ref();
  Ref pieces = collect(tiers.get(), [&](PyObject* tier) -> Ref {
    Ref tools = call_global(env, Id::tier_tools, {tier});
    Py_ssize_t count = tools ? PyObject_Size(tools.get()) : -1;
    Ref number = count >= 0 ? ssize_text(count) : Ref();
    Ref tier_text = number ? format_text(tier) : Ref();
    TextWriter out;
    if (!tier_text || !out.str(number.get()) || !out.lit(" ") || !out.str(tier_text.get())) {
      return Ref();
    }
    return out.finish();
  });
  return pieces ? join(Id::and_sep, pieces.get()) : Ref();
}

Ref actions_cell_body(const Env& env, PyObject* const* args) {
  Ref names = getattr(args[0], Id::action_names);
  if (!names) return Ref();
  int any = PyObject_IsTrue(names.get());
  if (any < 0) return Ref();
  if (!any) return Ref::borrow(args[1]);
  return code_spans(env, names.get(), Id::comma);
}

Ref cli_usage_body(const Env& env, PyObject* const* args) {
  PyObject* tool = args[0];
  Ref words = Ref::steal(PyList_New(0));
  Ref program = Ref::steal(PyUnicode_FromString("quenor-dorvan query"));
  if (!words || !program || PyList_Append(words.get(), program.get()) < 0) return Ref();
  Ref tool_name = getattr(tool, Id::name);
  if (!tool_name) return Ref();
  Ref command = call_global(env, Id::snake_to_kebab, {tool_name.get()});
  if (!command || PyList_Append(words.get(), command.get()) < 0) return Ref();
  Ref params = getattr(tool, Id::all_params);
  if (!params) return Ref();
  bool ok = for_each(params.get(), [&](PyObject* param) {
    Ref required = getattr(param, Id::required);
    int truth = required ? PyObject_IsTrue(required.get()) : -1;
    if (truth <= 0) return truth == 0;
    Ref param_name = getattr(param, Id::name);
    Ref option = param_name ? call_global(env, Id::snake_to_kebab, {param_name.get()}) : Ref();
    Ref option_text = option ? format_text(option.get()) : Ref();
    param_name = option_text ? getattr(param, Id::name) : Ref();
    Ref placeholder = param_name ? format_text(param_name.get()) : Ref();
    TextWriter out;
    if (!placeholder || !out.lit("--") || !out.str(option_text.get()) || !out.lit(" <") ||
        !out.str(placeholder.get()) || !out.lit(">")) {
      return false;
    }
    Ref word = out.finish();
    return word && PyList_Append(words.get(), word.get()) == 0;
  });
  return ok ? join(Id::space, words.get()) : Ref();
}

}  // namespace

Ref code_spans(const Env& env, PyObject* iterable, Id separator, bool by_name) {
  Ref spans = collect(iterable, [&](PyObject* item) -> Ref {
    Ref text = by_name ? getattr(item, Id::name) : Ref::borrow(item);
    return text ? call_global(env, Id::code, {text.get()}) : Ref();
  });
  return spans ? join(separator, spans.get()) : Ref();
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
