"""Block renderers: whole bodies on small registries, and the details the model comparison misses."""

import unittest

from support import DELETE, docs, param, rebound, tool

SEARCH = tool("example_search", "core", actions=("find", "list"), summary="Finds code by text.",
              mcp_text="Finds code by text. find: the best match; list: every match.",
              params=(param("path", required=True),))
STATS = tool("example_stats", "extended", summary="Counts what the index holds.",
             mcp_text="Counts what the index holds.")
PATH = {"type": "string", "description": "Directory to search"}
LIMIT = {"type": "integer", "minimum": 1, "maximum": 100, "default": 20,
         "description": "How many results to return"}
PARAMS_HEADER = ("Parameter", "CLI", "Type", "Required", "Default", "Actions", "Description")


def lines(*rows):
    return "\n".join(rows)


def raised(test, error, call):
    with test.assertRaises(error) as caught:
        call()
    return caught.exception.args


class Unformattable:
    def __format__(self, spec):
        raise RuntimeError("format")


class BlocksTest(unittest.TestCase):
    def test_tool_tables(self):
        with rebound(TOOLS=[STATS, SEARCH]):
            self.assertEqual(docs.skill_tools_block(), lines(
                "## Tool reference (2 tools; MCP name = CLI `quenor-dorvan query <tool>`)", "",
                "| Tool | Actions | Use for |", "| --- | --- | --- |",
                "| `example_search` | `find`, `list` | Finds code by text. find: the best match; "
                "list: every match. |", "| `example_stats` | *(one call)* | Counts what the index holds. |"))
            self.assertEqual(docs.readme_tools_block(), lines(
                "2 tools for code intelligence, 1 core and 1 extended. A tool with actions takes an "
                "`action` parameter that selects one.", "", "| Tier | Tool | Actions | Purpose |",
                "| --- | --- | --- | --- |",
                "| **Core** | `example_search` | `find`, `list` | Finds code by text. |",
                "| **Extended** | `example_stats` | -- | Counts what the index holds. |"))
            self.assertEqual(docs.mcp_intro_block(), (
                "Complete reference for the **2 MCP tools** provided by Quenor Dorvan, 1 core and 1 "
                "extended.\n\nEach tool groups related functionality behind a single endpoint; a tool "
                "with actions takes an `action` parameter that selects the operation."))
            self.assertEqual(docs.mcp_overview_block(), lines(
                "| # | Tool | Actions | Tier | Purpose |", "| --- | --- | --- | --- | --- |",
                "| 1 | `example_search` | `find`, `list` | Core | Finds code by text. |",
                "| 2 | `example_stats` | -- | Extended | Counts what the index holds. |", "",
                "**Tiers:**", "", "- **Core** (1 tools): `example_search`",
                "- **Extended** (1 tools): `example_stats`"))
            self.assertEqual(docs.mcp_cli_block().split("\n")[1:], [
                "", "| Tool | CLI usage |", "| --- | --- |",
                "| `example_search` | `quenor-dorvan query example-search --path <path>` |",
                "| `example_stats` | `quenor-dorvan query example-stats` |"])
        # The README's tier cell is "**" + tier.capitalize() + "**": concatenated, not formatted.
        Tier = type("Tier", (str,), {"capitalize": lambda self: self.word})
        odd = tool("odd", Tier("core"), summary="s")
        with rebound(TOOLS=[odd], ordered_tools=lambda: [odd], _tier_counts=lambda: "n"):
            odd.tier.word = type("Shown", (str,), {"__format__": lambda self, spec: "no"})("Alpha")
            self.assertEqual(docs.readme_tools_block().split("\n")[-1], "| **Alpha** | `odd` | -- | s |")
            odd.tier.word = 5
            self.assertEqual(raised(self, TypeError, docs.readme_tools_block),
                             ('can only concatenate str (not "int") to str',))

    def render(self, actions, params, properties, required=()):
        asked = []
        schema = {"type": "object", "properties": properties, "required": list(required)}
        with rebound(get_cli_schema=lambda name: asked.append(name) or schema):
            text = docs.mcp_params_block(tool("example_search", actions=actions, params=params))
        self.assertEqual(asked, ["example_search"])
        return text

    def test_params_table(self):
        params = (param("path", required=True), param("limit", default=20, applies_to=("find", "list"),
                                                      action_defaults=(("list", 50),)))
        properties = {"path": PATH, "limit": LIMIT}
        self.assertEqual(self.render(("find", "list"), params, properties, ["path"]), lines(
            "**Actions:** `find` | `list`", "", "#### Parameters", "",
            "| Parameter | CLI | Type | Required | Default | Actions | Description |",
            "| --- | --- | --- | --- | --- | --- | --- |",
            "| `path` | `--path` | string | Yes | -- | all | Directory to search. |",
            "| `limit` | `--limit` | integer | No | 20 (list: 50) | find, list | How many results "
            "to return. Range: 1-100. |"))
        self.assertEqual(self.render((), (param("token_budget"),), {"token_budget": {"type": "x"}}), lines(
            "#### Parameters", "", "| Parameter | CLI | Type | Required | Default | Description |",
            "| --- | --- | --- | --- | --- | --- |", "| `token_budget` | `--token-budget` | x | No | -- |  |"))
        for wrong in ({"path": PATH}, {"limit": LIMIT, "path": PATH}, {**properties, "more": {}}):
            with rebound(_cell=DELETE, _code=DELETE, _type_cell=DELETE):  # nothing rendered first
                self.assertEqual(raised(self, ValueError, lambda: self.render(("find",), params, wrong)), (
                    "example_search: the CLI schema and the registry name different parameters",))

    def test_params_rows_are_built_before_the_table(self):
        events = []
        table = lambda header, rows: events.append(("table", header, rows)) or ["T"]  # noqa: E731
        row = lambda cells: events.append(("row", tuple(cells))) or "R"  # noqa: E731
        failing = (param("path"), param("limit", action_defaults=(("list",),)))
        for replaced in (dict(_table=table), dict(_row=row)):
            with rebound(**replaced):
                self.assertEqual(raised(self, ValueError, lambda: self.render(
                    ("find",), failing, {"path": PATH, "limit": LIMIT})),
                    ("not enough values to unpack (expected 2, got 1)",))
        self.assertEqual(events, [])
        cells = ("`path`", "`--path`", "string", "No", "--", "all", "Directory to search.")
        with rebound(_table=table, _code=lambda text: events.append(text) or f"`{text}`"):
            self.assertEqual(self.render(("find",), failing[:1], {"path": PATH}), lines(
                "**Actions:** `find`", "", "#### Parameters", "", "T"))
        self.assertEqual(events, ["path", "--path", "find", ("table", PARAMS_HEADER, [cells])])

    def test_cells_format_each_field_as_computed(self):
        # An f-string formats each field before it evaluates the next one.
        Tier = type("Tier", (str,), {"capitalize": lambda self: Unformattable()})
        low, calls = Unformattable(), []
        with rebound(_value=lambda value: calls.append(value) or value, TOOLS=[],
                     _TIERS=(Tier("core"),), _tier_tools=lambda tier: calls.append(tier) or []):
            for call in (lambda: docs._default_cell(param("p", default=1, action_defaults=(
                             (Unformattable(), 2),))),
                         lambda: docs._description_cell(param("p"), {"minimum": low, "maximum": 3}),
                         docs.mcp_overview_block):
                self.assertEqual(raised(self, RuntimeError, call), ("format",))
        self.assertEqual(calls, [1, low])
        formatters = []
        with rebound(_code=lambda text: f"<{text}>"):
            self.assertEqual(docs._description_cell(param("p", values=lambda f: formatters.append(f)
                                                          or f("v")), {"minimum": None}), "<v>")
            self.assertIs(formatters[0], docs._code)

    def test_rules_block(self):
        content = ("\n  intro\n<!-- registry:a -->\nold\n<!-- /registry:a -->\nmid\n"
                   "<!-- registry:b-2 -->\n<!-- /registry:b-2 -->\n\n")
        tables = []  # one call per block; the table is not a substitution template
        table = lambda: tables.append(0) or f"\\1 \\g<0> T{len(tables)}"  # noqa: E731
        with rebound(QUENOR_INSTRUCTION_CONTENT=content, rules_table=table):
            self.assertEqual(docs.rules_block(), "intro\n\\1 \\g<0> T1\nmid\n\\1 \\g<0> T2")
        Table = type("Table", (), {"__radd__": lambda self, other: other + "<table>"})
        marked = "<!-- registry:a -->\nx\n<!-- /registry:a -->"
        with rebound(QUENOR_INSTRUCTION_CONTENT=marked, without_markers=str, rules_table=Table):
            self.assertEqual(docs.rules_block(), marked.replace("x", "<table>"))
        # `_MARKER.sub` is looked up before the text it is given.
        with rebound(_MARKER=DELETE, QUENOR_INSTRUCTION_CONTENT=DELETE):
            self.assertEqual(raised(self, NameError, docs.rules_block), ("name '_MARKER' is not defined",))


if __name__ == "__main__":
    unittest.main()
