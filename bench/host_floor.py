"""The host-call floor of the catalogue, and the count that proves it makes the module's calls.

The floor is a tight Python loop that makes every host call and every read of host data that
`generated_files()` plus `render_file` of the five files make, as many times as they make them,
and nothing else: no text is built, no tool sorted, no marker scanned. Module-level names are
looked up once per floor run; the lookups the module makes at each call count as its own work.
"""

import collections


def catalogue_floor(ns, markers):
    """The catalogue's host calls and reads, over the registry bound in the namespace `ns`.

    `markers` is the number of marked blocks in the host's rules text: `rules_block` calls
    `rules_table` once for each.
    """
    tools, tiers, code = ns["TOOLS"], ns["_TIERS"], ns["_code"]
    get_cli_schema, snake_to_kebab = ns["get_cli_schema"], ns["snake_to_kebab"]
    rules_table, rules_text = ns["rules_table"], ns["QUENOR_INSTRUCTION_CONTENT"]

    # Each ordering is `sorted(TOOLS, ...)`, which takes the length first as a size hint.
    # generated_files: the tool order, each block's name; the parameter tables, made in this pass.
    len(tools)
    for tool in tools:
        tool.tier
        tool.name
        _params_reads(tool, get_cli_schema, snake_to_kebab, code)
    # skill-routes, rules-routes, rules-block
    ns["skill_table"]({"frameworks": ", ".join(ns["ENDPOINT_FRAMEWORKS"].values())})
    rules_table()
    for _ in range(markers):
        rules_table()
    ns["without_markers"](rules_text)
    _table_reads(tools, tiers)
    _mcp_reads(tools, tiers, snake_to_kebab)


def _table_reads(tools, tiers):
    """skill-tools, readme-tools and mcp-intro: the orderings, rows and tier counts."""
    # skill-tools
    len(tools)
    len(tools)
    for tool in tools:
        tool.tier
        tool.name
        tool.action_names
        tool.mcp_text
    # readme-tools: the order and the rows, then the tier counts
    len(tools)
    for tool in tools:
        tool.tier
        tool.tier
        tool.name
        tool.action_names
        tool.summary
    len(tools)
    for tier in tiers:
        for tool in tools:
            tool.tier
    # mcp-intro
    len(tools)
    for tier in tiers:
        for tool in tools:
            tool.tier


def _mcp_reads(tools, tiers, snake_to_kebab):
    """mcp-overview and mcp-cli: the orderings, rows, tier counts and usage lines."""
    # mcp-overview: the order and the rows, then each tier's count and names
    len(tools)
    for tool in tools:
        tool.tier
        tool.name
        tool.action_names
        tool.tier
        tool.summary
    for tier in tiers:
        for tool in tools:
            tool.tier
        for tool in tools:
            if tool.tier == tier:
                tool.name
    # mcp-cli: the order and the rows, each with its usage line
    len(tools)
    for tool in tools:
        tool.tier
        tool.name
        snake_to_kebab(tool.name)
        for param in tool.all_params:
            if param.required:
                snake_to_kebab(param.name)
                param.name


def _params_reads(tool, get_cli_schema, snake_to_kebab, code):
    schema = get_cli_schema(tool.name)
    properties = schema["properties"]
    for _ in properties:
        pass
    for param in tool.all_params:
        param.name
    for _ in schema["required"]:
        pass
    actions = bool(tool.actions)
    for param in tool.all_params:
        prop = properties[param.name]
        param.name
        snake_to_kebab(param.name)
        if prop["type"] == "array" and "items" in prop:
            prop["items"]["type"]
        else:
            prop["type"]
        param.name
        if param.default is not None:
            param.default
        for action, value in param.action_defaults:
            pass
        if actions:
            param.applies_to
        prop.get("description", "")
        param.values_text(code)
        prop.get("minimum")
        prop.get("maximum")
    if actions:
        tool.action_names


# -- counting -----------------------------------------------------------------------------------

class _Counted:
    """A tool or parameter that counts each attribute read, and each call of a method it hands out."""

    __slots__ = ("_kind", "_fields", "_counts")

    def __init__(self, kind, fields, counts):
        object.__setattr__(self, "_kind", kind)
        object.__setattr__(self, "_fields", fields)
        object.__setattr__(self, "_counts", counts)

    def __getattr__(self, attr):
        self._counts[f"{self._kind}.{attr}"] += 1
        return self._fields[attr]


def _counting_call(label, function, counts):
    def call(*args):
        counts[f"{label}()"] += 1
        return function(*args)

    return call


def _counted_dict(value, counts):
    if type(value) is not dict:
        return value

    def counted(method):
        def read(self, *args):
            counts[f"{method}{args!r}"] += 1
            return getattr(dict, method)(self, *args)

        return read

    kind = type("CountedDict", (dict,), {m: counted(m) for m in (
        "__getitem__", "get", "__contains__", "__iter__", "values")})
    return kind({key: _counted_dict(item, counts) for key, item in value.items()})


class _CountedTools(tuple):
    """The registry's tool sequence, counting each pass over it and each length taken."""

    def __new__(cls, tools, counts):
        self = super().__new__(cls, tools)
        self.counts = counts
        return self

    def __iter__(self):
        self.counts["iter(TOOLS)"] += 1
        return super().__iter__()

    def __len__(self):
        self.counts["len(TOOLS)"] += 1
        return super().__len__()


def counted_registry(names, ns, counts):
    """`names` (a synthetic registry) with every host object the catalogue touches counting into
    `counts`: tool and parameter fields, schema reads, host callbacks, the tool sequence."""
    fields = ("name", "tier", "summary", "mcp_text", "actions", "action_names")
    tools = []
    for tool in names["TOOLS"]:
        params = tuple(_Counted("param", {
            **{attr: getattr(param, attr) for attr in (
                "name", "required", "default", "action_defaults", "applies_to")},
            "values_text": _counting_call("values_text", param.values_text, counts)}, counts)
            for param in tool.all_params)
        tools.append(_Counted("tool", {**{attr: getattr(tool, attr) for attr in fields},
                                       "all_params": params}, counts))
    schemas = {tool.name: _counted_dict(names["get_cli_schema"](tool.name), counts)
               for tool in names["TOOLS"]}
    counted = {name: _counting_call(name, ns[name], counts)
               for name in ("snake_to_kebab", "skill_table", "rules_table", "without_markers")}
    return {**counted, "TOOLS": _CountedTools(tools, counts),
            "get_cli_schema": _counting_call("get_cli_schema", schemas.__getitem__, counts),
            "ENDPOINT_FRAMEWORKS": _counted_dict(dict(ns["ENDPOINT_FRAMEWORKS"]), counts)}


def count(run):
    """The calls and reads `run(counts)` makes, as a Counter."""
    counts = collections.Counter()
    run(counts)
    return counts
