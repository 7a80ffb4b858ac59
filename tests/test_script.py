"""The example host's maintenance script, run as its users run it: by hand, in CI and from pre-commit."""

import contextlib
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import support
from support import docs

SCRIPT = "scripts/gen_registry_docs.py"
PATHS = [generated.path for generated in docs.generated_files()]
NEEDS_GIT = unittest.skipUnless(shutil.which("git"), "git is not installed")


@contextlib.contextmanager
def host_repository():
    """A copy of the example host repository whose package holds this build's module."""
    with support.example_copy() as root:
        shutil.copy(docs.__file__, root / "src/quenor_dorvan/setup")
        yield root


def environment(root, **names):
    return dict(os.environ, PYTHONPATH=str(root / "src"), **names)


def run(root, *args, env=None, whole=True):
    done = subprocess.run([sys.executable, "-X", "dev", str(root / SCRIPT), *args],
                          capture_output=True, env=env or environment(root))
    # Decoded by hand: text mode would turn the "\r\n" of a diff line into "\n".
    done.stdout, done.stderr = done.stdout.decode(), done.stderr.decode()
    return (done.returncode, done.stdout, done.stderr) if whole else done


def files(root):
    return {path: (root / path).read_bytes() if (root / path).exists() else None for path in PATHS}


def lines(texts):
    return "".join(f"{text}\n" for text in texts)


class ScriptTest(unittest.TestCase):
    @NEEDS_GIT
    def test_check_diff_and_write(self):
        with host_repository() as root, support.example_copy() as patched:
            for tree in (root, patched):
                # Only "\n" ends a line of the diff: a form feed or U+2028 in the hand-written text
                # stays inside its line; a file may end right after a block, without a line end.
                readme = tree / "README.md"
                text = readme.read_text(encoding="utf-8")
                readme.write_text(text.replace("\n\n<!-- registry:readme-tools -->",
                                               "\f\u2028\n\n<!-- registry:readme-tools -->"),
                                  encoding="utf-8")
                mcp = tree / "docs/mcp-tools.md"
                text = mcp.read_text(encoding="utf-8")
                mcp.write_text(text[:text.index(" -->", text.rindex("<!-- /registry:")) + 4],
                               encoding="utf-8")
                # A CRLF file: --write leaves it with "\n" line ends, and the diff says so.
                template = tree / "docs/claude-instructions-template.md"
                template.write_bytes(template.read_bytes().replace(b"\n", b"\r\n"))
            report = lines(docs.stale_blocks(root))
            self.assertEqual((run(root, "--check")), (1, report, ""))

            check = run(root, "--check", "--diff", whole=False)
            self.assertEqual((check.returncode, check.stdout[:len(report)], check.stderr),
                             (1, report, ""))
            patch = check.stdout[len(report):]
            headers = [line for line in patch.split("\n") if line.startswith(("--- a/", "+++ b/"))]
            self.assertEqual(headers, [f"{side}{path}" for path in PATHS
                                       for side in ("--- a/", "+++ b/")])
            # The diff is the change that --write makes, as git reads it.
            subprocess.run(["git", "apply", "--whitespace=nowarn", "-"], input=patch.encode(),
                           cwd=patched, check=True, capture_output=True)

            self.assertEqual((run(root, "--write")), (0, lines(PATHS), ""))
            self.assertEqual(files(root), files(patched))
            self.assertEqual((run(root, "--write")), (0, "", ""))
            self.assertEqual((run(root, "--check", "--diff")),
                             (0, "", "all generated blocks are current\n"))

    def test_errors_are_one_line(self):
        stray_from = '"properties": {param.name: _property(param) for param in tool.all_params},'
        stray_to = ('"properties": {**{param.name: _property(param) for param in tool.all_params},'
                    ' "stray": {"type": "string"}},')

        def edit(path, old, new):
            def change(root):
                text = (root / path).read_text(encoding="utf-8")
                self.assertIn(old, text)
                (root / path).write_text(text.replace(old, new), encoding="utf-8")
            return change

        cases = [
            (lambda root: (root / "docs/mcp-tools.md").unlink(), (),
             "docs/mcp-tools.md: No such file or directory"),
            (lambda root: (root / "README.md").write_bytes(b"\xff" + (root / "README.md").read_bytes()),
             (), "README.md: 'utf-8' codec can't decode byte 0xff in position 0: invalid start byte"),
            (edit("README.md", "<!-- /registry:readme-tools -->", ""), (),
             "README.md: the markers do not match the blocks it holds "
             "(missing ['readme-tools'], unknown [], repeated [])"),
            (edit("src/quenor_dorvan/tool_schemas.py", stray_from, stray_to), (),
             "search: the CLI schema and the registry name different parameters"),
            (lambda root: Path(root / "src/quenor_dorvan/setup", Path(docs.__file__).name).unlink(),
             (), "cannot load the generator: No module named 'quenor_dorvan.setup.registry_docs'"),
            (lambda root: None, ("--root", "nowhere"), "nowhere: not a directory"),
        ]
        for change, args, line in cases:
            for mode in ("--check", "--write"):
                with self.subTest(line=line, mode=mode), host_repository() as root:
                    change(root)
                    before = files(root)
                    self.assertEqual((run(root, mode, *args)),
                                     (2, "", f"gen_registry_docs: {line}\n"))
                    self.assertEqual(files(root), before)

    @NEEDS_GIT
    @unittest.skipUnless(shutil.which("pre-commit"), "pre-commit is not installed")
    def test_pre_commit_hook(self):
        with host_repository() as root, tempfile.TemporaryDirectory() as home:
            # The hook's `python3` is this interpreter; git and pre-commit see none of the user's set-up.
            env = environment(
                root, PATH=os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]]),
                PRE_COMMIT_HOME=home, GIT_CONFIG_GLOBAL=os.devnull, GIT_CONFIG_NOSYSTEM="1",
                GIT_AUTHOR_NAME="Dev", GIT_AUTHOR_EMAIL="dev@example.org",
                GIT_COMMITTER_NAME="Dev", GIT_COMMITTER_EMAIL="dev@example.org")

            def command(*args):
                return subprocess.run(args, cwd=root, env=env, capture_output=True, encoding="utf-8")

            for args in (["git", "init", "-q"], ["pre-commit", "install"], ["git", "add", "-A"]):
                self.assertEqual(command(*args).returncode, 0, args)
            stale = run(root, "--check", "--diff", env=env)[1]
            refused = command("git", "commit", "-m", "Registry and docs as they were")
            self.assertEqual(refused.returncode, 1)
            self.assertIn(stale, refused.stdout + refused.stderr)

            self.assertEqual(run(root, "--write", env=env)[0], 0)
            self.assertEqual(command("git", "add", "-A").returncode, 0)
            accepted = command("git", "commit", "-m", "Generated blocks in step")
            self.assertEqual(accepted.returncode, 0, accepted.stdout + accepted.stderr)


if __name__ == "__main__":
    unittest.main()
