"""The benchmark runs to its end on a tiny registry and reports every target; speed is not judged."""

import subprocess
import sys
import unittest
from pathlib import Path

BENCH = Path(__file__).resolve().parents[1] / "bench" / "run.py"


def bench(*args):
    return subprocess.run([sys.executable, str(BENCH), *args], capture_output=True, text=True,
                          timeout=600)


class BenchSmokeTest(unittest.TestCase):
    def test_reports_every_target(self):
        run = bench("--tools", "28", "--large", "56", "--repeats", "2", "--number", "1000")
        self.assertEqual(run.returncode, 0, run.stderr)
        # The floor's calls and reads were counted equal to the module's, or the run stops.
        self.assertRegex(run.stdout, r"host calls and reads of \d+ kinds, counted equal")
        for target in ("1a", "1b", "2 ", "3a", "3b", "4 "):
            self.assertRegex(run.stdout, rf"(?m)^  {target} .*\d.*  (PASS|FAIL)$")
        for case in ("catalogue", "stale_blocks"):
            self.assertEqual(bench("--profile", case, "--tools", "14", "--repeats", "1").returncode, 0)


if __name__ == "__main__":
    unittest.main()
