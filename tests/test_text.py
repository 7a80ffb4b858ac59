"""Texts, on the module and the model: cells against str.split on every code point, strs of the
right width, and the scanner of block markers."""

import itertools
import time

from harness import Case, Comparison, block, call, docs


def cell_cases():
    # Every code point between words and next to a space, in each of str's storage widths.
    texts = ["".join(f"a{chr(c)} {chr(c)}b" for c in range(256))]
    for start in range(0, 0x110000, 0x1000):
        chunk = "".join(f"a{chr(c)} {chr(c)}b" for c in range(start, start + 0x1000))
        texts += [chunk, chunk + "\U0001f600"]
    # Plain text is passed over 16 characters at a time: a space, a pair of them or another special
    # character at each place, next to block edges and at either end, one byte wide or wider.
    for size, special in itertools.product((15, 16, 17, 31, 32, 33, 48), (" ", "  ", "|", "\t", "\x1f", "\x85", "\xe9", "\x01")):
        texts += [base[:place] + special + base[place + 1:] for place in range(size)
                  for base in (("ab cd" * 10)[:size], ("ab cd" * 10)[:size] + "\u0100")]
    for number, text in enumerate(texts):
        yield Case(f"cell: {number}", lambda side: {}, call("_cell", text))


def width_cases():
    # Past a short row's own buffer and past the first chunks, a wider character late in the text
    # widens all that came before it; a narrow text stays narrow.
    long = "x" * 70_000
    for number, cells in enumerate(([long, "y"], [long, "é"], ["é" + long, "名", long, "\U0001f600"],
                                    [long, long[:100], "ÿ"], ["\U0010ffff", long * 2],
                                    ["é"[:0] + "plain", "ascii"], [("é" + long)[1:], "y"])):
        yield Case(f"width: row {number}", lambda side: {}, call("_row", cells))
        yield Case(f"width: code {number}", lambda side: {}, call("_code", cells[-1]))


A_OPEN, A_CLOSE = "<!-- registry:a -->\n", "<!-- /registry:a -->"
SCANNED = [
    "x\n" + A_OPEN + "body\n" + A_CLOSE + "\ny", A_OPEN + A_CLOSE,
    "<!-- registry:a -->" + A_CLOSE, "<!-- registry:a -->\r\n" + A_CLOSE,  # no line feed: no open
    "<!-- registry:a -->\n<!-- /registry:a-->", A_OPEN + "<!-- /registry:b -->" + A_CLOSE,  # another name's close is body text
    A_OPEN + block("b", "x") + A_CLOSE,  # and so is an open inside a body
    A_OPEN + A_OPEN + "x" + A_CLOSE + A_CLOSE,  # the outer open ends at the first close
    A_OPEN + "1" + A_CLOSE + A_OPEN + "2" + A_CLOSE, A_CLOSE + A_OPEN,
    "<!-- registry:z -->\n" + A_OPEN + "k" + A_CLOSE,  # an unclosed open is passed over
    block("p:x-1_B", "q"), block("a b", ""), block("a.b", ""), block("", ""), "\ud800" + block("a", "") + "\U0001f600",
    A_OPEN + "<!-- /registry:ab -->" + A_CLOSE,  # a longer name's close is not this one's
    block("é٣", "z\u4e00"), block("a\u200b", ""), block("𝔘", "\U0001f600"), block("Ⅻ", "\ud800")]


def marker_names():
    # Every one-byte code point, and a sample of the two- and four-byte ones, first, in the middle and
    # last in a block's name, in a text of its own storage width.
    for points in (range(256), range(256, 0x10000, 61), range(0x10000, 0x110000, 1999)):
        yield "".join(block(name, "") + "\n" for c in map(chr, points) for name in (c + "ab", "a" + c + "b", "ab" + c))


def scanner_cases():
    for number, text in enumerate([*SCANNED, *marker_names()]):
        for function in ("block_names", "_blocks"):
            yield Case(f"scan: {function} {number}", lambda side: {}, call(function, text))


class TextTest(Comparison):
    def test_cells_widths_and_markers(self):
        self.compared(itertools.chain(cell_cases(), width_cases(), scanner_cases()))

    def test_scan_is_linear_on_unclosed_opens(self):
        # The module only: the pattern's own engine takes over a minute here.
        text = "<!-- registry:b -->\n" * 20000 + block("a", "x\n")
        start = time.perf_counter()
        self.assertEqual(docs.block_names(text), ["a"])
        self.assertLess(time.perf_counter() - start, 1.0)
