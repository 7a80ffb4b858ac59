"""The build: installing the module and its stub into a host, from this build and from a host's own
build."""

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


class InstallTest(unittest.TestCase):
    def cmake(self, *args):  # the sanitizer runtime the suites may preload is for the interpreter, not for the tools
        done = subprocess.run([os.environ.get("REGISTRY_DOCS_CMAKE", "cmake"), *map(str, args)], capture_output=True,
                              text=True, env=dict(os.environ, LD_PRELOAD=""))
        self.assertEqual(done.returncode, 0, f"{done.args} failed:\n{done.stdout}{done.stderr}")

    def assert_installs(self, build, prefix, directory):
        """Only the module and its stub land in `directory`; beside the host's package, it renders as this one."""
        self.cmake("--install", build, "--prefix", prefix)
        stub, root = (SOURCE / "stubs/registry_docs.pyi").read_bytes(), prefix / directory.parents[1]
        files = {path.relative_to(prefix): path.read_bytes() == stub for path in prefix.rglob("*") if path.is_file()}
        self.assertEqual(files, {directory / MODULE: False, directory / "registry_docs.pyi": True})  # the stub as it is
        shutil.copytree(EXAMPLE / "src/quenor_dorvan", root / "quenor_dorvan", dirs_exist_ok=True,
                        ignore=shutil.ignore_patterns("*.so", "*.pyi", "__pycache__"))
        script = f"import {docs.__name__} as docs\nprint(docs.__file__)\nprint(docs.readme_tools_block())"
        shown = subprocess.check_output([sys.executable, "-c", script], text=True,
                                        env=dict(os.environ, PYTHONPATH=str(root)))
        self.assertEqual(shown, f"{prefix / directory / MODULE}\n{docs.readme_tools_block()}\n")

    def test_install_this_build(self):
        with tempfile.TemporaryDirectory() as prefix:  # into the interpreter's layout
            site_packages = Path(sysconfig.get_path("platlib")).relative_to(sys.prefix)
            self.assert_installs(BUILD, Path(prefix), site_packages / "quenor_dorvan/setup")

    def test_host_build_into_a_wheel(self):
        with tempfile.TemporaryDirectory() as host:  # a host project that builds the module as part of its own build
            build, wheel = Path(host, "build"), Path(host, "wheel/platlib")
            Path(host, "CMakeLists.txt").write_text(
                "cmake_minimum_required(VERSION 3.20)\nproject(host LANGUAGES CXX)\n"
                "find_package(Python3 3.10 REQUIRED COMPONENTS Interpreter Development.Module)\n"
                f"add_subdirectory(\"{SOURCE.as_posix()}\" registry_docs)\n")
            # What scikit-build-core passes, as a wheel builder drives it; the prefix is the wheel's platlib directory.
            self.cmake("-S", host, "-B", build, f"-DPython3_EXECUTABLE={sys.executable}", "-DSKBUILD=2",
                       f"-DCMAKE_INSTALL_PREFIX={wheel}")
            self.cmake("--build", build, "-j2")
            self.assert_installs(build, wheel, Path("quenor_dorvan/setup"))
