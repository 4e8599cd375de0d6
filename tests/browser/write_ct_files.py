"""Writes what a user might bring to the viewer, with the tools users have: a
CT-like head as NIfTI (nibabel; int16 Hounsfield units, RAS affine with 1.2 x
1.2 x 2 mm voxels), its labels on the same grid, and a sphere mesh as STL
(VTK). Usage: python3 write_ct_files.py FOLDER"""
import sys
from pathlib import Path

import nibabel as nib
import numpy as np
import vtk

folder = Path(sys.argv[1])
folder.mkdir(parents=True, exist_ok=True)
shape = (160, 160, 100)
affine = np.array([[1.2, 0, 0, -95.4], [0, 1.2, 0, -110.0], [0, 0, 2.0, -80.0], [0, 0, 0, 1]])
i, j, k = np.meshgrid(*[np.arange(n) for n in shape], indexing="ij")
x, y, z = (affine[:3, :3] @ np.stack([i, j, k]).reshape(3, -1) + affine[:3, 3:]).reshape(3, *shape)
r = (x / 80) ** 2 + ((y + 14) / 95) ** 2 + (z / 75) ** 2
ct = np.full(shape, -1000, np.int16)
labels = np.zeros(shape, np.uint8)
ct[r <= 1.0] = 40
labels[r <= 1.0] = 1
skull = (r <= 0.92) & (r > 0.8)
ct[skull] = 1100
labels[skull] = 2
brain = r <= 0.8
ct[brain] = 32
labels[brain] = 3
# A contrast-filled vessel running obliquely through the brain, and a lesion.
vessel = ((x - 0.3 * z) ** 2 + (y + 5) ** 2) <= 9.0
ct[vessel & brain] = 300
labels[vessel & brain] = 4
lesion = (x - 25) ** 2 + (y - 20) ** 2 + (z - 10) ** 2 <= 12 ** 2
ct[lesion] = 70
labels[lesion] = 5
ct += np.random.default_rng(7).normal(0, 6, shape).astype(np.int16)
nib.save(nib.Nifti1Image(ct, affine), folder / "ct.nii.gz")
nib.save(nib.Nifti1Image(labels, affine), folder / "labels.nii.gz")

sphere = vtk.vtkSphereSource()
sphere.SetCenter(-20.0, 10.0, 0.0)
sphere.SetRadius(25.0)
sphere.SetThetaResolution(48)
sphere.SetPhiResolution(24)
writer = vtk.vtkSTLWriter()
writer.SetInputConnection(sphere.GetOutputPort())
writer.SetFileName(str(folder / "ball.stl"))
writer.SetFileTypeToBinary()
writer.Write()
