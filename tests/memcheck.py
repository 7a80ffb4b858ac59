"""`python memcheck.py VALGRIND`: test_leaks under valgrind's memcheck, with every object a block of
its own (PYTHONMALLOC=malloc). Fails when the suite fails or a block definitely lost was allocated
in a call of the module's functions; what its body makes once at import is left out."""

import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

import quenor_dorvan.setup.registry_docs as docs


def main(valgrind):
    module = os.path.realpath(docs.__file__)
    with tempfile.TemporaryDirectory() as directory:
        report = os.path.join(directory, "memcheck.xml")
        done = subprocess.run([valgrind, "--leak-check=full", "--show-leak-kinds=definite", "--num-callers=50",
                               "--xml=yes", f"--xml-file={report}", sys.executable, "-m", "unittest", "test_leaks"],
                              env=dict(os.environ, PYTHONMALLOC="malloc"), check=False)
        lost = []
        for error in ElementTree.parse(report).getroot().iter("error"):
            frames = [(frame.findtext("obj") or "", frame.findtext("fn") or "?", frame.findtext("line") or "")
                      for frame in error.iter("frame")]
            if (error.findtext("kind") == "Leak_DefinitelyLost" and any(os.path.realpath(obj) == module
                                                                        for obj, _, _ in frames)
                    and not any(fn == "PyModule_ExecDef" for _, fn, _ in frames)):
                lost.append("\n    ".join([error.findtext("xwhat/text") or ""] + [f"{fn}:{line}" for _, fn, line in frames]))
    print(*lost, sep="\n", file=sys.stderr)
    if done.returncode != 0 or lost:
        sys.exit(f"memcheck: the leak suite exited with {done.returncode}; {len(lost)} definite leaks from {module}")
    print("memcheck: no definite leak from the module")


if __name__ == "__main__":
    main(*sys.argv[1:])
