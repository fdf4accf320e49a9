"""Build backend of the qbimage package (PEP 517), standard library only.

The package is pure Python, so a wheel is a zip of its modules, the
library's public header (the package reads its declarations at run time)
and the metadata. Needing no setuptools or wheel package keeps
``pip install --no-index --no-build-isolation ./python`` working offline in
any virtual environment.
"""

from __future__ import annotations

import base64
import hashlib
import io
import re
import tarfile
import tomllib
import zipfile
from pathlib import Path

HERE = Path(__file__).resolve().parent.parent  # python/


def _header() -> Path:
    # In a checkout the header is include/ beside python/; in an sdist it was
    # copied next to pyproject.toml.
    for candidate in (HERE.parent / "include" / "qbimage.h", HERE / "include" / "qbimage.h"):
        if candidate.is_file():
            return candidate
    raise FileNotFoundError("include/qbimage.h not found beside the python folder")


def _project() -> dict:
    return tomllib.loads((HERE / "pyproject.toml").read_text())["project"]


def _version() -> str:
    m = re.search(r'^#define QBIMAGE_VERSION "([^"]+)"', _header().read_text(), re.M)
    if not m:
        raise ValueError("qbimage.h states no QBIMAGE_VERSION")
    return m.group(1)


def _metadata() -> str:
    p = _project()
    lines = ["Metadata-Version: 2.1", f"Name: {p['name']}", f"Version: {_version()}",
             f"Summary: {p['description']}", f"Requires-Python: {p['requires-python']}"]
    lines += [f"Requires-Dist: {d}" for d in p.get("dependencies", [])]
    for extra, deps in p.get("optional-dependencies", {}).items():
        lines.append(f"Provides-Extra: {extra}")
        lines += [f'Requires-Dist: {d}; extra == "{extra}"' for d in deps]
    return "\n".join(lines) + "\n"


def _files() -> dict[str, bytes]:
    files = {f"qbimage/{p.name}": p.read_bytes() for p in sorted((HERE / "qbimage").glob("*.py"))}
    files["qbimage/include/qbimage.h"] = _header().read_bytes()
    return files


def _dist_info() -> str:
    return f"qbimage-{_version()}.dist-info"


def _wheel_meta() -> dict[str, bytes]:
    info = _dist_info()
    return {f"{info}/METADATA": _metadata().encode(),
            f"{info}/WHEEL": b"Wheel-Version: 1.0\nGenerator: qbimage_build\n"
                             b"Root-Is-Purelib: true\nTag: py3-none-any\n"}


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    for name, data in _wheel_meta().items():
        target = Path(metadata_directory) / name
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(data)
    return _dist_info()


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    name = f"qbimage-{_version()}-py3-none-any.whl"
    contents = {**_files(), **_wheel_meta()}
    record = []
    with zipfile.ZipFile(Path(wheel_directory) / name, "w", zipfile.ZIP_DEFLATED) as whl:
        for path, data in contents.items():
            whl.writestr(path, data)
            digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=")
            record.append(f"{path},sha256={digest.decode()},{len(data)}")
        record.append(f"{_dist_info()}/RECORD,,")
        whl.writestr(f"{_dist_info()}/RECORD", "\n".join(record) + "\n")
    return name


def build_sdist(sdist_directory, config_settings=None):
    base = f"qbimage-{_version()}"
    name = f"{base}.tar.gz"
    members = {"pyproject.toml": (HERE / "pyproject.toml").read_bytes(),
               "pep517/qbimage_build.py": Path(__file__).read_bytes(),
               "include/qbimage.h": _header().read_bytes(),
               "PKG-INFO": _metadata().encode()}
    members.update({k: v for k, v in _files().items() if not k.endswith(".h")})
    with tarfile.open(Path(sdist_directory) / name, "w:gz") as tar:
        for path, data in members.items():
            entry = tarfile.TarInfo(f"{base}/{path}")
            entry.size = len(data)
            entry.mode = 0o644
            tar.addfile(entry, io.BytesIO(data))
    return name
