"""Writes volume V1 as an uncompressed NIfTI-1 file (nibabel), for the viewer's
frame-time benchmark: `zrslice view` loads it as a user's file. The voxels come
from the cache zrbench writes (bench/workloads.h): 512 x 512 x 400 unsigned
16-bit, x fastest, voxel (0, 0, 0) at the world origin, 0.4 x 0.4 x 0.5 mm,
axes along LPS x, y, z (so the RAS affine negates x and y).

    python3 bench/viewer_volume.py V1_RAW_CACHE OUT.nii
"""
import os
import sys

import nibabel as nib
import numpy as np

raw, out = sys.argv[1], sys.argv[2]
if os.path.exists(out) and os.path.getmtime(out) >= os.path.getmtime(raw):
    sys.exit(0)
voxels = np.fromfile(raw, dtype="<u2").reshape(400, 512, 512).transpose(2, 1, 0)
image = nib.Nifti1Image(voxels, np.diag([-0.4, -0.4, 0.5, 1.0]))
image.set_sform(image.affine, code=1)
temporary = out + ".partial.nii"
nib.save(image, temporary)
os.replace(temporary, out)
