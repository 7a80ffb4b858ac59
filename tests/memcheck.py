"""`python memcheck.py VALGRIND`: test_leaks under valgrind's memcheck, with every object a block of
its own (PYTHONMALLOC=malloc). Fails when the suite fails, on any error but a leak (invalid reads,
writes, frees, uninitialised values), and on a block definitely lost in a module call (not at import)."""

import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

import quenor_dorvan.setup.registry_docs as docs


def counted(kind, stacks, module=os.path.realpath(docs.__file__)):
    if kind.startswith("Leak_"):
        return kind == "Leak_DefinitelyLost" and any(obj == module for obj, _, _ in stacks[0]) and not any(
            fn == "PyModule_ExecDef" for _, fn, _ in stacks[0])
    # 3.11 reads the unset digit of a zero int (times its size, 0): its own, reported at each use of that int
    return not (kind.startswith("Uninit") and sys.version_info[:2] == (3, 11)
                and "_PyLong_New" in [fn for _, fn, _ in stacks[-1][:3]])


def main(valgrind):
    with tempfile.TemporaryDirectory() as directory:
        report = os.path.join(directory, "memcheck.xml")
        done = subprocess.run([valgrind, "--leak-check=full", "--show-leak-kinds=definite", "--num-callers=50",
                               "--track-origins=yes", "--xml=yes", f"--xml-file={report}", sys.executable, "-m",
                               "unittest", "test_leaks"], env=dict(os.environ, PYTHONMALLOC="malloc"), check=False)
        found = []
        for error in ElementTree.parse(report).getroot().iter("error"):
            stacks = [[(os.path.realpath(frame.findtext("obj") or "/"), frame.findtext("fn"), frame.findtext("line"))
                       for frame in stack.iter("frame")] for stack in error.iter("stack")]
            kind = error.findtext("kind")
            if counted(kind, stacks):
                found.append("\n    ".join([f"{kind}: {error.findtext('what') or error.findtext('xwhat/text')}"]
                                           + [f"{fn}:{line}" for stack in stacks for _, fn, line in stack]))
    print(*found, sep="\n", file=sys.stderr)
    if done.returncode != 0 or found:
        sys.exit(f"memcheck: the leak suite exited with {done.returncode}; {len(found)} errors, leaks from the module")
    print("memcheck: no error, and no definite leak from the module")


if __name__ == "__main__":
    main(*sys.argv[1:])
