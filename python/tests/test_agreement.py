"""The package and the qbimage tool give the same answers for the same files."""

from __future__ import annotations

import json
import subprocess

import pytest

import qbimage


def run(tool, *args) -> bytes:
    return subprocess.run([tool, *map(str, args)], stdout=subprocess.PIPE, check=True).stdout


def test_metadata_keys_are_the_tools(tool):
    listed = json.loads(run(tool, "meta", "--list-keys", "--json"))
    assert [(k["key"], k["type"], k["meaning"]) for k in listed] == \
        [(k.name, k.type, k.meaning) for k in qbimage.METADATA_KEYS]


@pytest.mark.parametrize("name", ["exif.jpg", "plain.jpg", "camera.dng", "preview.dng"])
def test_metadata_is_the_tools(tool, files, name):
    assert qbimage.metadata(str(files[name])) == json.loads(run(tool, "meta", "--json",
                                                                files[name]))


@pytest.mark.parametrize("name, size, background", [
    ("plain.jpg", (128, 128), 0xFFFFFF), ("exif.jpg", (100, 60), 0xFFFFFF),
    ("grey.jpg", (64, 64), 0xFFFFFF), ("progressive.jpg", (128, 96), 0xFFFFFF),
    ("alpha.png", (50, 50), 0x3366CC), ("camera.dng", (128, 128), 0xFFFFFF),
    ("preview.dng", (90, 90), 0xFFFFFF),
])
def test_thumbnail_is_the_tools(tool, files, tmp_path, name, size, background):
    qbimage.thumbnail(files[name], tmp_path / "py.jpg", size, background=background)
    run(tool, "thumb", files[name], tmp_path / "tool.jpg", "--size", "%dx%d" % size,
        "--background", "%06X" % background)
    assert (tmp_path / "py.jpg").read_bytes() == (tmp_path / "tool.jpg").read_bytes()


def test_scale_is_the_tools(tool, files, tmp_path):
    boxes = [(160, 160), (40, 40), (300, 100)]
    qbimage.scale(files["exif.jpg"], [(w, h, tmp_path / f"py{w}.jpg") for w, h in boxes],
                  mode=qbimage.Mode.FILL_CENTRE, xform=qbimage.Xform.ROT_90)
    run(tool, "scale", files["exif.jpg"], *[f"{w}x{h}:{tmp_path}/tool{w}.jpg" for w, h in boxes],
        "--mode", "6", "--xform", "5")
    for w, _ in boxes:
        assert (tmp_path / f"py{w}.jpg").read_bytes() == (tmp_path / f"tool{w}.jpg").read_bytes()
