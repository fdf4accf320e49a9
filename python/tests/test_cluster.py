"""Thumbnails of a generated tree on a LocalCluster of two worker processes."""

from __future__ import annotations

import logging
import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

import gen
import qbimage
from qbimage.cluster import thumbnail_tree


@pytest.fixture(scope="module")
def client():
    from dask.distributed import Client, LocalCluster
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                      dashboard_address=None, silence_logs=logging.ERROR) as cluster, \
            Client(cluster) as dask_client:
        yield dask_client


@pytest.fixture(scope="module")
def tree(tmp_path_factory) -> tuple[Path, dict[str, str]]:
    root = tmp_path_factory.mktemp("tree") / "photos"
    return root, gen.photo_tree(root, 200)


def outputs(root: Path) -> dict[str, bytes]:
    return {str(p.relative_to(root)): p.read_bytes() for p in sorted(root.rglob("*"))
            if p.is_file()}


def batch(*args) -> subprocess.CompletedProcess:
    return subprocess.run([sys.executable, "-m", "qbimage", "batch", *map(str, args)],
                          stderr=subprocess.PIPE, text=True, timeout=120)


def test_tree_on_two_workers(client, tree, tmp_path):
    src, kinds = tree
    broken = str(src / "2001/broken.jpg")
    first = thumbnail_tree(src, tmp_path / "thumbs", client=client)
    assert (first.done, first.skipped, first.ignored) == (199, 0, 2)
    assert [path for path, _ in first.failed] == [broken]
    assert "library code 9" in first.failed[0][1]

    expected = {}
    for rel, kind in kinds.items():
        if kind != "broken":
            qbimage.thumbnail(src / rel, tmp_path / "single.jpg")
            expected[rel + ".jpg"] = (tmp_path / "single.jpg").read_bytes()
    assert outputs(tmp_path / "thumbs") == expected  # no temporary file left either

    again = thumbnail_tree(src, tmp_path / "thumbs", client=client)
    assert (again.done, again.skipped, [p for p, _ in again.failed]) == (0, 199, [broken])


def test_module_from_the_shell(client, tree, tmp_path):
    src, _ = tree
    small = src / "2003/00"
    first = batch(small, tmp_path / "own", "--workers", "1", "--size", "64x48")
    assert first.returncode == 0, first.stderr
    assert re.search(r"qbimage batch: \d+ done, 0 skipped \(up to date\), 0 failed in ",
                     first.stderr)
    made = outputs(tmp_path / "own")
    assert made and all(gen.jpeg_size(data) == (64, 48) for data in made.values())

    shared = batch(src, tmp_path / "shared", "--scheduler", client.scheduler.address)
    assert shared.returncode == 1
    assert f"qbimage batch: failed: {src}/2001/broken.jpg: no thumbnail" in shared.stderr
    assert "199 done, 0 skipped (up to date), 1 failed" in shared.stderr
    assert batch(src, tmp_path / "x", "--size", "12").returncode == 2


def test_same_thumbnails_as_the_tools_batch(client, tree, tmp_path):
    tool = os.environ.get("QBIMAGE_TOOL")
    if not tool:
        pytest.skip("the qbimage tool is not built (QBIMAGE_TOOL unset): nothing to compare with")
    src, _ = tree
    ran = subprocess.run([tool, "batch", "--jobs", "2", src, tmp_path / "tool"],
                         stderr=subprocess.PIPE, text=True)
    ours = thumbnail_tree(src, tmp_path / "dask", client=client)
    assert outputs(tmp_path / "dask") == outputs(tmp_path / "tool")
    summary = ours.line().split(" in ")[0] + " in "
    assert f"qbimage batch: {summary}" in ran.stderr and ran.returncode == 1
