"""The Python package as users meet it: `import zrslice` (from the build tree,
PYTHONPATH set by CTest), numpy arrays and nibabel images in, numpy pictures
out, compared with independent numpy references and with `zrslice render`."""
import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "files"))

ZRSLICE = os.environ.get("ZRSLICE", "zrslice")
if os.sep in ZRSLICE:
    ZRSLICE = os.path.abspath(ZRSLICE)  # tests may change folder


def read_png(path):
    """A PNG as a numpy array: (H, W, 4) uint8 for colour, (H, W) uint16 for values."""
    from PIL import Image

    with Image.open(path) as image:
        if image.mode in ("I;16", "I;16B", "I"):
            return np.array(image, dtype=np.int64).astype(np.uint16)
        return np.array(image.convert("RGBA"))


def zrslice_render(request, out):
    """Runs `zrslice render request -o out`; returns the picture and the
    value picture (None when not written)."""
    command = [ZRSLICE, "-q"]
    if os.environ.get("ZR_PLUGIN"):
        command += ["--plugin", os.environ["ZR_PLUGIN"]]
    run = subprocess.run(command + ["render", str(request), "-o", str(out)], capture_output=True, text=True,
                         timeout=120)
    assert run.returncode == 0, run.stderr
    values = pathlib.Path(str(out)[:-4] + ".values.png")
    return read_png(out), (read_png(values) if values.exists() else None)


@pytest.fixture
def folder(tmp_path):
    return tmp_path
