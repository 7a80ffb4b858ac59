"""Keep the generated blocks in the docs and agent texts in step with the tool registry.

Exit status: 0 when all is well, 1 when --check finds stale blocks, 2 on any
other error (unreadable file, broken markers, ...).
"""

from __future__ import annotations

import argparse
import difflib
import os
import re
import shlex
import sys
from collections.abc import Iterator
from pathlib import Path

DEFAULT_ROOT = Path(__file__).resolve().parent.parent
PROG = "gen_registry_docs"

EPILOG = """\
The generated blocks stand between <!-- registry:NAME --> and <!-- /registry:NAME -->
markers; everything around them is written by hand and never touched.

output:
  --check           one line per stale file on stdout, naming its stale blocks; then
                    one line on stderr that says what to run:
    run `python3 scripts/gen_registry_docs.py --write`, then commit the files it prints
  --check --diff    those lines, then a unified diff per file that would change,
                    with paths as `git diff` shows them (a/README.md, b/README.md)
  --write           the path of each file written, relative to the root; nothing
                    when every block was current
  errors            one line on stderr, starting with "gen_registry_docs: "; when a
                    file's markers do not match its blocks, one more line per fault,
                    in file order, that names its line, for example:
    docs/mcp-tools.md:36: open marker "mcp-clii" has no close marker after it; did you mean "mcp-cli"?

exit status:
  0  --check: every block is current; --write: done (stale blocks rewritten)
  1  --check: some blocks are stale
  2  error: bad arguments, the generator cannot be imported, a missing or
     unreadable file, bytes that are not UTF-8, broken markers, a tool's CLI
     schema that disagrees with the registry; --write then writes nothing

In CI and as a pre-commit hook run `--check --diff`; after `--write`, commit the
files it printed.
"""


def _parse_args(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="gen_registry_docs.py",
        description="Check or rewrite the registry-generated blocks of the docs and agent texts.",
        formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog=EPILOG,
    )
    parser.add_argument(
        "--root",
        type=Path,
        default=None,
        metavar="DIR",
        help="repository root (default: the repository holding this script)",
    )
    mode = parser.add_mutually_exclusive_group(required=True)
    mode.add_argument(
        "--check",
        action="store_true",
        help="list stale blocks and exit 1 if there are any; change nothing",
    )
    mode.add_argument(
        "--write",
        action="store_true",
        help="rewrite stale blocks and print each file written",
    )
    parser.add_argument(
        "--diff",
        action="store_true",
        help="with --check: also print a unified diff of each file that would change",
    )
    args = parser.parse_args(argv)
    if args.diff and not args.check:
        parser.error("--diff goes with --check")
    return args


class _Failure(Exception):
    """An error that is not a stale block: the line the user sees, then the faults it points at."""


def _describe(error: OSError | ValueError, path: str) -> str:
    """One line for an error met reading, rendering or writing the maintained file `path`."""
    if isinstance(error, OSError):
        return f"{path}: {error.strerror or error}"
    if isinstance(error, UnicodeDecodeError):
        return f"{path}: {error}"
    # The module's own message: it begins with the file (markers) or the tool (schema).
    return str(error)


def _lines(text: str) -> list[str]:
    """The lines of a text, each with its line feed: as in the file, nothing else ends a line."""
    lines = [f"{line}\n" for line in text.split("\n")]
    last = lines.pop()[:-1]
    return lines + [last] if last else lines


def _unified_diff(path: str, old: str, new: str) -> Iterator[str]:
    lines = difflib.unified_diff(_lines(old), _lines(new), f"a/{path}", f"b/{path}")
    for line in lines:
        if line.endswith("\n"):
            yield line
        else:  # the file's last line, without a line end: marked as `git diff` marks it
            yield line + "\n\\ No newline at end of file\n"


# One marker on its own, as the module's `_MARKER` reads it: an open marker counts only when a line
# feed follows its "-->".
_OPEN = re.compile(r"<!-- registry:([\w:-]+) -->")
_CLOSE = re.compile(r"<!-- /registry:([\w:-]+) -->")
# A line that starts as a marker does, whatever its spacing and case; its name stops before "-->".
_LOOKALIKE = re.compile(
    r"^[ \t]*(<!--[ \t]*/?[ \t]*registry[ \t]*:[ \t]*((?:[\w:]|-(?!->))*))", re.I | re.M
)


def _marker_faults(path: str, text: str, expected: list[str]) -> list[str]:
    """`PATH:LINE: message` for each fault of a file's markers, in file order (`PATH: message`
    for a missing block that no marker points at); none when the markers match the blocks."""
    from quenor_dorvan.setup.registry_docs import _MARKER

    blocks = [(block.start(), block["name"]) for block in _MARKER.finditer(text)]
    found = [name for _, name in blocks]
    if sorted(found) == sorted(expected) and len(set(found)) == len(found):
        return []
    missing = [name for name in dict.fromkeys(expected) if name not in found]
    opens = [(m.start(), m[1]) for m in _OPEN.finditer(text) if text.startswith("\n", m.end())]
    closes = [(m.start(), m[1]) for m in _CLOSE.finditer(text)]
    lookalikes = [(m.start(1), m[2]) for m in _LOOKALIKE.finditer(text)]

    def line(at: int) -> int:
        return text.count("\n", 0, at) + 1

    faults: list[tuple[int, str, str]] = []  # line (0: none), message, the name it is about
    for at, name in blocks:
        if name not in expected:
            faults.append((line(at), f'block "{name}" does not belong in this file', name))
        if found.count(name) > 1:
            lines = ", ".join(str(line(other)) for other, same in blocks if same == name)
            faults.append((line(at), f'block "{name}" is repeated (lines {lines})', name))
    for at, name in opens:
        if not any(after > at for after, same in closes if same == name):
            faults.append((line(at), f'open marker "{name}" has no close marker after it', name))
    for at, name in closes:
        if not any(before < at for before, same in opens if same == name):
            faults.append((line(at), f'close marker "{name}" has no open marker before it', name))
    for at, name in lookalikes:
        opener = _OPEN.match(text, at)
        if not _CLOSE.match(text, at) and not (opener and text.startswith("\n", opener.end())):
            why = ('an open marker needs a line feed right after "-->"' if opener
                   else "write <!-- registry:NAME --> or <!-- /registry:NAME --> exactly")
            faults.append((line(at), f"not read as a marker: {why}", name))
    # A missing block is placed at the first marker, well formed or not, that names it or a name
    # close to it, leaving out the blocks the file holds as it should.
    held = set(found) & set(expected)
    for name in missing:
        near = [at for at, other in sorted(opens + closes + lookalikes)
                if other not in held and difflib.get_close_matches(name, [other])]
        faults.append((line(near[0]) if near else 0, f'block "{name}" is missing', name))

    report = []
    for at, message, name in sorted(faults, key=lambda fault: (fault[0] == 0, fault[0])):
        close = difflib.get_close_matches(name, missing, n=1)
        if close and name not in expected:
            message += f'; did you mean "{close[0]}"?'
        report.append(f"{path}:{at}: {message}" if at else f"{path}: {message}")
    return report


def _changes(root: Path) -> list[tuple[str, str, str]]:
    """Each maintained file that would change: its path, its text on disk and as rendered anew.

    Rendering every file first finds each error that is not a stale block, with the file it is in.
    """
    from quenor_dorvan.setup.registry_docs import _read, generated_files, render_file

    changes = []
    for generated in generated_files():
        try:
            text = _read(root, generated)
        except (OSError, ValueError) as error:
            raise _Failure(_describe(error, generated.path)) from error
        try:
            rendered = render_file(text, generated)
            if rendered != text:
                # The diff starts from the file as it stands: `_read` turns "\r\n" into "\n",
                # and --write writes "\n", so every line of a CRLF file changes.
                with open(root / generated.path, encoding="utf-8", newline="") as file:
                    on_disk = file.read()
                changes.append((generated.path, on_disk, rendered))
        except (OSError, ValueError) as error:
            expected = [name for name, _ in generated.blocks]
            faults = _marker_faults(generated.path, text, expected)
            raise _Failure(_describe(error, generated.path), *faults) from error
    return changes


def _run(args: argparse.Namespace) -> int:
    root: Path = args.root or DEFAULT_ROOT
    if not root.is_dir():
        raise _Failure(f"{root}: not a directory")
    try:
        from quenor_dorvan.setup.registry_docs import stale_blocks, write_blocks
    except ImportError as error:
        raise _Failure(f"cannot load the generator: {error}") from error
    changes = _changes(root)
    if args.write:
        try:
            written = write_blocks(root)
        except (OSError, ValueError) as error:
            where = error.filename if isinstance(error, OSError) and error.filename else root
            raise _Failure(_describe(error, str(where))) from error
        for path in written:
            print(path)
        return 0
    problems = stale_blocks(root)
    for problem in problems:
        print(problem)
    if args.diff:
        for path, text, rendered in changes:
            sys.stdout.writelines(_unified_diff(path, text, rendered))
    if problems:
        sys.stdout.flush()  # the hint comes last where both streams go to one log
        again = f"--root {shlex.quote(str(args.root))} " if args.root else ""
        fix = f"python3 scripts/gen_registry_docs.py {again}--write"
        print(f"run `{fix}`, then commit the files it prints", file=sys.stderr)
        return 1
    print("all generated blocks are current", file=sys.stderr)
    return 0


def main(argv: list[str] | None = None) -> int:
    args = _parse_args(argv)
    try:
        status = _run(args)
        sys.stdout.flush()
        return status
    except _Failure as failure:
        print(f"{PROG}: {failure.args[0]}", *failure.args[1:], sep="\n", file=sys.stderr)
        return 2
    except BrokenPipeError:
        # The reader of the output went away (`--check --diff | head`): stop without a traceback.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 2


if __name__ == "__main__":
    sys.exit(main())
