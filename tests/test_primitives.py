"""Markdown primitives (code spans, cells, rows, tables, values) and the tool listing."""

import sys
import unittest

import quenor_dorvan.tool_registry as registry
from support import docs, param, rebound, tool

CORE = ["search", "lookup_symbol", "find_refs", "call_graph", "file_outline", "list_endpoints",
        "index_status", "project_config"]
EXTENDED = ["embeddings_search", "diff_impact", "dependency_graph", "test_map", "history",
            "code_metrics"]


def cell(text):
    """A table cell as the Markdown rules make it, spelled with str's own operations."""
    return " ".join(text.split()).replace("|", "\\|")


class Spelled:
    """An object whose format() and str() differ."""

    def __format__(self, spec):
        return f"formatted{spec}"

    def __str__(self):
        return "plain"


class MarkdownTest(unittest.TestCase):
    def test_code(self):
        self.assertEqual(docs._code(""), "``")
        self.assertEqual(docs._code("a `b`"), "`a `b``")
        self.assertEqual([docs._code(v) for v in (5, 0.5, True, None)],
                         ["`5`", "`0.5`", "`True`", "`None`"])
        self.assertEqual(docs._code(Spelled()), "`formatted`")

    def test_cell(self):
        self.assertEqual(docs._cell("  a \n b\t|c  "), "a b \\|c")
        self.assertEqual(docs._cell("a\\|b"), "a\\\\|b")
        self.assertEqual([docs._cell(t) for t in ("", "  ", "|", " | ")], ["", "", "\\|", "\\|"])
        self.assertEqual(docs._cell("\ud800 |\u200b\udfff"), "\ud800 \\|\u200b\udfff")
        self.assertEqual(docs._cell("a\x1cb\x85c\u3000 d\u200be"), "a b c d\u200be")

        class Words(str):
            def split(self):
                return ["x|y", "z"]

        self.assertEqual(docs._cell(Words("ignored")), "x\\|y z")
        with self.assertRaises(AttributeError) as caught:
            docs._cell(5)
        self.assertEqual(str(caught.exception), "'int' object has no attribute 'split'")

    def test_cell_whitespace_is_str_split_whitespace(self):
        # Every code point, between words and next to a space, in each of str's storage widths.
        texts = ["".join(f"a{chr(c)} {chr(c)}b" for c in range(256))]
        for start in range(0, 0x110000, 0x1000):
            chunk = "".join(f"a{chr(c)} {chr(c)}b" for c in range(start, start + 0x1000))
            texts += [chunk, chunk + "\U0001f600"]
        for text in texts:
            if docs._cell(text) != cell(text):
                self.fail(f"_cell differs from str.split in {ord(max(text)):#x}'s block")

    def test_cell_decides_blocks_of_plain_text(self):
        # Long texts are passed over 16 characters at a time: a space, a pair of them or another
        # special character at each place, next to block edges and at either end, in one-byte
        # texts of several lengths and in a wider one.
        for size in (15, 16, 17, 31, 32, 33, 48):
            plain = ("ab cd" * 10)[:size]
            for place in range(size):
                for special in (" ", "  ", "|", "\t", "\x1f", "\x85", "\xe9", "\x01"):
                    for base in (plain, plain + "\u0100"):
                        text = base[:place] + special + base[place + 1:]
                        self.assertEqual(docs._cell(text), cell(text), repr(text))

    def test_row(self):
        self.assertEqual(docs._row([]), "|  |")
        self.assertEqual(docs._row(["a", ""]), "| a |  |")
        self.assertEqual(docs._row(c for c in "ab"), "| a | b |")
        with self.assertRaises(TypeError) as caught:
            docs._row(["a", 1])
        self.assertEqual(str(caught.exception), "sequence item 1: expected str instance, int found")

    def test_table(self):
        events = []

        def rows():
            events.append("rows read")
            yield ["a", "b"]
            events.append("second row read")
            yield ("c",)

        def row(cells):
            events.append(list(cells))
            return f"row {len(events)}"

        generator = rows()
        with rebound(_row=row):
            self.assertEqual(docs._table(("A", "B"), generator),
                             ["row 1", "row 2", "row 4", "row 6"])
        self.assertEqual(events, [["A", "B"], ["---", "---"], "rows read", ["a", "b"],
                                  "second row read", ["c"]])
        self.assertEqual(list(generator), [])
        self.assertEqual(docs._table(("A", "B"), []), ["| A | B |", "| --- | --- |"])
        self.assertEqual(docs._table(("A", "B"), [["x", "y", "z"], []]),
                         ["| A | B |", "| --- | --- |", "| x | y | z |", "|  |"])
        # The header is read twice: a one-shot header leaves the rule empty.
        self.assertEqual(docs._table(iter(("A", "B")), []), ["| A | B |", "|  |"])

    def test_table_reads_row_before_the_rule(self):
        # `_row` is looked up before the rule's cells are made, as the call expression reads it.
        class Header:
            reads = 0

            def __iter__(self):
                Header.reads += 1
                if Header.reads == 2:
                    docs._row = lambda cells: "new"
                return iter(("A",))

        with rebound(_row=docs._row):
            self.assertEqual(docs._table(Header(), [["x"]]), ["| A |", "| --- |", "new"])

    def test_value(self):
        samples = [True, False, 0.5, 3.0, 1e-05, 1e16, float("inf"), float("nan"), -0.0,
                   10**30, 7, None, "x|y", [1, [2, 3]], [], (False, None)]
        self.assertEqual([docs._value(v) for v in samples],
                         ["true", "false", "0.5", "3.0", "1e-05", "1e+16", "inf", "nan", "-0.0",
                          "1" + "0" * 30, "7", "None", "x|y", "1, 2, 3", "", "false, None"])

        class Pair(tuple):
            pass

        value = docs._value
        self.assertEqual(value(Pair((1.5, True))), "1.5, true")
        with rebound(_value=lambda item: f"<{item}>"):
            self.assertEqual(value([1, [2]]), "<1>, <[2]>")
        looped = []
        looped.append(looped)
        nested = []
        for _ in range(100000):
            nested = [nested]
        for deep in (looped, nested):
            with self.assertRaises(RecursionError):
                docs._value(deep)


class ListingTest(unittest.TestCase):
    def test_ordered_tools(self):
        self.assertEqual([t.name for t in docs.ordered_tools()], CORE + EXTENDED)
        stand_ins = [tool("a", "extended"), tool("b"), tool("c", "extended"), tool("d")]
        for tools in (stand_ins, tuple(stand_ins), iter(stand_ins)):
            with rebound(TOOLS=tools):
                self.assertEqual([t.name for t in docs.ordered_tools()], ["b", "d", "a", "c"])
        with rebound(TOOLS=stand_ins):
            first = docs.ordered_tools()
            self.assertIsNot(first, docs.ordered_tools())
            first.clear()
            self.assertEqual(len(docs.ordered_tools()), 4)
            with rebound(_TIERS=("extended", "core")):
                self.assertEqual([t.name for t in docs.ordered_tools()], ["a", "c", "b", "d"])
        with rebound(TOOLS=[]):
            self.assertEqual(docs.ordered_tools(), [])
        with rebound(TOOLS=[tool("a"), tool("b", "beta")]), self.assertRaises(ValueError) as caught:
            docs.ordered_tools()
        self.assertEqual(str(caught.exception), "tuple.index(x): x not in tuple")

        class Positions(tuple):
            def index(self, tier):
                return {"core": 0, "x": 1.5, "extended": "e"}[tier]

        # Keys that do not compare fail on the pair list.sort compares first.
        with rebound(TOOLS=[tool("a"), tool("b", "x"), tool("c", "extended")], _TIERS=Positions()):
            with self.assertRaises(TypeError) as caught:
                docs.ordered_tools()
        self.assertEqual(str(caught.exception),
                         "'<' not supported between instances of 'str' and 'float'")

    def test_tier_tools_and_counts(self):
        self.assertEqual([t.name for t in docs._tier_tools("extended")], EXTENDED)
        self.assertEqual(docs._tier_tools("beta"), [])
        self.assertEqual(docs._tier_counts(), "8 core and 6 extended")

        class AnyTier(str):
            def __eq__(self, other):
                return True

            __hash__ = str.__hash__

        with rebound(TOOLS=[tool("a"), tool("b", "extended")]):
            self.assertEqual([t.name for t in docs._tier_tools(AnyTier("beta"))], ["a", "b"])
            with rebound(_TIERS=("core", "extended", "beta")):
                self.assertEqual(docs._tier_counts(), "1 core and 1 extended and 0 beta")
            with rebound(_TIERS=()):
                self.assertEqual(docs._tier_counts(), "")
        with rebound(TOOLS=()):
            self.assertEqual(docs._tier_counts(), "0 core and 0 extended")

    def test_actions_cell(self):
        placeholder = object()
        self.assertIs(docs._actions_cell(tool("a"), placeholder), placeholder)
        self.assertEqual(docs._actions_cell(tool("a", actions=("by_name", "by_path")), "--"),
                         "`by_name`, `by_path`")
        self.assertEqual(docs._actions_cell(tool("a", actions=("",)), "--"), "``")
        self.assertEqual(docs._actions_cell(registry.get_tool("code_metrics"), "--"),
                         "`complexity`")

    def test_cli_usage(self):
        lookup = tool("lookup", params=(param("name", required=True), param("limit"),
                                        param("token_budget", required=True)))
        self.assertEqual(docs.cli_usage(lookup),
                         "quenor-dorvan query lookup --name <name> --token-budget <token_budget>")
        self.assertEqual(docs.cli_usage(tool("index_status")), "quenor-dorvan query index-status")
        self.assertEqual(
            [docs.cli_usage(registry.get_tool(name)) for name in ("test_map", "list_endpoints")],
            ["quenor-dorvan query test-map --action <action> --targets <targets>"
             " --direct-only <direct_only>", "quenor-dorvan query list-endpoints"])
        # Options are formatted into their words; the command is joined as it is.
        with rebound(snake_to_kebab=lambda name: name if name == "lookup" else Spelled()):
            self.assertEqual(
                docs.cli_usage(lookup),
                "quenor-dorvan query lookup --formatted <name> --formatted <token_budget>")
        with rebound(snake_to_kebab=lambda name: Spelled()), self.assertRaises(TypeError) as caught:
            docs.cli_usage(lookup)
        self.assertEqual(str(caught.exception),
                         "sequence item 1: expected str instance, Spelled found")

if __name__ == "__main__":
    unittest.main()
