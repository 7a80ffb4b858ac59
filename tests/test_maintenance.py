"""Generated-file maintenance: the marker scanner, the catalogue, rendering a file, checking, writing."""

import inspect
import os
import re
import tempfile
import time
import unittest
from pathlib import Path

import support
from support import docs, rebound

MARKER = docs._MARKER


def block(name, body):
    return f"<!-- registry:{name} -->\n{body}<!-- /registry:{name} -->"


# render_file as the pure-Python model states it, on the module's own `_MARKER`.
reference_render_file = support.python_model()["render_file"]


class ScannerTest(unittest.TestCase):
    def test_linear_on_unclosed_opens(self):
        text = "<!-- registry:b -->\n" * 20000 + block("a", "x\n")
        start = time.perf_counter()
        self.assertEqual(docs.block_names(text), ["a"])  # the pattern's own engine: over a minute
        self.assertLess(time.perf_counter() - start, 1.0)

    def test_non_str_and_rebound_pattern(self):
        with self.assertRaises(TypeError) as expected:
            list(MARKER.finditer(b"x"))
        for function in (docs.block_names, docs._blocks):
            with self.assertRaises(TypeError) as caught:
                function(b"x")
            self.assertEqual(str(caught.exception), str(expected.exception))
        other = re.compile(r"(?P<open>\[\[(?P<name>\w+)\]\]\n)(?P<body>.*?)(?P<close>\[\[/(?P=name)\]\])",
                           re.S)
        text = "[[q]]\nold[[/q]] " + block("a", "kept\n")
        generated = docs.GeneratedFile("f.md", (("q", lambda: "\\g<0>"),), str.upper)
        with rebound(_MARKER=other):
            self.assertEqual(docs.block_names(text), ["q"])
            self.assertEqual(docs._blocks(text), {"q": "old"})
            self.assertEqual(docs.render_file(text, generated),
                             "[[q]]\n\\G<0>\n[[/q]] " + block("a", "kept\n"))
        # A rebound block_names decides what the file is checked against.
        with rebound(block_names=lambda text: ["q"]):
            self.assertEqual(docs.render_file("plain", generated), "plain")


class RenderFileTest(unittest.TestCase):
    def test_markers_must_match_the_record(self):
        calls = []

        def renderer(name):
            return lambda: calls.append(name) or f"<{name}>"

        def failure(text, *names):
            generated = docs.GeneratedFile("README.md", tuple((name, renderer(name)) for name in names))
            with self.assertRaises(ValueError) as caught:
                docs.render_file(text, generated)
            return str(caught.exception)

        for text, names, lists in [
                (block("extra", "") + block("z", ""), ("readme-tools", "b"),
                 "missing ['b', 'readme-tools'], unknown ['extra', 'z'], repeated []"),
                (block("a", ""), ("a", "a"), "missing [], unknown [], repeated []"),
                (block("b", "") + block("a", "") + block("b", "") + block("c", "") * 2, "abcd",
                 "missing ['d'], unknown [], repeated ['b', 'c']")]:
            self.assertEqual(failure(text, *names),
                             f"README.md: the markers do not match the blocks it holds ({lists})")
        self.assertEqual(calls, [])

        text = "head\n" + block("b", "old\n") + "\nmid\n" + block("a", "") + "\ntail"
        generated = docs.GeneratedFile("f.md", (("a", renderer("a")), ("b", renderer("b"))), str.upper)
        self.assertEqual(docs.render_file(text, generated),
                         "head\n" + block("b", "<B>\n") + "\nmid\n" + block("a", "<A>\n") + "\ntail")
        self.assertEqual(calls, ["b", "a"])
        literal = docs.GeneratedFile("f.md", (("a", lambda: r"\1 \g<name> \n"),))
        self.assertEqual(docs.render_file(block("a", ""), literal), block("a", "\\1 \\g<name> \\n\n"))

    def test_reads_in_the_order_of_the_expression(self):
        log = []

        class Record:
            path, blocks = "f.md", (("a", lambda: log.append("render a") or "a"),
                                    ("b", lambda: log.append("render b") or "b"))

            @property
            def encode(self):
                log.append("encode")
                return Suffix

        class Suffix(str):  # `str + Suffix(...)` reaches its __radd__
            def __radd__(self, other):
                return f"{other}<{self}>"

        text = block("b", "") + "\n" + block("a", "")
        self.assertEqual(docs.render_file(text, Record()), reference_render_file(text, Record()))
        self.assertEqual(log, ["encode", "render b", "encode", "render a"] * 2)


class NestedFunctionTest(unittest.TestCase):
    def test_argument_errors_match_the_nested_defs(self):
        # The closures a caller can reach, the module's beside the model's nested defs: a rebound
        # `_MARKER` keeps what render_file and rules_block hand to its `sub`.
        class Keeping:
            def __init__(self):
                self.kept = []

            def finditer(self, text):
                return MARKER.finditer(text)

            def sub(self, function, text):
                self.kept.append(function)
                return text

        marker, generated = Keeping(), docs.GeneratedFile("f.md", (("a", str),))
        with rebound(_MARKER=marker):
            sides = [docs.__dict__, support.python_model()]
            closures = []
            for side in sides:
                side["render_file"](block("a", ""), generated)
                side["rules_block"]()
                closures.append([side["_params_renderer"](support.tool("t")), *marker.kept])
                marker.kept.clear()

        def outcome(call):
            try:
                return call()
            except Exception as error:  # the error's text is what is compared
                return type(error).__name__, str(error)

        for native, model in zip(*closures):
            self.assertEqual(native.__qualname__, model.__qualname__)
            for call in (lambda f: f(), lambda f: f(1, 2), lambda f: f(x=1), lambda f: f(matc=1),
                         lambda f: f(1, match=2)):
                with self.subTest(model.__qualname__):
                    self.assertEqual(outcome(lambda: call(native)), outcome(lambda: call(model)))


class CatalogueTest(unittest.TestCase):
    def test_generated_files(self):
        tools = [support.tool("zeta", "extended"), support.tool("alpha"), support.tool("mid")]
        rendered = []
        with rebound(TOOLS=tools, mcp_params_block=lambda tool: rendered.append(tool) or tool.name):
            files = docs.generated_files()
            self.assertEqual(rendered, [])  # building the catalogue renders nothing
            self.assertEqual([(f.path, [name for name, _ in f.blocks], f.encode) for f in files], [
                ("src/quenor_dorvan/setup/skill_text.py", ["skill-routes", "skill-tools"], docs._skill_text),
                ("src/quenor_dorvan/setup/config.py", ["rules-routes"], docs._literal_text),
                ("docs/claude-instructions-template.md", ["rules-block"], str),
                ("README.md", ["readme-tools"], str),
                ("docs/mcp-tools.md", ["mcp-intro", "mcp-overview", "mcp-cli", "params:alpha", "params:mid",
                                       "params:zeta"], str)])
            self.assertEqual([r for _, r in files[0].blocks], [docs.skill_routes_block, docs.skill_tools_block])
            self.assertIs(files[1].blocks[0][1], docs.rules_table)
            renderers = [r for _, r in files[4].blocks[3:]]
            self.assertEqual([r() for r in renderers], ["alpha", "mid", "zeta"])
        with rebound(mcp_params_block=lambda tool: f"again {tool.name}"):
            self.assertEqual(renderers[2](), "again zeta")  # looked up at each call
        self.assertEqual((renderers[0].__name__, renderers[0].__qualname__, renderers[0].__doc__),
                         ("render", "_params_renderer.<locals>.render", None))
        # The closure looks like a nested def: no annotations, no parameters.
        self.assertEqual((renderers[0].__annotations__, str(inspect.signature(renderers[0]))), ({}, "()"))
        with rebound(GeneratedFile=lambda *args: args[0], ordered_tools=lambda: iter([support.tool("only")])):
            self.assertEqual(docs.generated_files(), ("src/quenor_dorvan/setup/skill_text.py",
                                                      "src/quenor_dorvan/setup/config.py",
                                                      "docs/claude-instructions-template.md", "README.md",
                                                      "docs/mcp-tools.md"))

    def test_docstrings(self):
        self.assertEqual(inspect.getdoc(docs.render_file), (
            "The text with each of its generated blocks rendered anew from the registry.\n\nRaises:\n"
            "    ValueError: The text lacks a block the file must hold, holds one twice, or holds one "
            "the file does not declare."))
        self.assertEqual(inspect.getdoc(docs.write_blocks), (
            "Render every generated block anew and write the files that changed.\n\nArgs:\n    root: "
            "The repository's root.\n\nReturns:\n    The paths of the files written, relative to the "
            "root.\n\nRaises:\n    ValueError: A file's markers are wrong; nothing is written then."))
        self.assertTrue(docs.stale_blocks.__doc__.startswith(
            "The generated files whose blocks differ from what the registry renders, one line each.\n"))


class FilesTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def write(self, path, content):
        file = self.root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content if isinstance(content, bytes) else content.encode())
        os.utime(file, ns=(10**18, 10**18))

    def snapshot(self):
        return {str(p.relative_to(self.root)): (p.read_bytes(), p.stat().st_mtime_ns)
                for p in sorted(self.root.rglob("*")) if p.is_file()}

    def record(self, path, *names, render=lambda name: f"new {name}"):
        return docs.GeneratedFile(path, tuple((name, lambda name=name: render(name)) for name in names))

    def run_both(self, catalogue):
        with rebound(generated_files=lambda: catalogue):
            problems = docs.stale_blocks(self.root)
            before = self.snapshot()
            return problems, before, docs.write_blocks(self.root)

    def test_check_and_write(self):
        current = "# R\n" + block("a", "new a\n") + "\n" + block("b", "new b\n") + "\n"
        self.write("README.md", current)
        self.write("docs/x.md", current.replace("\n", "\r\n"))
        self.write("docs/bom.md", "\ufeff" + block("c", "new c\n"))
        catalogue = (self.record("README.md", "a", "b"), self.record("docs/x.md", "a", "b"),
                     self.record("docs/bom.md", "c"))
        problems, before, written = self.run_both(catalogue)
        self.assertEqual((problems, written), ([], []))
        self.assertEqual(self.snapshot(), before)
        self.assertEqual(docs._read(self.root, catalogue[1]), current)

        self.write("README.md", "# R\n" + block("a", "old\n") + "\n" + block("b", "new b\n") + "\n")
        self.write("docs/x.md", "\r\n".join(["", block("b", "x\r\n"), block("a", "y\r\n"), "\r"]))
        self.write("docs/bom.md", "\ufeff" + block("c", "old\n"))
        problems, before, written = self.run_both(catalogue)
        self.assertEqual(problems, ["README.md: blocks out of date: a", "docs/x.md: blocks out of date: b, a",
                                    "docs/bom.md: blocks out of date: c"])
        self.assertEqual(written, ["README.md", "docs/x.md", "docs/bom.md"])
        self.assertEqual((self.root / "README.md").read_bytes(), current.encode())
        self.assertEqual((self.root / "docs/x.md").read_bytes(),
                         ("\n" + block("b", "new b\n") + "\n" + block("a", "new a\n") + "\n\n").encode())
        self.assertEqual((self.root / "docs/bom.md").read_bytes(),
                         ("\ufeff" + block("c", "new c\n")).encode())
        with rebound(generated_files=lambda: catalogue):
            self.assertEqual(docs.stale_blocks(self.root), [])

    def test_wrong_markers_stop_the_writer(self):
        self.write("one.md", block("a", "old\n"))
        self.write("two.md", block("a", "") + block("a", ""))
        self.write("three.md", block("c", "old\n"))
        catalogue = (self.record("one.md", "a"), self.record("two.md", "a"), self.record("three.md", "c"))
        before = self.snapshot()
        with rebound(generated_files=lambda: catalogue):
            self.assertEqual(docs.stale_blocks(self.root), [
                "one.md: blocks out of date: a",
                "two.md: the markers do not match the blocks it holds (missing [], unknown [], repeated ['a'])",
                "three.md: blocks out of date: c"])
            with self.assertRaises(ValueError) as caught:
                docs.write_blocks(self.root)
        self.assertEqual(str(caught.exception), "two.md: the markers do not match the blocks it holds "
                                                "(missing [], unknown [], repeated ['a'])")
        self.assertEqual(self.snapshot(), before)

    def test_errors_pass_through(self):
        self.write("one.md", block("a", "old\n"))
        self.write("bad.md", b"\xff" + block("a", "").encode())
        for missing, error in [("gone.md", FileNotFoundError), ("bad.md", UnicodeDecodeError)]:
            catalogue = (self.record("one.md", "a"), self.record(missing, "a"))
            with rebound(generated_files=lambda: catalogue):
                self.assertRaises(error, docs.stale_blocks, self.root)
                self.assertRaises(error, docs.write_blocks, self.root)
        with rebound(generated_files=lambda: (self.record("one.md", "a", render=lambda name: 1 / 0),)):
            self.assertRaises(ZeroDivisionError, docs.stale_blocks, self.root)

        class Unprintable(ValueError):
            def __str__(self):
                raise RuntimeError("str")

        # An error while a ValueError becomes a line has it as its context, as in an except block.
        raised = Unprintable()
        with rebound(generated_files=lambda: (self.record("one.md", "a", render=lambda name: (
                _ for _ in ()).throw(raised)),)):
            with self.assertRaises(RuntimeError) as caught:
                docs.stale_blocks(self.root)
        self.assertIs(caught.exception.__context__, raised)
        surrogate = (self.record("one.md", "a"), self.record("bad.md", "a", render=lambda name: "\ud800"))
        self.write("bad.md", block("a", ""))
        before = self.snapshot()
        with rebound(generated_files=lambda: surrogate):
            self.assertEqual(docs.stale_blocks(self.root), ["one.md: blocks out of date: a",
                                                            "bad.md: blocks out of date: a"])
            self.assertRaises(UnicodeEncodeError, docs.write_blocks, self.root)
            self.assertEqual(self.snapshot(), before)
            for function in (docs.stale_blocks, docs.write_blocks):
                with self.assertRaises(TypeError) as caught:
                    function(str(self.root))
                self.assertEqual(str(caught.exception), "unsupported operand type(s) for /: 'str' and 'str'")

    def test_a_path_listed_twice_is_written_once(self):
        # The second record compares with the file as the first one's write leaves it.
        self.write("README.md", block("a", "old\n"))
        catalogue = (self.record("README.md", "a"),
                     self.record("README.md", "a", render=lambda name: "second"))
        writes, native = [], Path.write_bytes

        def write_bytes(path, data):
            writes.append((path, data))
            return native(path, data)

        Path.write_bytes = write_bytes
        try:
            problems, _, written = self.run_both(catalogue)
        finally:
            Path.write_bytes = native
        self.assertEqual(problems, ["README.md: blocks out of date: a"] * 2)
        self.assertEqual(written, ["README.md"])
        self.assertEqual(writes, [(self.root / "README.md", block("a", "second\n").encode())])

    def test_writer_reads_every_file_twice_before_writing(self):
        self.write("one.md", block("a", "old\n"))
        self.write("two.md", block("a", "new a\n"))
        catalogue = (self.record("one.md", "a"), self.record("two.md", "a"))
        reads, native = [], docs._read

        def read(root, generated):
            reads.append((generated.path, (root / "one.md").read_text()))
            return native(root, generated)

        with rebound(generated_files=lambda: catalogue, _read=read):
            self.assertEqual(docs.write_blocks(self.root), ["one.md"])
        self.assertEqual(reads, [(p, block("a", "old\n")) for p in ("one.md", "two.md", "one.md", "two.md")])


if __name__ == "__main__":
    unittest.main()
