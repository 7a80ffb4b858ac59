"""Installing the module and its stub into a host: from this build, and from a host's own build."""

import filecmp
import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import unittest
from pathlib import Path

from support import EXAMPLE, docs

CMAKE = os.environ.get("REGISTRY_DOCS_CMAKE", "cmake")
SOURCE = Path(os.environ.get("REGISTRY_DOCS_SOURCE_DIR", Path(__file__).resolve().parents[1]))
BUILD = Path(os.environ.get("REGISTRY_DOCS_BUILD_DIR", Path(docs.__file__).parents[3]))
STUB = SOURCE / "stubs/registry_docs.pyi"
MODULE = Path(docs.__file__).name
# The interpreter's own layout: its site-packages, relative to its prefix.
SITE_PACKAGES = Path(sysconfig.get_path("platlib")).relative_to(sys.prefix)

# A host project that builds the module as part of its own build, as a wheel builder drives it.
HOST_PROJECT = """\
cmake_minimum_required(VERSION 3.20)
project(host LANGUAGES CXX)
find_package(Python3 3.10 REQUIRED COMPONENTS Interpreter Development.Module)
add_subdirectory("{source}" registry_docs)
"""


def cmake(*args):
    # The sanitizer runtime that the suites may preload is for the interpreter, not for the tools.
    env = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}
    done = subprocess.run([CMAKE, *args], env=env, capture_output=True, text=True)
    if done.returncode:
        raise AssertionError(f"cmake {' '.join(args)} failed:\n{done.stdout}{done.stderr}")


class InstallTest(unittest.TestCase):
    def assert_installed(self, prefix, directory):
        """Exactly the module and its stub are in `directory`; with the host's package copied
        beside them, the module imports from there and renders as this build does."""
        installed = sorted(path.relative_to(prefix) for path in prefix.rglob("*") if path.is_file())
        self.assertEqual(installed, [directory / MODULE, directory / "registry_docs.pyi"])
        self.assertTrue(filecmp.cmp(prefix / directory / "registry_docs.pyi", STUB, shallow=False))

        package_root = prefix / directory.parent.parent
        shutil.copytree(EXAMPLE / "src/quenor_dorvan", package_root / "quenor_dorvan",
                        dirs_exist_ok=True, ignore=shutil.ignore_patterns("*.so", "*.pyi", "__pycache__"))
        script = ("import quenor_dorvan.setup.registry_docs as docs\n"
                  "print(docs.__file__)\n"
                  "print(docs.readme_tools_block())\n")
        env = dict(os.environ, PYTHONPATH=str(package_root), PYTHONDONTWRITEBYTECODE="1")
        done = subprocess.run([sys.executable, "-c", script], env=env, capture_output=True,
                              text=True, check=True)
        self.assertEqual(done.stdout, f"{prefix / directory / MODULE}\n{docs.readme_tools_block()}\n")

    def test_install_this_build(self):
        with tempfile.TemporaryDirectory() as prefix:
            cmake("--install", str(BUILD), "--prefix", prefix)
            self.assert_installed(Path(prefix), SITE_PACKAGES / "quenor_dorvan/setup")

    def test_host_build_into_a_wheel(self):
        with tempfile.TemporaryDirectory() as directory:
            host, wheel = Path(directory, "host"), Path(directory, "wheel/platlib")
            host.mkdir()
            (host / "CMakeLists.txt").write_text(HOST_PROJECT.format(source=SOURCE.as_posix()))
            # What scikit-build-core passes; the install prefix is the wheel's platlib directory.
            cmake("-S", str(host), "-B", str(host / "build"), f"-DPython3_EXECUTABLE={sys.executable}",
                  "-DSKBUILD=2", f"-DCMAKE_INSTALL_PREFIX={wheel}")
            cmake("--build", str(host / "build"), "-j2")
            cmake("--install", str(host / "build"), "--prefix", str(wheel))
            self.assert_installed(wheel, Path("quenor_dorvan/setup"))


if __name__ == "__main__":
    unittest.main()
