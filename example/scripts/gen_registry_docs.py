"""Keep the generated blocks in the docs and agent texts in step with the tool registry.

Exit status: 0 when all is well, 1 when --check finds stale blocks, 2 on any
other error (unreadable file, broken markers, ...).
"""

from __future__ import annotations

import argparse
import difflib
import os
import sys
from collections.abc import Iterator
from pathlib import Path

DEFAULT_ROOT = Path(__file__).resolve().parent.parent
PROG = "gen_registry_docs"

EPILOG = """\
The generated blocks stand between <!-- registry:NAME --> and <!-- /registry:NAME -->
markers; everything around them is written by hand and never touched.

output:
  --check           one line per stale file on stdout, naming its stale blocks
  --check --diff    those lines, then a unified diff per file that would change,
                    with paths as `git diff` shows them (a/README.md, b/README.md)
  --write           the path of each file written, relative to the root; nothing
                    when every block was current
  errors            one line on stderr, starting with "gen_registry_docs: "

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
        default=DEFAULT_ROOT,
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
    """An error that is not a stale block, worded as the one line the user sees."""


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


def _changes(root: Path) -> list[tuple[str, str, str]]:
    """Each maintained file that would change: its path, its text on disk and as rendered anew.

    Rendering every file first finds each error that is not a stale block, with the file it is in.
    """
    from quenor_dorvan.setup.registry_docs import _read, generated_files, render_file

    changes = []
    for generated in generated_files():
        try:
            text = _read(root, generated)
            rendered = render_file(text, generated)
            if rendered != text:
                # The diff starts from the file as it stands: `_read` turns "\r\n" into "\n",
                # and --write writes "\n", so every line of a CRLF file changes.
                with open(root / generated.path, encoding="utf-8", newline="") as file:
                    on_disk = file.read()
                changes.append((generated.path, on_disk, rendered))
        except (OSError, ValueError) as error:
            raise _Failure(_describe(error, generated.path)) from error
    return changes


def _run(args: argparse.Namespace) -> int:
    root: Path = args.root
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
        print(f"{PROG}: {failure}", file=sys.stderr)
        return 2
    except BrokenPipeError:
        # The reader of the output went away (`--check --diff | head`): stop without a traceback.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 2


if __name__ == "__main__":
    sys.exit(main())
