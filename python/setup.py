"""Builds the package with the compiled SQLite extension inside it.

The extension and the two libraries it links (libzqrtree, libzqhost) come
from a CMake build of the repository: the one named by ZQRTREE_BUILD_DIR,
or one made here (build-python/ in the repository). They are installed into a staging folder (so they carry
their install-time RUNPATH, $ORIGIN) and copied into the package, where the
extension finds the libraries beside it. The version is the project's,
read from the top CMakeLists.txt.
"""
import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py

# The repository; a copy of this folder built elsewhere is told where it is.
ROOT = Path(os.environ.get("ZQRTREE_SOURCE_DIR", Path(__file__).resolve().parent.parent))


def project_version() -> str:
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(libzqrtree VERSION ([0-9.]+)", text).group(1)


def cmake_build() -> Path:
    given = os.environ.get("ZQRTREE_BUILD_DIR")
    if given:
        return Path(given).resolve()
    build = ROOT / "build-python"
    subprocess.check_call(["cmake", "-S", str(ROOT), "-B", str(build),
                           "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DZQ_BENCH=OFF"])
    subprocess.check_call(["cmake", "--build", str(build), "-j", str(os.cpu_count() or 1),
                           "--target", "zqrtree_ext"])
    return build


class BuildWithExtension(build_py):
    def run(self):
        super().run()
        target = Path(self.build_lib) / "zqrtree"
        with tempfile.TemporaryDirectory() as stage:
            subprocess.check_call(["cmake", "--install", str(cmake_build()), "--prefix", stage,
                                   "--component", "libraries"], stdout=subprocess.DEVNULL)
            found = [p for p in Path(stage).rglob("*.so*") if not p.is_symlink()]
            for path in found:
                # Real files under the names the loader asks for (the sonames).
                name = path.name
                soname = re.match(r"(lib\w+\.so\.\d+)", name)
                shutil.copy2(path, target / (soname.group(1) if soname else name))
        if not (target / "zqrtree_ext.so").exists():
            raise RuntimeError("the CMake build has no zqrtree_ext.so")


class BinaryDistribution(Distribution):
    def has_ext_modules(self):
        return True


setup(version=project_version(), cmdclass={"build_py": BuildWithExtension},
      distclass=BinaryDistribution)
