"""Four threads check and render while a fifth rebinds TOOLS between two registries."""

import collections
import dataclasses
import sys
import threading
import time
import unittest

import quenor_dorvan.tool_registry as registry
import support
from support import docs, rebound

SECONDS = 3


def copies(reworded):
    """Fresh copies of the example's tools (each rebinding drops the previous ones); the reworded
    registry changes only texts read from listed tools, so every result is one registry's."""
    return tuple(dataclasses.replace(tool, summary=tool.summary + " Again.",
                                     mcp_text=tool.mcp_text.upper()) if reworded
                 else dataclasses.replace(tool) for tool in registry.TOOLS)


class ThreadsTest(unittest.TestCase):
    def test_rebinding_while_rendering(self):
        with support.example_copy() as root:
            docs.write_blocks(root)
            catalogue = docs.generated_files()
            texts = {record.path: (root / record.path).read_text() for record in catalogue}
            calls = {name: getattr(docs, name) for name in (
                "skill_tools_block", "readme_tools_block", "mcp_intro_block",
                "mcp_overview_block", "mcp_cli_block", "skill_routes_block", "rules_block")}
            calls["mcp_params_block"] = lambda: docs.mcp_params_block(registry.TOOLS[0])
            calls.update({f"render_file {record.path}": lambda record=record: docs.render_file(
                texts[record.path], record) for record in catalogue})
            calls["stale_blocks"] = lambda: docs.stale_blocks(root)
            expected = {}
            for label, reworded in (("A", False), ("B", True)):
                with rebound(TOOLS=copies(reworded)):
                    expected[label] = {name: call() for name, call in calls.items()}
            self.assertNotEqual(expected["A"]["stale_blocks"], expected["B"]["stale_blocks"])

            by_file = lambda lines: {line.split(":")[0]: line for line in lines}  # noqa: E731
            def registry_of(name, result):
                for label in ("A", "B"):
                    if result == expected[label][name]:
                        return label
                if name == "stale_blocks":
                    # The check renders file after file, calling host code in between: each
                    # file's line is one registry's, and the files keep the catalogue's order.
                    lines, paths = by_file(result), [record.path for record in catalogue]
                    options = [by_file(expected[label][name]) for label in "AB"]
                    if (list(lines) == [path for path in paths if path in lines] and all(
                            lines.get(path) in (option.get(path) for option in options)
                            for path in paths)):
                        return "A and B by file"
                return "neither"

            seen, odd, stop = collections.Counter(), [], threading.Event()

            def work(offset):
                names = list(calls)
                names = names[offset:] + names[:offset]
                while not stop.is_set():
                    for name in names:
                        try:
                            kind = registry_of(name, calls[name]())
                        except Exception as error:  # allowed: counted and shown, never hidden
                            kind = f"error {type(error).__name__}: {error}"
                        seen[name, kind] += 1
                        if kind == "neither" and len(odd) < 3:
                            odd.append(name)

            def rebind():
                reworded = False
                while not stop.is_set():
                    docs.TOOLS = copies(reworded)
                    reworded = not reworded

            interval = sys.getswitchinterval()
            sys.setswitchinterval(1e-5)  # switch threads often: every few host calls
            threads = [threading.Thread(target=work, args=(i,)) for i in range(4)]
            threads.append(threading.Thread(target=rebind))
            try:
                with rebound(TOOLS=registry.TOOLS):
                    for thread in threads:
                        thread.start()
                    time.sleep(SECONDS)
                    stop.set()
                    for thread in threads:
                        thread.join()
            finally:
                stop.set()
                sys.setswitchinterval(interval)

        kinds = collections.Counter()
        for (_, kind), count in seen.items():
            kinds[kind.split(":")[0]] += count
        self.assertEqual(odd, [], f"results of neither registry: {seen}")
        # Both registries were seen, and errors (allowed) stayed rare.
        self.assertGreater(kinds["A"], 20, seen)
        self.assertGreater(kinds["B"], 20, seen)
        self.assertLess(sum(n for kind, n in kinds.items() if kind.startswith("error")),
                        sum(kinds.values()) // 10, seen)


if __name__ == "__main__":
    unittest.main()
