"""Block renderers: the details that the comparison with the model (test_differential) cannot reach."""

import unittest

from support import DELETE, docs, param, rebound, tool

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
    def test_readme_tier_cell_is_concatenated(self):
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

    def test_params_schema_must_name_the_registry_params(self):
        params = (param("path"), param("limit"))
        properties = {"path": PATH, "limit": LIMIT}
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

    def test_row_is_taken_before_row_function_is_looked_up(self):
        # Taking the next tool may rebind `_row`; that row already goes through the new one.
        first, second = tool("a_b", summary="x"), tool("c", summary="y")

        def tools():
            yield first
            docs._row = lambda cells: "new " + "/".join(cells)
            yield second

        with rebound(TOOLS=[first, second], ordered_tools=tools, _row=docs._row):
            self.assertEqual(docs.mcp_cli_block().split("\n")[-2:], [
                "| `a_b` | `quenor-dorvan query a-b` |", "new `c`/`quenor-dorvan query c`"])

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
