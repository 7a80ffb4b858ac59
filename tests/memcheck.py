"""The leak suite under valgrind's memcheck: no block that the module allocated is lost for good.

    python memcheck.py VALGRIND

Runs test_leaks (with PYTHONMALLOC=malloc, so that every object is a block of its own that
valgrind tracks) and fails when the suite fails or when a block reported definitely lost was
allocated in a call of one of the module's functions. What the module body allocates at import
is left out: it is made once, and CPython 3.12 and later never free the interned names among it.
"""

import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

import quenor_dorvan.setup.registry_docs as docs


def lost_in_module(report, module):
    """The stacks of the definitely lost blocks that the module allocated."""
    for error in ElementTree.parse(report).getroot().iter("error"):
        if error.findtext("kind") != "Leak_DefinitelyLost":
            continue
        frames = [(frame.findtext("obj") or "", frame.findtext("fn") or "?",
                   frame.findtext("file") or "", frame.findtext("line") or "")
                  for frame in error.iter("frame")]
        in_module = any(os.path.realpath(obj) == module for obj, *_ in frames)
        if in_module and not any(fn == "PyModule_ExecDef" for _, fn, *_ in frames):
            lines = [error.findtext("xwhat/text") or error.findtext("what") or ""]
            lines += [f"    {fn} ({file}:{line})" for _, fn, file, line in frames]
            yield "\n".join(lines)


def main(valgrind):
    module = os.path.realpath(docs.__file__)
    with tempfile.TemporaryDirectory() as directory:
        report = os.path.join(directory, "memcheck.xml")
        done = subprocess.run(
            [valgrind, "--tool=memcheck", "--leak-check=full", "--show-leak-kinds=definite",
             "--num-callers=50", "--xml=yes", f"--xml-file={report}",
             sys.executable, "-m", "unittest", "test_leaks"],
            env=dict(os.environ, PYTHONMALLOC="malloc"), check=False)
        lost = list(lost_in_module(report, module))
    for stack in lost:
        print(stack, file=sys.stderr)
    if done.returncode != 0 or lost:
        sys.exit(f"memcheck: the leak suite exited with {done.returncode}; "
                 f"{len(lost)} definite leaks from {module}")
    print("memcheck: no definite leak from the module")


if __name__ == "__main__":
    main(*sys.argv[1:])
