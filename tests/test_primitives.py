"""Markdown primitives (code spans, cells, rows, tables, values) and the tool listing."""

import sys
import unittest

from support import docs, param, rebound, tool


class Spelled:
    """An object whose format() and str() differ."""

    def __format__(self, spec):
        return f"formatted{spec}"

    def __str__(self):
        return "plain"


def error(test, kind, call):
    with test.assertRaises(kind) as caught:
        call()
    return str(caught.exception)


class MarkdownTest(unittest.TestCase):
    def test_code_cell_row_value(self):
        for function, cases in [
                (docs._code, [("", "``"), ("a `b`", "`a `b``"), (5, "`5`"), (None, "`None`"),
                              (Spelled(), "`formatted`")]),
                (docs._cell, [("  a \n b\t|c  ", "a b \\|c"), ("a\\|b", "a\\\\|b"), ("  ", ""),
                              (" | ", "\\|"), ("\ud800 |\u200b\udfff", "\ud800 \\|\u200b\udfff"),
                              (type("Words", (str,), {"split": lambda self: ["x|y", "z"]})("i"), "x\\|y z")]),
                (docs._row, [([], "|  |"), (["a", ""], "| a |  |"), ((c for c in "ab"), "| a | b |")]),
                (docs._value, [(True, "true"), (False, "false"), (1e16, "1e+16"), (float("nan"), "nan"),
                               (-0.0, "-0.0"), (10**30, "1" + "0" * 30), (None, "None"), ("x|y", "x|y"),
                               ([1, [2, 3]], "1, 2, 3"), ([], ""), ((False, None), "false, None"),
                               (type("Pair", (tuple,), {})((1.5, True)), "1.5, true")])]:
            for value, expected in cases:
                self.assertEqual(function(value), expected, (function.__name__, value))
        self.assertEqual(error(self, AttributeError, lambda: docs._cell(5)),
                         "'int' object has no attribute 'split'")
        self.assertEqual(error(self, TypeError, lambda: docs._row(["a", 1])),
                         "sequence item 1: expected str instance, int found")
        value = docs._value
        with rebound(_value=lambda item: f"<{item}>"):
            self.assertEqual(value([1, [2]]), "<1>, <[2]>")

    def test_long_rows_keep_every_character_in_the_narrowest_kind(self):
        # Past a short row's own buffer and past the first chunks, a wider character late in the
        # text must widen all that came before it; a narrow text must stay narrow.
        long = "x" * 70_000
        for cells in ([long, "y"], [long, "é"], ["é" + long, "名", long, "\U0001f600"],
                      [long, long[:100], "ÿ"], ["\U0010ffff", long * 2]):
            expected = "| " + " | ".join(cells) + " |"
            row = docs._row(cells)
            self.assertEqual(row, expected)
            self.assertEqual(sys.getsizeof(row), sys.getsizeof(expected), [c[-1] for c in cells])

    def test_cell_whitespace_is_str_split_whitespace(self):
        # Every code point, between words and next to a space, in each of str's storage widths.
        texts = ["".join(f"a{chr(c)} {chr(c)}b" for c in range(256))]
        for start in range(0, 0x110000, 0x1000):
            chunk = "".join(f"a{chr(c)} {chr(c)}b" for c in range(start, start + 0x1000))
            texts += [chunk, chunk + "\U0001f600"]
        for text in texts:
            if docs._cell(text) != " ".join(text.split()).replace("|", "\\|"):
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
                        self.assertEqual(docs._cell(text), " ".join(text.split()).replace("|", "\\|"),
                                         repr(text))

    def test_table(self):
        events = []

        def rows():
            events.append("rows read")
            yield ["a", "b"]
            yield ("c",)

        def row(cells):
            events.append(list(cells))
            return f"row {len(events)}"

        with rebound(_row=row):
            self.assertEqual(docs._table(("A", "B"), rows()), ["row 1", "row 2", "row 4", "row 5"])
        self.assertEqual(events, [["A", "B"], ["---", "---"], "rows read", ["a", "b"], ["c"]])
        self.assertEqual(docs._table(("A", "B"), [["x", "y", "z"], []]),
                         ["| A | B |", "| --- | --- |", "| x | y | z |", "|  |"])
        # The header is read twice: a one-shot header leaves the rule empty.
        self.assertEqual(docs._table(iter(("A", "B")), []), ["| A | B |", "|  |"])

        class Header:  # `_row` is looked up before the rule's cells are made from the header
            reads = 0

            def __iter__(self):
                Header.reads += 1
                if Header.reads == 2:
                    docs._row = lambda cells: "new"
                return iter(("A",))

        with rebound(_row=docs._row):
            self.assertEqual(docs._table(Header(), [["x"]]), ["| A |", "| --- |", "new"])


class ListingTest(unittest.TestCase):
    def test_ordered_tools(self):
        stand_ins = [tool("a", "extended"), tool("b"), tool("c", "extended"), tool("d")]
        for tools in (stand_ins, iter(stand_ins)):
            with rebound(TOOLS=tools):
                self.assertEqual([t.name for t in docs.ordered_tools()], ["b", "d", "a", "c"])
        with rebound(TOOLS=stand_ins):
            first = docs.ordered_tools()
            self.assertIsNot(first, docs.ordered_tools())
        Positions = type("Positions", (tuple,), {
            "index": lambda self, tier: {"core": 0, "x": 1.5, "extended": "e"}[tier]})
        with rebound(TOOLS=[tool("a"), tool("b", "x"), tool("c", "extended")], _TIERS=Positions()):
            self.assertEqual(error(self, TypeError, docs.ordered_tools),
                             "'<' not supported between instances of 'str' and 'float'")

    def test_tier_tools_and_counts(self):
        AnyTier = type("AnyTier", (str,), {"__eq__": lambda self, other: True, "__hash__": str.__hash__})
        with rebound(TOOLS=[tool("a"), tool("b", "extended")]):
            self.assertEqual([t.name for t in docs._tier_tools(AnyTier("beta"))], ["a", "b"])
            with rebound(_TIERS=("core", "extended", "beta")):
                self.assertEqual(docs._tier_counts(), "1 core and 1 extended and 0 beta")

    def test_actions_cell_and_cli_usage(self):
        placeholder = object()
        self.assertIs(docs._actions_cell(tool("a"), placeholder), placeholder)
        self.assertEqual(docs._actions_cell(tool("a", actions=("by_name", "")), "--"), "`by_name`, ``")
        lookup = tool("lookup", params=(param("name", required=True), param("limit"),
                                        param("token_budget", required=True)))
        self.assertEqual(docs.cli_usage(lookup),
                         "quenor-dorvan query lookup --name <name> --token-budget <token_budget>")
        # Options are formatted into their words; the command is joined as it is.
        with rebound(snake_to_kebab=lambda name: name if name == "lookup" else Spelled()):
            self.assertEqual(docs.cli_usage(lookup),
                             "quenor-dorvan query lookup --formatted <name> --formatted <token_budget>")
        with rebound(snake_to_kebab=lambda name: Spelled()):
            self.assertEqual(error(self, TypeError, lambda: docs.cli_usage(lookup)),
                             "sequence item 1: expected str instance, Spelled found")


if __name__ == "__main__":
    unittest.main()
