"""Builds the wheel: the extension quillmarsh_sync._core comes from the
project's own CMake build (python/CMakeLists.txt), for the interpreter that
runs this script, and the package's Python files from python/.

    python3 -m build --wheel --no-isolation

Needs Debian's cmake, a C++ compiler, pybind11-dev, python3-dev and the
library's own build dependencies (scripts/setup-debian.sh). Work files go
to build-wheel/; QMSYNC_BUILD_JOBS sets the compile jobs (default 2).
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent
WORK = ROOT / "build-wheel"


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(quillmarsh_sync VERSION ([0-9.]+)", text).group(1)


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        cmake_dir = WORK / "cmake"
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(cmake_dir),
            # -O2, as the project is built and tested; g++ 12 warns falsely at -O3.
            "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG",
            "-DCMAKE_MODULE_LINKER_FLAGS=-s",
            "-DQMSYNC_BUILD_TESTS=OFF", "-DQMSYNC_BUILD_BENCH=OFF", "-DQMSYNC_BUILD_PYTHON=ON",
            f"-DPython_EXECUTABLE={sys.executable}",
        ]
        if shutil.which("ninja"):
            configure += ["-G", "Ninja"]
        subprocess.run(configure, check=True)
        jobs = os.environ.get("QMSYNC_BUILD_JOBS", "2")
        subprocess.run(["cmake", "--build", str(cmake_dir), "--target", "quillmarsh_sync_python",
                        "--parallel", jobs], check=True)
        built = sorted((cmake_dir / "python" / "quillmarsh_sync").glob("_core*.so"))
        if len(built) != 1:
            raise RuntimeError(f"expected one built _core module, found {built}")
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built[0], target)


WORK.mkdir(exist_ok=True)
setup(
    version=project_version(),
    packages=["quillmarsh_sync"],
    package_dir={"quillmarsh_sync": "python/quillmarsh_sync"},
    package_data={"quillmarsh_sync": ["__init__.pyi", "py.typed"]},
    ext_modules=[CMakeExtension("quillmarsh_sync._core")],
    cmdclass={"build_ext": CMakeBuild},
    options={
        "build": {"build_base": str(WORK / "setuptools")},
        "egg_info": {"egg_base": str(WORK)},
    },
    zip_safe=False,
)
