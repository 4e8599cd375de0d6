"""Makes the tutorial's pictures from the tutorial itself: runs the python
code blocks of docs/python.md in order, in one namespace, in this folder
(docs/python/), so that the pictures are what the lines shown make.

    PYTHONPATH=build/release/python /usr/bin/python3 docs/python/make_pictures.py
"""
import os
import pathlib
import re

here = pathlib.Path(__file__).resolve().parent
tutorial = (here.parent / "python.md").read_text()
blocks = re.findall(r"```python\n(.*?)```", tutorial, re.S)
os.chdir(here)
namespace = {"__name__": "tutorial"}
for block in blocks:
    exec(compile(block, "docs/python.md", "exec"), namespace)
for leftover in ("head.nii.gz", "mesh-cut.json", "mesh-cut.volume0.raw", "mesh-cut.ball.ply", "mesh-cut.marks.ply"):
    pathlib.Path(leftover).unlink(missing_ok=True)
print("pictures in", here)
