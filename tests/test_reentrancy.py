"""Callbacks that change the module's world while it works: every call ends as Python's would.

Each case builds fresh host data on the module's side and on the pure-Python model's, makes one
call, and runs its action at one site (a callback or a read of host data). Both sides must end with
the same result or error (a callback's error comes through as that very object) after the same reads.
"""

import collections
import gc
import re
import shutil
import tempfile
import unittest
import weakref
from pathlib import Path

import quenor_dorvan.tool_registry as registry
import support
from support import docs

HOST = {name: docs.__dict__[name] for name in (
    "snake_to_kebab", "get_cli_schema", "skill_table", "rules_table", "without_markers")}
OTHER_MARKER = re.compile(r"(?P<open>\[(?P<name>\w+)\]\n)(?P<body>.*?)(?P<close>\[/(?P=name)\])",
                          re.S)


def block(name, body):
    return f"<!-- registry:{name} -->\n{body}<!-- /registry:{name} -->"


PATHS = [record.path for record in docs.generated_files()]
FILE_TEXT = ("head\n" + block("mcp-intro", "") + "\n" + block("mcp-overview", "x\n") + "[q]\nq[/q]"
             + block("params:find_refs", "") + "\n" + block("mcp-cli", "") + "\ntail")


class Side:
    """One side of a comparison: its namespace, what happened in it, and the case's action."""

    def __init__(self, ns, site=None, nth=0, action=None):
        self.ns, self.site, self.nth, self.action = ns, site, nth, action
        self.events, self.raised, self.reached_at = [], [], collections.Counter()
        self.outer = None

    def reached(self, site):
        self.events.append(site)
        self.reached_at[site] += 1
        if site == self.site and self.reached_at[site] == self.nth:
            self.action(self)

    def callback(self, site, result):
        def call(*args):
            self.reached(site)
            return result(*args) if callable(result) else result

        return call

    def fail(self, message="raised by a callback"):
        error = RuntimeError(message)
        self.raised.append(error)
        raise error


class Record:
    """A stand-in tool, parameter or file record: every field read is a site."""

    def __init__(self, side, tag, **fields):
        vars(self).update(side=side, tag=tag, fields=fields)

    def __getattr__(self, field):
        self.side.reached(field)
        if field not in self.fields:
            raise AttributeError(f"{self.tag} has no field {field!r}")
        return self.fields[field]

    def __delattr__(self, field):
        self.fields.pop(field, None)


class Tier(str):
    side = None

    def __eq__(self, other):  # a site
        self.side.reached("tier==")
        return str.__eq__(self, other)

    __hash__ = str.__hash__


class Frameworks(dict):
    def __init__(self, side, *args):
        super().__init__(*args)
        self.side = side

    def values(self):  # each value taken is a site
        for value in super().values():
            self.side.reached("frameworks")
            yield value


def stand_ins(side):
    """Four tools (two tiers, actions or none, parameters of each kind) and the host callbacks."""
    def param(name, **fields):
        return Record(side, f"parameter {name}", **{
            "name": name, "required": False, "default": None, "action_defaults": [],
            "applies_to": [], "values_text": side.callback("values_text", ""), **fields})

    def tool(name, tier, actions, summary, params):
        return Record(side, f"tool {name}", name=name, tier=Tier(tier), summary=summary,
                      mcp_text=summary.upper(), action_names=list(actions), actions=list(actions),
                      all_params=list(params))

    Tier.side = side
    tools = [
        tool("find_refs", "core", ["find", "list"], "Finds | refs\n  here", [
            param("path", required=True),
            param("limit", default=20, action_defaults=[("list", 50)], applies_to=["find"],
                  values_text=side.callback("values_text", lambda f: f"One of {f(1)}, {f(True)}.")),
            param("mode", default=["a", ["b", 0.5]])]),
        tool("stats", "extended", [], "Counts.", [param("verbose", default=False)]),
        tool("call_graph", "core", ["callers"], "Graph é", [param("token_budget", required=True)]),
        tool("history", "extended", [], "名前", [])]
    properties = {"path": {"type": "string", "description": "Where"},
                  "limit": {"type": "integer", "minimum": 1, "maximum": 100},
                  "mode": {"type": "array", "items": {"type": "string"}, "description": "How?"},
                  "verbose": {"type": "boolean"}, "token_budget": {"type": "integer"}}
    schemas = {}
    for entry in tools:
        params = [p.fields for p in entry.fields["all_params"]]
        schemas[entry.fields["name"]] = {
            "properties": {p["name"]: properties[p["name"]] for p in params},
            "required": [p["name"] for p in params if p["required"]]}
    side.tools, side.param, side.schemas = tools, param, schemas

    def render(name):
        return side.callback("renderer", lambda: side.ns[name]())

    params_block = side.callback("renderer", lambda: side.ns["mcp_params_block"](tools[0]))
    side.record = Record(side, "record", path="docs/mcp-tools.md", encode=side.callback(
        "encode", lambda text: text), blocks=[
            ("mcp-intro", render("mcp_intro_block")), ("params:find_refs", params_block),
            ("mcp-overview", render("mcp_overview_block")), ("mcp-cli", render("mcp_cli_block"))])
    return dict(
        TOOLS=list(tools), _TIERS=("core", "extended"),
        get_cli_schema=side.callback("get_cli_schema", schemas.__getitem__),
        snake_to_kebab=side.callback("snake_to_kebab", lambda name: name.replace("_", "-")),
        skill_table=side.callback("skill_table", lambda facts: "| Need |\n" + facts["frameworks"]),
        rules_table=side.callback("rules_table", "| rule | \\1 |"),
        without_markers=side.callback("without_markers", lambda text: text.replace("<!--", "(")),
        ENDPOINT_FRAMEWORKS=Frameworks(side, {"a": "Alpha", "b": "Beta", "c": "Gamma"}),
        QUENOR_INSTRUCTION_CONTENT=" intro\n" + block("r1", "old\n") + " mid " + block("r2", ""))


def example_host(side):
    """The example host's own tools and host functions, each host call a site."""
    side.tools = list(registry.TOOLS)
    names = {name: side.callback(name, function) for name, function in HOST.items()}
    return dict(names, TOOLS=list(side.tools), ENDPOINT_FRAMEWORKS=Frameworks(
        side, docs.ENDPOINT_FRAMEWORKS))


def rebind(name, value):
    return lambda side: side.ns.__setitem__(name, value)


def delete(name):
    return lambda side: side.ns.pop(name)


def walk_less(side):  # the first tool and each tool's first parameter, from the lists in use
    del side.ns["TOOLS"][:1]
    for entry in side.tools:
        if isinstance(entry, Record):
            del entry.fields["all_params"][:1]


def walk_more(side):
    side.ns["TOOLS"].append(side.tools[1])
    if isinstance(side.tools[0], Record):
        side.tools[0].fields["all_params"].append(side.param("extra"))


def drop_fields(side):
    for entry in side.tools:
        for field in ("summary", "action_names"):
            delattr(entry, field)
        for p in entry.fields["all_params"]:
            delattr(p, "default")


def again(side):
    side.events.append(("again", outcome(side, side.outer)))


ACTIONS = {
    "rebinds _TIERS": rebind("_TIERS", ("extended", "core")),
    "rebinds _NONE": rebind("_NONE", "none"),
    "rebinds _row": rebind("_row", lambda cells: "/".join(cells)),
    "rebinds _table": rebind("_table", lambda header, rows: ["/".join(row) for row in rows]),
    "rebinds _MARKER": rebind("_MARKER", OTHER_MARKER),
    "rebinds ordered_tools": rebind("ordered_tools", lambda: []),
    "deletes _NONE": delete("_NONE"),
    "deletes TOOLS": delete("TOOLS"),
    "deletes _tier_tools": delete("_tier_tools"),
    "deletes mcp_params_block": delete("mcp_params_block"),
    "clears TOOLS": lambda side: side.ns["TOOLS"].clear(),
    "replaces TOOLS": lambda side: side.ns.__setitem__("TOOLS", side.tools[2:]),
    "shortens the lists walked": walk_less,
    "lengthens the lists walked": walk_more,
    "drops fields": drop_fields,
    "renders again": again,
    "raises": lambda side: side.fail(),
    # Functions whose arguments run callbacks: a call looks its function up before it works out
    # the arguments, so a change made meanwhile shows from the next call on.
    "rebinds _code": rebind("_code", lambda value: f"<{value}>"),
    "rebinds _cell": rebind("_cell", str.upper),
    "rebinds _value": rebind("_value", lambda value: f"<{value}>"),
    "rebinds snake_to_kebab": rebind("snake_to_kebab", str.upper),
    "deletes _code": delete("_code"),
    "deletes _cell": delete("_cell"),
    "deletes _value": delete("_value"),
    "deletes snake_to_kebab": delete("snake_to_kebab"),
    "deletes get_cli_schema": delete("get_cli_schema"),
}
CALLS = {name: lambda side, name=name: side.ns[name]() for name in (
    "skill_tools_block", "readme_tools_block", "mcp_intro_block", "mcp_overview_block",
    "mcp_cli_block", "skill_routes_block", "rules_block")}
CALLS.update({name: lambda side, name=name: side.ns[name](side.tools[0])
              for name in ("mcp_params_block", "cli_usage")})
CALLS["render_file"] = lambda side: side.ns["render_file"](FILE_TEXT, side.record)
CALLS["generated_files"] = lambda side: [(f.path, [name for name, _ in f.blocks])
                                         for f in side.ns["generated_files"]()]


def outcome(side, call):
    try:
        return ("ok", call())
    except RecursionError:
        return ("error", RecursionError)  # worded by the depth at which it is noticed
    except Exception as error:  # compared with the model's, never swallowed
        return ("error", type(error), str(error), any(error is e for e in side.raised),
                type(error.__context__))


class Sides:
    """Runs cases on the module and on the model, restoring both namespaces after each."""

    def __init__(self, test):
        self.test, self.mismatches = test, collections.Counter()
        self.model = support.python_model()

    def run(self, world, call, site=None, nth=0, action=None, after=None):
        results = []
        for ns in (docs.__dict__, self.model):
            saved = dict(ns)
            side = Side(ns, site, nth, action)
            try:
                ns.update(world(side))
                side.outer = lambda: call(side)
                result = outcome(side, side.outer)
                results.append((result, after(side) if after else None, side.events))
            finally:
                ns.clear()
                ns.update(saved)
        return results

    def same(self, label, world, call, **case):
        native, model = self.run(world, call, **case)
        kind = label.split(":")[0]
        self.mismatches[kind] += native != model
        if native != model and self.mismatches[kind] <= 2:  # the first few of each kind
            with self.test.subTest(label):
                self.test.assertEqual(native[:2], model[:2])
                events = list(zip(native[2], model[2]))
                first = next((i for i, (a, b) in enumerate(events) if a != b), len(events))
                self.test.assertEqual(native[2][first:first + 5], model[2][first:first + 5],
                                      f"reads and callbacks from number {first} on")
        return native

    def changed(self, cases):
        """Runs each (change, calls, ...) case on the stand-ins; yields how each call ended."""
        for number, (change, calls, *_) in enumerate(cases):
            def world(side, change=change):
                side.ns.update(stand_ins(side))
                change(side)
                return {}

            yield [self.same(f"case {number}: in {name}", world, CALLS[name])[0][0] for name in calls]


class ReentrancyTest(unittest.TestCase):
    maxDiff = None

    def test_actions_at_every_site(self):
        sides, done = Sides(self), collections.Counter()
        for call_name, call in CALLS.items():
            sites = sides.run(stand_ins, call)[0][2]
            for site, count in collections.Counter(sites).items():
                for nth in sorted({1, count}):
                    for action_name, action in ACTIONS.items():
                        outcome_ = sides.same(f"{action_name}: at {site} #{nth}, in {call_name}",
                                              stand_ins, call, site=site, nth=nth, action=action)
                        done[outcome_[0][0]] += 1
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ, by action")
        self.assertGreater(done["error"], 250)  # the matrix reaches both ends of a call
        self.assertGreater(done["ok"], 1000)

    def test_actions_while_checking_and_writing(self):
        # The example host, with the catalogue's files: the check and the writer walk the
        # catalogue while the registry changes under them; nothing is written after an error.
        sides = Sides(self)
        with support.example_copy() as root:
            def written(side):  # the maintained files that the call changed
                files = {path: (side.root / path).read_bytes() for path in PATHS
                         if (side.root / path).read_bytes() != (root / path).read_bytes()}
                shutil.rmtree(side.root)
                return files

            def write(side):
                if not hasattr(side, "root"):  # a write from inside writes the same copy
                    side.root = Path(tempfile.mkdtemp())
                    shutil.copytree(root, side.root, dirs_exist_ok=True)
                return side.ns["write_blocks"](side.root)

            calls = {"stale_blocks": lambda side: side.ns["stale_blocks"](root)}
            for site in ["frameworks", *HOST]:
                for action_name, action in ACTIONS.items():
                    if action_name in ("drops fields", "lengthens the lists walked"):
                        continue  # the example's records are frozen
                    for call_name, call in calls.items():
                        sides.same(f"{action_name}: at {site}, in {call_name}", example_host, call,
                                   site=site, nth=1, action=action)
                    sides.same(f"{action_name}: at {site}, in write_blocks", example_host, write,
                               site=site, nth=1, action=action, after=written)
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ, by action")

    def test_results_that_fail_midway(self):
        # A replaced function's result, or host data, that raises while it is walked: the error
        # comes through as raised, and what was read before it is what Python reads.
        def midway(side, items, count=1):
            items = iter(items)
            for _ in range(count):
                yield next(items)
            side.fail("midway")

        class Midway:  # a sized sequence whose walk fails after its first items
            def __init__(self, side, items, count=1):
                self.side, self.items, self.count = side, list(items), count

            def __len__(self):
                return len(self.items)

            def __iter__(self):
                return midway(self.side, self.items, self.count)

        def replaced(name, count=1):
            def change(side):
                own = side.ns[name]
                side.ns[name] = lambda *args: Midway(side, own(*args), count)

            return change

        def field(name, index=0):
            def change(side):
                record = side.tools[index] if name in side.tools[index].fields else (
                    side.tools[index].fields["all_params"][1])
                record.fields[name] = Midway(side, record.fields[name])

            return change

        def fail_second(name):  # the second call of the module's own function fails
            def change(side):
                own, calls = side.ns[name], []
                side.ns[name] = lambda *args: (
                    side.fail(f"{name} failed") if len(calls.append(0) or calls) == 2
                    else own(*args))

            return change

        def go_on(side):  # a caller's `_table` that reads past a failing row
            def table(header, rows):
                lines = []
                for row in rows:
                    try:
                        lines.append("/".join(row))
                    except RuntimeError as error:
                        lines.append(f"failed: {error}")
                return lines

            side.ns["_table"] = table

        def keep(side):  # a caller's `_table` that stops at a failing row
            side.ns["_table"] = lambda header, rows: [str(list(row)) for row in rows]

        cases = [
            (replaced("ordered_tools", 2), ["skill_tools_block", "mcp_overview_block",
                                            "mcp_cli_block", "readme_tools_block",
                                            "generated_files"]),
            (replaced("_tier_tools"), ["mcp_overview_block"]),
            (replaced("_table", 3), ["readme_tools_block", "mcp_params_block"]),
            (replaced("block_names"), ["render_file"]),
            (lambda side: side.ns.__setitem__("TOOLS", Midway(side, side.tools)),
             ["readme_tools_block", "mcp_overview_block", "generated_files"]),
            (field("all_params"), ["cli_usage", "mcp_params_block"]),
            (field("action_names"), ["skill_tools_block", "mcp_params_block"]),
            (field("applies_to"), ["mcp_params_block"]),
            (field("action_defaults"), ["mcp_params_block"]),
            (lambda side: side.record.fields.__setitem__(
                "blocks", Midway(side, side.record.fields["blocks"])), ["render_file"]),
            (lambda side: (keep(side), fail_second("_cell")(side)),
             ["skill_tools_block", "mcp_overview_block", "mcp_params_block"]),
            (lambda side: (go_on(side), fail_second("_cell")(side)),
             ["skill_tools_block", "readme_tools_block", "mcp_overview_block"], "ok"),
            (lambda side: (go_on(side), fail_second("cli_usage")(side)), ["mcp_cli_block"], "ok"),
        ]
        sides = Sides(self)
        for (change, calls, *ends), ended in zip(cases, sides.changed(cases)):
            self.assertEqual(set(ended), {(ends or ["error"])[0]}, calls)
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ")

    def test_rows_read_after_the_call(self):
        # Rows a caller's `_table` keeps are read once the renderer returned, after the names
        # and the registry changed: each cell is made from the module as it is then.
        def world(side):
            names, kept = stand_ins(side), []
            names["_table"] = lambda header, rows: kept.append(rows) or ["kept"]
            side.kept = kept
            return names

        def later(name):
            def call(side):
                result = CALLS[name](side)
                side.ns["_code"] = lambda value: f"<{value}>"
                side.ns["TOOLS"].clear()
                del side.tools[1].fields["summary"]
                rows = iter(side.kept.pop())
                first = list(next(rows))
                side.ns["_NONE"] = None
                return result, first, [outcome(side, lambda: list(row)) for row in rows]

            return call

        sides = Sides(self)
        for name in ("skill_tools_block", "mcp_overview_block", "mcp_cli_block",
                     "mcp_params_block"):
            sides.same(f"{name}", world, later(name))
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ")

    def test_kept_rows_are_generators(self):
        # Kept rows step as generators do: a row whose cell raised is finished, a row read from
        # inside one of its own cells is already executing, and rows kept only in a cycle are
        # collected.
        def world(side):
            names, side.kept = stand_ins(side), []
            names["_table"] = lambda header, rows: side.kept.append(rows) or ["kept"]
            return names

        def read(side):
            side.ns["skill_tools_block"]()
            rows = side.kept.pop()
            first, second = next(rows), next(rows)
            side.ns["_code"] = lambda value: side.fail()
            ends = [outcome(side, lambda: list(first)) for _ in range(2)]
            side.ns["_code"] = lambda value: next(second)
            ends.append(outcome(side, lambda: list(second)))
            probe = Record(side, "probe", name="probe", tier="core", action_names=[])
            side.ns["ordered_tools"] = lambda: [probe]
            side.ns["skill_tools_block"]()
            probe.fields["rows"], probe = side.kept.pop(), weakref.ref(probe)
            gc.collect()
            return ends, probe() is None

        sides = Sides(self)
        self.assertEqual(sides.same("generators", world, read)[0][1][-1], True)
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ")

    def test_error_while_a_value_error_becomes_a_line(self):
        # The error `str()` of a renderer's value error raises has that error, with its
        # traceback, as its context.
        class Unprintable(ValueError):
            def __str__(self):
                raise RuntimeError("str")

        def world(side):
            def renderer():
                raise Unprintable()

            record = docs.GeneratedFile("f.md", (("a", renderer),))
            return dict(generated_files=lambda: (record,), _read=lambda root, g: block("a", ""))

        def check(side):
            try:
                side.ns["stale_blocks"](Path("."))
            except RuntimeError as error:
                return type(error.__context__), error.__context__.__traceback__ is not None

        sides = Sides(self)
        self.assertEqual(sides.same("context", world, check)[0][1], (Unprintable, True))
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ")

    def test_replacement_function_kept_by_marker(self):
        # A rebound `_MARKER` whose `sub` keeps the function it is given, and calls it again once
        # the call returned and the caller dropped its record: Python runs the closure again,
        # with what it holds, and renders as during the call.
        pattern = re.compile(docs._MARKER.pattern, docs._MARKER.flags)

        class Keeping:
            def __init__(self):
                self.kept = []

            def finditer(self, text):
                return pattern.finditer(text)

            def sub(self, function, text):
                self.kept.append(function)
                return pattern.sub(function, text)

        def world(side):
            names = stand_ins(side)
            names["_MARKER"] = side.marker = Keeping()
            return names

        def later(name, text):
            def call(side):
                result, marked = CALLS[name](side), text(side)
                side.record = None
                gc.collect()
                return result, [function(match) for function in side.marker.kept
                                for match in pattern.finditer(marked)]

            return call

        sides = Sides(self)
        sides.same("render_file", world, later("render_file", lambda side: FILE_TEXT))
        sides.same("rules_block", world, later(
            "rules_block", lambda side: side.ns["QUENOR_INSTRUCTION_CONTENT"]))
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ")

    def test_values_of_other_kinds(self):
        # None and numbers where texts are expected, values that hold themselves or nest deeper
        # than the interpreter recurses.
        looped, deep, nested = [], {}, []
        looped.append(looped)
        deep["self"] = deep
        for _ in range(100000):
            nested = [nested]

        def fields(index, **values):
            return lambda side: side.tools[index].fields.update(values)

        def default(value, field="default"):
            return lambda side: side.tools[0].fields["all_params"][1].fields.update({field: value})

        def prop(**values):
            return lambda side: side.schemas["find_refs"]["properties"]["path"].update(values)

        def names(**values):
            return lambda side: side.ns.update(values)

        def record(**values):
            return lambda side: side.record.fields.update(values)

        def renderers(value):
            return record(blocks=[(name, lambda: value) for name, _ in side_blocks])

        side_blocks = [("mcp-intro", 0), ("mcp-overview", 0), ("params:find_refs", 0),
                       ("mcp-cli", 0)]
        cases = [
            (prop(description=None), ["mcp_params_block"]),
            (prop(description=5, minimum="1", maximum=None), ["mcp_params_block"]),
            (prop(type=None, items={"type": 5}), ["mcp_params_block"]),
            (prop(type="array", items={"type": None}), ["mcp_params_block"]),
            (fields(0, summary=5), ["readme_tools_block", "mcp_overview_block"]),
            (fields(0, mcp_text=None), ["skill_tools_block"]),
            (fields(0, name=None), ["skill_tools_block", "cli_usage", "generated_files"]),
            (fields(2, name=7), ["mcp_overview_block", "mcp_cli_block"]),
            (fields(1, tier=None), ["readme_tools_block", "mcp_intro_block"]),
            (fields(0, action_names=[None, 5, b"x"]), ["skill_tools_block", "mcp_params_block"]),
            (fields(0, actions=None, action_names=None),
             ["mcp_params_block", "readme_tools_block"]),
            (default(None, "values_text"), ["mcp_params_block"]),
            (default(lambda f: None, "values_text"), ["mcp_params_block"]),
            (default(lambda f: 5, "values_text"), ["mcp_params_block"]),
            (default([("list",), ("find", 1)], "action_defaults"), ["mcp_params_block"]),
            (default([None, "a"], "applies_to"), ["mcp_params_block"]),
            (default(looped), ["mcp_params_block", "render_file"]),
            (default(nested), ["mcp_params_block"]),
            (default([("list", looped)], "action_defaults"), ["mcp_params_block"]),
            (default(deep), ["mcp_params_block"]),
            (names(_NONE=None), ["readme_tools_block", "mcp_params_block"]),
            (names(_NONE=5), ["mcp_overview_block"]),
            (names(_TIERS=("core", None, 3)), ["mcp_intro_block", "mcp_overview_block"]),
            (names(skill_table=lambda facts: None), ["skill_routes_block"]),
            (names(ENDPOINT_FRAMEWORKS={"a": None}), ["skill_routes_block"]),
            (names(rules_table=lambda: None), ["rules_block"]),
            (names(rules_table=lambda: 5), ["rules_block"]),
            (names(without_markers=lambda text: None), ["rules_block"]),
            (names(QUENOR_INSTRUCTION_CONTENT=None), ["rules_block"]),
            (lambda side: (side.ns.update(_MARKER=object()),  # `sub` read before the content
                           side.ns.pop("QUENOR_INSTRUCTION_CONTENT")), ["rules_block"]),
            (names(QUENOR_INSTRUCTION_CONTENT=b"<!-- registry:a -->\n<!-- /registry:a -->"),
             ["rules_block"]),
            (renderers(None), ["render_file"]),
            (renderers(5), ["render_file"]),
            (lambda side: (renderers(None)(side), record(encode=side.ns["_skill_text"])(side)),
             ["render_file"]),
            (record(encode=lambda text: None), ["render_file"]),
            (record(path=None, blocks=[("other", str)]), ["render_file"]),
            (record(path=5, blocks=[("mcp-intro", str), ("mcp-intro", str)]), ["render_file"]),
        ]
        sides, kinds = Sides(self), collections.Counter()
        kinds.update(end for ended in sides.changed(cases) for end in ended)
        texts = [None, 5, b"x", 0.5]
        for function in ("block_names", "_blocks", "_cell", "_code", "_skill_text",
                         "_literal_text", "_value", "_type_cell", "_row"):
            for value in texts:
                sides.same(f"texts: {function}({value!r})", lambda side: {},
                           lambda side: side.ns[function](value))
        for value in texts:
            sides.same(f"texts: render_file({value!r})", stand_ins,
                       lambda side: side.ns["render_file"](value, side.record))
        self.assertEqual(+sides.mismatches, {}, "cases whose outcome or reads differ")
        self.assertGreater(kinds["ok"], 10)
        self.assertGreater(kinds["error"], 20)
