// The host data the module reads: the imports of the host's names, and every read of the registry
// and call of a host operation, each looked up in the module's namespace when it is made.
#pragma once
#include "function.h"

namespace registry_docs {

// Imports `from module_name import names...` into the module's namespace, with the errors that
// statement raises.
void import_from(PyObject* module, PyObject* importer, const char* module_name,
                 std::initializer_list<const char*> names);
// Imports the host names, in the host's import order.
void import_host_names(PyObject* module, PyObject* importer);

namespace host {

// Module globals that hold host data.
inline Ref tools(const Env& env) {
  return lookup(env, Id::TOOLS);
}
// `len(TOOLS)`.
inline Py_ssize_t tool_count(const Env& env) {
  return check_size(PyObject_Size(tools(env).get()));
}
inline Ref tiers(const Env& env) {
  return lookup(env, Id::TIERS);
}

// Fields of a tool (ToolSpec) and of a parameter (ParamSpec), read at each use.
inline Ref name(const Env& env, PyObject* record) {
  return env.attr(record, Id::name);
}
inline Ref tier(const Env& env, PyObject* tool) {
  return env.attr(tool, Id::tier);
}
inline Ref summary(const Env& env, PyObject* tool) {
  return env.attr(tool, Id::summary);
}
inline Ref mcp_text(const Env& env, PyObject* tool) {
  return env.attr(tool, Id::mcp_text);
}
inline Ref action_names(const Env& env, PyObject* tool) {
  return env.attr(tool, Id::action_names);
}
// `bool(tool.actions)`.
inline bool has_actions(const Env& env, PyObject* tool) {
  return truth(env.attr(tool, Id::actions).get());
}
inline Ref all_params(const Env& env, PyObject* tool) {
  return env.attr(tool, Id::all_params);
}
// `bool(param.required)`.
inline bool required(const Env& env, PyObject* param) {
  return truth(env.attr(param, Id::required).get());
}
inline Ref default_value(const Env& env, PyObject* param) {
  return env.attr(param, Id::default_);
}
inline Ref action_defaults(const Env& env, PyObject* param) {
  return env.attr(param, Id::action_defaults);
}
inline Ref applies_to(const Env& env, PyObject* param) {
  return env.attr(param, Id::applies_to);
}
// `param.values_text(formatter)` with a module function as the formatter, looked up after the
// method is read, as the call evaluates them.
inline Ref values_text(const Env& env, PyObject* param, Id formatter) {
  Ref method = env.attr(param, Id::values_text);
  return call(method.get(), {lookup(env, formatter).get()});
}

// Host operations, called through the names the module imported them under.
// `get_cli_schema(tool.name)`.
inline Ref cli_schema(const Env& env, PyObject* tool) {
  return call_on_field(env, Id::get_cli_schema, tool, Id::name);
}
// `snake_to_kebab(record.name)`, for a tool or a parameter.
inline Ref kebab_name(const Env& env, PyObject* record) {
  return call_on_field(env, Id::snake_to_kebab, record, Id::name);
}
inline Ref rules_table(const Env& env) {
  return call_global(env, Id::rules_table, {});
}

}  // namespace host
}  // namespace registry_docs
