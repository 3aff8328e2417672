# SPDX-License-Identifier: Apache-2.0
"""Makes a wheel that holds the package and the library.

The build folder is made by CMake, or is the one that VIDEOSTABILIZER_BUILD_DIR names.
"""

import os
import pathlib
import re
import shutil
import subprocess

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
VERSION = re.search(r"project\(videostabilizer VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())


class CMakeBuild(build_ext):
    def build_extension(self, extension):
        folder = pathlib.Path(os.environ.get("VIDEOSTABILIZER_BUILD_DIR", self.build_temp)).resolve()
        if "VIDEOSTABILIZER_BUILD_DIR" not in os.environ:
            subprocess.run(
                ["cmake", "-S", ROOT, "-B", folder, "-DCMAKE_BUILD_TYPE=Release"]
                + [f"-DVIDEOSTABILIZER_BUILD_{part}=OFF" for part in ("TESTS", "APPS", "BENCH")]
                + ["-DVIDEOSTABILIZER_PYTHON=ON"],
                check=True,
            )
            subprocess.run(["cmake", "--build", folder, "--target", "videostabilizer_python"], check=True)
        target = pathlib.Path(self.get_ext_fullpath(extension.name)).parent
        target.mkdir(parents=True, exist_ok=True)
        for module in (folder / "bindings/python/videostabilizer").glob("_native*.so"):
            shutil.copy2(module, target)
        shutil.copy2(next(folder.glob("libvideostabilizer.so.?")), target)  # found by $ORIGIN


setup(
    version=VERSION.group(1),
    packages=["videostabilizer"],
    package_data={"videostabilizer": ["*.pyi", "py.typed"]},
    ext_modules=[Extension("videostabilizer._native", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
)
