"""pip installs the package offline into a virtual environment that sees
Debian's cffi and Dask, and it works from there."""

from __future__ import annotations

import os
import subprocess

import qbimage
from conftest import PYTHON_DIR


def test_pip_install_into_a_venv(tmp_path, files):
    venv = tmp_path / "venv"
    subprocess.run(["/usr/bin/python3", "-m", "venv", "--system-site-packages", venv], check=True)
    python = venv / "bin" / "python"
    env = {k: v for k, v in os.environ.items() if k != "PYTHONPATH"}
    subprocess.run([python, "-m", "pip", "install", "-q", "--no-index", "--no-build-isolation",
                    PYTHON_DIR], check=True, env=env, cwd=tmp_path)
    assert not list(PYTHON_DIR.glob("*.egg-info")) and not (PYTHON_DIR / "build").exists()
    script = ("import qbimage, qbimage.cluster, sys; qbimage.thumbnail(sys.argv[1], sys.argv[2]);"
              "print(qbimage.__file__, qbimage.version())")
    out = subprocess.run([python, "-c", script, files["plain.jpg"], tmp_path / "t.jpg"],
                         check=True, env=env, cwd=tmp_path, stdout=subprocess.PIPE, text=True)
    where, version = out.stdout.split()
    assert where.startswith(str(venv)) and version == qbimage.version()
    assert (tmp_path / "t.jpg").stat().st_size > 0
