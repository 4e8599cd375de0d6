"""The documented batch example: a maximum slab of every file of an archive
on a local dask cluster of two worker processes, the same pictures as one
after the other in this process."""
import os
import pathlib
import subprocess
import sys

import nibabel as nib
import numpy as np

from conftest import read_png

EXAMPLE = pathlib.Path(__file__).resolve().parents[2] / "python" / "examples" / "batch_mip.py"


def test_batch_mip_on_a_local_cluster(tmp_path):
    rng = np.random.default_rng(7)
    files = []
    for k in range(3):
        data = rng.integers(-200, 900, size=(24, 20, 16)).astype(np.int16)
        data[8 + k, 10, 8] = 3000  # a bright spot in a different place in each file
        affine = np.diag([1.5, 1.5, 2.0, 1.0])
        affine[:3, 3] = [-18.0 + k, 12.0, -16.0]
        path = tmp_path / f"scan{k}.nii.gz"
        nib.save(nib.Nifti1Image(data, affine), path)
        files.append(str(path))
    run = subprocess.run([sys.executable, str(EXAMPLE), str(tmp_path / "out")] + files,
                         capture_output=True, text=True, timeout=300, env=dict(os.environ))
    assert run.returncode == 0, run.stderr
    written = run.stdout.split()
    assert written == [str(tmp_path / "out" / f"scan{k}.png") for k in range(3)]

    sys.path.insert(0, str(EXAMPLE.parent))
    import batch_mip

    for k, path in enumerate(files):
        serial = batch_mip.mip_picture(path, str(tmp_path))
        assert np.array_equal(read_png(written[k]), read_png(serial))
    assert len({read_png(p).tobytes() for p in written}) == 3
