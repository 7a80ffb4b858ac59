"""Keep the generated blocks in the docs and agent texts in step with the tool registry.

Exit status: 0 when all is well, 1 when --check finds stale blocks, 2 on any
other error (unreadable file, broken markers, ...).
"""

from __future__ import annotations

import argparse
import sys
from pathlib import Path

DEFAULT_ROOT = Path(__file__).resolve().parent.parent


def _parse_args(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="gen_registry_docs.py",
        description="Check or rewrite the registry-generated blocks of the docs and agent texts.",
        formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog=(
            "exit status:\n"
            "  0  --check: every block is current; --write: stale blocks rewritten\n"
            "  1  --check: some blocks are stale (each is listed on stdout)\n"
            "  2  error: bad arguments, unreadable file, broken markers, ..."
        ),
    )
    parser.add_argument(
        "--root",
        type=Path,
        default=DEFAULT_ROOT,
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
    return parser.parse_args(argv)


def main(argv: list[str] | None = None) -> int:
    args = _parse_args(argv)
    try:
        from quenor_dorvan.setup.registry_docs import stale_blocks, write_blocks
    except ImportError as exc:
        print(f"gen_registry_docs: cannot load the generator: {exc}", file=sys.stderr)
        return 2
    try:
        if args.check:
            problems = stale_blocks(Path(args.root))
            for problem in problems:
                print(problem)
            if problems:
                return 1
            print("all generated blocks are current", file=sys.stderr)
            return 0
        for path in write_blocks(Path(args.root)):
            print(path)
        return 0
    except (OSError, ValueError) as exc:  # ValueError covers UnicodeDecodeError
        print(f"gen_registry_docs: {exc}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
