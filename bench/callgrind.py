"""Instructions per run of the module's catalogue (or stale_blocks), counted by callgrind.

`run.py --profile` runs twice under `valgrind --tool=callgrind`, with 1 and with N + 1 runs of the
case after the same setup; the difference of the two instruction totals, over N, is the count of
one run. With a fixed hash seed callgrind counts repeatably (within about a hundred instructions),
so one measurement before a change and one after compare. Run through `make callgrind` (which
builds first), or with the built host on the path:

    PYTHONPATH=build/host python3.10 bench/callgrind.py [--case catalogue] [--tools 500] [--runs 5]
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

RUN = Path(__file__).resolve().parent / "run.py"


def instructions(case, tools, repeats, directory):
    """The instructions counted over `run.py --profile` with `repeats` runs of the case; the
    callgrind output is left in `directory`, for callgrind_annotate."""
    out = Path(directory) / f"callgrind.{case}.{tools}.{repeats}.out"
    command = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", sys.executable,
               str(RUN), "--profile", case, "--tools", str(tools), "--repeats", str(repeats)]
    done = subprocess.run(command, env=dict(os.environ, PYTHONHASHSEED="0"), capture_output=True,
                          text=True)
    if done.returncode:
        sys.exit(f"{' '.join(command)} failed:\n{done.stdout}{done.stderr}")
    totals = re.search(r"(?m)^totals:\s+(\d+)", out.read_text())
    if not totals:
        sys.exit(f"no instruction totals in {out}")
    return int(totals[1])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--case", choices=("catalogue", "stale_blocks"), default="catalogue")
    parser.add_argument("--tools", type=int, default=500, help="registry size (default 500)")
    parser.add_argument("--runs", type=int, default=5,
                        help="runs of the case told apart, N (default 5)")
    parser.add_argument("--keep", metavar="DIR",
                        help="keep the two callgrind outputs in DIR (default: a temporary directory)")
    args = parser.parse_args()
    if args.runs < 1:
        parser.error("--runs must be at least 1")
    if not shutil.which("valgrind"):
        sys.exit("valgrind is not on PATH")
    with tempfile.TemporaryDirectory() as scratch:
        directory = args.keep or scratch
        Path(directory).mkdir(parents=True, exist_ok=True)
        one = instructions(args.case, args.tools, 1, directory)
        more = instructions(args.case, args.tools, args.runs + 1, directory)
    each = (more - one) / args.runs
    print(f"{args.case}, {args.tools:,} tools: {each / 1e6:.2f} M instructions per run "
          f"({one:,} with 1 run, {more:,} with {args.runs + 1}; callgrind, PYTHONHASHSEED=0)")


if __name__ == "__main__":
    main()
