"""Rows and callbacks that a caller keeps after the call returned, on the module and the model."""

import gc
import re
import weakref

from harness import Case, Comparison, Record, docs, outcome
from test_compare import CALLS, FILE_TEXT, stand_ins


def keeping(side):
    """The stand-ins, with a `_table` that keeps the rows it is given."""
    side.kept = []
    return dict(stand_ins(side), _table=lambda header, rows: side.kept.append(rows) or ["kept"])


def read_later(side, name):
    # Kept rows are read after the names and the registry changed: each cell is made from the
    # module as it is then.
    result = CALLS[name](side)
    side.ns["_code"] = lambda value: f"<{value}>"
    side.ns["TOOLS"].clear()
    del side.tools[1].fields["summary"]
    first = list(next(rows := iter(side.kept.pop())))
    side.ns["_NONE"] = None
    return result, first, [outcome(side, lambda side: list(row)) for row in rows]


def as_generators(side):
    # A row whose cell raised is finished, a row read from inside one of its own cells is already
    # executing, and rows kept only in a cycle are collected.
    side.ns["skill_tools_block"]()
    first, second = next(rows := side.kept.pop()), next(rows)
    side.ns["_code"] = lambda value: side.fail()
    ends = [outcome(side, lambda side: list(first)) for _ in range(2)]
    side.ns["_code"] = lambda value: next(second)
    ends.append(outcome(side, lambda side: list(second)))
    probe = Record("probe", name="probe", tier="core", action_names=[])
    side.ns["ordered_tools"] = lambda: [probe]
    side.ns["skill_tools_block"]()
    probe.fields["rows"], probe = side.kept.pop(), weakref.ref(probe)
    gc.collect()
    return ends, probe() is None


PATTERN = re.compile(docs._MARKER.pattern, docs._MARKER.flags)


# A `_MARKER` whose `sub` keeps the function it is given.
Keeping = type("Keeping", (), {"__init__": lambda self: setattr(self, "kept", []),
                               "finditer": lambda self, text: PATTERN.finditer(text),
                               "sub": lambda self, function, text: self.kept.append(function) or PATTERN.sub(function, text)})


def marker_keeping(side):
    side.marker = Keeping()
    return dict(stand_ins(side), _MARKER=side.marker)


def replacement_later(side, name, text):
    # Called again once the call returned and the caller dropped its record: Python runs the
    # closure with what it holds, and renders as during the call.
    result, side.record = CALLS[name](side), None
    gc.collect()
    return result, [again(match) for again in side.marker.kept for match in PATTERN.finditer(text)]


def kept_cases():
    for name in ("skill_tools_block", "mcp_overview_block", "mcp_cli_block", "mcp_params_block"):
        yield Case(f"rows: read after {name}", keeping, lambda side, name=name: read_later(
            side, name))
    yield Case("generators", keeping, as_generators)
    yield Case("marker: render_file", marker_keeping, lambda side: replacement_later(
        side, "render_file", FILE_TEXT))
    yield Case("marker: rules_block", marker_keeping, lambda side: replacement_later(
        side, "rules_block", side.ns["QUENOR_INSTRUCTION_CONTENT"]))


class KeptTest(Comparison):
    def test_kept_rows_and_replacement_functions(self):
        # The rows kept in a cycle were collected.
        self.assertEqual(self.compared(kept_cases())["generators"][1][-1], True)
