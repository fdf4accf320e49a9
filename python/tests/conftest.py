"""Fixtures: the package from this source tree, generated test files, the tool.

Environment: QBIMAGE_LIBRARY names the built libqbimage.so.1 (the ctest
registration sets it); QBIMAGE_TOOL the built qbimage tool, for the tests
that compare with it (skipped without it).
"""

from __future__ import annotations

import os
import sys
from pathlib import Path

import pytest

PYTHON_DIR = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(PYTHON_DIR))
sys.path.insert(0, str(Path(__file__).resolve().parent))
# Subprocesses (Dask workers, the module run from the shell) import it too.
os.environ["PYTHONPATH"] = os.pathsep.join(
    [str(PYTHON_DIR)] + [p for p in os.environ.get("PYTHONPATH", "").split(os.pathsep) if p])

import gen  # noqa: E402


@pytest.fixture(scope="session")
def files(tmp_path_factory) -> dict[str, Path]:
    """One file of each kind the tests use, by name."""
    root = tmp_path_factory.mktemp("files")
    exif = gen.camera_exif(orientation=6, w=320, h=200)
    made = {
        "plain.jpg": gen.jpeg_bytes(320, 200),
        "exif.jpg": gen.with_exif(gen.jpeg_bytes(320, 200, seed=1), **exif),
        "nodims.jpg": gen.with_exif(gen.jpeg_bytes(64, 48), **gen.camera_exif(orientation=6)),
        "grey.jpg": gen.jpeg_bytes(100, 77, grey=True),
        "progressive.jpg": gen.jpeg_bytes(257, 130, seed=2, progressive=True),
        "alpha.png": gen.png_bytes(90, 60, alpha=True),
        "frame.png": gen.png_bytes(200, 150, alpha=True, seed=3),
        "camera.dng": gen.dng_bytes(orientation=6),
        "preview.dng": gen.dng_bytes(preview=gen.jpeg_bytes(60, 40)),
        "notjpeg.jpg": b"this is no JPEG at all\n" * 4,
        "truncated.jpg": gen.jpeg_bytes(320, 200)[:400],
        "movie.mov": b"\0" * 64,
    }
    return {name: gen.write(root / name, data) for name, data in made.items()}


@pytest.fixture(scope="session")
def tool() -> str:
    path = os.environ.get("QBIMAGE_TOOL", "")
    if not path or not os.access(path, os.X_OK):
        pytest.skip("the qbimage tool is not built (QBIMAGE_TOOL unset): nothing to compare with")
    return path
