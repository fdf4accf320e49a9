"""Shared fixtures of the qbimage tool's tests.

The tool and the input generator come from the environment (QBIMAGE and
QBIMAGE_TESTGEN, set by the ctest entry in cli/CMakeLists.txt). Inputs are
made once per session by the generator; every test writes into its own
temporary folder.
"""
import os
import struct
import subprocess
from pathlib import Path

import pytest

TOOL = os.environ.get("QBIMAGE", "")
TESTGEN = os.environ.get("QBIMAGE_TESTGEN", "")
SOURCE_ROOT = Path(__file__).resolve().parents[2]


def run(*args, cwd=None, check=None):
    """Runs the tool; returns the finished process (text output)."""
    proc = subprocess.run([TOOL, *map(str, args)], cwd=cwd, capture_output=True,
                          text=True, errors="replace", timeout=300)
    if check is not None:
        assert proc.returncode == check, (args, proc.returncode, proc.stderr)
    return proc


def run_bytes(*args):
    """Runs the tool; stdout as bytes."""
    return subprocess.run([TOOL, *map(str, args)], capture_output=True, timeout=300)


def gen(*args):
    subprocess.run([TESTGEN, *map(str, args)], check=True, timeout=120)


def record(path):
    """The metadata record as the library fills it, from the generator."""
    out = subprocess.run([TESTGEN, "record", str(path)], check=True, capture_output=True,
                         text=True).stdout
    return dict(line.split("=", 1) for line in out.splitlines())


def jpeg_size(data):
    """(width, height) from a JPEG's frame header, or None."""
    if data[:2] != b"\xff\xd8":
        return None
    i = 2
    while i + 4 <= len(data):
        if data[i] != 0xFF:
            return None
        marker = data[i + 1]
        length = struct.unpack(">H", data[i + 2:i + 4])[0]
        if 0xC0 <= marker <= 0xCF and marker not in (0xC4, 0xC8, 0xCC):
            height, width = struct.unpack(">HH", data[i + 5:i + 9])
            return width, height
        i += 2 + length
    return None


def png_size(data):
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        return None
    return struct.unpack(">II", data[16:24])


def picture_size(path):
    data = Path(path).read_bytes()
    return jpeg_size(data) or png_size(data)


def leftovers(folder):
    """Temporary files the tool may have left in a folder tree."""
    return sorted(str(p) for p in Path(folder).rglob("*") if ".qbimage-" in p.name
                  or p.name.endswith(".tmp"))


@pytest.fixture(scope="session", autouse=True)
def _tools():
    if not TOOL or not TESTGEN:
        pytest.exit("QBIMAGE and QBIMAGE_TESTGEN must name the tool and the generator", 2)


@pytest.fixture(scope="session")
def photos(tmp_path_factory):
    """One folder of inputs, shared by all tests (read only)."""
    d = tmp_path_factory.mktemp("photos")
    gen("jpeg", d / "plain.jpg", 160, 120)                          # no Exif
    gen("jpeg", d / "camera.jpg", 160, 120, "--exif", "--orientation", 6)
    gen("jpeg", d / "blocks.jpg", 100, 64, "--samp", "2x2")         # iMCU 16 x 16
    gen("jpeg", d / "grey104.jpg", 104, 64, "--grey")               # iMCU 8 x 8
    gen("jpeg", d / "grey100.jpg", 100, 64, "--grey")
    gen("jpeg", d / "small.jpg", 24, 16)                            # overlay, Exif thumbnail
    gen("jpeg", d / "large.jpg", 300, 200)                          # overlay too large
    gen("png", d / "frame.png", 80, 60, "--hole", "10,10,40,30")
    gen("dng", d / "camera.dng")
    (d / "broken.jpg").write_bytes(b"\xff\xd8 this is no JPEG")
    (d / "movie.mp4").write_bytes(b"\0" * 64)
    (d / "noextension").write_bytes(b"\xff\xd8")
    return d
