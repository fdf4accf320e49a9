"""scale(): several sizes of one JPEG from one decode cache.

The cache holds a libjpeg decompressor that the host drives, and libjpeg
reports a fatal error by calling the host's error_exit, which must never
return into libjpeg. A C host longjmps; Python cannot (a cffi callback
always returns, and a jump over the interpreter's frames would wreck it).
So the source is made safe to decode before Python touches libjpeg:

1. Snapshot. The file is copied into a sealed anonymous memory file; every
   later read, the library's and libjpeg's, is of those bytes, so the file
   cannot change between the check and the decode.
2. Check. The library decodes the snapshot in full under its own error
   handler: image_jpeg_transform with the out-of-range code 8 takes the
   pixel route, which reads the header and every scanline at full scale and
   then finishes the decompressor (reading up to the end of the image).
   A crop one pixel wide and one row short of the picture's height keeps
   the encoder's share negligible and still reads every row. A file the
   check refuses raises ScaleError and never reaches libjpeg from Python.
   The decode of the cache repeats the same header, scan and marker parsing
   at a DCT scale of 1/2, 1/4 or 1/8, where libjpeg's failures do not differ
   from those at full scale.
3. Guard. The libjpeg calls run on a thread of their own, with an
   error_exit callback that records libjpeg's message, wakes the caller and
   then parks its thread for good instead of returning. The caller raises
   ScaleError; the parked thread keeps the decompressor's memory and two
   file handles. Only a failure the check cannot foresee gets there:
   libjpeg running out of memory on a decode that the check could allocate.

What is left: if Python itself cannot run the callback (no memory even for
that), cffi returns into libjpeg, as any host would without a jump target.
"""

from __future__ import annotations

import fcntl
import mmap
import os
import stat
import threading
from typing import Any, Sequence

from ._api import Mode, PathLike, Xform, fs_bytes, fs_text, loaded
from ._errors import ScaleError, code_words

JPEG_APP2 = 0xE2
_CHECK_XFORM = 8  # out of range: the transform's pixel route, no geometric change
_CHECK_QUALITY = 75

_SOF_MARKERS = frozenset(range(0xC0, 0xD0)) - {0xC4, 0xC8, 0xCC}


def frame_size(data: Any) -> tuple[int, int] | None:
    """(width, height) from the first frame header of JPEG bytes, else None.

    Markers are found the way libjpeg finds them: anything up to an 0xFF is
    passed over, fill bytes 0xFF are skipped.
    """
    n = len(data)
    if n < 4 or data[0] != 0xFF or data[1] != 0xD8:
        return None
    i = 2
    while i < n:
        while i < n and data[i] != 0xFF:
            i += 1
        while i < n and data[i] == 0xFF:
            i += 1
        if i >= n:
            return None
        marker = data[i]
        i += 1
        if marker in _SOF_MARKERS:
            if i + 7 > n:
                return None
            return ((data[i + 5] << 8) | data[i + 6], (data[i + 3] << 8) | data[i + 4])
        if marker in (0xD9, 0xDA):
            return None
        if 0xD0 <= marker <= 0xD7 or marker == 0x01:
            continue
        if i + 2 > n:
            return None
        i += (data[i] << 8) | data[i + 1]
    return None


class _Snapshot:
    """The source's bytes in a sealed memory file, named /proc/self/fd/N."""

    def __init__(self, src: bytes):
        self.fd = -1
        self.map: mmap.mmap | None = None
        fd = os.open(src, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        try:
            st = os.fstat(fd)
            if not stat.S_ISREG(st.st_mode):
                raise OSError("not a regular file")
            self.fd = os.memfd_create("qbimage-scale", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
            while True:
                chunk = os.read(fd, 1 << 20)
                if not chunk:
                    break
                view = memoryview(chunk)
                while view:
                    view = view[os.write(self.fd, view):]
            fcntl.fcntl(self.fd, fcntl.F_ADD_SEALS, fcntl.F_SEAL_SEAL | fcntl.F_SEAL_SHRINK
                        | fcntl.F_SEAL_GROW | fcntl.F_SEAL_WRITE)
            size = os.fstat(self.fd).st_size
            if size:
                self.map = mmap.mmap(self.fd, size, prot=mmap.PROT_READ)
        except BaseException:
            self.close()
            raise
        finally:
            os.close(fd)
        self.path = f"/proc/self/fd/{self.fd}".encode()

    def close(self) -> None:
        if self.map is not None:
            self.map.close()
        if self.fd >= 0:
            os.close(self.fd)
            self.fd = -1


class _Guard:
    """The error_exit and output_message callbacks of the guarded decoder."""

    _made: "_Guard | None" = None
    _lock = threading.Lock()

    def __init__(self, n):
        self.local = threading.local()
        self.error_exit = n.ffi.callback("void(j_common_ptr)", self._error_exit,
                                         onerror=self._onerror)
        self.quiet = n.ffi.callback("void(j_common_ptr)", lambda cinfo: None)

    @classmethod
    def get(cls, n) -> "_Guard":
        with cls._lock:
            if cls._made is None:
                cls._made = _Guard(n)
            return cls._made

    def _error_exit(self, cinfo) -> None:
        state = self.local.state
        try:
            cinfo.err.format_message(cinfo, state.message)
        finally:
            state.fatal = True
            state.done.set()
            self._park(state)

    def _onerror(self, exc_type, exc_value, tb) -> None:
        state = getattr(self.local, "state", None)
        if state is not None:
            state.fatal = True
            state.done.set()
            self._park(state)

    @staticmethod
    def _park(state) -> None:
        while True:  # never back into libjpeg
            state.never.wait()


class _State:
    def __init__(self, n):
        self.done = threading.Event()
        self.never = threading.Event()
        self.fatal = False
        self.message = n.ffi.new("char[]", 200)  # JMSG_LENGTH_MAX
        self.result: Any = None
        self.error: BaseException | None = None


def _decode_and_scale(n, guard: _Guard, first, second, requests, xform: int,
                      expected_height: int | None):
    """Runs on the guarded thread: header, then image_jpeg_scale per request.

    `first` and `second` are two open handles of the snapshot, closed here.
    Returns the codes, or None if the header's height is not the one the
    check was cut to (the check then has to run again in full).
    """
    ffi, lib, libc = n.ffi, n.lib, n.libc
    cache = ffi.new("image_jcache *")
    err = ffi.new("struct jpeg_error_mgr *")
    lib.image_jpeg_jcache_init(cache, err)
    err.error_exit = guard.error_exit
    err.output_message = guard.quiet  # warnings of a damaged file: not ours to print
    cinfo = ffi.addressof(cache, "cinfo")
    try:
        lib.jpeg_CreateDecompress(cinfo, 62, ffi.sizeof("struct jpeg_decompress_struct"))
        lib.jpeg_stdio_src(cinfo, first)
        lib.jpeg_save_markers(cinfo, JPEG_APP2, 0xFFFF)  # an Adobe RGB profile
        lib.jpeg_read_header(cinfo, 1)
        if expected_height is not None and cinfo.image_height != expected_height:
            return None
        level = lib.utils_check_hw()
        # `second` is rewound for a decode at another DCT scale.
        return [lib.image_jpeg_scale(level, cache, second, out, xform, params, ffi.NULL, ffi.NULL)
                for out, params in requests]
    finally:
        lib.jpeg_destroy_decompress(cinfo)
        lib.image_jpeg_jcache_clean(cache)
        libc.fclose(first)
        libc.fclose(second)


def _guarded(n, guard: _Guard, snapshot: bytes, *args) -> _State:
    """_decode_and_scale on a thread of its own; its record once it is done.

    The snapshot is opened here, on the caller's thread, so that the guarded
    thread reads the checked bytes even if the caller lets go of the
    snapshot early (an interrupt while it waits).
    """
    ffi, libc = n.ffi, n.libc
    first = libc.fopen(snapshot, b"rb")
    second = libc.fopen(snapshot, b"rb")
    if first == ffi.NULL or second == ffi.NULL:
        for handle in (first, second):
            if handle != ffi.NULL:
                libc.fclose(handle)
        raise OSError(ffi.errno, os.strerror(ffi.errno))
    state = _State(n)

    def body():
        guard.local.state = state
        try:
            state.result = _decode_and_scale(n, guard, first, second, *args)
        except BaseException as exc:  # handed to the caller
            state.error = exc
        finally:
            state.done.set()

    try:
        threading.Thread(target=body, name="qbimage-scale", daemon=True).start()
    except BaseException:
        libc.fclose(first)
        libc.fclose(second)
        raise
    state.done.wait()
    return state


def _same_file(a: bytes, b: bytes) -> bool:
    try:
        sa, sb = os.stat(a), os.stat(b)
    except OSError:
        return False
    return (sa.st_dev, sa.st_ino) == (sb.st_dev, sb.st_ino)


def scale(src: PathLike, outputs: Sequence[tuple[int, int, PathLike]],
          mode: int = Mode.FIT_BOX, xform: int = Xform.NONE, quality: int = 85,
          full_chroma: bool = False, max_aspect: float = 10.0) -> None:
    """Several sizes of one JPEG, each to its own file, from one decode cache.

    ``outputs`` is a list of ``(width, height, path)``: the box of the
    finished (turned) picture and where to write it ("-" is the C standard
    output). ``mode`` is a Mode, ``xform`` the Xform applied after scaling.
    Sizes that share a DCT scale (reductions below 5, below 9, below 17,
    above) share one decode, so list them together.

    The source is checked by a full decode in the library before the cache
    is filled (see the module's notes), so a damaged file raises instead of
    reaching libjpeg's error handler. Raises ScaleError: code -2 if the
    source cannot be decoded or a size cannot be produced, -1 if an output
    cannot be opened; ``failed`` lists the outputs not written, the others
    are written.
    """
    n = loaded()
    text = fs_text(src)
    src_raw = fs_bytes(src)
    requests = []
    for width, height, path in outputs:
        out = fs_bytes(path)
        if out != b"-" and _same_file(src_raw, out):
            raise ScaleError(f"{fs_text(path)}: is the source itself; refusing to overwrite it",
                             -1, text, [(fs_text(path), -1)])
        params = n.ffi.new("image_scale_params *", {
            "mode": int(mode), "width": width, "height": height, "max_aspect": max_aspect,
            "quality": quality, "full_chroma": 1 if full_chroma else 0})
        requests.append((out, params))
    if not requests:
        return
    try:
        snap = _Snapshot(src_raw)
    except OSError as exc:
        raise ScaleError(f"{text}: cannot be read: {exc.strerror or exc}", -2, text) from exc
    try:
        size = frame_size(snap.map) if snap.map is not None else None
        crop_height = size[1] - 1 if size and size[1] >= 2 else None
        guard = _Guard.get(n)
        while True:
            crop = (n.ffi.new("image_crop *", [0, 0, 1, crop_height])
                    if crop_height is not None else n.ffi.NULL)
            rc = n.lib.image_jpeg_transform(snap.path, os.devnull.encode(), _CHECK_XFORM, crop,
                                            _CHECK_QUALITY)
            if rc != 0:
                raise ScaleError(f"{text}: not a JPEG the decoder can read: "
                                 f"{code_words('transform', rc)}", -2, text)
            expected = crop_height + 1 if crop_height is not None else None
            try:
                state = _guarded(n, guard, snap.path, requests, int(xform), expected)
            except OSError as exc:
                raise ScaleError(f"{text}: its copy cannot be opened: {exc.strerror or exc}",
                                 -2, text) from exc
            if state.fatal:
                message = n.ffi.string(state.message).decode(errors="replace")
                raise ScaleError(f"{text}: libjpeg failed: {message}", -2, text)
            if state.error is not None:
                raise ScaleError(f"{text}: {state.error}", -2, text) from state.error
            if state.result is not None:
                break
            crop_height = None  # the height differed: check the whole file
    finally:
        snap.close()
    failed = [(fs_text(out), rc) for (out, _), rc in zip(requests, state.result) if rc != 0]
    if failed:
        lines = "; ".join(f"{path}: {code_words('scale', rc)}" for path, rc in failed)
        raise ScaleError(f"{text}: {lines}", failed[0][1], text, failed)
