"""The example host as its users run it: the maintenance script by hand, in CI and from
pre-commit, and the Markdown it writes as GitHub renders it (cmark-gfm with its table extension)."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from harness import docs, example_copy

CMARK_GFM = shutil.which("cmark-gfm")
PATHS = [generated.path for generated in docs.generated_files()]
HINT = "run `python3 scripts/gen_registry_docs.py {}--write`, then commit the files it prints\n"


def run(root, *args, env=None):
    done = subprocess.run([sys.executable, "-X", "dev", str(root / "scripts/gen_registry_docs.py"), *args],
                          capture_output=True, env=env or dict(os.environ, PYTHONPATH=str(root / "src")))
    # Decoded by hand: text mode would turn the "\r\n" of a diff line into "\n".
    return done.returncode, done.stdout.decode(), done.stderr.decode()


def change(file, edits, newline="\n"):
    """Rewrites `file` with `edits` (old: new) and `newline`, a lone surrogate as its byte; None removes it."""
    if edits is None:
        return file.unlink()
    text = file.read_text(encoding="utf-8")
    for old, new in edits.items():
        text = text.replace(old, new)
    file.write_bytes(text.replace("\n", newline).encode("utf-8", "surrogateescape"))


def files(root):
    return {path: (root / path).read_bytes() if (root / path).exists() else None for path in PATHS}


def lines(texts):
    return "".join(f"{text}\n" for text in texts)


class ExampleTest(unittest.TestCase):
    @unittest.skipUnless(shutil.which("git"), "git is not installed")
    def test_check_diff_and_write(self):
        with example_copy(True) as root, example_copy() as patched:
            for tree in (root, patched):
                # Only "\n" ends a line of the diff: a form feed or U+2028 in the hand-written text
                # stays inside its line; a file may end right after a block, without a line end.
                change(tree / "README.md", {"\n\n<!-- registry:readme-tools": "\f\u2028\n\n<!-- registry:readme-tools"})
                text = (tree / "docs/mcp-tools.md").read_text(encoding="utf-8")
                change(tree / "docs/mcp-tools.md", {text[text.index(" -->", text.rindex("<!-- /registry:")) + 4:]: ""})
                # A CRLF file: --write leaves it with "\n" line ends, and the diff says so.
                change(tree / "docs/claude-instructions-template.md", {}, "\r\n")
            report = lines(docs.stale_blocks(root))
            self.assertEqual([run(root, "--check"), run(root, "--check", "--root", str(root))],
                             [(1, report, HINT.format("")), (1, report, HINT.format(f"--root {root} "))])
            status, out, err = run(root, "--check", "--diff")
            self.assertEqual((status, out[:len(report)], err), (1, report, HINT.format("")))
            patch = out[len(report):]
            headers = [line for line in patch.split("\n") if line.startswith(("--- a/", "+++ b/"))]
            self.assertEqual(headers, [f"{side}{path}" for path in PATHS for side in ("--- a/", "+++ b/")])
            # The diff is the change that --write makes, as git reads it.
            subprocess.run(["git", "apply", "--whitespace=nowarn", "-"], input=patch.encode(),
                           cwd=patched, check=True, capture_output=True)
            self.assertEqual([run(root, "--write"), files(root), run(root, "--write"), run(root, "--check", "--diff")],
                             [(0, lines(PATHS), ""), files(patched), (0, "", ""),
                              (0, "", "all generated blocks are current\n")])

    def test_errors_are_one_line_and_marker_faults_name_their_lines(self):
        mcp, cli = "docs/mcp-tools.md", "registry:mcp-cli -->"
        typo = "not read as a marker: write <!-- registry:NAME --> or <!-- /registry:NAME --> exactly"
        cases = [  # a file and its edits, the arguments, the error line (None: the module's), each "PATH:" fault after it
            (mcp, None, (), "docs/mcp-tools.md: No such file or directory", []),
            ("README.md", {"# quenor-dorvan": "\udcff# quenor-dorvan"}, (),
             "README.md: 'utf-8' codec can't decode byte 0xff in position 0: invalid start byte", []),
            ("src/quenor_dorvan/tool_schemas.py", {'"properties": {': '"properties": {"stray": {"type": "string"}} | {'},
             (), "search: the CLI schema and the registry name different parameters", []),
            ("src/quenor_dorvan/setup/" + Path(docs.__file__).name, None, (),
             "cannot load the generator: No module named 'quenor_dorvan.setup.registry_docs'", []),
            ("README.md", {}, ("--root", "nowhere"), "nowhere: not a directory", []),
            (mcp, {f"<!-- {cli}": "<!-- registry:mcp-clii -->"}, (), None, [
                '36: open marker "mcp-clii" has no close marker after it; did you mean "mcp-cli"?',
                '36: block "mcp-cli" is missing', '44: close marker "mcp-cli" has no open marker before it']),
            (mcp, {cli: "registry:mcp-clii -->"}, (), None, [
                '36: block "mcp-clii" does not belong in this file; did you mean "mcp-cli"?',
                '36: block "mcp-cli" is missing']),
            # No marker names the missing block, nor a name close to it: that fault has no line.
            (mcp, {cli: "registry:mcp-intro -->"}, (), None, [
                '7: block "mcp-intro" is repeated (lines 7, 36)', '36: block "mcp-intro" is repeated (lines 7, 36)',
                ' block "mcp-cli" is missing']),
            ("README.md", {"<!-- registry:readme-tools -->": "<!-- registry:readme-tools --> "}, (), None, [
                '35: not read as a marker: an open marker needs a line feed right after "-->"',
                '35: block "readme-tools" is missing', '52: close marker "readme-tools" has no open marker before it']),
            # Several faults in one file, all listed in file order.
            (mcp, {f"<!-- {cli}": "<!-- registry: mcp-cli -->", "/registry:params:search": "/Registry:params:search",
                   "/registry:params:find_refs -->": "/registry:params:find_refs --"}, (), None, [
                f"36: {typo}", '36: block "mcp-cli" is missing', '44: close marker "mcp-cli" has no open marker before it',
                '52: open marker "params:search" has no close marker after it', '52: block "params:search" is missing',
                f"60: {typo}", '76: open marker "params:find_refs" has no close marker after it',
                '76: block "params:find_refs" is missing', f"85: {typo}"])]
        for path, edits, args, error, faults in cases:
            for mode, newline in (("--check", "\n"), ("--write", "\r\n")):  # "\r\n" line ends count alike
                with self.subTest(error or faults[0], mode=mode), example_copy(True) as root:
                    change(root / path, edits, newline)
                    [first] = [error] if error else [line for line in docs.stale_blocks(root) if " markers " in line]
                    expected, before = lines([f"gen_registry_docs: {first}", *(f"{path}:{f}" for f in faults)]), files(root)
                    self.assertEqual((run(root, mode, *args), files(root)), ((2, "", expected), before))

    @unittest.skipUnless(shutil.which("git") and shutil.which("pre-commit"), "git or pre-commit is not installed")
    def test_pre_commit_hook(self):
        with example_copy(True) as root, tempfile.TemporaryDirectory() as home:
            # The hook's `python3` is this interpreter; git and pre-commit see none of the user's set-up.
            env = dict(os.environ, PYTHONPATH=str(root / "src"), PRE_COMMIT_HOME=home, GIT_CONFIG_GLOBAL=os.devnull,
                       GIT_CONFIG_NOSYSTEM="1", PATH=os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]]))
            stale = run(root, "--check", "--diff", env=env)[1]
            # Refused while a block is stale, with the hook's report; taken once --write has run.
            steps = [("git init -q", 0), ("git config user.name Dev", 0), ("git config user.email dev@example.org", 0),
                     ("pre-commit install", 0), ("git add -A", 0), ("git commit -qm Stale", 1),
                     ("python3 scripts/gen_registry_docs.py --write", 0), ("git add -A", 0), ("git commit -qm Current", 0)]
            for step, status in steps:
                done = subprocess.run(step.split(), cwd=root, env=env, capture_output=True, encoding="utf-8")
                self.assertEqual(done.returncode, status, step + done.stdout + done.stderr)
                if status:
                    self.assertIn(stale, done.stdout + done.stderr)

    @unittest.skipUnless(CMARK_GFM, "cmark-gfm is not installed")
    def test_tables_keep_their_columns_and_pipes(self):
        with example_copy() as root:
            docs.write_blocks(root)
            for path in ("README.md", "docs/mcp-tools.md"):
                text = (root / path).read_text(encoding="utf-8")
                rows = [line for line in text.split("\n") if line.startswith("|") and "| --- |" not in line]
                cells = [row for table in rendered_tables(text) for row in table]
                # A rendered row per row written; an escaped pipe is a pipe inside its cell, not a cell boundary.
                self.assertEqual([sum(cell.count("|") for cell in row) for row in cells],
                                 [row.count("\\|") for row in rows], path)
                # GitHub pads or cuts a row to its header's cells: each row alone, over a delimiter
                # row of as many cells as it is rendered with, must be taken as a header of its own.
                alone = rendered_tables("".join(f"{row}\n|{' --- |' * len(cell)}\n\n" for row, cell in zip(rows, cells)))
                self.assertEqual([len(table[0]) for table in alone], [len(cell) for cell in cells], path)


def rendered_tables(markdown):
    """The tables of the HTML that cmark-gfm makes: each a list of rows, each a list of cells."""
    done = subprocess.run([CMARK_GFM, "--extension", "table"], input=markdown, capture_output=True,
                          encoding="utf-8", check=True)
    return [[re.findall(r"<t[hd][^>]*>(.*?)</t[hd]>", row) for row in re.findall(r"<tr>(.*?)</tr>", table, re.S)]
            for table in re.findall(r"<table>(.*?)</table>", done.stdout, re.S)]
