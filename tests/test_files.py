"""Checking and writing files, on the module and the model: line ends, byte order marks, errors
that leave every file as it was, a path listed twice. Each file read and write is a site."""

import atexit
import itertools
import shutil
import tempfile
from pathlib import Path

from harness import Case, Comparison, block, docs, reached
from test_compare import delete, rebind


class Root(type(Path())):
    """A repository root whose files' reads and writes are sites."""

    def read_text(self, *args, **kwargs):
        return reached("read", f"read {self.name}") or super().read_text(*args, **kwargs)

    def write_bytes(self, data):
        return reached("write", f"write {self.name}") or super().write_bytes(data)


def record(path, *names, render=lambda name: f"new {name}"):
    return docs.GeneratedFile(path, tuple((name, lambda name=name: render(name)) for name in names))


def fail(error):
    raise error


Unprintable = type("Unprintable", (ValueError,), {"__str__": lambda self: fail(RuntimeError("str"))})


CURRENT = "# R\n" + block("a", "new a\n") + "\n" + block("b", "new b\n") + "\n"
STALE = {"README.md": "# R\n" + block("a", "old\n") + "\n" + block("b", "new b\n") + "\n",
         "docs/x.md": "\r\n".join(["", block("b", "x\r\n"), block("a", "y\r\n"), "\r"]),
         "docs/bom.md": "\ufeff" + block("c", "old\n")}
RECORDS = [record("README.md", "a", "b"), record("docs/x.md", "a", "b"), record("docs/bom.md", "c")]
SCENARIOS = {
    "current": ({"README.md": CURRENT, "docs/x.md": CURRENT.replace("\n", "\r\n"),
                 "docs/bom.md": "\ufeff" + block("c", "new c\n")}, RECORDS),
    "stale": (STALE, RECORDS),
    "wrong markers": ({"one.md": block("a", "old\n"), "two.md": block("a", "") + block("a", ""),
                       "three.md": block("c", "old\n")},
                      [record("one.md", "a"), record("two.md", "a"), record("three.md", "c")]),
    "listed twice": ({"README.md": block("a", "old\n")},
                     [record("README.md", "a"), record("README.md", "a", render=lambda name: "second")]),
    "missing": (STALE, [record("README.md", "a", "b"), record("gone.md", "a")]),
    "undecodable": ({**STALE, "bad.md": b"\xff" + block("a", "").encode()},
                    [record("README.md", "a", "b"), record("bad.md", "a")]),
    "renderer fails": (STALE, [record("README.md", "a", "b", render=lambda name: 1 / 0)]),
    "unencodable": ({**STALE, "bad.md": block("a", "")},
                    [record("README.md", "a", "b"), record("bad.md", "a", render=lambda name: "\ud800")]),
    "unprintable": (STALE, [record("README.md", "a", "b", render=lambda name: fail(Unprintable()))]),
}


BASE = tempfile.mkdtemp()
atexit.register(shutil.rmtree, BASE, True)


def world(files, catalogue):
    def bind(side):
        side.root = Root(BASE, "root")  # one path on both sides, for the messages
        for path, content in files.items():
            (side.root / path).parent.mkdir(parents=True, exist_ok=True)
            Path(side.root / path).write_bytes(content if isinstance(content, bytes) else content.encode())
        return {"generated_files": lambda: catalogue}

    return bind


def after(side):
    found = {str(p.relative_to(side.root)): p.read_bytes() for p in sorted(side.root.rglob("*")) if p.is_file()}
    shutil.rmtree(side.root)
    return found


def run(function):
    return lambda side: side.ns[function](side.root)


# What a caller may do while files are read or written: the names are looked up at each use.
ACTIONS = {"rebinds render_file": rebind(render_file=lambda text, generated: text.upper()),
           "deletes render_file": delete("render_file"), "deletes _read": delete("_read"),
           "rebinds _blocks": rebind(_blocks=lambda text: {"a": text}),
           "rebinds generated_files": rebind(generated_files=lambda: ()), "raises": lambda side: side.fail()}


def file_cases():
    for (label, scenario), function in itertools.product(SCENARIOS.items(), ("stale_blocks", "write_blocks")):
        yield Case(f"{label}: {function}", world(*scenario), run(function), after=after)
    for (site, nth), (label, action), function in itertools.product(
            (("read", 1), ("read", 3), ("write", 1)), ACTIONS.items(), ("stale_blocks", "write_blocks")):
        yield Case(f"{label}: at {site} #{nth}, in {function}", world(*SCENARIOS["stale"]), run(function),
                   site=site, nth=nth, action=action, after=after)
    yield Case("str root: write_blocks", lambda side: {}, lambda side: side.ns["write_blocks"]("."))


class FilesTest(Comparison):
    def test_check_and_write(self):
        ends = self.compared(file_cases())
        self.assertEqual(ends["current: write_blocks"][:2], ("ok", []))
        self.assertEqual(ends["stale: write_blocks"][:2], ("ok", [r.path for r in RECORDS]))
        self.assertEqual(ends["listed twice: write_blocks"][:2], ("ok", ["README.md"]))
        self.assertEqual(ends["unprintable: stale_blocks"][1:3], (RuntimeError, "str"))
