"""Whole-process timing, from a cold process to the picture written, with the
file in the page cache. Peak resident memory of each process comes from the
kernel's accounting (wait4).

M2: `zrslice render` of the cut of mesh S2 by the plane z = 10.3 mm, against
VTK reading the same file and cutting it by the same plane (vtkSTLReader /
vtkPLYReader, then vtkCutter) in the same run. The S2 files are the ones the
M2 benchmarks of zrbench write into the build tree's bench-data folder
(bench/sphere_s2.h).

L1, L1z: `zrslice render` of a 64 x 64 axial slice through volume V1 saved as
a signed 16-bit NIfTI-1 file, uncompressed (L1) and gzip-compressed (L1z),
against `gzip -dc` of the same compressed file in the same run. The files are
written into the bench-data folder by bench/volume_v1_nifti.py.

    python3 bench/time_to_picture.py ZRSLICE BENCH_DATA_DIR [RUNS] [M2|L1 ...]

Medians of RUNS (7) runs after one warm-up run each; the workloads named at
the end (all when none).
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

import volume_v1_nifti

VTK_CUT = """
import sys, time
start = time.perf_counter()
import vtk
imported = time.perf_counter()
path = sys.argv[1]
reader = vtk.vtkSTLReader() if path.endswith(".stl") else vtk.vtkPLYReader()
reader.SetFileName(path)
reader.Update()
read = time.perf_counter()
plane = vtk.vtkPlane()
plane.SetOrigin(0.0, 0.0, 10.3)
plane.SetNormal(0.0, 0.0, 1.0)
cutter = vtk.vtkCutter()
cutter.SetCutFunction(plane)
cutter.SetInputConnection(reader.GetOutputPort())
cutter.Update()
cut = time.perf_counter()
print(reader.GetOutput().GetNumberOfPoints(), cutter.GetOutput().GetNumberOfCells(),
      read - imported, cut - read)
"""


def request(mesh):
    return {
        "image": {"size": [512, 512], "camera": {"position": [0, 0, 10.3], "viewDirection": [0, 0, 1],
                                                  "up": [0, -1, 0], "viewExtent": 200}},
        "objects": {"s2": {"type": "mesh", "file": mesh}},
        "scene": [{"object": "s2", "colour": [1.0, 0.8, 0.2]}],
        "requests": [{"_string_RenderingSourceType": "SECTIONAL_MESH", "_bool_IsFirstRenderer": True,
                      "_bool_IsFinalRenderer": True}],
    }


def volume_request(volume):
    """A 64 x 64 axial slice through V1's centre, 205 mm across. nibabel's affine
    is RAS: voxel (i, j, k) lies at LPS (-0.4 i, -0.4 j, 0.5 k)."""
    return {
        "image": {"size": [64, 64], "camera": {"position": [-102.2, -102.2, 99.75], "viewDirection": [0, 0, 1],
                                                "up": [0, -1, 0], "viewExtent": 205}},
        "objects": {"v1": {"type": "volume", "file": volume},
                    "grey": {"type": "table", "window": {"centre": 1000, "width": 2000}}},
        "scene": [{"object": "v1", "tables": {"WINDOWING": "grey"}}],
        "requests": [{"_bool_IsFirstRenderer": True, "_bool_IsFinalRenderer": True}],
    }


def run(command, stdout=subprocess.PIPE):
    """Wall time from the process start to its end, peak resident bytes, output."""
    start = time.perf_counter()
    process = subprocess.Popen(command, stdout=stdout, stderr=subprocess.PIPE, text=True)
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.perf_counter() - start
    out = process.stdout.read() if process.stdout else ""
    err = process.stderr.read()
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"{' '.join(command)} failed ({process.returncode}):\n{err}")
    return seconds, usage.ru_maxrss * 1024, out


def measure(command, runs, stdout=subprocess.PIPE):
    run(command, stdout)  # warm-up: the file into the page cache, the libraries loaded once
    results = [run(command, stdout) for _ in range(runs)]
    return (statistics.median(r[0] for r in results), statistics.median(r[1] for r in results),
            [r[2] for r in results])


def mesh_rows(zrslice, data, runs, folder):
    rows = []
    for workload, name in (("M2s", "s2.stl"), ("M2p", "s2.ply")):
        mesh = os.path.abspath(os.path.join(data, name))
        if not os.path.exists(mesh):
            sys.exit(f"{mesh} is missing: run zrbench --benchmark_filter=M2_Read first")
        document = os.path.join(folder, f"{workload}.json")
        with open(document, "w") as f:
            json.dump(request(mesh), f)
        ours = measure([zrslice, "-q", "render", document, "-o", os.path.join(folder, f"{workload}.png")], runs)
        theirs = measure([sys.executable, "-c", VTK_CUT, mesh], runs)
        inside = [line.split() for line in theirs[2]]
        vtk_read = statistics.median(float(f[2]) for f in inside)
        vtk_cut = statistics.median(float(f[3]) for f in inside)
        rows.append((workload, ours, theirs, vtk_read, vtk_cut, inside[0][0]))
    lines = ["| workload | zrslice, start to picture | peak | VTK process, read and cut | peak "
             "| VTK read inside | VTK cut inside | VTK points |", "|---|---|---|---|---|---|---|---|"]
    for workload, ours, theirs, vtk_read, vtk_cut, points in rows:
        lines.append(f"| {workload} | {ours[0]:.3f} s | {ours[1] / 2**20:.0f} MiB | {theirs[0]:.3f} s "
                     f"| {theirs[1] / 2**20:.0f} MiB | {vtk_read:.3f} s | {vtk_cut:.3f} s | {points} |")
    return lines


def volume_rows(zrslice, data, runs, folder):
    plain, compressed = (os.path.abspath(p) for p in volume_v1_nifti.write(data))
    voxel_bytes = 512 * 512 * 400 * 2
    lines = ["| workload | zrslice, start to picture | peak | peak / voxel bytes | gzip -dc | ratio |",
             "|---|---|---|---|---|---|"]
    with open(os.devnull, "w") as sink:
        gunzip = measure(["gzip", "-dc", compressed], runs, stdout=sink)
    for workload, volume in (("L1", plain), ("L1z", compressed)):
        document = os.path.join(folder, f"{workload}.json")
        with open(document, "w") as f:
            json.dump(volume_request(volume), f)
        ours = measure([zrslice, "-q", "render", document, "-o", os.path.join(folder, f"{workload}.png")], runs)
        lines.append(f"| {workload} | {ours[0]:.3f} s | {ours[1] / 2**20:.0f} MiB | {ours[1] / voxel_bytes:.2f} "
                     + (f"| {gunzip[0]:.3f} s | {ours[0] / gunzip[0]:.2f} |" if workload == "L1z" else "| | |"))
    return lines


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    zrslice, data = sys.argv[1], sys.argv[2]
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 7
    chosen = set(sys.argv[4:]) or {"M2", "L1"}
    print(f"load before: {open('/proc/loadavg').read().split()[:3]}", flush=True)
    lines = []
    with tempfile.TemporaryDirectory() as folder:
        if "L1" in chosen:
            lines += volume_rows(zrslice, data, runs, folder) + [""]
        if "M2" in chosen:
            lines += mesh_rows(zrslice, data, runs, folder)
    print(f"load after:  {open('/proc/loadavg').read().split()[:3]}")
    print("\n".join(lines))


if __name__ == "__main__":
    main()
