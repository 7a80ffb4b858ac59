"""The build: installing the module and its stub into a host, from this build and from a host's own
build."""

import filecmp
import os
import shutil
import subprocess
import sys
import sysconfig
import tempfile
import unittest
from pathlib import Path

from harness import EXAMPLE, docs

SOURCE = Path(os.environ.get("REGISTRY_DOCS_SOURCE_DIR", Path(__file__).resolve().parents[1]))
BUILD = Path(os.environ.get("REGISTRY_DOCS_BUILD_DIR", Path(docs.__file__).parents[3]))
MODULE = Path(docs.__file__).name
# A host project that builds the module as part of its own build, as a wheel builder drives it.
HOST_PROJECT = ("cmake_minimum_required(VERSION 3.20)\nproject(host LANGUAGES CXX)\nfind_package(Python3 3.10 "
                "REQUIRED COMPONENTS Interpreter Development.Module)\nadd_subdirectory(\"{source}\" registry_docs)\n")


def cmake(*args):
    # The sanitizer runtime that the suites may preload is for the interpreter, not for the tools.
    done = subprocess.run([os.environ.get("REGISTRY_DOCS_CMAKE", "cmake"), *args], capture_output=True, text=True,
                          env={name: value for name, value in os.environ.items() if name != "LD_PRELOAD"})
    if done.returncode:
        raise AssertionError(f"cmake {' '.join(args)} failed:\n{done.stdout}{done.stderr}")


class InstallTest(unittest.TestCase):
    def assert_installed(self, prefix, directory):
        """Only the module and its stub are in `directory`; beside the host's package, it renders as this one."""
        installed = sorted(path.relative_to(prefix) for path in prefix.rglob("*") if path.is_file())
        self.assertEqual(installed, [directory / MODULE, directory / "registry_docs.pyi"])
        self.assertTrue(filecmp.cmp(prefix / directory / "registry_docs.pyi", SOURCE / "stubs/registry_docs.pyi",
                                    shallow=False))

        package_root = prefix / directory.parent.parent
        shutil.copytree(EXAMPLE / "src/quenor_dorvan", package_root / "quenor_dorvan",
                        dirs_exist_ok=True, ignore=shutil.ignore_patterns("*.so", "*.pyi", "__pycache__"))
        script = "import quenor_dorvan.setup.registry_docs as docs\nprint(docs.__file__)\nprint(docs.readme_tools_block())"
        done = subprocess.run([sys.executable, "-c", script], env=dict(os.environ, PYTHONPATH=str(package_root)),
                              capture_output=True, text=True, check=True)
        self.assertEqual(done.stdout, f"{prefix / directory / MODULE}\n{docs.readme_tools_block()}\n")

    def test_install_this_build(self):
        with tempfile.TemporaryDirectory() as prefix:
            cmake("--install", str(BUILD), "--prefix", prefix)
            site_packages = Path(sysconfig.get_path("platlib")).relative_to(sys.prefix)  # the interpreter's layout
            self.assert_installed(Path(prefix), site_packages / "quenor_dorvan/setup")

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
