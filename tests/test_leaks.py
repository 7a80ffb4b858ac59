"""Memory and references stay flat over repeated calls, on every path through the module.

After a warm-up, rounds of many calls must leave the number of allocated blocks and the reference
counts of everything the calls touch (arguments, module globals, tier names, each tool and the
fields read of it) where they were: a reference leaked on a lookup allocates nothing. The bound:
a round may grow by less than one block per four calls; a leak of one object per call adds one
block per call. Blocks are only counted under CPython's own allocator; with PYTHONMALLOC=malloc
(the sanitizer build, valgrind) the reference counts are still checked, over a few calls each.
"""

import gc
import shutil
import sys
import types
import unittest
from pathlib import Path

import quenor_dorvan.tool_registry as registry
import support
from support import DELETE, docs, param, rebound, tool

COUNTED = sys.getallocatedblocks() > 0
CALLS, SLOW_CALLS, WARMUP = (1000, 200, 20) if COUNTED else (2, 2, 1)  # slow: files, deep recursion
GENERATION = 2 if COUNTED else 1  # young garbage only under valgrind: walking the heap is slow there
BLOCK_BOUND, ROUNDS = 4, 3  # calls per block of growth allowed; rounds, one of which must be flat
SEARCH = registry.get_tool("search")  # actions, bounds, values, action defaults
PLAIN = registry.get_tool("index_status")  # no actions
HEADER = ("A", "B")
TEXT = ("x\n<!-- registry:a -->\nold\n<!-- /registry:a -->\n"
        "<!-- registry:b -->\n<!-- /registry:b -->")
RECORD = docs.GeneratedFile("f.md", (("a", lambda: "new {a}\\1"), ("b", lambda: "é")),
                            docs._skill_text)
LOOPED = []
LOOPED.append(LOOPED)
DEEP = []
for _ in range(100000):
    DEEP = [DEEP]

# Values that are shared singletons or small cached numbers: their counts move with any code.
UNWATCHED = (type(None), bool, int, float)


def block(name, body):
    return f"<!-- registry:{name} -->\n{body}<!-- /registry:{name} -->"


def settle():
    """Collects the garbage, and empties the type attribute cache: up to 3.11 it holds the names it
    looked up (a parameter named "query" is one) and lets go of them as its slots are reused."""
    gc.collect(GENERATION)
    sys._clear_type_cache()


def run(call):
    try:
        call()
    except Exception as error:  # the error paths are measured too; the type is checked first
        return type(error)
    return None


def watched(args):
    """Everything a call may hold a reference to, labelled."""
    items = [("the module", docs)] + [(f"global {k}", v) for k, v in vars(docs).items()]
    tiers = vars(docs).get("_TIERS", ())
    items += [(f"tier {t!r}", t) for t in tiers if isinstance(tiers, tuple)]
    tools = vars(docs).get("TOOLS", ())
    for i, entry in enumerate(tools if isinstance(tools, (list, tuple)) else ()):
        items.append((f"tool {i}", entry))
        for field in ("tier", "name", "all_params", "summary", "mcp_text", "action_names",
                      "actions"):
            items.append((f"tool {i}.{field}", vars(entry).get(field)))
        for j, p in enumerate(getattr(entry, "all_params", ())):
            items += [(f"tool {i} param {j}", p), (f"tool {i} param {j}.name", p.name),
                      (f"tool {i} param {j}.default", p.default)]
    items += [(f"argument {i}", a) for i, a in enumerate(args)]
    return [(label, obj) for label, obj in items if not isinstance(obj, UNWATCHED)]


def edge_registry():
    """Stand-ins with texts of every storage width, three tiers, values of every kind."""
    wide = "  名前 \U0001f600\n ǅ|x "
    tools = [
        tool("é_tool", "ßeta", actions=("ǆ_act", "a|b"), summary="  Line\n one | é  ",
             mcp_text=wide, params=(
                 param("é", required=True),
                 param("big", default=10**30, action_defaults=(("ǆ_act", [1, [2.5, None]]),),
                       applies_to=("ǆ_act",)),
                 param("ratio", default=float("nan"),
                       values=lambda f: "One of " + f(True) + ", " + f(1e16) + "."))),
        tool("名_x", "core"),
        tool("𝔘", "ǆemo", actions=("only",), summary="\U0001f600", mcp_text="a\u2028b",
             params=(param("flag", default=False), param("many", default=["x", ("y", 0.5)]))),
        tool("plain", "core", summary="ascii only", mcp_text="ascii"),
    ]
    props = {"é": {"type": "string", "description": "Wide é text"},
             "big": {"type": "integer", "minimum": 0, "maximum": None},
             "ratio": {"type": "number", "minimum": -1.5, "maximum": 1e300,
                       "description": "Is it? "},
             "flag": {"type": "boolean", "description": "\u3000"},
             "many": {"type": "array", "items": {"type": "string"}, "maximum": 3}}
    schemas = {t.name: {"type": "object", "properties": {p.name: props[p.name]
                                                         for p in t.all_params},
                        "required": [p.name for p in t.all_params if p.required]}
               for t in tools}
    return dict(TOOLS=tools, _TIERS=("core", "ßeta", "ǆemo"), get_cli_schema=schemas.__getitem__,
                ENDPOINT_FRAMEWORKS={"a": "Ǆango", "b": "flask"}, rules_table=lambda: "| é |",
                QUENOR_INSTRUCTION_CONTENT=" x " + block("r", "old\n") + block("s", "") + " ")


def marked_root(directory, catalogue):
    """A repository whose files hold every block of `catalogue`, all of them stale."""
    for record in catalogue:
        file = directory / record.path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text("head\n" + "\n".join(block(name, "old\n") for name, _ in record.blocks))
    return directory


class Hooked(types.SimpleNamespace):
    """A stand-in tool whose summary is a property that fails."""

    @property
    def summary(self):
        raise RuntimeError("summary")


class Raiser:
    """Callbacks that raise."""

    def __call__(self, *args):
        raise RuntimeError("callback")

    def values(self):  # an ENDPOINT_FRAMEWORKS that fails after its first value
        yield "first"
        self()

    def generator(self, *items):
        def produce(*args):
            yield from items
            self()

        return produce


class LeakTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.temporary = support.example_copy()
        cls.stale_root = cls.temporary.__enter__()
        cls.write_root = cls.stale_root.parent / "written"
        cls.readme = (cls.stale_root / "README.md").read_text()

    @classmethod
    def tearDownClass(cls):
        cls.temporary.__exit__(None, None, None)

    def setUp(self):
        self.covered = set()

    def flat(self, label, call, *, args=(), error=None, names=None, calls=CALLS):
        """`call` run `calls` times leaves blocks and reference counts where they were."""
        with self.subTest(label), rebound(**(names or {})):
            self.assertIs(run(call), error, "outcome of the first call")
            for _ in range(WARMUP):
                run(call)
            objects, bound = watched(args), max(calls // BLOCK_BOUND, 1)
            # Only the collections made here: an automatic one could free older garbage, and
            # with it references to the objects watched, in the middle of a round.
            gc.disable()
            try:
                for _ in range(ROUNDS):
                    settle()
                    counts = [sys.getrefcount(obj) for _, obj in objects]
                    blocks = sys.getallocatedblocks()
                    for _ in range(calls):
                        run(call)
                    settle()
                    grown = sys.getallocatedblocks() - blocks
                    changed = {name: sys.getrefcount(obj) - count
                               for (name, obj), count in zip(objects, counts)
                               if sys.getrefcount(obj) != count}
                    if not changed and grown < bound:
                        break
            finally:
                gc.enable()
            self.assertEqual(changed, {}, "references gained or lost over the calls")
            self.assertLess(grown, bound, f"blocks after {calls} calls")

    def calls(self, name, *args, error=None, names=None, label=""):
        """Measures `name(*args)` on the module."""
        self.covered.add(name)
        function = getattr(docs, name)
        slow = any(isinstance(a, Path) for a in args) or error is RecursionError
        self.flat(f"{name}{label}", lambda: function(*args), args=args, error=error, names=names,
                  calls=SLOW_CALLS if slow else CALLS)

    def every_function(self, root, record, names=None):
        """Each function of the module, once each, on the registry in place."""
        with rebound(**(names or {})):
            tools = list(docs.TOOLS)
            with_actions = next(t for t in tools if t.actions)
            without = next(t for t in tools if not t.actions)
            first = with_actions.all_params[-1]
            prop = docs.get_cli_schema(with_actions.name)["properties"][first.name]
        for name, args in [
                ("ordered_tools", ()), ("_tier_tools", ("core",)), ("_tier_counts", ()),
                ("_actions_cell", (with_actions, "--")), ("_actions_cell", (without, "--")),
                ("cli_usage", (with_actions,)), ("skill_tools_block", ()),
                ("readme_tools_block", ()), ("mcp_intro_block", ()), ("mcp_overview_block", ()),
                ("mcp_cli_block", ()), ("_default_cell", (first,)), ("_type_cell", (prop,)),
                ("_description_cell", (first, prop)), ("mcp_params_block", (with_actions,)),
                ("mcp_params_block", (without,)), ("skill_routes_block", ()),
                ("rules_block", ()), ("_params_renderer", (without,)), ("generated_files", ()),
                ("render_file", (TEXT, record)), ("stale_blocks", (root,))]:
            self.calls(name, *args, names=names)
        renderer = docs._params_renderer(with_actions)
        self.flat("the renderer _params_renderer makes", renderer, args=(renderer,), names=names)

    def test_example_host(self):
        for name, args in [
                ("_code", ("x",)), ("_code", (0.5,)), ("_cell", (SEARCH.summary,)),
                ("_cell", (" a\u2028b |\U0001f600 ",)), ("_row", (["a", "é", ""],)),
                ("_table", (HEADER, [["x", "名"], ("y",)])), ("_value", ([1, [2.5, True], None],)),
                ("_value", (10**40,)), ("_skill_text", ("a\\b {x}",)),
                ("_literal_text", ("a\\b {é}",)), ("block_names", (TEXT,)), ("_blocks", (TEXT,)),
                ("render_file", (TEXT, docs.GeneratedFile("f.md", (("b", str), ("a", lambda: "\\")),
                                                           docs._literal_text))),
                ("_read", (self.stale_root, docs.generated_files()[4]))]:
            self.calls(name, *args)
        self.flat("GeneratedFile", lambda: docs.GeneratedFile("p", (), str))
        self.every_function(self.stale_root, RECORD)

        # Each call rewrites one file: the example's README, made stale again before it.
        root = self.write_root
        shutil.copytree(self.stale_root, root)
        docs.write_blocks(root)
        self.covered.add("write_blocks")
        self.flat("write_blocks", lambda: ((root / "README.md").write_text(self.readme),
                                           docs.write_blocks(root)),
                  args=(root,), calls=SLOW_CALLS)
        self.assertEqual(docs.stale_blocks(root), [])
        functions = {name for name, value in vars(docs).items() if type(value) is type(docs._code)}
        self.assertEqual(functions - self.covered, set(), "functions not measured")

    def test_edge_registry(self):
        names = edge_registry()
        with rebound(**names):
            root = marked_root(self.stale_root.parent / "edge", docs.generated_files())
        self.every_function(root, RECORD, names)
        self.calls("write_blocks", root, names=names)  # writes once; the rest only compare

    def test_error_paths(self):
        raiser, root = Raiser(), self.stale_root
        broken = self.stale_root.parent / "broken"
        shutil.copytree(root, broken)
        (broken / "docs/mcp-tools.md").write_text(block("mcp-intro", ""))
        undecodable = self.stale_root.parent / "undecodable"
        shutil.copytree(root, undecodable)
        (undecodable / "README.md").write_bytes(b"\xff" + self.readme.encode())
        empty = self.stale_root.parent / "empty"
        empty.mkdir()
        mismatch = dict(get_cli_schema=lambda name: {"properties": {}, "required": []})
        deep = tool("deep", params=(param("d", default=DEEP), param("l", default=LOOPED)))
        deep_schema = dict(get_cli_schema=lambda name: {
            "properties": {"d": {"type": "array"}, "l": {"type": "array"}}, "required": []})
        hooked = Hooked(**{k: v for k, v in vars(tool("t")).items() if k != "summary"})
        fails = docs.GeneratedFile("f.md", (("a", raiser), ("b", str)))
        for name, args, error, names in [
                # Wrong arguments.
                ("cli_usage", (), TypeError, None),
                ("render_file", (TEXT,), TypeError, None),
                # A global deleted while in use.
                ("stale_blocks", (root,), NameError, dict(TOOLS=DELETE)),
                ("mcp_cli_block", (), NameError, dict(_code=DELETE)),
                ("readme_tools_block", (), NameError, dict(_NONE=DELETE)),
                ("rules_block", (), NameError, dict(_MARKER=DELETE)),
                # The module's own value errors, raised and turned into problem lines.
                ("render_file", (TEXT, docs.GeneratedFile("f.md", (("c", str),))), ValueError,
                 None),
                ("stale_blocks", (broken,), None, None),
                ("write_blocks", (broken,), ValueError, None),
                ("mcp_params_block", (SEARCH,), ValueError, mismatch),
                ("stale_blocks", (root,), None, mismatch),
                ("_default_cell", (param("p", action_defaults=(("a", 1, 2),)),), ValueError,
                 None),
                ("render_file", (TEXT, docs.GeneratedFile("f.md", (("a",),))), ValueError, None),
                ("ordered_tools", (), ValueError, dict(TOOLS=[tool("a", "beta")])),
                # Files missing or undecodable.
                ("_read", (empty, RECORD), FileNotFoundError, None),
                ("stale_blocks", (empty,), FileNotFoundError, None),
                ("write_blocks", (empty,), FileNotFoundError, None),
                ("stale_blocks", (undecodable,), UnicodeDecodeError, None),
                ("write_blocks", (undecodable,), UnicodeDecodeError, None),
                ("write_blocks", (root,), UnicodeEncodeError, dict(generated_files=lambda: (
                    docs.GeneratedFile("README.md", (("readme-tools", lambda: "\ud800"),)),))),
                # Values too deep, or holding themselves.
                ("_value", (LOOPED,), RecursionError, None),
                ("_value", (DEEP,), RecursionError, None),
                ("mcp_params_block", (deep,), RecursionError, deep_schema),
                # A callback's own error, at each kind of place one is called.
                ("render_file", (TEXT, fails), RuntimeError, None),
                ("render_file", (TEXT, docs.GeneratedFile("f.md", RECORD.blocks, raiser)),
                 RuntimeError, None),
                ("mcp_cli_block", (), RuntimeError, dict(snake_to_kebab=raiser)),
                ("mcp_params_block", (SEARCH,), RuntimeError, dict(get_cli_schema=raiser)),
                ("mcp_params_block", (tool("v", params=(param("v", values=raiser),)),),
                 RuntimeError, dict(get_cli_schema=lambda name: {
                     "properties": {"v": {"type": "string"}}, "required": []})),
                ("skill_routes_block", (), RuntimeError, dict(ENDPOINT_FRAMEWORKS=raiser)),
                ("rules_block", (), RuntimeError, dict(rules_table=raiser)),
                ("rules_block", (), RuntimeError, dict(without_markers=raiser)),
                ("stale_blocks", (root,), RuntimeError, dict(rules_table=raiser)),
                ("skill_tools_block", (), RuntimeError,
                 dict(ordered_tools=raiser.generator(SEARCH, PLAIN))),
                ("mcp_overview_block", (), RuntimeError, dict(_row=raiser)),
                ("readme_tools_block", (), RuntimeError, dict(TOOLS=[SEARCH, hooked])),
                ("generated_files", (), RuntimeError,
                 dict(ordered_tools=raiser.generator(SEARCH))),
                ("stale_blocks", (root,), RuntimeError,
                 dict(generated_files=raiser.generator(docs.generated_files()[3]))),
                ("render_file", (TEXT, RECORD), RuntimeError,
                 dict(block_names=raiser.generator("a", "b"))),
                # Texts of the wrong type.
                ("_row", (["a", 1],), TypeError, None),
                ("_cell", (None,), AttributeError, None),
                ("_skill_text", (5,), AttributeError, None),
                ("block_names", (None,), TypeError, None),
                ("readme_tools_block", (), AttributeError, dict(TOOLS=[tool("n", summary=5)])),
                ("render_file", (TEXT, docs.GeneratedFile("f.md", RECORD.blocks, len)),
                 TypeError, None)]:
            self.calls(name, *args, error=error, names=names, label=f", {error and error.__name__}"
                       f" {sorted(names or ())}")

    def test_rows_kept_by_a_callers_table(self):
        # Rows handed to a replaced `_table` may outlive the call: read in full, in part or not at
        # all, after the renderer returned; one whose cell fails is dropped half read.
        kept = []

        def keep(header, rows):
            kept.append(rows)
            return ["kept"]

        def read_all():
            return [list(row) for row in kept.pop()]

        def read_one():
            next(iter(next(iter(kept.pop()))))

        def fail_in_row():
            row = next(iter(kept.pop()))
            docs._cell = Raiser()
            try:
                list(row)
            finally:
                docs._cell = cell

        cell = docs._cell
        for renderer in ("skill_tools_block", "mcp_overview_block", "mcp_cli_block",
                         "mcp_params_block"):
            function = getattr(docs, renderer)
            args = (SEARCH,) if renderer == "mcp_params_block" else ()
            for reader, error in ((read_all, None), (read_one, None), (kept.pop, None),
                                  (fail_in_row, None if args or renderer == "mcp_cli_block"
                                   else RuntimeError)):
                self.flat(f"{renderer} rows, {reader.__name__}",
                          lambda: (function(*args), reader()), args=(keep, *args), error=error,
                          names=dict(_table=keep))


if __name__ == "__main__":
    unittest.main()
