"""Thumbnails of a whole photo tree on a Dask cluster.

The client lists the tree; the workers do the rest, a small batch of files
per task: each checks whether the thumbnail is up to date, makes it under a
temporary name beside its final one and renames it into place. Workers load
libqbimage themselves, so nothing but paths and small records travels, and
every machine must see the trees under the same paths (shared storage).

The layout and the rules are those of ``qbimage batch``: SRC/a/b.png gives
DST/a/b.png.jpg; a thumbnail not older than its source is skipped; linked
folders are not followed; DST is left out when it lies inside SRC; files
other than JPEG, PNG and camera RAW are counted as ignored.
"""

from __future__ import annotations

import logging
import os
import tempfile
import time
from dataclasses import dataclass, field
from typing import Any, Iterable

from ._api import MediaType, PathLike, fs_text, media_type, thumbnail
from ._errors import Error, code_words

_PHOTO_TYPES = (MediaType.JPEG, MediaType.PNG, MediaType.RAW)


@dataclass
class Summary:
    """What a run did: counts, failures as (file, reason), wall-clock seconds."""

    done: int = 0
    skipped: int = 0
    failed: list[tuple[str, str]] = field(default_factory=list)
    seconds: float = 0.0
    ignored: int = 0

    @property
    def ok(self) -> bool:
        return not self.failed

    def line(self) -> str:
        """The summary as ``qbimage batch`` prints it, without its prefix."""
        rate = self.done / self.seconds if self.seconds > 0 else 0.0
        text = (f"{self.done} done, {self.skipped} skipped (up to date), {len(self.failed)} "
                f"failed in {self.seconds:.1f} s ({rate:.1f} files/s)")
        if self.ignored:
            text += f"; {self.ignored} other files ignored"
        return text


@dataclass
class _Plan:
    files: list[str] = field(default_factory=list)  # relative to the source root
    failed: list[tuple[str, str]] = field(default_factory=list)
    ignored: int = 0


def _is_photo(name: str) -> bool:
    dot = name.rfind(".")
    # As a file name's extension: a leading dot starts no extension.
    return 0 < dot < len(name) - 1 and media_type(name) in _PHOTO_TYPES


def _walk(folder: str, rel: str, dst_stat: os.stat_result | None, plan: _Plan) -> None:
    try:
        with os.scandir(folder) as it:
            entries = sorted(it, key=lambda e: e.name)
    except OSError as exc:
        plan.failed.append((folder, f"cannot list the folder: {exc.strerror or exc}"))
        return
    for entry in entries:
        sub = os.path.join(rel, entry.name) if rel else entry.name
        try:
            is_dir = entry.is_dir()
            if is_dir and entry.is_symlink():
                plan.ignored += 1
                continue
            if is_dir:
                st = entry.stat()
                if dst_stat is not None and (st.st_dev, st.st_ino) == (dst_stat.st_dev,
                                                                       dst_stat.st_ino):
                    continue  # our own output
                _walk(entry.path, sub, dst_stat, plan)
                continue
            regular = entry.is_file()
        except OSError:
            regular = False
        if regular and _is_photo(entry.name):
            plan.files.append(sub)
        else:
            plan.ignored += 1


def list_photos(src_root: PathLike, dst_root: PathLike | None = None
                ) -> tuple[list[str], list[tuple[str, str]], int]:
    """The photos under src_root, relative and sorted as walked; failures; ignored count."""
    src = fs_text(src_root)
    dst_stat = None
    if dst_root is not None:
        try:
            dst_stat = os.stat(fs_text(dst_root))
        except OSError:
            pass
    plan = _Plan()
    _walk(src, "", dst_stat, plan)
    return plan.files, plan.failed, plan.ignored


def _file_mode() -> int:
    mask = os.umask(0o022)
    os.umask(mask)
    return 0o666 & ~mask


def make_one(src_root: str, dst_root: str, rel: str, size: tuple[int, int], quality: int,
             background: int) -> tuple[str, str, str]:
    """One thumbnail: (source path, "done" | "skipped" | "failed", reason)."""
    src = os.path.join(src_root, rel)
    dst = os.path.join(dst_root, rel + ".jpg")
    try:
        source_time = os.stat(src).st_mtime_ns
    except OSError as exc:
        return src, "failed", f"cannot read: {exc.strerror or exc}"
    try:
        if os.stat(dst).st_mtime_ns >= source_time:
            return src, "skipped", ""
    except OSError:
        pass
    folder = os.path.dirname(dst) or "."
    try:
        os.makedirs(folder, exist_ok=True)
    except OSError as exc:
        return src, "failed", f"cannot make the folder {folder}: {exc.strerror or exc}"
    base = os.path.basename(dst)[:200]
    try:
        fd, temp = tempfile.mkstemp(prefix=f".{base}.qbimage-", dir=folder)
        os.fchmod(fd, _file_mode())
        os.close(fd)
    except OSError as exc:
        return src, "failed", f"{dst}: cannot create a file in its folder: {exc.strerror or exc}"
    try:
        try:
            thumbnail(src, temp, size, quality, background)
        except Error as exc:
            return src, "failed", code_words("thumbnail", exc.code) if exc.code is not None \
                else str(exc)
        try:
            os.replace(temp, dst)
        except OSError as exc:
            return src, "failed", (f"{dst}: cannot rename the finished file into place: "
                                   f"{exc.strerror or exc}")
        temp = ""
        return src, "done", ""
    finally:
        if temp:
            for leftover in (temp, temp + ".tmp"):
                try:
                    os.unlink(leftover)
                except OSError:
                    pass


def make_batch(rels: list[str], src_root: str, dst_root: str, size: tuple[int, int],
               quality: int, background: int) -> list[tuple[str, str, str]]:
    """A task: make_one for each relative path, on the worker that runs it."""
    return [make_one(src_root, dst_root, rel, size, quality, background) for rel in rels]


def _batches(files: list[str], batch_size: int) -> Iterable[list[str]]:
    for i in range(0, len(files), batch_size):
        yield files[i:i + batch_size]


def _auto_batch_size(count: int, workers: int) -> int:
    # About eight tasks per worker thread, between 1 and 64 files each.
    return max(1, min(64, count // max(1, workers * 8)))


def thumbnail_tree(src_root: PathLike, dst_root: PathLike, size: tuple[int, int] = (128, 128),
                   client: Any = None, *, quality: int = 85, background: int = 0xFFFFFF,
                   workers: int | None = None, batch_size: int | None = None,
                   progress: bool = False) -> Summary:
    """Thumbnails of every JPEG, PNG and RAW file under src_root, mirrored under dst_root.

    ``client`` is a ``dask.distributed.Client``; without one, a LocalCluster
    of ``workers`` processes (default: the processor count) on 127.0.0.1 is
    made for the call and closed afterwards. Files go to the workers in
    batches of ``batch_size`` (default: about eight tasks per worker
    thread). A batch whose task fails as a whole (its worker died) is tried
    again file by file, so that the file at fault is the one reported.
    ``progress`` shows Dask's progress bar on standard output while the
    tasks run. Returns a Summary; failures are listed, never raised.
    """
    from dask.distributed import Client, LocalCluster, as_completed
    from dask.distributed import progress as dask_progress

    start = time.monotonic()
    src, dst = fs_text(src_root), fs_text(dst_root)
    os.makedirs(dst, exist_ok=True)
    files, failed, ignored = list_photos(src, dst)
    summary = Summary(failed=list(failed), ignored=ignored)
    own_cluster = None
    if client is None and files:
        own_cluster = LocalCluster(n_workers=workers or os.cpu_count() or 1, threads_per_worker=1,
                                   processes=True, host="127.0.0.1", dashboard_address=None,
                                   silence_logs=logging.ERROR)
        client = Client(own_cluster)
    try:
        if files:
            threads = sum(client.nthreads().values()) or 1
            size_ = (int(size[0]), int(size[1]))
            step = batch_size or _auto_batch_size(len(files), threads)
            batches = list(_batches(files, step))
            futures = client.map(make_batch, batches, src_root=src, dst_root=dst, size=size_,
                                 quality=quality, background=background, pure=False)
            pending = dict(zip(futures, batches))
            if progress:
                dask_progress(futures)
            queue = as_completed(futures)
            for future in queue:
                rels = pending.pop(future)
                try:
                    records = future.result()
                except Exception as exc:  # the task, not a file, failed
                    if len(rels) > 1:
                        for rel in rels:
                            single = client.submit(make_batch, [rel], src, dst, size_, quality,
                                                   background, pure=False)
                            pending[single] = [rel]
                            queue.add(single)
                        continue
                    records = [(os.path.join(src, rels[0]), "failed",
                                f"the worker failed on it: {type(exc).__name__}: {exc}")]
                for path, status, reason in records:
                    if status == "done":
                        summary.done += 1
                    elif status == "skipped":
                        summary.skipped += 1
                    else:
                        summary.failed.append((path, reason))
    finally:
        if own_cluster is not None:
            client.close()
            own_cluster.close()
    summary.failed.sort()
    summary.seconds = time.monotonic() - start
    return summary
