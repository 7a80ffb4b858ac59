"""Block renderers: tool tables, MCP reference blocks, parameter tables, routes and rules."""

import unittest

import quenor_dorvan.tool_registry as registry
from support import DELETE, docs, param, rebound, tool

SEARCH = tool("example_search", "core", actions=("find", "list"), summary="Finds code by text.",
              mcp_text="Finds code by text. find: the best match; list: every match.",
              params=(param("path", required=True),))
STATS = tool("example_stats", "extended", summary="Counts what the index holds.",
             mcp_text="Counts what the index holds.")
SKILL_HEAD = "## Tool reference ({} tools; MCP name = CLI `quenor-dorvan query <tool>`)"
README_HEAD = ("{} tools for code intelligence, {}. A tool with actions takes an `action` "
               "parameter that selects one.")
INTRO = ("Complete reference for the **{} MCP tools** provided by Quenor Dorvan, {}.\n\nEach tool "
         "groups related functionality behind a single endpoint; a tool with actions takes an "
         "`action` parameter that selects the operation.")
CLI_NOTE = ("Every parameter is an option of the same name in kebab-case (`token_budget` is "
            "`--token-budget`), an array is a comma-separated list, and a boolean is `--flag` or "
            "`--flag true|false`. `quenor-dorvan query <tool> --help` prints a tool's options with "
            "their full texts and `quenor-dorvan query --schema` prints them all as JSON Schema.")
SKILL_TABLE = ("| Tool | Actions | Use for |", "| --- | --- | --- |")
README_TABLE = ("| Tier | Tool | Actions | Purpose |", "| --- | --- | --- | --- |")
OVERVIEW_TABLE = ("| # | Tool | Actions | Tier | Purpose |", "| --- | --- | --- | --- | --- |")
CLI_TABLE = ("| Tool | CLI usage |", "| --- | --- |")
PARAMS_TABLE = ("| Parameter | CLI | Type | Required | Default | Actions | Description |",
                "| --- | --- | --- | --- | --- | --- | --- |")
PARAMS_TABLE_HEADER = ("Parameter", "CLI", "Type", "Required", "Default", "Actions", "Description")
PLAIN_PARAMS_TABLE = ("| Parameter | CLI | Type | Required | Default | Description |",
                      "| --- | --- | --- | --- | --- | --- |")


def lines(*rows):
    return "\n".join(rows)


def raised(test, error, call):
    with test.assertRaises(error) as caught:
        call()
    return caught.exception.args


class Unformattable:
    def __format__(self, spec):
        raise RuntimeError("format")


class ToolTablesTest(unittest.TestCase):
    def test_two_tools(self):
        with rebound(TOOLS=[STATS, SEARCH]):
            self.assertEqual(docs.skill_tools_block(), lines(
                SKILL_HEAD.format(2), "", *SKILL_TABLE,
                "| `example_search` | `find`, `list` | Finds code by text. find: the best match; "
                "list: every match. |",
                "| `example_stats` | *(one call)* | Counts what the index holds. |"))
            self.assertEqual(docs.mcp_intro_block(), INTRO.format(2, "1 core and 1 extended"))
            self.assertEqual(docs.mcp_overview_block(), lines(
                *OVERVIEW_TABLE,
                "| 1 | `example_search` | `find`, `list` | Core | Finds code by text. |",
                "| 2 | `example_stats` | -- | Extended | Counts what the index holds. |", "",
                "**Tiers:**", "", "- **Core** (1 tools): `example_search`",
                "- **Extended** (1 tools): `example_stats`"))
            self.assertEqual(docs.mcp_cli_block(), lines(
                CLI_NOTE, "", *CLI_TABLE,
                "| `example_search` | `quenor-dorvan query example-search --path <path>` |",
                "| `example_stats` | `quenor-dorvan query example-stats` |"))
        with rebound(TOOLS=[tool("lookup", actions=("by_name", "by_path"),
                                 summary="Find a symbol by name or path."),
                            tool("status", "extended", summary="Index health and counts.")]):
            self.assertEqual(docs.readme_tools_block(), lines(
                README_HEAD.format(2, "1 core and 1 extended"), "", *README_TABLE,
                "| **Core** | `lookup` | `by_name`, `by_path` | Find a symbol by name or path. |",
                "| **Extended** | `status` | -- | Index health and counts. |"))

    def test_empty_registry(self):
        with rebound(TOOLS=[]):
            self.assertEqual(docs.skill_tools_block(), lines(SKILL_HEAD.format(0), "",
                                                             *SKILL_TABLE))
            self.assertEqual(docs.readme_tools_block(), lines(
                README_HEAD.format(0, "0 core and 0 extended"), "", *README_TABLE))
            self.assertEqual(docs.mcp_intro_block(), INTRO.format(0, "0 core and 0 extended"))
            self.assertEqual(docs.mcp_overview_block(), lines(
                *OVERVIEW_TABLE, "", "**Tiers:**", "", "- **Core** (0 tools): ",
                "- **Extended** (0 tools): "))
            self.assertEqual(docs.mcp_cli_block(), lines(CLI_NOTE, "", *CLI_TABLE))

    def test_tier_names(self):
        tools = [tool("a", "EXTENDED", summary="x"), tool("b", summary="y"),
                 tool("c", "beta", summary="z")]
        with rebound(TOOLS=tools, _TIERS=("core", "EXTENDED", "beta")):
            self.assertEqual(docs.readme_tools_block(), lines(
                README_HEAD.format(3, "1 core and 1 EXTENDED and 1 beta"), "", *README_TABLE,
                "| **Core** | `b` | -- | y |", "| **Extended** | `a` | -- | x |",
                "| **Beta** | `c` | -- | z |"))
            self.assertEqual(docs.mcp_overview_block().split("\n")[3:], [
                "| 2 | `a` | -- | Extended | x |", "| 3 | `c` | -- | Beta | z |", "",
                "**Tiers:**", "", "- **Core** (1 tools): `b`", "- **Extended** (1 tools): `a`",
                "- **Beta** (1 tools): `c`"])

        # The README's tier cell is "**" + tier + "**": concatenated, never format()ted.
        class Shown(str):
            __format__ = lambda self, spec: "formatted"  # noqa: E731

        class Tier(str):
            capitalize = lambda self: self.word  # noqa: E731

        odd = tool("odd", Tier("core"), summary="s")
        with rebound(TOOLS=[odd], ordered_tools=lambda: [odd], _tier_counts=lambda: "n"):
            odd.tier.word = Shown("Alpha")
            self.assertEqual(docs.readme_tools_block().split("\n")[-1],
                             "| **Alpha** | `odd` | -- | s |")
            odd.tier.word = 5
            self.assertEqual(raised(self, TypeError, docs.readme_tools_block),
                             ('can only concatenate str (not "int") to str',))

    def test_texts_in_cells(self):
        # Texts are escaped for a cell; names and command lines are code spans, left as they are.
        odd = tool("a|b", actions=("x|y",), summary="Line one\n  line | two  ",
                   mcp_text=" {x} \\d\u00a0and\u2028more|", params=(param("p|q", required=True),))
        with rebound(TOOLS=[odd]):
            self.assertEqual(docs.skill_tools_block().split("\n")[-1],
                             "| `a|b` | `x|y` | {x} \\d and more\\| |")
            self.assertEqual(docs.readme_tools_block().split("\n")[-1],
                             "| **Core** | `a|b` | `x|y` | Line one line \\| two |")
            self.assertEqual(docs.mcp_overview_block().split("\n")[2],
                             "| 1 | `a|b` | `x|y` | Core | Line one line \\| two |")
            self.assertEqual(docs.mcp_cli_block().split("\n")[-1],
                             "| `a|b` | `quenor-dorvan query a|b --p|q <p|q>` |")
        with rebound(TOOLS=[tool("a"), tool("b", "beta")]):
            for block in (docs.skill_tools_block, docs.readme_tools_block,
                          docs.mcp_overview_block, docs.mcp_cli_block):
                self.assertEqual(raised(self, ValueError, block),
                                 ("tuple.index(x): x not in tuple",))


class ParamsTest(unittest.TestCase):
    PATH = {"type": "string", "description": "Directory to search"}
    LIMIT = {"type": "integer", "minimum": 1, "maximum": 100, "default": 20,
             "description": "How many results to return"}

    def render(self, actions, params, properties, required=()):
        asked = []
        schema = {"type": "object", "properties": properties, "required": list(required)}
        with rebound(get_cli_schema=lambda name: asked.append(name) or schema):
            text = docs.mcp_params_block(tool("example_search", actions=actions, params=params))
        self.assertEqual(asked, ["example_search"])
        return text

    def test_table(self):
        params = (param("path", required=True),
                  param("limit", default=20, action_defaults=(("list", 50),),
                        applies_to=("find", "list")))
        properties = {"path": self.PATH, "limit": self.LIMIT}
        self.assertEqual(self.render(("find", "list"), params, properties, ["path"]), lines(
            "**Actions:** `find` | `list`", "", "#### Parameters", "", *PARAMS_TABLE,
            "| `path` | `--path` | string | Yes | -- | all | Directory to search. |",
            "| `limit` | `--limit` | integer | No | 20 (list: 50) | find, list | How many results "
            "to return. Range: 1-100. |"))
        self.assertEqual(self.render((), params, properties, ["path"]), lines(
            "#### Parameters", "", *PLAIN_PARAMS_TABLE,
            "| `path` | `--path` | string | Yes | -- | Directory to search. |",
            "| `limit` | `--limit` | integer | No | 20 (list: 50) | How many results to return. "
            "Range: 1-100. |"))
        self.assertEqual(self.render((), (param("token_budget"),), {"token_budget": {"type": "x"}}),
                         lines("#### Parameters", "", *PLAIN_PARAMS_TABLE,
                               "| `token_budget` | `--token-budget` | x | No | -- |  |"))
        self.assertEqual(self.render(("find",), (), {}), lines(
            "**Actions:** `find`", "", "#### Parameters", "", *PARAMS_TABLE))

    def test_schema_must_name_the_same_parameters(self):
        calls = []
        record = lambda text: calls.append(text) or text  # noqa: E731
        for properties in ({"path": self.PATH}, {"limit": self.LIMIT, "path": self.PATH},
                           {"path": self.PATH, "limit": self.LIMIT, "more": {}}):
            with rebound(_cell=record, _code=record, _type_cell=record):
                self.assertEqual(raised(self, ValueError, lambda: self.render(
                    ("find",), (param("path"), param("limit")), properties)),
                    ("example_search: the CLI schema and the registry name different parameters",))
        self.assertEqual(calls, [])

    def test_rows_are_built_before_the_table(self):
        events = []
        table = lambda header, rows: events.append(("table", header, rows)) or ["T"]  # noqa: E731
        row = lambda cells: events.append(("row", tuple(cells))) or "R"  # noqa: E731
        properties = {"path": self.PATH, "limit": self.LIMIT}
        failing = (param("path"), param("limit", action_defaults=(("list",),)))
        for replaced in (dict(_table=table), dict(_row=row)):
            with rebound(**replaced):
                self.assertEqual(raised(self, ValueError, lambda: self.render(
                    ("find",), failing, properties)),
                    ("not enough values to unpack (expected 2, got 1)",))
        self.assertEqual(events, [])
        cells = ("`path`", "`--path`", "string", "No", "--", "all", "Directory to search.")
        with rebound(_table=table, _code=lambda text: events.append(text) or f"`{text}`"):
            self.assertEqual(self.render(("find",), failing[:1], {"path": self.PATH}), lines(
                "**Actions:** `find`", "", "#### Parameters", "", "T"))
        self.assertEqual(events, ["path", "--path", "find", ("table", PARAMS_TABLE_HEADER,
                                                             [cells])])
        events.clear()
        with rebound(_row=row):
            self.assertEqual(self.render(("find",), failing[:1], {"path": self.PATH}), lines(
                "**Actions:** `find`", "", "#### Parameters", "", "R", "R", "R"))
        self.assertEqual(events, [("row", PARAMS_TABLE_HEADER), ("row", ("---",) * 7),
                                  ("row", cells)])

    def test_default_cell(self):
        self.assertEqual([docs._default_cell(param("p", default=d)) for d in (20, None, False)],
                         ["20", "--", "false"])
        self.assertEqual(docs._default_cell(
            param("p", default=20, action_defaults=(("list", 50), ["find", 5]))),
            "20 (list: 50, find: 5)")
        self.assertEqual(docs._default_cell(param("p", action_defaults=(("list", 50),))),
                         "-- (list: 50)")
        with rebound(_NONE="none"):
            self.assertEqual(docs._default_cell(param("p")), "none")
        for pair, message in ((("list",), "not enough values to unpack (expected 2, got 1)"),
                              (("list", 1, 2), "too many values to unpack (expected 2)")):
            self.assertEqual(raised(self, ValueError, lambda: docs._default_cell(
                param("p", action_defaults=(pair,)))), (message,))

    def test_type_and_description_cells(self):
        self.assertEqual(docs._type_cell({"type": "array", "items": {"type": "string"}}),
                         "string[]")
        self.assertEqual(docs._type_cell({"type": "array"}), "array")
        self.assertEqual(docs._type_cell({"type": 5, "items": {"type": "x"}}), "5")
        for prop in ({}, {"type": "array", "items": {}}):
            self.assertEqual(raised(self, KeyError, lambda: docs._type_cell(prop)), ("type",))
        def cell(prop, values=""):
            return docs._description_cell(param("p", values=values), prop)

        self.assertEqual(cell({"description": "  Is it set?  "}), "Is it set?.")
        self.assertEqual(cell({"description": "Done.", "minimum": 0}), "Done. At least 0.")
        self.assertEqual(cell({"description": " \u2028\u00a0 ", "maximum": 9}), "At most 9.")
        self.assertEqual(cell({"minimum": None, "maximum": None}), "")
        self.assertEqual(cell({"minimum": 0.5, "maximum": True}), "Range: 0.5-true.")
        self.assertEqual(cell({"description": "a |\n b"}, "One of x."), "a \\| b. One of x.")
        formatters = []
        with rebound(_code=lambda text: f"<{text}>"):
            self.assertEqual(cell({"minimum": None}, lambda f: formatters.append(f) or f("v")),
                             "<v>")
            self.assertIs(formatters[0], docs._code)

    def test_fields_are_formatted_as_computed(self):
        # An f-string formats each field before it evaluates the next one.
        class Tier(str):
            capitalize = lambda self: Unformattable()  # noqa: E731

        low, calls = Unformattable(), []
        with rebound(_value=lambda value: calls.append(value) or value, TOOLS=[],
                     _TIERS=(Tier("core"),), _tier_tools=lambda tier: calls.append(tier) or []):
            for call in (lambda: docs._default_cell(param("p", default=1, action_defaults=(
                             (Unformattable(), 2),))),
                         lambda: docs._description_cell(param("p"), {"minimum": low, "maximum": 3}),
                         docs.mcp_overview_block):
                self.assertEqual(raised(self, RuntimeError, call), ("format",))
        self.assertEqual(calls, [1, low])


class TextBlocksTest(unittest.TestCase):
    def test_literal_skill_text_and_routes(self):
        self.assertEqual(docs._literal_text("a\\b {x}"), "a\\\\b {x}")
        self.assertEqual(docs._skill_text("a\\b {x}"), "a\\\\b {{x}}")
        with rebound(_literal_text=lambda block: block + "}"):
            self.assertEqual(docs._skill_text("{"), "{{}}")
        calls, result = [], object()
        table = lambda *args, **kwargs: calls.append((args, kwargs)) or result  # noqa: E731
        for frameworks in ({"a": "Alpha", "b": "Beta"}, {}):
            with rebound(skill_table=table, ENDPOINT_FRAMEWORKS=frameworks):
                self.assertIs(docs.skill_routes_block(), result)
        self.assertEqual(calls, [(({"frameworks": "Alpha, Beta"},), {}),
                                 (({"frameworks": ""},), {})])

    def test_rules_block(self):
        content = ("\n  intro\n<!-- registry:a -->\nold\n<!-- /registry:a -->\nmid\n"
                   "<!-- registry:b-2 -->\n<!-- /registry:b-2 -->\n\n")
        # Each block gets its own call; the table is not a substitution template.
        tables = []
        table = lambda: tables.append(0) or f"\\1 \\g<0> T{len(tables)}"  # noqa: E731

        with rebound(QUENOR_INSTRUCTION_CONTENT=content, rules_table=table):
            self.assertEqual(docs.rules_block(), "intro\n\\1 \\g<0> T1\nmid\n\\1 \\g<0> T2")
            with rebound(without_markers=lambda text: f" [{text}] "):
                self.assertEqual(docs.rules_block(), (
                    "[\n  intro\n<!-- registry:a -->\n\\1 \\g<0> T3\n<!-- /registry:a -->\nmid\n"
                    "<!-- registry:b-2 -->\n\\1 \\g<0> T4\n<!-- /registry:b-2 -->\n\n]"))
        with rebound(QUENOR_INSTRUCTION_CONTENT=" plain <!-- registry:a -->\n ", rules_table=table):
            self.assertEqual(docs.rules_block(), "plain")
        self.assertEqual(len(tables), 4)

        class Table:  # `open + table` lets the table's own __radd__ answer
            __radd__ = lambda self, other: other + "<table>"  # noqa: E731

        marked = "<!-- registry:a -->\nx\n<!-- /registry:a -->"
        with rebound(QUENOR_INSTRUCTION_CONTENT=marked, without_markers=str, rules_table=Table):
            self.assertEqual(docs.rules_block(), marked.replace("x", "<table>"))
            docs.rules_table = lambda: 5
            self.assertEqual(raised(self, TypeError, docs.rules_block),
                             ('can only concatenate str (not "int") to str',))
        # `_MARKER.sub` is looked up before the text it is given.
        with rebound(_MARKER=DELETE, QUENOR_INSTRUCTION_CONTENT=DELETE):
            self.assertEqual(raised(self, NameError, docs.rules_block),
                             ("name '_MARKER' is not defined",))


class LazyRowsTest(unittest.TestCase):
    def test_replaced_table_reads_rows_lazily(self):
        events, kept = [], []

        def table(header, rows):
            events.append(header)
            kept.append(rows)
            return ["T"]

        with rebound(TOOLS=[STATS, SEARCH], _table=table,
                     _code=lambda text: events.append(("code", text)) or f"<{text}>",
                     _cell=lambda text: events.append(("cell", text)) or "c",
                     _actions_cell=lambda t, none: events.append(("actions", none)) or "a"):
            self.assertEqual(docs.skill_tools_block(), lines(SKILL_HEAD.format(2), "", "T"))
            rows = kept[0]
            self.assertIs(iter(rows), rows)
            first = next(rows)
            self.assertEqual(events, [("Tool", "Actions", "Use for")])
            self.assertEqual(list(first), ["<example_search>", "a", "c"])
            self.assertEqual(events[1:], [("code", "example_search"), ("actions", "*(one call)*"),
                                          ("cell", SEARCH.mcp_text)])
            second = next(rows)
        # Read after the renderer returned and the names were restored: the module's own now.
        self.assertEqual(list(second), ["`example_stats`", "*(one call)*",
                                        "Counts what the index holds."])
        self.assertEqual(list(rows), [])

    def test_row_is_taken_before_row_function_is_looked_up(self):
        # Taking the next tool may rebind `_row`; that row already goes through the new one.
        def tools():
            yield SEARCH
            docs._row = lambda cells: "new " + "/".join(cells)
            yield STATS

        with rebound(TOOLS=[SEARCH, STATS], ordered_tools=tools, _row=docs._row):
            self.assertEqual(docs.mcp_cli_block().split("\n")[-2:],
                             ["| `example_search` | `quenor-dorvan query example-search --path <path>` |",
                              "new `example_stats`/`quenor-dorvan query example-stats`"])

    def test_replaced_row_gets_lazy_rows(self):
        events = []
        row = lambda cells: events.append("row") or "|".join(cells)  # noqa: E731
        code = lambda text: events.append(text) or text  # noqa: E731
        with rebound(TOOLS=[SEARCH, STATS], _row=row, _code=code):
            self.assertEqual(docs.mcp_overview_block().split("\n")[:4], [
                "#|Tool|Actions|Tier|Purpose", "---|---|---|---|---",
                "1|example_search|find, list|Core|Finds code by text.",
                "2|example_stats|--|Extended|Counts what the index holds."])
        # Tier lines first, then each row's cells only as `_row` reads them.
        self.assertEqual(events, ["example_search", "example_stats", "row", "row", "row",
                                  "example_search", "find", "list", "row", "example_stats"])

    def test_generators_end_at_an_error(self):
        # A generator that raised is finished: neither a row nor the rows go on after it.
        kept, failures = [], [RuntimeError("code")]

        def code(text):
            if failures:
                raise failures.pop()
            return text

        with rebound(TOOLS=[SEARCH], _table=lambda header, rows: kept.append(rows) or [],
                     _code=code):
            docs.mcp_cli_block()
            row = next(kept[0])
            self.assertEqual(raised(self, RuntimeError, lambda: next(row)), ("code",))
            with self.subTest("row"):
                self.assertEqual(list(row), [])
            failures.append(RuntimeError("tools"))
            # map goes on after a failed item: only the rows' own end can stop them.
            with rebound(ordered_tools=lambda: map(code, ["fails", SEARCH])):
                docs.mcp_cli_block()
            self.assertEqual(raised(self, RuntimeError, lambda: next(kept[1])), ("tools",))
            with self.subTest("rows"):
                self.assertEqual(list(kept[1]), [])


class ExampleHostTest(unittest.TestCase):
    def test_every_renderer_runs(self):
        for block in (docs.skill_tools_block, docs.mcp_intro_block, docs.mcp_overview_block,
                      docs.mcp_cli_block, docs.skill_routes_block, docs.rules_block):
            self.assertIs(type(block()), str)
        for entry in registry.TOOLS:
            self.assertIs(type(docs.mcp_params_block(entry)), str)
        self.assertEqual(docs.readme_tools_block().split("\n")[0], README_HEAD.format(
            14, "8 core and 6 extended"))
        self.assertEqual(docs.mcp_params_block(registry.get_tool("search")).split("\n")[8:-1], [
            "| `paths` | `--paths` | string[] | No |  | all | Limit the search to these files or "
            "directories; the whole repository when empty. |",
            "| `case_sensitive` | `--case-sensitive` | boolean | No | false | text, regex | Match "
            "letter case exactly. |",
            "| `limit` | `--limit` | integer | No | 50 (path: 200) | all | Largest number of hits "
            "to return. Range: 1-500. |"])


if __name__ == "__main__":
    unittest.main()
