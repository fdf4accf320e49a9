"""The qbimage tool run as a user runs it: one subprocess per case, its exit
status, its messages and the files it writes."""
import json
import os
import re
import shutil
import signal
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import (SOURCE_ROOT, TOOL, gen, jpeg_size, leftovers, picture_size, record,
                      run, run_bytes)

SUBCOMMANDS = ["thumb", "scale", "transform", "meta", "raw-preview", "frame", "batch"]


def expand(args, photos, out):
    return [str(a).format(d=photos, o=out) for a in args]


# ---------------------------------------------------------------------------
# Version and help

def test_version_is_the_headers():
    header = (SOURCE_ROOT / "include" / "qbimage.h").read_text()
    version = re.search(r'#define QBIMAGE_VERSION "([0-9.]+)"', header).group(1)
    assert run("--version", check=0).stdout.strip() == "qbimage " + version


@pytest.mark.parametrize("sub", SUBCOMMANDS)
def test_every_subcommand_has_help(sub):
    proc = run(sub, "--help", check=0)
    assert "Usage" in proc.stdout and "--log" in proc.stdout


@pytest.mark.parametrize("args", [[], ["nonsense"], ["thumb"], ["thumb", "a.jpg"]])
def test_usage_errors_exit_2(args):
    proc = run(*args, check=2)
    assert proc.stderr


# ---------------------------------------------------------------------------
# Success: exit 0, nothing said, each output of its size, no temporaries

SUCCESS = [
    ("thumb-jpeg", ["thumb", "{d}/camera.jpg", "{o}/t.jpg"], {"t.jpg": (128, 128)}),
    ("thumb-size", ["thumb", "{d}/plain.jpg", "{o}/t.jpg", "--size", "64x48",
                    "--quality", "50"], {"t.jpg": (64, 48)}),
    ("thumb-png", ["thumb", "{d}/frame.png", "{o}/t.jpg", "--background", "#102030"],
     {"t.jpg": (128, 128)}),
    ("thumb-raw", ["thumb", "{d}/camera.dng", "{o}/t.jpg", "--size", "90x90"],
     {"t.jpg": (90, 90)}),
    ("scale-names", ["scale", "{d}/plain.jpg", "--mode", "fit-box", "80x80:{o}/a.jpg",
                     "40x40:{o}/b.jpg", "--quality", "70", "--full-chroma"],
     {"a.jpg": (80, 60), "b.jpg": (40, 30)}),
    ("scale-numbers", ["scale", "{d}/plain.jpg", "--mode", "6", "50x50:{o}/c.jpg"],
     {"c.jpg": (50, 50)}),
    ("scale-fit-width", ["scale", "{d}/plain.jpg", "--mode", "FIT-WIDTH", "40x0:{o}/w.jpg"],
     {"w.jpg": (40, 30)}),
    ("scale-fit-height-turned", ["scale", "{d}/plain.jpg", "--mode", "fit-height", "--xform",
                                 "transpose", "90x0:{o}/h.jpg"], {"h.jpg": (90, 120)}),
    ("scale-turned-pad", ["scale", "{d}/plain.jpg", "--mode", "fit-box-pad", "--xform",
                          "rot90", "60x100:{o}/r.jpg"], {"r.jpg": (60, 100)}),
    ("scale-overlay-stamp", ["scale", "{d}/plain.jpg", "--mode", "fit-box", "--overlay",
                             "{d}/small.jpg", "--opacity", "0.5", "--position", "bottom-right",
                             "--exif-thumb", "{d}/small.jpg", "100x100:{o}/o.jpg",
                             "50x50:{o}/p.jpg"], {"o.jpg": (100, 75), "p.jpg": (50, 38)}),
    ("transform", ["transform", "{d}/blocks.jpg", "{o}/t.jpg", "--xform", "rot90"],
     {"t.jpg": (64, 100)}),
    ("transform-crop", ["transform", "{d}/blocks.jpg", "{o}/t.jpg", "--xform", "5",
                        "--crop", "0,0,32,16"], {"t.jpg": (32, 16)}),
    ("raw-preview", ["raw-preview", "{d}/camera.dng", "{o}/r.jpg"], {"r.jpg": (120, 80)}),
    ("raw-decode-turned", ["raw-preview", "{d}/camera.dng", "{o}/r.jpg", "--force-decode",
                           "--xform", "rot270", "--quality", "60"], {"r.jpg": (80, 120)}),
    ("frame", ["frame", "{d}/frame.png", "{d}/plain.jpg", "{o}/f.png", "--box",
               "10,10,40,30"], {"f.png": (80, 60)}),
]


@pytest.mark.parametrize("name,args,outputs", SUCCESS, ids=[c[0] for c in SUCCESS])
def test_success(photos, tmp_path, name, args, outputs):
    proc = run(*expand(args, photos, tmp_path), check=0)
    assert proc.stderr == "" and proc.stdout == ""
    for file, size in outputs.items():
        assert picture_size(tmp_path / file) == size, file
    assert sorted(p.name for p in tmp_path.iterdir()) == sorted(outputs)


@pytest.mark.parametrize("args", [
    ["thumb", "{d}/plain.jpg", "-", "--size", "32x32"],
    ["scale", "{d}/plain.jpg", "--mode", "fit-box", "32x32:-"],
    ["transform", "{d}/blocks.jpg", "-", "--xform", "none"],
    ["raw-preview", "{d}/camera.dng", "-"],
])
def test_standard_output(photos, tmp_path, args):
    proc = run_bytes(*expand(args, photos, tmp_path))
    assert proc.returncode == 0, proc.stderr
    assert jpeg_size(proc.stdout) is not None
    assert list(tmp_path.iterdir()) == []


def test_exif_thumbnail_is_embedded(photos, tmp_path):
    run("scale", photos / "plain.jpg", "--mode", "4", "--exif-thumb", photos / "small.jpg",
        f"64x64:{tmp_path}/s.jpg", check=0)
    data = (tmp_path / "s.jpg").read_bytes()
    assert data[6:10] == b"Exif" and (photos / "small.jpg").read_bytes() in data


def test_overlay_left_out_is_said(photos, tmp_path):
    proc = run("scale", photos / "plain.jpg", "--mode", "4", "--overlay",
               photos / "large.jpg", f"64x64:{tmp_path}/s.jpg", check=0)
    assert "warning" in proc.stderr and "left out" in proc.stderr


def test_png_background_reaches_the_library(photos, tmp_path):
    for colour in ("000000", "FFFFFF"):
        run("thumb", photos / "frame.png", tmp_path / f"{colour}.jpg", "--background", colour,
            check=0)
    assert (tmp_path / "000000.jpg").read_bytes() != (tmp_path / "FFFFFF.jpg").read_bytes()


# ---------------------------------------------------------------------------
# Failure: exit status, the file and the reason in words, no output left

FAILURES = [
    ("thumb-missing", ["thumb", "{d}/missing.jpg", "{o}/t.jpg"], 1,
     ["missing.jpg", "no such file"]),
    ("thumb-broken", ["thumb", "{d}/broken.jpg", "{o}/t.jpg"], 1,
     ["broken.jpg", "no thumbnail could be made", "library code 9"]),
    ("thumb-movie", ["thumb", "{d}/movie.mp4", "{o}/t.jpg"], 1, ["movie.mp4", "code 9"]),
    ("thumb-no-extension", ["thumb", "{d}/noextension", "{o}/t.jpg"], 1,
     ["noextension", "no extension", "library code 2"]),
    ("thumb-bad-size", ["thumb", "{d}/plain.jpg", "{o}/t.jpg", "--size", "0x10"], 2, ["--size"]),
    ("thumb-bad-colour", ["thumb", "{d}/plain.jpg", "{o}/t.jpg", "--background", "red"], 2,
     ["--background"]),
    ("thumb-no-folder", ["thumb", "{d}/plain.jpg", "{o}/none/t.jpg"], 1,
     ["none/t.jpg", "No such file"]),
    ("thumb-over-input", ["thumb", "{d}/plain.jpg", "{d}/plain.jpg"], 1, ["input file itself"]),
    ("scale-bad-mode", ["scale", "{d}/plain.jpg", "--mode", "9", "8x8:{o}/s.jpg"], 2, ["--mode"]),
    ("scale-no-mode", ["scale", "{d}/plain.jpg", "8x8:{o}/s.jpg"], 2, ["--mode"]),
    ("scale-bad-target", ["scale", "{d}/plain.jpg", "--mode", "4", "{o}/s.jpg"], 2, ["WxH:OUT"]),
    ("scale-empty-box", ["scale", "{d}/plain.jpg", "--mode", "4", "0x8:{o}/s.jpg"], 1,
     ["0x8", "cannot be produced", "library code -2"]),
    ("scale-not-jpeg", ["scale", "{d}/frame.png", "--mode", "4", "8x8:{o}/s.jpg"], 1,
     ["frame.png", "not a JPEG"]),
    ("scale-big-exif-thumb", ["scale", "{d}/plain.jpg", "--mode", "4", "--exif-thumb",
                              "{d}/camera.dng", "8x8:{o}/s.jpg"], 0, []),
    ("transform-not-jpeg", ["transform", "{d}/frame.png", "{o}/t.jpg", "--xform", "1"], 1,
     ["frame.png", "not a JPEG", "library code -3"]),
    ("transform-no-xform", ["transform", "{d}/plain.jpg", "{o}/t.jpg"], 2, ["--xform"]),
    ("transform-bad-xform", ["transform", "{d}/plain.jpg", "{o}/t.jpg", "--xform", "rot45"], 2,
     ["--xform"]),
    ("transform-bad-crop", ["transform", "{d}/plain.jpg", "{o}/t.jpg", "--xform", "1",
                            "--crop", "1,2,3"], 2, ["--crop"]),
    ("raw-not-raw", ["raw-preview", "{d}/plain.jpg", "{o}/r.jpg"], 1,
     ["plain.jpg", "LibRaw", "library code -1"]),
    ("frame-box-outside", ["frame", "{d}/frame.png", "{d}/plain.jpg", "{o}/f.png", "--box",
                           "70,10,40,30"], 1, ["the box is empty or not inside it", "code 9"]),
    ("frame-photo-not-jpeg", ["frame", "{d}/frame.png", "{d}/frame.png", "{o}/f.png", "--box",
                              "10,10,40,30"], 1, ["the photo cannot be read", "code 9"]),
    ("frame-no-box", ["frame", "{d}/frame.png", "{d}/plain.jpg", "{o}/f.png"], 2, ["--box"]),
    ("meta-png", ["meta", "{d}/frame.png"], 1, ["frame.png", "JPEG and camera RAW"]),
    ("meta-broken", ["meta", "{d}/broken.jpg"], 1, ["broken.jpg", "library code 9", "library:"]),
    ("meta-nothing", ["meta"], 2, ["no FILE"]),
    ("batch-no-source", ["batch", "{d}/missing", "{o}/out"], 1, ["missing", "not a folder"]),
    ("batch-bad-jobs", ["batch", "{d}", "{o}/out", "--jobs", "0"], 2, ["--jobs"]),
]


@pytest.mark.parametrize("name,args,status,words", FAILURES, ids=[c[0] for c in FAILURES])
def test_failure(photos, tmp_path, name, args, status, words):
    if name == "scale-big-exif-thumb":
        # An Exif block cannot hold a thumbnail this large: refused before the library.
        big = tmp_path.parent / (tmp_path.name + "-big.jpg")
        big.write_bytes(b"\xff\xd8" + b"\0" * 70000)
        args = [a.replace("{d}/camera.dng", str(big)) for a in args]
        status, words = 1, ["70002 bytes", "65415"]
    proc = run(*expand(args, photos, tmp_path))
    assert proc.returncode == status, proc.stderr
    for w in words:
        assert w in proc.stderr, (w, proc.stderr)
    assert proc.stdout == ""
    assert list(tmp_path.iterdir()) == []


def test_failure_keeps_an_existing_output(photos, tmp_path):
    out = tmp_path / "t.jpg"
    out.write_bytes(b"keep me")
    for args in (["transform", photos / "frame.png", out, "--xform", "1"],
                 ["thumb", photos / "broken.jpg", out],
                 ["raw-preview", photos / "plain.jpg", out]):
        run(*args, check=1)
        assert out.read_bytes() == b"keep me"
    assert leftovers(tmp_path) == []


def test_log_shows_the_librarys_lines(photos, tmp_path):
    proc = run("meta", photos / "plain.jpg", "--log", check=0)
    assert "Go metadata for" in proc.stderr and "image:" in proc.stderr
    proc = run("frame", photos / "missing.png", photos / "plain.jpg", tmp_path / "f.png",
               "--box", "1,1,2,2", "--log", check=1)
    assert "missing.png" in proc.stderr
    proc = run("thumb", photos / "camera.jpg", tmp_path / "t.jpg", "--log", check=0)
    assert "Go metadata for" in proc.stderr
    assert "Go metadata" not in run("meta", photos / "plain.jpg", check=0).stderr


# ---------------------------------------------------------------------------
# transform --verbose: the route it names is the one the library takes. The
# lossless route ignores the quality, so its output does not change with it.

ROUTES = [
    ("blocks.jpg", "rot90", True), ("blocks.jpg", "flip-v", True),
    ("blocks.jpg", "transpose", True), ("blocks.jpg", "none", True),
    ("blocks.jpg", "flip-h", False), ("blocks.jpg", "rot180", False),
    ("blocks.jpg", "rot270", False), ("grey104.jpg", "flip-h", True),
    ("grey100.jpg", "flip-h", False), ("grey100.jpg", "transverse", False),
]


@pytest.mark.parametrize("source,xform,lossless", ROUTES)
def test_transform_route(photos, tmp_path, source, xform, lossless):
    outs = []
    for quality in (20, 90):
        out = tmp_path / f"q{quality}.jpg"
        proc = run("transform", photos / source, out, "--xform", xform, "--quality", quality,
                   "--verbose", check=0)
        assert ("lossless" in proc.stderr) == lossless, proc.stderr
        assert ("re-encoded at quality %d" % quality in proc.stderr) == (not lossless)
        outs.append(out.read_bytes())
    assert (outs[0] == outs[1]) == lossless


# ---------------------------------------------------------------------------
# meta: JSON that others can read, equal to the record the library fills

def expected_object(path, kind):
    r = record(path)
    assert r["rc"] == "0"

    def flagged(key, scale=None, signed16=False):
        if r[key + "_valid"] == "0":
            return None
        value = int(r[key])
        if signed16 and value >= 0x8000:
            value -= 0x10000
        return value if scale is None else value / scale

    def rational(key):
        num, den = int(r[key + "_num"]), int(r[key + "_den"])
        return ([num, den] if num else None), (num / den if num and den else None)

    obj = {"file": str(path), "type": kind, "width": int(r["width"]),
           "height": int(r["height"]), "orientation": flagged("orientation")}
    for key in ("date_time", "sub_sec", "description", "make", "model"):
        obj[key] = r[key] or None
    for key in ("exposure_time", "f_number", "focal_length"):
        obj[key], obj[key + "_decimal"] = rational(key)
    for key in ("iso", "flash", "exposure_program", "metering_mode", "white_balance"):
        obj[key] = flagged(key)
    obj["aperture_value"] = flagged("aperture_value", 1000.0)
    obj["shutter_speed_value"] = flagged("shutter_speed_value", 1000.0, signed16=True)
    obj["gps_latitude"] = flagged("gps_latitude")
    obj["gps_latitude_deg"] = flagged("gps_latitude", 3600000.0)
    obj["gps_longitude"] = flagged("gps_longitude")
    obj["gps_longitude_deg"] = flagged("gps_longitude", 3600000.0)
    obj["gps_altitude"] = flagged("gps_altitude")
    obj["gps_altitude_m"] = flagged("gps_altitude", 1000.0)
    return obj


META_FILES = [("camera.jpg", "jpeg"), ("plain.jpg", "jpeg"), ("camera.dng", "raw")]


@pytest.mark.parametrize("name,kind", META_FILES)
def test_meta_json_is_the_record(photos, name, kind):
    got = json.loads(run("meta", "--json", photos / name, check=0).stdout)
    want = expected_object(photos / name, kind)
    keys = [k["key"] for k in json.loads(run("meta", "--list-keys", "--json", check=0).stdout)]
    assert list(got) == keys == list(want)
    assert got == want


def test_meta_camera_values(photos):
    got = json.loads(run("meta", "--json", photos / "camera.jpg", check=0).stdout)
    # Stored 160 x 120 with orientation 6: upright it stands 120 x 160.
    assert (got["width"], got["height"], got["orientation"]) == (120, 160, 6)
    assert got["exposure_time"] == [1, 250] and got["exposure_time_decimal"] == 0.004
    assert got["gps_latitude_deg"] < -48.8 and got["gps_longitude_deg"] < -2.29
    assert got["iso"] is None and got["make"] == "Qbcam"


def test_meta_several_files_and_one_failing(photos):
    files = [photos / "camera.jpg", photos / "broken.jpg", photos / "camera.dng"]
    proc = run("meta", "--json", *files, check=1)
    assert "broken.jpg" in proc.stderr
    parsed = subprocess.run([sys.executable, "-m", "json.tool"], input=proc.stdout,
                            capture_output=True, text=True, check=True)
    got = json.loads(parsed.stdout)
    assert isinstance(got, list)
    assert [o["file"] for o in got] == [str(files[0]), str(files[2])]


def test_meta_text_is_aligned(photos):
    out = run("meta", photos / "camera.jpg", photos / "plain.jpg", check=0).stdout
    blocks = out.strip().split("\n\n")
    keys = [k["key"] for k in json.loads(run("meta", "--list-keys", "--json", check=0).stdout)]
    assert len(blocks) == 2
    for block in blocks:
        lines = block.splitlines()
        assert [line.split()[0] for line in lines] == keys
        columns = {len(line) - len(line[len(line.split()[0]):].lstrip()) for line in lines}
        assert len(columns) == 1
    assert "exposure_time          1/250" in blocks[0]
    assert re.search(r"^orientation +-$", blocks[1], re.M)


# ---------------------------------------------------------------------------
# batch

@pytest.fixture
def tree(tmp_path):
    src = tmp_path / "src"
    (src / "sub" / "deep").mkdir(parents=True)
    gen("jpeg", src / "a.jpg", 160, 120)
    gen("jpeg", src / "sub" / "B.JPG", 60, 80, "--exif", "--orientation", 8)
    gen("png", src / "sub" / "p.png", 50, 40)
    gen("dng", src / "sub" / "deep" / "r.dng")
    (src / "sub" / "broken.jpg").write_bytes(b"\xff\xd8 broken")
    (src / "notes.txt").write_text("not a photo")
    return src


MADE = ["a.jpg.jpg", "sub/B.JPG.jpg", "sub/p.png.jpg", "sub/deep/r.dng.jpg"]


def files_under(folder):
    return sorted(str(p.relative_to(folder)) for p in folder.rglob("*") if p.is_file())


def test_batch_lists_the_broken_file_and_makes_the_rest(tree, tmp_path):
    dst = tmp_path / "dst"
    proc = run("batch", tree, dst, "--size", "64x64", "--jobs", "3", check=1)
    assert re.search(r"failed: .*sub/broken\.jpg: .*library code 9", proc.stderr)
    assert "4 done, 0 skipped (up to date), 1 failed" in proc.stderr
    assert "batch: 4/5 (80%)" in proc.stderr or "batch: 5/5 (100%)" in proc.stderr
    assert files_under(dst) == sorted(MADE)
    for name in MADE:
        assert picture_size(dst / name) == (64, 64)

    # Again: the made ones are up to date, the broken one fails again.
    proc = run("batch", tree, dst, "--size", "64x64", check=1)
    assert "0 done, 4 skipped (up to date), 1 failed" in proc.stderr

    # Without it, everything is skipped; a newer source is made again.
    (tree / "sub" / "broken.jpg").unlink()
    proc = run("batch", tree, dst, check=0)
    assert "0 done, 4 skipped" in proc.stderr
    source = tree / "a.jpg"
    later = (dst / "a.jpg.jpg").stat().st_mtime + 10
    os.utime(source, (later, later))
    proc = run("batch", tree, dst, "--quiet", check=0)
    assert proc.stderr == ""
    assert picture_size(dst / "a.jpg.jpg") == (128, 128)


def test_batch_leaves_its_own_output_alone(tree):
    (tree / "sub" / "broken.jpg").unlink()
    for _ in range(2):
        run("batch", tree, tree / "thumbs", "--quiet", check=0)
    assert files_under(tree / "thumbs") == sorted(MADE)


def test_batch_interrupted_leaves_no_partial_thumbnail(tmp_path):
    src, dst = tmp_path / "src", tmp_path / "dst"
    src.mkdir()
    gen("tree", src, 1000)
    proc = subprocess.Popen([TOOL, "batch", src, dst, "--jobs", "1"], stderr=subprocess.PIPE,
                            text=True)
    first = proc.stderr.readline()  # a tenth of the way: the work is under way
    assert first.startswith("batch: 100/1000"), first
    proc.send_signal(signal.SIGINT)
    rest = proc.stderr.read()
    assert proc.wait(timeout=120) == 130
    assert "interrupted" in rest and "not started" in rest
    made = files_under(dst)
    assert 100 <= len(made) < 1000
    assert leftovers(dst) == []
    for name in made:
        data = (dst / name).read_bytes()
        assert jpeg_size(data) == (128, 128) and data.endswith(b"\xff\xd9"), name


def test_batch_copes_with_an_unwritable_destination(tree, tmp_path):
    if os.geteuid() == 0:
        # root writes anywhere: use a file where a folder is needed instead
        dst = tmp_path / "dst"
        dst.mkdir()
        (dst / "sub").write_text("a file, not a folder")
    else:
        dst = tmp_path / "dst"
        dst.mkdir(mode=0o500)
    proc = run("batch", tree, dst, check=1)
    assert "failed:" in proc.stderr and "sub/p.png" in proc.stderr
    shutil.rmtree(dst, ignore_errors=True)


def test_readme_documents_the_keys():
    """The key table of the README (or of its section still in cli/) is the
    tool's table."""
    keys = [k["key"] for k in json.loads(run("meta", "--list-keys", "--json", check=0).stdout)]
    for doc in (SOURCE_ROOT / "README.md", SOURCE_ROOT / "cli" / "README-section.md"):
        text = doc.read_text() if doc.exists() else ""
        if "JSON keys of `qbimage meta --json`" in text:
            table = text.split("JSON keys of `qbimage meta --json`", 1)[1].split("\n## ", 1)[0]
            assert re.findall(r"^\| `([a-z_]+)` \|", table, re.M) == keys
            return
    pytest.skip("no README holds the key table")
