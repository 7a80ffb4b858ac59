"""The module in subinterpreters beside the main one, and in threads that render while another
rebinds TOOLS: the module only, as what is at stake is its state per interpreter and its references."""

import _testcapi
import collections
import dataclasses
import sys
import threading
import unittest
from unittest import mock

import quenor_dorvan.tool_registry as registry
from harness import docs, example_copy

# All that the module's body imports, and what a use of it needs: all but the module.
BARE = (f"import gc, sys, weakref\nsys.path[:0] = {sys.path!r}\nimport collections.abc, dataclasses, inspect, pathlib\n"
        "import re, typing, quenor_dorvan.setup.config, quenor_dorvan.tool_registry, quenor_dorvan.tool_routes\n"
        "import quenor_dorvan.tool_schemas, quenor_dorvan.workers.api_endpoints\n")
# A use: render with rows kept by a replaced `_table`, read them once the module's own `_table` is
# back, and check a copy of the example host, all as in the main interpreter. Let go of and
# collected, the module, its state, functions and a kept row must then be freed.
USE = """import quenor_dorvan.setup.registry_docs as docs
for _ in range({rounds}):
    kept, own = [], docs._table
    docs._table = lambda header, rows: kept.append(rows) or []
    docs.skill_tools_block()
    docs._table = own
    row = next(kept[0])
    seen = [list(row), *map(list, kept[0])], docs.stale_blocks(pathlib.Path({root!r}))
state = next(item for item in gc.get_referents(own, row) if type(item).__name__ == "state")
weak = [weakref.ref(item) for item in (docs, own, type(own), type(state), type(row))]
docs.kept = [*kept, row]  # held by the module itself: only the collector can free them
del sys.modules[docs.__name__], sys.modules["quenor_dorvan.setup"].registry_docs, docs, kept, own, state, row
gc.collect()
alive = [repr(ref()) for ref in weak if ref()]
if alive or seen != {expected!r}:
    raise AssertionError(f"not freed: {{alive}}" if alive else f"rendered {{seen}}")
"""

# Each way to run code in a new subinterpreter here: 0 when it ran.
RUNNERS = {"shared GIL": _testcapi.run_in_subinterp}
if sys.version_info >= (3, 12):  # isolated, as created by default, with a GIL of its own
    interpreters = __import__("_interpreters" if sys.version_info >= (3, 13) else "_xxsubinterpreters")

    def own_gil(code):
        interpreter = interpreters.create()
        try:
            return interpreters.run_string(interpreter, code) or 0
        finally:
            interpreters.destroy(interpreter)
    RUNNERS["own GIL"] = own_gil


def copies(reworded):  # fresh copies of the example's tools; reworded ones change only texts the docs show
    return tuple(dataclasses.replace(tool, summary=tool.summary + " Again.", mcp_text=tool.mcp_text.upper())
                 if reworded else dataclasses.replace(tool) for tool in registry.TOOLS)


class ConcurrencyTest(unittest.TestCase):
    def test_each_subinterpreter_has_its_own_module_and_leaks_nothing(self):
        kept = []
        with mock.patch.dict(vars(docs), _table=lambda header, rows: kept.append(rows) or []):
            docs.skill_tools_block()
        with example_copy() as root:
            expected = [list(row) for row in kept[0]], docs.stale_blocks(root)
            once, often = (BARE + USE.format(root=str(root), expected=expected, rounds=rounds) for rounds in (1, 10))
            for label, run in RUNNERS.items():
                self.assertEqual(run(once), 0, label)

            def growth(source, rounds=4):  # one allocator for all interpreters: what one keeps shows here
                _testcapi.run_in_subinterp(source)  # warm-up: what the first run caches for the process
                before = sys.getallocatedblocks()
                self.assertEqual([_testcapi.run_in_subinterp(source) for _ in range(rounds)], [0] * rounds)
                return (sys.getallocatedblocks() - before) / rounds

            baseline, used = growth(BARE), growth(once)
            if baseline < 1:  # from 3.12 CPython keeps the blocks of every module a subinterpreter imported
                self.assertLess(used - baseline, 1)
            self.assertLess(growth(often) - used, 1)

    def test_threads_render_while_tools_are_rebound(self):
        calls = {name: getattr(docs, name) for name in (
            "skill_tools_block", "readme_tools_block", "mcp_overview_block", "mcp_cli_block", "rules_block")}
        calls["mcp_params_block"] = lambda: docs.mcp_params_block(registry.TOOLS[0])

        def renders(reworded):
            with mock.patch.dict(vars(docs), TOOLS=copies(reworded)):
                return {name: call() for name, call in calls.items()}
        first, second, seen, stop = renders(False), renders(True), collections.Counter(), threading.Event()

        def work(offset):
            while not stop.is_set():
                for name in list(calls)[offset:] + list(calls)[:offset]:
                    try:
                        result = calls[name]()
                        seen["A" if result == first[name] else "B" if result == second[name] else "neither"] += 1
                    except Exception as error:  # allowed, when rare: counted, never hidden
                        seen[f"{type(error).__name__}: {error}"] += 1

        def rebind():
            while not stop.is_set():
                docs.TOOLS = copies(docs.TOOLS[0].summary == registry.TOOLS[0].summary)

        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        self.addCleanup(stop.set)  # should a thread fail to start, those started still end
        sys.setswitchinterval(1e-5)  # switch threads often: every few host calls
        threads = [threading.Thread(target=work, args=(i,)) for i in range(4)] + [
            threading.Thread(target=rebind), threading.Timer(2, stop.set)]  # all run for two seconds
        with mock.patch.dict(vars(docs), TOOLS=registry.TOOLS):
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        self.assertEqual(seen["neither"], 0, seen)
        self.assertGreater(min(seen["A"], seen["B"]), 20, seen)  # both registries were seen
        self.assertLess(sum(seen.values()) - seen["A"] - seen["B"], sum(seen.values()) // 10, seen)
