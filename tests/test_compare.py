"""The module against the model: over the example host, random registries and odd-typed values,
and with callbacks that change the module's world at every site a call reaches."""

import dataclasses
import itertools
import random
import re
import typing

import quenor_dorvan.tool_registry as registry
from harness import (EXAMPLE, MODEL, Case, Comparison, Record, block, call, callback, docs, outcome,
                     param, reached, recorded, run_case, tool, tried)

BLOCKS = ("skill_tools_block", "readme_tools_block", "mcp_intro_block", "mcp_overview_block", "mcp_cli_block",
          "skill_routes_block", "rules_block")


# -- the example host, and a registry of its tools cloned to many more ----------------------------

def example_cases():
    clones = tuple(dataclasses.replace(registry.TOOLS[i % 14], name=f"{registry.TOOLS[i % 14].name}_{i}")
                   for i in range(60))  # more of one tier than a sort keeps in order by accident
    # The host's data, named here so that its texts can be made anew.
    schemas = {tool.name: docs.get_cli_schema(tool.name) for tool in registry.TOOLS}
    schemas.update({clone.name: schemas[clone.name.rsplit("_", 1)[0]] for clone in clones})
    host = dict(_TIERS=docs._TIERS, ENDPOINT_FRAMEWORKS=dict(docs.ENDPOINT_FRAMEWORKS),
                get_cli_schema=schemas.__getitem__, QUENOR_INSTRUCTION_CONTENT=docs.QUENOR_INSTRUCTION_CONTENT)
    for size, tools in ((14, registry.TOOLS), (60, clones)):
        world = lambda side, names={**host, "TOOLS": tools}: names  # noqa: E731
        for name in (*BLOCKS, "ordered_tools", "_tier_counts"):
            yield Case(f"example: {name} of {size}", world, call(name))
        yield Case(f"example: catalogue of {size}", world, lambda side: [  # every file record, each renderer called
            (f.path, [(name, render()) for name, render in f.blocks], f.encode) for f in side.ns["generated_files"]()])
        yield Case(f"example: stale_blocks of {size}", world, call("stale_blocks", EXAMPLE))


# -- random registries and marked texts --------------------------------------------------------------

SPACES = [c for c in map(chr, range(0x3001)) if c.isspace()] + ["\u200b"]  # \u200b stays inside a word
# Texts of each storage width: Latin-1 only, with BMP letters and lone surrogates, with astral ones.
WORDS = r"find a|b | \ \d {x} { } `code` why? done. \1 \g<0> é ÿ|".split()
WIDE_WORDS = ["\ud800", "\udfff", "ǅ", "Ωμέγα", "名前", "\U0001f600", "𝔘|", "\U0010ffff"]
NAME_PARTS = ["search", "find", "refs", "x", "v2", "2", "é", "名", "ǅ", "Ⅻ", "", "token", "𝔘"]
TIERS = ["core", "extended", "beta", "EXTENDED", "Core", "ǆemo", "ßeta", "İx", "ΟΔΟΣ", "a-b"]
VALUES = [None, True, False, 0, 7, -3, 10**30, -10**20, 0.5, 1e-5, 1e16, -0.0, float("inf"),
          float("nan"), 3.0, "", "x|y", " a  b ", "\ud800", [1, [2, True]], (False, None), [],
          ("a", 0.5)]
BOUNDS = [None, None, 0, 1, -2, 0.5, True, 1e16]
MARKER_NAMES = ["a", "b", "a:b", "x-1", "é", "_", "٣", "Ⅻ", "𝔘", "a\u200b"]
RENDERED = ["", "x", "\\1 {x} \\g<0>", "a\\\\b}{", "{{}}", "\ud800\n", "line\r\n"]
# Stand-ins for `_table` and `_row` that read the lazy rows in other orders, or only in part.
READERS = [("_table", lambda head, rows: [" ".join(head), *(c for r in list(rows) for c in r)]),
           ("_table", lambda head, rows: [cell for row in rows for cell in [next(row, "")]]),
           ("_row", lambda cells: "/".join(list(cells)[::-1])), ("_row", lambda cells: next(iter(cells), "-"))]


def text(rng, words=4):
    """Words joined by random runs of (mostly) whitespace, often all in Latin-1."""
    latin1 = rng.random() < 0.4
    spaces, pool = ([c for c in SPACES if c < "\u0100"], WORDS) if latin1 else (SPACES, WORDS + WIDE_WORDS)
    return "".join("".join(rng.choices(spaces, k=rng.randint(0, 2))) + rng.choice(pool) for _ in range(words)) + (
        rng.choice(spaces) * rng.randint(0, 2))


def name(rng):
    return "_".join(rng.choice(NAME_PARTS) for _ in range(rng.randint(1, 3)))


def marked_text(rng):
    def part(marker, kind):
        if kind < 0.4:
            return block(marker, rng.choice(["", "old\n", "<!-- registry:a -->\n"]))
        if kind < 0.7:
            return rng.choice([f"<!-- registry:{marker} -->" + rng.choice(["\n", "\r\n", ""]),
                               f"<!-- /registry:{marker} -->"])
        return rng.choice(["\n", "\r\n", " x ", "\\1", "{y}", "\ud800", "<!-- ", "-->", " -->\n", "<!-- registry:",
                           "<!-- /registry:", "a b", "\U0001f600"])

    return "".join(part(rng.choice(MARKER_NAMES), rng.random()) for _ in range(rng.randint(0, 10)))


def new_param(rng, actions):
    pick, shown, values = rng.random(), rng.sample(VALUES, 3), rng.choice(["", " ", text(rng, 2), None])
    action_defaults = tuple(rng.choice([tuple, list])((rng.choice([*actions, "list", 3]), rng.choice(VALUES)))
                            for _ in range(rng.randint(0, 2)))
    return param(name(rng), required=rng.random() < 0.4, default=10**5000 if pick > 0.995 else rng.choice(VALUES),
                 action_defaults=(rng.choice([("list",), ("list", 1, 2)]),) if pick < 0.015 else action_defaults,
                 applies_to=tuple(rng.sample(actions, rng.randint(0, len(actions)))),
                 values_text=(lambda f: "One of " + ", ".join(map(f, shown)) + ".") if values is None
                 else lambda f: values)


def new_prop(rng):
    prop = {"type": rng.choice(["string", "integer", "number", "boolean", "array", "array"])}
    if prop["type"] == "array" and rng.random() < 0.6:
        prop["items"] = {"type": "string"} if rng.random() < 0.97 else {}
    if rng.random() < 0.7:
        prop["description"] = rng.choice([text(rng, 3), " \u2028\xa0 ", "Is it set?", "Done.", ""])
    prop.update((key, rng.choice(BOUNDS)) for key in ("minimum", "maximum") if rng.random() < 0.4)
    if rng.random() < 0.01:
        del prop["type"]
    return prop


def random_registry(rng):
    tiers = (rng.choice([tuple, tuple, list])(rng.choices(TIERS, k=rng.randint(1, 3)))
             if rng.random() < 0.3 else ("core", "extended"))
    tools, schemas = [], {}
    for _ in range(rng.randint(0, 8)):
        actions = [name(rng) for _ in range(rng.randint(0, 3))]
        params = [new_param(rng, actions) for _ in range(rng.randint(0, 5))]
        tools.append(tool(name(rng), rng.choice(tiers) if rng.random() < 0.97 else rng.choice(TIERS), actions=actions,
                          summary=text(rng), mcp_text=text(rng), params=params))
        # The schema names the same parameters, but for a few that do not.
        keys, change = [p.fields["name"] for p in params], rng.random()
        keys = (rng.sample(keys, len(keys)) if change < 0.04 else keys[:-1] if change < 0.07
                else [*keys, "extra"] if change < 0.1 else keys)
        schemas[tools[-1].fields["name"]] = {"type": "object", "properties": {k: new_prop(rng) for k in keys},
                                             "required": [p.fields["name"] for p in params if p.fields["required"]]}
    if rng.random() < 0.25:  # the exact dicts of most schemas take the module's quicker path
        schemas = recorded(schemas)
    table = rng.choice(RENDERED)
    names = dict(TOOLS=rng.choice([list, tuple])(tools), _TIERS=tiers, get_cli_schema=lambda tool_name: schemas[
        tool_name], rules_table=lambda: table, QUENOR_INSTRUCTION_CONTENT=marked_text(rng),
        ENDPOINT_FRAMEWORKS={str(i): text(rng, 1) for i in range(rng.randint(0, 3))})
    names.update([rng.choice(READERS)] if rng.random() < 0.2 else [])
    return names, tools, schemas


def file_record(rng, found):
    """A GeneratedFile-like record over `found`'s names, a few of them wrong on purpose."""
    names, change = rng.sample(list(dict.fromkeys(found)), len(set(found))), rng.random()
    if change < 0.25:
        names = names[:-1] if change < 0.15 else [*names, rng.choice([*MARKER_NAMES, 1])]
    blocks = [(name, lambda shown=rng.choice(RENDERED): shown) for name in names]
    blocks += [rng.choice([("a",), ("a", str, 1)])] if rng.random() < 0.05 else []
    return Record("record", path="docs/f.md", blocks=tuple(blocks), encode=rng.choice(
        [str, docs._skill_text, docs._literal_text]))


def random_cases(seed=20240611, count=300):
    rng = random.Random(seed)
    for number in range(count):
        names, tools, schemas = random_registry(rng)
        world = lambda side, names=names: names  # noqa: E731
        for function in ("ordered_tools", "_tier_counts", *BLOCKS):
            yield Case(f"{function}: registry {number}", world, call(function))
        for i, entry in enumerate(tools):
            for function in ("mcp_params_block", "cli_usage"):
                yield Case(f"{function}: registry {number} tool {i}", world, call(function, entry))
            properties = schemas[entry.fields["name"]]["properties"]
            for p in entry.fields["all_params"]:
                prop = properties.get(p.fields["name"]) or new_prop(rng)
                yield Case(f"_default_cell: {number}", world, call("_default_cell", p))
                yield Case(f"_type_cell: {prop!r}", world, call("_type_cell", prop))
                yield Case(f"_description_cell: {number}", world, call("_description_cell", p, prop))
        for _ in range(4):
            marked, rendered = marked_text(rng), rng.choice(RENDERED) + text(rng, 2)
            found = [match["name"] for match in docs._MARKER.finditer(marked)]
            for function, arguments in [("block_names", (marked,)), ("_blocks", (marked,)), ("_skill_text", (
                    rendered,)), ("_literal_text", (rendered,)), ("render_file", (marked, file_record(rng, found)))]:
                yield Case(f"{function}: {arguments[0]!r}", world, call(function, *arguments))


# -- stand-ins whose every read is a site, and what actions do there ------------------------------

OTHER_MARKER = re.compile(r"(?P<open>\[(?P<name>\w+)\]\n)(?P<body>.*?)(?P<close>\[/(?P=name)\])", re.S)
FILE_TEXT = ("head\n" + block("mcp-intro", "") + "\n" + block("mcp-overview", "x\n") + "[q]\nq[/q]"
             + block("params:find_refs", "") + "\n" + block("mcp-cli", "") + "\ntail")


# A tier whose comparisons, and frameworks whose values taken, are sites.
Tier = type("Tier", (str,), {"__eq__": lambda self, other: reached("tier==") or str.__eq__(self, other),
                             "__hash__": str.__hash__})
Frameworks = type("Frameworks", (dict,), {"values": lambda self: (
    value for value in dict.values(self) if not reached("frameworks"))})


def stand_ins(side):
    """Four tools (two tiers, actions or none, parameters of each kind) and the host callbacks."""
    def tool_of(name, tier, actions, summary, params):
        return tool(name, Tier(tier), actions=actions, summary=summary, mcp_text=summary.upper(), params=params)

    values = callback("values_text", "")
    side.param = lambda name, **fields: param(name, values_text=values, **fields)
    side.tools = tools = [
        tool_of("find_refs", "core", ["find", "list"], "Finds | refs\n  here", [
            side.param("path", required=True),
            param("limit", default=20, action_defaults=[("list", 50)], applies_to=["find"],
                  values_text=callback("values_text", lambda f: f"One of {f(1)}, {f(True)}.")),
            side.param("mode", default=["a", ["b", 0.5]])]),
        tool_of("stats", "extended", [], "Counts.", [side.param("verbose", default=False)]),
        tool_of("call_graph", "core", ["callers"], "Graph é", [side.param("token_budget", required=True)]),
        tool_of("history", "extended", [], "名前", [])]
    properties = {"path": {"type": "string", "description": "Where"},
                  "limit": {"type": "integer", "minimum": 1, "maximum": 100},
                  "mode": {"type": "array", "items": {"type": "string"}, "description": "How?"},
                  "verbose": {"type": "boolean"}, "token_budget": {"type": "integer"}}
    side.schemas = {entry.fields["name"]: {
        "properties": {p.fields["name"]: properties[p.fields["name"]] for p in entry.fields["all_params"]},
        "required": [p.fields["name"] for p in entry.fields["all_params"] if p.fields["required"]]}
        for entry in tools}

    render = lambda name, *args: callback("renderer", lambda: side.ns[name](*args))  # noqa: E731
    side.record = Record("record", path="docs/mcp-tools.md", encode=callback("encode", lambda text: text), blocks=[
        ("mcp-intro", render("mcp_intro_block")), ("params:find_refs", render("mcp_params_block", tools[0])),
        ("mcp-overview", render("mcp_overview_block")), ("mcp-cli", render("mcp_cli_block"))])
    return dict(
        TOOLS=list(tools), _TIERS=("core", "extended"),
        get_cli_schema=callback("get_cli_schema", side.schemas.__getitem__),
        snake_to_kebab=callback("snake_to_kebab", lambda name: name.replace("_", "-")),
        skill_table=callback("skill_table", lambda facts: "| Need |\n" + facts["frameworks"]),
        rules_table=callback("rules_table", "| rule | \\1 |"),
        without_markers=callback("without_markers", lambda text: text.replace("<!--", "(")),
        ENDPOINT_FRAMEWORKS=Frameworks({"a": "Alpha", "b": "Beta", "c": "Gamma"}),
        QUENOR_INSTRUCTION_CONTENT=" intro\n" + block("r1", "old\n") + " mid " + block("r2", ""))


def rebind(**values):
    return lambda side: side.ns.update(values)


def delete(name):
    return lambda side: side.ns.pop(name)


def walk_less(side):  # the first tool and each tool's first parameter, from the lists in use
    del side.ns["TOOLS"][:1]
    for entry in side.tools:
        del entry.fields["all_params"][:1]


def walk_more(side):
    side.ns["TOOLS"].append(side.tools[1])
    side.tools[0].fields["all_params"].append(side.param("extra"))


def drop_fields(side):
    for record, field in [*((t, f) for t in side.tools for f in ("summary", "action_names")),
                          *((p, "default") for t in side.tools for p in t.fields["all_params"])]:
        record.fields.pop(field, None)


# Among them, functions whose arguments run callbacks: a call looks its function up before it
# works out the arguments, so a change made meanwhile shows from the next call on.
REBOUND = {"_TIERS": ("extended", "core"), "_NONE": "none", "_row": lambda cells: "/".join(cells),
           "_table": lambda header, rows: ["/".join(row) for row in rows], "_MARKER": OTHER_MARKER,
           "ordered_tools": lambda: [], "_code": lambda value: f"<{value}>", "_cell": str.upper,
           "_value": lambda value: f"<{value}>", "snake_to_kebab": str.upper}
DELETED = ("_NONE", "TOOLS", "_tier_tools", "mcp_params_block", "_code", "_cell", "_value", "snake_to_kebab",
           "get_cli_schema")
ACTIONS = {**{f"rebinds {name}": rebind(**{name: value}) for name, value in REBOUND.items()},
           **{f"deletes {name}": delete(name) for name in DELETED},
           "clears TOOLS": lambda side: side.ns["TOOLS"].clear(),
           "replaces TOOLS": lambda side: side.ns.__setitem__("TOOLS", side.tools[2:]),
           "shortens the lists walked": walk_less, "lengthens the lists walked": walk_more,
           "drops fields": drop_fields, "raises": lambda side: side.fail(),
           "renders again": lambda side: side.events.append(("again", outcome(side, side.call)))}
CALLS = {name: call(name) for name in BLOCKS}
CALLS.update({name: lambda side, name=name: side.ns[name](side.tools[0]) for name in ("mcp_params_block", "cli_usage")},
             render_file=lambda side: side.ns["render_file"](FILE_TEXT, side.record),
             generated_files=lambda side: [(f.path, [name for name, _ in f.blocks])
                                           for f in side.ns["generated_files"]()])


def action_cases():
    """Every action at the first and the last time each call reaches each site."""
    for call_name, function in CALLS.items():
        counted = run_case(Case("count", stand_ins, function, after=lambda side: side.count), docs.__dict__)[1]
        for site, count in counted.items():
            for nth, (action_name, action) in itertools.product(sorted({1, count}), ACTIONS.items()):
                yield Case(f"{action_name}: at {site} #{nth}, in {call_name}", stand_ins, function,
                           site=site, nth=nth, action=action)


class Midway(list):
    """A sized sequence whose walk fails after its first items."""

    def __init__(self, side, items, count=1):
        super().__init__(items)
        self.side, self.count = side, count

    def __iter__(self):
        yield from self[:self.count]
        self.side.fail("midway")


def changed(label, change, calls, extra=None):
    """A case per call on the stand-ins, changed first by `change(side)`."""
    def world(side):
        side.ns.update(stand_ins(side))
        change(side)
        return {}

    for name in calls:
        yield Case(f"{label}: in {name}", world, (extra or {}).get(name) or CALLS.get(name) or call(name))


def midway_cases():
    # A replaced function's result, or host data, that raises while it is walked: the error comes
    # through as raised, and what was read before it is what Python reads.
    def replaced(name, count=1):
        return lambda side: side.ns.__setitem__(name, lambda *args, own=side.ns[name]: Midway(
            side, own(*args), count))

    def field(name):  # of the first tool, its second parameter or the file record
        return lambda side: next(r.fields.update({name: Midway(side, r.fields[name])}) for r in (
            side.tools[0], side.tools[0].fields["all_params"][1], side.record) if name in r.fields)

    def fail_second(name, go_on):  # the second call of the module's own function fails, and a
        # caller's `_table` reads past the failing row, or stops at it
        read = (lambda row: tried(lambda: "/".join(row))) if go_on else "/".join
        return lambda side: side.ns.update({name: lambda *args, own=side.ns[name], calls=[]: (
            side.fail(f"{name} failed") if len(calls.append(0) or calls) == 2 else own(*args)),
            "_table": lambda header, rows: [read(row) for row in rows]})

    cases = [
        (replaced("ordered_tools", 2), ["skill_tools_block", "mcp_overview_block", "mcp_cli_block",
                                        "readme_tools_block", "generated_files"]),
        (replaced("_tier_tools"), ["mcp_overview_block"]),
        (replaced("_table", 3), ["readme_tools_block", "mcp_params_block"]),
        (replaced("block_names"), ["render_file"]),
        (lambda side: side.ns.__setitem__("TOOLS", Midway(side, side.tools)),
         ["readme_tools_block", "mcp_overview_block", "generated_files"]),
        (field("all_params"), ["cli_usage", "mcp_params_block"]),
        (field("action_names"), ["skill_tools_block", "mcp_params_block"]),
        (field("applies_to"), ["mcp_params_block"]),
        (field("action_defaults"), ["mcp_params_block"]), (field("blocks"), ["render_file"])]
    cases += [(fail_second(name, go_on), calls) for go_on in (False, True) for name, calls in [
        ("_cell", ["skill_tools_block", "readme_tools_block", "mcp_overview_block",
                   "mcp_params_block"]), ("cli_usage", ["mcp_cli_block"])]]
    for number, (change, calls) in enumerate(cases):
        yield from changed(f"midway {number}", change, calls)


# Values equal to nothing, themselves included, or to everything.
AnyTier = type("AnyTier", (str,), {"__eq__": lambda self, other: True, "__hash__": str.__hash__})
Never = type("Never", (str,), {"__eq__": lambda self, other: False, "__ne__": lambda self, other: True,
                               "__hash__": str.__hash__})
UNEQUAL = [float("nan"), Never("core"), AnyTier("core"), type("Opaque", (), {"__eq__": lambda self, other: False,
                                                                              "__hash__": lambda self: 1})()]
NO_SUB = object()  # one object on both sides, as an error's `obj` names it
# A `_MARKER` whose `sub` is read as a site: Python reads it once per call.
Subbed = type("Subbed", (), {"sub": property(lambda self, own=docs._MARKER: reached("sub") or own.sub),
                             "finditer": lambda self, text, own=docs._MARKER: own.finditer(text)})
Spelled = type("Spelled", (), {"__format__": lambda self, spec: f"formatted{spec}", "__str__": lambda self: "plain"})
Unformattable = type("Unformattable", (), {"__format__": lambda self, spec: 1 / 0})


def odd_cases():
    # None and numbers where texts are expected, values that hold themselves or nest deeper than
    # the interpreter recurses, and values whose operations are their own.
    looped, nested = [], []
    looped.append(looped)
    for _ in range(100000):
        nested = [nested]

    fields = lambda index, **values: lambda side: side.tools[index].fields.update(values)  # noqa: E731
    default = lambda value, field="default": lambda side: (  # noqa: E731
        side.tools[0].fields["all_params"][1].fields.update({field: value}))
    prop = lambda **values: lambda side: side.schemas["find_refs"]["properties"]["path"].update(values)  # noqa: E731
    record = lambda **values: lambda side: side.record.fields.update(values)  # noqa: E731
    renderers = lambda value: record(blocks=[(name, lambda: value) for name in (  # noqa: E731
        "mcp-intro", "mcp-overview", "params:find_refs", "mcp-cli")])
    Shown = type("Shown", (str,), {"__format__": lambda self, spec: "no"})  # concatenated, not formatted
    Capitalized = type("Capitalized", (str,), {"capitalize": lambda self: Shown("Alpha")})
    Positions = type("Positions", (tuple,), {"index": lambda self, tier: {"core": 0, "extended": 1.5}[tier]})
    extra = {"_tier_tools": lambda side: side.ns["_tier_tools"](side.ns["_TIERS"][0]),
             "_type_cell": lambda side: side.ns["_type_cell"](side.schemas["find_refs"]["properties"]["path"]),
             "_default_cell": lambda side: side.ns["_default_cell"](side.tools[0].fields["all_params"][1]),
             "_description_cell": lambda side: side.ns["_description_cell"](
                 side.tools[0].fields["all_params"][1], side.schemas["find_refs"]["properties"]["path"])}
    cases = [
        (prop(description=5, minimum="1", maximum=None), ["mcp_params_block"]),
        (prop(minimum=Unformattable(), maximum=3), ["_description_cell"]),
        (prop(type="array", items={"type": None}), ["mcp_params_block"]),
        (fields(0, summary=5), ["readme_tools_block", "mcp_overview_block"]),
        (fields(0, name=None), ["skill_tools_block", "cli_usage", "generated_files"]),
        (fields(1, tier=None), ["readme_tools_block", "mcp_intro_block"]),
        (fields(0, tier=Capitalized("core")), ["readme_tools_block", "mcp_overview_block"]),
        (fields(0, action_names=[None, 5, b"x"]), ["skill_tools_block", "mcp_params_block"]),
        (fields(0, actions=None, action_names=None), ["mcp_params_block", "readme_tools_block"]),
        (default(None, "values_text"), ["mcp_params_block"]),
        (default(lambda f: 5, "values_text"), ["mcp_params_block"]),
        (default([("list",), ("find", 1)], "action_defaults"), ["mcp_params_block"]),
        (default([(Unformattable(), 1)], "action_defaults"), ["_default_cell"]),
        (default([None, "a"], "applies_to"), ["mcp_params_block"]),
        (default(looped), ["mcp_params_block", "render_file"]),
        (default(nested), ["mcp_params_block"]),
        (default(Spelled()), ["_default_cell"]),
        (default(type("Pair", (tuple,), {})((1.5, True))), ["_default_cell"]),
        (rebind(_NONE=None), ["readme_tools_block", "mcp_params_block"]),
        (rebind(_TIERS=("core", None, 3)), ["mcp_intro_block", "mcp_overview_block"]),
        (rebind(_TIERS=Positions(("core", "extended"))), ["ordered_tools"]),
        (rebind(_TIERS=("core", "extended", "beta")), ["_tier_tools", "_tier_counts"]),
        (lambda side: side.ns.update(TOOLS=iter(side.tools)), ["ordered_tools", "readme_tools_block"]),
        (rebind(ToolTier=typing.Literal["extended", "core"]), ["ordered_tools"]),  # read at import
        (lambda side: side.ns.update(_code=side.ns["_value"], _value=side.ns["_cell"],
                                     _tier_tools=side.ns["_code"]),  # each side's own functions, swapped
         ["readme_tools_block", "mcp_overview_block", "mcp_params_block", "_tier_counts"]),
        (rebind(ENDPOINT_FRAMEWORKS={"a": None}), ["skill_routes_block"]),
        (rebind(QUENOR_INSTRUCTION_CONTENT=None), ["rules_block"]),
        (rebind(_MARKER=Subbed()), ["rules_block", "render_file"]),
        (lambda side: (side.ns.update(_MARKER=NO_SUB),  # `sub` is read before the content
                       side.ns.pop("QUENOR_INSTRUCTION_CONTENT")), ["rules_block"]),
        (rebind(QUENOR_INSTRUCTION_CONTENT=block("a", "").encode()), ["rules_block"]),
        (renderers(None), ["render_file"]),
        (lambda side: (renderers(None)(side), record(encode=side.ns["_skill_text"])(side)), ["render_file"]),
        (record(encode=type("Suffix", (str,), {"__radd__": lambda self, other: f"{other}<{self}>"})),
         ["render_file"]),
        (record(path=None, blocks=[("other", str)]), ["render_file"]),
        (record(path=5, blocks=[("mcp-intro", str), ("mcp-intro", str)]), ["render_file"])]
    for value in UNEQUAL:  # the same object in both places, where the model compares with ==, `in` or `index`
        def renamed(side, value=value):
            side.tools[0].fields["all_params"][0].fields["name"] = value
            schema = side.schemas["find_refs"]
            schema.update(properties={value if key == "path" else key: prop for key, prop in schema[
                "properties"].items()}, required=[value])

        cases += [(rebind(_TIERS=(value, "core", "extended")), ["_tier_tools"]),
                  (lambda side, value=value: (side.ns.update(_TIERS=(value, "core", "extended")),
                                              fields(0, tier=value)(side)), ["ordered_tools", "mcp_overview_block"]),
                  (prop(type=value, items={"type": "x"}), ["_type_cell"]), (renamed, ["mcp_params_block"]),
                  (record(blocks=[(value, str)]), ["render_file"])]
    for number, (change, calls) in enumerate(cases):
        yield from changed(f"odd {number}", change, calls, extra)
    # The primitives, on texts and values of other kinds.
    Words = type("Words", (str,), {"split": lambda self: ["x|y", "z"]})
    for function, values in [
            ("_code", [None, 5, b"x", 0.5, Spelled(), "a `b`"]),
            ("_cell", [None, 5, Words("i"), "\ud800 |\u200b\udfff"]),
            ("_row", [None, 5, [], ["a", 1], ("a", "é")]),
            ("_value", [None, 0.5, 1e16, float("nan"), -0.0, 10**30, [1, [2, True]], (False, None),
                        looped, nested]),
            ("_type_cell", [None, 5, {"type": "array"}, {"type": Spelled()}]),
            ("block_names", [None, 5, b"x"]), ("_blocks", [None, b"x"]),
            ("_skill_text", [None, 5]), ("_literal_text", [b"x"])]:
        for number, value in enumerate(values):
            yield Case(f"texts: {function} {number}", lambda side: {}, call(function, value))
    yield Case("texts: _row of a generator", lambda side: {}, lambda side: side.ns["_row"](c for c in "ab"))
    yield Case("texts: _actions_cell", lambda side: {}, call("_actions_cell", tool("a"), object()))  # that object
    for value in (None, 5, b"x"):
        yield from changed("texts", lambda side: None, ["render_file"], {
            "render_file": lambda side, value=value: side.ns["render_file"](value, side.record)})


# What a replaced helper may return instead of its own kind of value: the interpreter words the error.
Odd = type("Odd", (str,), {"__format__": lambda self, spec: "formatted", "__add__": lambda self, other: "added",
                           "__radd__": lambda self, other: "radded", "__iter__": lambda self: iter(["it"])})
WRONG = [1, None, NO_SUB, Odd("a|b c")]
HELPERS = ("_table", "_row", "_cell", "_code", "_value", "ordered_tools", "_tier_tools", "_tier_counts", "_actions_cell",
           "cli_usage", "_default_cell", "_type_cell", "_description_cell", "mcp_params_block", "_params_renderer",
           "_skill_text", "_literal_text", "block_names", "snake_to_kebab", "get_cli_schema", "rules_table",
           "skill_table", "without_markers")


def wrong_kind_cases():
    for helper, (name, function) in itertools.product(HELPERS, CALLS.items()):
        reached = lambda side: dict(stand_ins(side), **{helper: lambda *args: side.fail("reached")})  # noqa: E731
        if run_case(Case("", reached, function), MODEL)[0][2] == "reached":  # the calls that reach the helper
            for number, value in enumerate(WRONG):
                yield Case(f"wrong kind: {helper} {number} in {name}", lambda side, helper=helper, value=value: dict(
                    stand_ins(side), **{helper: lambda *args: value}), function)


Header = type("Header", (), {"__iter__": lambda self: reached("header") or iter(("A", "B"))})  # read: a site


def table_cases():
    for (label, header), (action_name, action), nth in itertools.product(
            [("tuple", lambda: ("A", "B")), ("one-shot", lambda: iter(("A",))), ("site", Header)],
            [("", None), ("rebinds _row", rebind(_row=lambda cells: "new"))], (1, 2)):
        yield Case(f"table: {label} {action_name} {nth}", lambda side: {}, lambda side, header=header: side.ns[
            "_table"](header(), iter([["a", "b"], ("c",), []])), site="header", nth=nth, action=action)


class CompareTest(Comparison):
    def test_example_host_and_odd_values(self):
        self.compared(itertools.chain(example_cases(), odd_cases(), midway_cases(), table_cases(),
                                      wrong_kind_cases()))
        self.assertEqual({kind for kind, end in self.ends if end != "ok"} & {"example"}, set())

    def test_random_registries(self):
        self.compared(random_cases())
        # The registries reach both the rendered and the failing paths.
        for label in ("ordered_tools", "mcp_params_block", "_default_cell", "_type_cell", "render_file"):
            self.assertGreater(self.ends[label, "ok"], self.ends[label, "error"], label)
            self.assertGreater(self.ends[label, "error"], self.ends[label, "ok"] // 100, label)

    def test_actions_at_every_site(self):
        self.compared(action_cases(), forms=["literal"])  # other tests make the stand-ins anew
        ends = {end: sum(n for (_, e), n in self.ends.items() if e == end) for end in ("ok", "error")}
        self.assertTrue(ends["error"] > 250 and ends["ok"] > 1000, ends)  # the actions reach both ends of a call
