"""Volume V1 (bench/workloads.h) as the NIfTI files of workload L1: signed
16-bit, uncompressed (v1_i16.nii) and gzip-compressed (v1_i16.nii.gz), written
by nibabel with an affine that is V1's spacing on the diagonal (identity
direction; voxel (0, 0, 0) at the origin). The voxels are generated here by
V1's rules in double precision and checked against V1's published checksum, so
the files hold exactly the volume the module benchmarks draw.

    python3 bench/volume_v1_nifti.py BENCH_DATA_DIR
"""
import hashlib
import os
import sys

import numpy as np

DIMS = (512, 512, 400)
SPACING = (0.4, 0.4, 0.5)
V1_MD5 = "d44ec8e2e81b0430d0f71ea274baa487"
NAMES = ("v1_i16.nii", "v1_i16.nii.gz")


def v1_slice(k):
    """Slice k of V1 as a (y, x) array of uint16."""
    i = np.arange(DIMS[0], dtype=np.float64)[None, :]
    j = np.arange(DIMS[1], dtype=np.float64)[:, None]
    x, y, z = (i - 255.5) / 256, (j - 255.5) / 256, (k - 199.5) / 200

    def ellipsoid(a, b, c):
        return x * x / (a * a) + y * y / (b * b) + z * z / (c * c) <= 1.0

    def sphere(cx, cy, cz, r):
        dx, dy, dz = x - cx, y - cy, z - cz
        return dx * dx + dy * dy + dz * dz <= r * r

    v = np.zeros((DIMS[1], DIMS[0]), dtype=np.int64)
    v[ellipsoid(0.9, 0.8, 0.95)] = 1000
    v[ellipsoid(0.85, 0.75, 0.9) & ~ellipsoid(0.8, 0.7, 0.85)] = 2500
    v[sphere(0.3, 0.2, 0.0, 0.06) | sphere(-0.3, 0.2, 0.0, 0.06)] = 3500
    v[sphere(0.0, -0.3, 0.3, 0.1)] = 1200
    ii = np.arange(DIMS[0])[None, :]
    jj = np.arange(DIMS[1])[:, None]
    v += (7 * ii + 13 * jj + 31 * k) % 17
    return v.astype(np.uint16)


def write(folder):
    """Writes the L1 files into `folder` unless they are there; returns their paths."""
    paths = [os.path.join(folder, name) for name in NAMES]
    if all(os.path.exists(p) for p in paths):
        return paths
    import nibabel as nib

    os.makedirs(folder, exist_ok=True)
    voxels = np.empty(DIMS[::-1] + (), dtype=np.uint16)  # (z, y, x): x fastest in memory
    digest = hashlib.md5()
    for k in range(DIMS[2]):
        voxels[k] = v1_slice(k)
        digest.update(voxels[k].astype("<u2").tobytes())
    if digest.hexdigest() != V1_MD5:
        sys.exit(f"generated V1 has MD5 {digest.hexdigest()}, not {V1_MD5}")
    # nibabel indexes (i, j, k): the (x, y, z) view of the same memory.
    image = nib.Nifti1Image(voxels.astype(np.int16).transpose(2, 1, 0), np.diag(SPACING + (1.0,)))
    image.set_data_dtype(np.int16)
    for path in paths:
        temporary = path + ".partial" + (".nii.gz" if path.endswith(".gz") else ".nii")
        nib.save(image, temporary)
        os.replace(temporary, path)
    return paths


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    print("\n".join(write(sys.argv[1])))
