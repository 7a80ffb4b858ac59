"""The module in subinterpreters and in the main interpreter of one process."""

import json
import sys
import tempfile
import textwrap
import unittest
from pathlib import Path

import support
from support import docs

# What each interpreter does: render with rows kept by a replaced `_table`, read them after the
# module's own `_table` is back, and check a copy of the example host.
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


def runners():
    """Ways to run code in a new subinterpreter here: (label, run(code) -> None)."""
    found = []
    try:
        import _testcapi
    except ImportError:
        _testcapi = None
    if _testcapi is not None:
        def shared(code):
            if _testcapi.run_in_subinterp(code) != 0:
                raise AssertionError("the subinterpreter raised")
        found.append(("shared GIL", shared))
    interpreters = None
    if sys.version_info >= (3, 13):
        import _interpreters as interpreters
        create = lambda: interpreters.create("isolated")  # noqa: E731
    elif sys.version_info >= (3, 12):
        import _xxsubinterpreters as interpreters
        create = interpreters.create  # isolated, with a GIL of its own, by default
    if interpreters is not None:
        def own_gil(code):
            interpreter = create()
            try:
                failure = interpreters.run_string(interpreter, code)
                if failure is not None:
                    raise AssertionError(f"the subinterpreter raised: {failure}")
            finally:
                interpreters.destroy(interpreter)
        found.append(("own GIL", own_gil))
    return found


class SubinterpreterTest(unittest.TestCase):
    def test_each_interpreter_has_its_own_module(self):
        kept, own = [], docs._table
        docs._table = lambda header, rows: kept.append(rows) or []
        try:
            docs.skill_tools_block()
        finally:
            docs._table = own
        with support.example_copy() as root, tempfile.TemporaryDirectory() as scratch:
            out = Path(scratch) / "result.json"
            code = USE.format(path=sys.path, root=str(root), out=str(out), rounds=1)
            expected = None
            for label, run in runners():
                with self.subTest(label):
                    run(code)
                    result = json.loads(out.read_text())
                    if expected is None:
                        expected = {"rows": [list(row) for row in kept[0]],
                                    "readme": docs.readme_tools_block(),
                                    "stale": docs.stale_blocks(root)}
                        self.assertTrue(expected["stale"])
                    self.assertEqual(result, expected)
            self.assertIsNotNone(expected, "no way to make a subinterpreter here")
        # The main interpreter's module and its kept rows outlive every subinterpreter.
        self.assertEqual(docs.block_names(support.EXAMPLE.joinpath("README.md").read_text()),
                         ["readme-tools"])

    def test_nothing_leaks_across_subinterpreters(self):
        # With one allocator for all interpreters, what a subinterpreter keeps shows in the main
        # interpreter's count of blocks.
        label, run = runners()[0]
        with support.example_copy() as root, tempfile.TemporaryDirectory() as scratch:
            out = Path(scratch) / "result.json"
            used_once, used_often = (USE.format(path=sys.path, root=str(root), out=str(out),
                                                rounds=rounds) for rounds in (1, 10))
            # Everything the module's body imports, and the json the use needs: all but the module.
            bare = textwrap.dedent(f"""
                import sys
                sys.path[:0] = {sys.path!r}
                import collections.abc, dataclasses, inspect, json, pathlib, re, typing
                import quenor_dorvan.setup.config, quenor_dorvan.tool_registry
                import quenor_dorvan.tool_routes, quenor_dorvan.tool_schemas
                import quenor_dorvan.workers.api_endpoints
            """)

            def growth(source, rounds=6):
                run(source)  # warm-up: what the first run caches for the process
                before = sys.getallocatedblocks()
                for _ in range(rounds):
                    run(source)
                return (sys.getallocatedblocks() - before) / rounds

            baseline, once = growth(bare), growth(used_once)
            # From 3.12 CPython itself keeps blocks of every module a subinterpreter imported;
            # where it frees them all, the module must too.
            if baseline < 1:
                self.assertLess(once - baseline, 1, label)
            self.assertLess(growth(used_often) - once, 1, label)


if __name__ == "__main__":
    unittest.main()
