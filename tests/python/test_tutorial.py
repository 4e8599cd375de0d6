"""The tutorial's own lines (docs/python.md) run as a new user runs them, and
the request file they write replays in zrslice to the same picture."""
import os
import pathlib
import re

import numpy as np

from conftest import read_png, zrslice_render

TUTORIAL = pathlib.Path(__file__).resolve().parents[2] / "docs" / "python.md"


def test_the_tutorial_runs_and_its_request_file_replays(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    namespace = {"__name__": "tutorial"}
    for block in re.findall(r"```python\n(.*?)```", TUTORIAL.read_text(), re.S):
        exec(compile(block, str(TUTORIAL), "exec"), namespace)
    for picture in ("views.png", "slab-pick.png", "curved.png", "mesh-cut.png"):
        assert read_png(tmp_path / picture).shape[2] == 4
    hit = namespace["hit"]
    assert abs(hit["value"] - 350) < 1e-6 and abs(hit["world"][1] + 25) < 1.0  # on the vessel
    replay, _ = zrslice_render(tmp_path / "mesh-cut.json", tmp_path / "replay.png")
    assert np.array_equal(replay, namespace["cut"].rgba)
    assert os.path.exists(tmp_path / "mesh-cut.ball.ply")
