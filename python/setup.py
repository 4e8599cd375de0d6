"""Installs the zrslice package that the project's build put together in
<build>/python (the compiled module, the plug-in and the host library beside
the Python files); it compiles nothing. From the project's folder, offline:

    python3 -m venv --system-site-packages ~/zrslice-env
    ~/zrslice-env/bin/pip install --no-build-isolation --no-index build/release/python

docs/python.md says more.
"""
import glob
import os
import sys

from setuptools import setup
from setuptools.dist import Distribution

here = os.path.dirname(os.path.abspath(__file__))
if not glob.glob(os.path.join(here, "zrslice", "_zrslice*.so")):
    sys.exit("zrslice: install from the build folder (build/release/python), which the build fills; "
             "build first: cmake --preset release && cmake --build --preset release")


class CompiledDistribution(Distribution):
    """The package holds compiled code for this platform and Python."""

    def has_ext_modules(self):
        return True


setup(
    name="zrslice",
    version="1.0.0",
    description="The CPU sectional render plug-in from Python: numpy volumes in, numpy pictures out",
    packages=["zrslice"],
    package_data={"zrslice": ["*.so"]},
    distclass=CompiledDistribution,
    python_requires=">=3.9",
    install_requires=["numpy"],
    zip_safe=False,
)
