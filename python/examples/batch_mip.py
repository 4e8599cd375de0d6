"""Re-slice an archive on a cluster: a maximum-intensity slab through the
middle of every volume file, written as a PNG beside a folder of pictures.

    python3 batch_mip.py OUT_FOLDER FILE...                  # a local cluster on this machine
    python3 batch_mip.py --scheduler tcp://host:8786 OUT FILE...  # a running dask cluster

Each file is read, rendered and written by one dask task on whichever worker
runs it; only the file names travel. On a real cluster every worker needs
the zrslice package (and the files under the same paths, e.g. on a shared
file system): start the scheduler with `dask-scheduler`, a worker per
machine with `dask-worker tcp://host:8786 --nthreads 1`, and pass the
scheduler's address here. One thread per worker process: the plug-in spreads
each picture over the machine's cores itself.
"""
import argparse
import os

import numpy as np


def mip_picture(path, out_folder, size=256, thickness=40.0):
    """Reads `path`, renders an axial maximum slab `thickness` mm thick
    through the volume's centre, windowed over its 1st to 99th percentile,
    writes <out_folder>/<name>.png and returns its path."""
    import zrslice
    from PIL import Image

    volume = zrslice.load(path)
    low, high = volume.percentiles
    shape = np.array(volume.shape)
    centre = volume.affine @ np.append((shape - 1) / 2.0, 1.0)
    corners = volume.affine[:3, :3] @ np.diag(shape)
    extent = float(np.max(np.abs(corners).sum(axis=1)[:2]))
    scene = zrslice.Scene()
    scene.add(volume, window=zrslice.Table(window=((low + high) / 2.0, max(high - low, 1.0))))
    result = zrslice.render(scene, zrslice.Camera.axial(centre[:3], extent), size=(size, size),
                            requests=zrslice.slab(thickness))
    name = os.path.basename(path)
    for suffix in (".gz", ".nii", ".nrrd", ".mha", ".mhd", ".mgz", ".mgh"):
        name = name[: -len(suffix)] if name.endswith(suffix) else name
    out = os.path.join(out_folder, name + ".png")
    Image.fromarray(result.rgba).save(out)
    return out


def run(files, out_folder, scheduler=None, workers=2):
    """Maps mip_picture over `files` on the cluster at `scheduler`, or on a
    local cluster of `workers` processes; returns the pictures' paths."""
    from dask.distributed import Client, LocalCluster

    os.makedirs(out_folder, exist_ok=True)
    if scheduler:
        cluster = None
        client = Client(scheduler)
    else:
        cluster = LocalCluster(n_workers=workers, processes=True, threads_per_worker=1, dashboard_address=None)
        client = Client(cluster)
    try:
        futures = client.map(mip_picture, [os.path.abspath(f) for f in files], out_folder=os.path.abspath(out_folder))
        return client.gather(futures)
    finally:
        client.close()
        if cluster is not None:
            cluster.close()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("out_folder")
    parser.add_argument("files", nargs="+")
    parser.add_argument("--scheduler", help="address of a running dask scheduler (default: a local cluster)")
    parser.add_argument("--workers", type=int, default=2, help="processes of the local cluster (default 2)")
    args = parser.parse_args()
    for picture in run(args.files, args.out_folder, args.scheduler, args.workers):
        print(picture)


if __name__ == "__main__":
    main()
