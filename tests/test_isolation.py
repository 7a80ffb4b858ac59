"""The module in subinterpreters and in the main interpreter of one process."""

import json
import sys
import tempfile
import textwrap
import unittest
from pathlib import Path

import support
from support import docs

# Each interpreter renders with rows kept by a replaced `_table`, reads them after the module's own
# `_table` is back, and checks a copy of the example host.
USE = textwrap.dedent("""
    import json, sys
    from pathlib import Path
    sys.path[:0] = {path!r}
    import quenor_dorvan.setup.registry_docs as docs
    for _ in range({rounds}):
        kept, own = [], docs._table
        docs._table = lambda header, rows: kept.append(rows) or []
        docs.skill_tools_block()
        docs._table = own
        result = {{"rows": [list(row) for row in kept[0]], "readme": docs.readme_tools_block(),
                   "stale": docs.stale_blocks(Path({root!r}))}}
    Path({out!r}).write_text(json.dumps(result))
""")
# Everything the module's body imports, and the json the use needs: all but the module.
BARE = textwrap.dedent(f"""
    import sys
    sys.path[:0] = {sys.path!r}
    import collections.abc, dataclasses, inspect, json, pathlib, re, typing
    import quenor_dorvan.setup.config, quenor_dorvan.tool_registry, quenor_dorvan.tool_routes
    import quenor_dorvan.tool_schemas, quenor_dorvan.workers.api_endpoints
""")


def runners():
    """(label, run(code)) for each way to run code in a new subinterpreter here."""
    found = []
    try:
        import _testcapi
    except ImportError:
        _testcapi = None
    if _testcapi is not None:
        def shared(code):
            assert _testcapi.run_in_subinterp(code) == 0, "the subinterpreter raised"
        found.append(("shared GIL", shared))
    if sys.version_info >= (3, 12):
        if sys.version_info >= (3, 13):
            import _interpreters as interpreters
            create = lambda: interpreters.create("isolated")  # noqa: E731
        else:
            import _xxsubinterpreters as interpreters
            create = interpreters.create  # isolated, with a GIL of its own, by default

        def own_gil(code):
            interpreter = create()
            try:
                failure = interpreters.run_string(interpreter, code)
                assert failure is None, f"the subinterpreter raised: {failure}"
            finally:
                interpreters.destroy(interpreter)
        found.append(("own GIL", own_gil))
    return found


class SubinterpreterTest(unittest.TestCase):
    def test_each_interpreter_has_its_own_module_and_leaks_nothing(self):
        kept, own = [], docs._table
        docs._table = lambda header, rows: kept.append(rows) or []
        try:
            docs.skill_tools_block()
        finally:
            docs._table = own
        with support.example_copy() as root, tempfile.TemporaryDirectory() as scratch:
            out = Path(scratch) / "result.json"
            once, often = (USE.format(path=sys.path, root=str(root), out=str(out), rounds=rounds)
                           for rounds in (1, 10))
            expected = None
            for label, run in runners():
                with self.subTest(label):
                    run(once)
                    if expected is None:
                        expected = {"rows": [list(row) for row in kept[0]],
                                    "readme": docs.readme_tools_block(), "stale": docs.stale_blocks(root)}
                        self.assertTrue(expected["stale"])
                    self.assertEqual(json.loads(out.read_text()), expected)
            self.assertIsNotNone(expected, "no way to make a subinterpreter here")
            # With one allocator for all interpreters, what a subinterpreter keeps shows here.
            label, run = runners()[0]

            def growth(source, rounds=6):
                run(source)  # warm-up: what the first run caches for the process
                before = sys.getallocatedblocks()
                for _ in range(rounds):
                    run(source)
                return (sys.getallocatedblocks() - before) / rounds

            baseline, used = growth(BARE), growth(once)
            # From 3.12 CPython keeps blocks of every module a subinterpreter imported; where it
            # frees them all, the module must too.
            if baseline < 1:
                self.assertLess(used - baseline, 1, label)
            self.assertLess(growth(often) - used, 1, label)
        # The main interpreter's module and its kept rows outlive every subinterpreter.
        self.assertEqual(docs.block_names(support.EXAMPLE.joinpath("README.md").read_text()),
                         ["readme-tools"])


if __name__ == "__main__":
    unittest.main()
