"""Every call of the package, success and failure, on generated files."""

from __future__ import annotations

import pathlib
import pickle
import struct
import threading

import pytest

import gen
import qbimage
from qbimage import _api, _scale


def jpeg_size(path) -> tuple[int, int]:
    return gen.jpeg_size(pathlib.Path(path).read_bytes())


def png_size(path) -> tuple[int, int]:
    return struct.unpack(">II", pathlib.Path(path).read_bytes()[16:24])


@pytest.mark.parametrize("name, want", [
    ("a.JPG", qbimage.MediaType.JPEG), ("x.dng", qbimage.MediaType.RAW),
    ("x.png", qbimage.MediaType.PNG), ("x.mov", qbimage.MediaType.VIDEO),
    ("a.jpg.txt", qbimage.MediaType.UNKNOWN), ("dir.d/file", qbimage.MediaType.UNKNOWN),
    ("noext", qbimage.MediaType.UNKNOWN),
])
def test_media_type(name, want):
    assert qbimage.media_type(name) == want


@pytest.mark.parametrize("name, size, as_type", [
    ("plain.jpg", (128, 128), str), ("exif.jpg", (100, 60), pathlib.Path),
    ("grey.jpg", (64, 64), bytes), ("progressive.jpg", (128, 96), str),
    ("alpha.png", (50, 50), str), ("camera.dng", (128, 128), pathlib.Path),
    ("preview.dng", (90, 90), str),
])
def test_thumbnail(files, tmp_path, name, size, as_type):
    out = tmp_path / "t.jpg"
    src = files[name]
    qbimage.thumbnail(as_type(bytes(src) if as_type is bytes else src),
                      as_type(bytes(out) if as_type is bytes else out), size)
    assert jpeg_size(out) == size


@pytest.mark.parametrize("name, code", [
    ("notjpeg.jpg", 9), ("movie.mov", 9), ("missing.jpg", 2), ("noext", 2),
])
def test_thumbnail_fails(files, tmp_path, name, code):
    src = files.get(name, tmp_path / name)
    with pytest.raises(qbimage.ThumbnailError) as caught:
        qbimage.thumbnail(src, tmp_path / "t.jpg")
    assert caught.value.code == code and "library code" in str(caught.value)


@pytest.mark.parametrize("xform, crop, size", [
    (qbimage.Xform.ROT_90, None, (200, 320)), (qbimage.Xform.FLIP_H, None, (320, 200)),
    (0, (16, 16, 64, 48), (64, 48)), (7, (0, 0, 64, 48), (64, 48)),
])
def test_transform(files, tmp_path, xform, crop, size):
    qbimage.transform(files["plain.jpg"], tmp_path / "o.jpg", xform, crop)
    assert jpeg_size(tmp_path / "o.jpg") == size


@pytest.mark.parametrize("name, out, code", [
    ("missing.jpg", "o.jpg", -1), ("plain.jpg", "nodir/o.jpg", -2), ("notjpeg.jpg", "o.jpg", -3),
])
def test_transform_fails(files, tmp_path, name, out, code):
    with pytest.raises(qbimage.TransformError) as caught:
        qbimage.transform(files.get(name, tmp_path / name), tmp_path / out, 5)
    assert caught.value.code == code


@pytest.mark.parametrize("name, force, xform, size", [
    ("camera.dng", True, 5, (80, 120)), ("preview.dng", False, 0, (120, 80)),
])
def test_raw_preview(files, tmp_path, name, force, xform, size):
    qbimage.raw_preview(files[name], tmp_path / "p.jpg", force, xform)
    assert jpeg_size(tmp_path / "p.jpg") == size


@pytest.mark.parametrize("name, out, code", [
    ("plain.jpg", "p.jpg", -1), ("camera.dng", "nodir/p.jpg", -2),
])
def test_raw_preview_fails(files, tmp_path, name, out, code):
    with pytest.raises(qbimage.RawPreviewError) as caught:
        qbimage.raw_preview(files[name], tmp_path / out, True)
    assert caught.value.code == code


@pytest.mark.parametrize("name, expect", [
    ("exif.jpg", {"type": "jpeg", "width": 200, "height": 320, "orientation": 6,
                  "make": "Qbcam", "description": "a test photo", "sub_sec": "42",
                  "exposure_time": [1, 250], "exposure_time_decimal": 0.004,
                  "f_number_decimal": 2.8, "flash": 16, "iso": None, "metering_mode": 5,
                  "gps_latitude": -121890540, "gps_latitude_deg": -121890540 / 3600000.0,
                  "gps_altitude_m": 58.5}),
    ("plain.jpg", {"width": 320, "height": 200, "orientation": None, "make": None,
                   "gps_latitude": None, "exposure_time": None}),
    ("camera.dng", {"type": "raw", "model": "QB-1", "iso": 400, "width": 80, "height": 120,
                    "date_time": "2021:06:15 14:30:45"}),
])
def test_metadata(files, name, expect):
    meta = qbimage.metadata(files[name])
    assert list(meta) == [k.name for k in qbimage.METADATA_KEYS]
    assert meta["file"] == str(files[name])
    assert {k: meta[k] for k in expect} == expect


@pytest.mark.parametrize("name, code, words", [
    ("alpha.png", None, "JPEG and camera RAW files only"),
    ("nodims.jpg", 9, "Cannot get dimension"),
    ("missing.jpg", 9, "Cannot extract metadata for"),
])
def test_metadata_fails(files, tmp_path, name, code, words):
    with pytest.raises(qbimage.MetadataError) as caught:
        qbimage.metadata(files.get(name, tmp_path / name))
    assert caught.value.code == code and words in str(caught.value)


def test_frame(files, tmp_path):
    qbimage.frame(files["frame.png"], files["plain.jpg"], tmp_path / "f.png", (20, 20, 100, 80))
    assert png_size(tmp_path / "f.png") == (200, 150)


@pytest.mark.parametrize("frame, photo, box, rc", [
    ("missing.png", "plain.jpg", (20, 20, 100, 80), "rc=-1"),
    ("frame.png", "plain.jpg", (150, 100, 100, 80), "rc=-1"),
    ("frame.png", "missing.jpg", (20, 20, 100, 80), "rc=-2"),
])
def test_frame_fails(files, tmp_path, frame, photo, box, rc):
    with pytest.raises(qbimage.FrameError) as caught:
        qbimage.frame(files.get(frame, tmp_path / frame), files.get(photo, tmp_path / photo),
                      tmp_path / "f.png", box)
    assert caught.value.code == 9 and rc in str(caught.value)


@pytest.mark.parametrize("name, mode, xform, sizes", [
    ("plain.jpg", qbimage.Mode.FIT_BOX, 0, [((160, 160), (160, 100)), ((40, 40), (40, 25)),
                                            ((320, 320), (320, 200))]),
    ("progressive.jpg", qbimage.Mode.FIT_BOX_PAD, 5, [((64, 64), (64, 64)),
                                                      ((30, 200), (30, 200))]),
    ("grey.jpg", qbimage.Mode.FILL_CENTRE, 0, [((50, 50), (50, 50)), ((10, 20), (10, 20))]),
])
def test_scale(files, tmp_path, name, mode, xform, sizes):
    outputs = [(w, h, tmp_path / f"s{i}.jpg") for i, ((w, h), _) in enumerate(sizes)]
    qbimage.scale(files[name], outputs, mode=mode, xform=xform)
    assert [jpeg_size(p) for _, _, p in outputs] == [want for _, want in sizes]


def damaged(files, tmp_path, where: str) -> pathlib.Path:
    """plain.jpg damaged in its header, or behind its scan (a bad Huffman table)."""
    data = files["plain.jpg"].read_bytes()
    if where == "header":
        data = data[:2] + b"\xff\xdb\x00\x03\x55" + data[2:]  # a table index of 5
    else:
        data = data[:-2] + b"\xff\xc4\x00\x13\x00" + bytes([200] * 16) + data[-2:]
    return gen.write(tmp_path / f"{where}.jpg", data)


@pytest.mark.parametrize("source, outputs, code, failed", [
    ("notjpeg.jpg", [(50, 50, "a.jpg")], -2, []),
    ("header", [(50, 50, "a.jpg")], -2, []),
    ("trailer", [(50, 50, "a.jpg"), (300, 300, "b.jpg")], -2, []),
    ("plain.jpg", [(50, 50, "a.jpg"), (50, 50, "nodir/b.jpg"), (0, 9, "c.jpg")], -1,
     ["nodir/b.jpg", "c.jpg"]),
    ("plain.jpg", [(50, 50, "SOURCE")], -1, ["SOURCE"]),
])
def test_scale_fails(files, tmp_path, source, outputs, code, failed):
    src = files.get(source) or damaged(files, tmp_path, source)
    name = lambda p: str(src) if p == "SOURCE" else str(tmp_path / p)  # noqa: E731
    with pytest.raises(qbimage.ScaleError) as caught:
        qbimage.scale(src, [(w, h, name(p)) for w, h, p in outputs])
    assert caught.value.code == code
    assert [p for p, _ in caught.value.failed] == [name(p) for p in failed]
    assert (tmp_path / "a.jpg").exists() == (source == "plain.jpg" and "a.jpg" in str(outputs))


@pytest.mark.parametrize("where, boxes", [("header", [(50, 50)]),
                                          ("trailer", [(150, 150), (20, 20)])])
def test_scale_guard_without_the_check(files, tmp_path, where, boxes):
    # Straight to the guarded libjpeg calls: the fatal error parks its thread
    # and comes back as a record; the process goes on.
    n = _api.loaded()
    src = damaged(files, tmp_path, where)
    requests = [(bytes(tmp_path / f"g{w}.jpg"), n.ffi.new("image_scale_params *", {
        "mode": 4, "width": w, "height": h, "max_aspect": 10.0, "quality": 85}))
        for w, h in boxes]
    state = _scale._guarded(n, _scale._Guard.get(n), bytes(src), requests, 0, None)
    assert state.fatal and n.ffi.string(state.message)


def test_scale_checks_in_full_when_the_frame_height_was_misread(files, tmp_path, monkeypatch):
    seen = []
    guarded = _scale._guarded

    def spy(n, guard, snapshot, requests, xform, expected):
        seen.append(expected)
        return guarded(n, guard, snapshot, requests, xform, expected)

    monkeypatch.setattr(_scale, "frame_size", lambda data: (320, 120))  # really 200 high
    monkeypatch.setattr(_scale, "_guarded", spy)
    qbimage.scale(files["plain.jpg"], [(80, 80, tmp_path / "s.jpg")])
    assert seen == [120, None] and jpeg_size(tmp_path / "s.jpg") == (80, 50)


def test_threads_agree_with_one_thread(files, tmp_path):
    names = ["plain.jpg", "exif.jpg", "alpha.png", "camera.dng"] * 4
    for i, name in enumerate(names[:4]):
        qbimage.thumbnail(files[name], tmp_path / f"one{i}.jpg")
    threads = [threading.Thread(target=qbimage.thumbnail,
                                args=(files[name], tmp_path / f"many{i}.jpg"))
               for i, name in enumerate(names)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for i in range(len(names)):
        assert (tmp_path / f"many{i}.jpg").read_bytes() == (tmp_path / f"one{i % 4}.jpg").read_bytes()


def test_errors_survive_pickling():
    err = qbimage.ScaleError("x: failed", -1, "x", [("o.jpg", -1)])
    back = pickle.loads(pickle.dumps(err))
    assert (type(back), back.code, back.path, back.failed, str(back)) == \
        (qbimage.ScaleError, -1, "x", [("o.jpg", -1)], "x: failed")
