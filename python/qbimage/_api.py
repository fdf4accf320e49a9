"""The library's calls, one Python function each (scale is in _scale.py)."""

from __future__ import annotations

import enum
import os
from typing import Any, Union

from . import _errors
from ._errors import (FrameError, LibraryError, MetadataError, RawPreviewError, ThumbnailError,
                      TransformError)
from ._metadata import record_to_dict
from ._native import Native, native

PathLike = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]


class MediaType(enum.IntEnum):
    """What a file is, from its extension (utils_get_media_type)."""

    JPEG = 0
    RAW = 1
    VIDEO = 2
    AUDIO = 3
    PNG = 4
    UNKNOWN = 5


class Xform(enum.IntEnum):
    """Rotations and flips; ROT_90 and ROT_270 turn clockwise."""

    NONE = 0
    FLIP_H = 1
    FLIP_V = 2
    TRANSPOSE = 3
    TRANSVERSE = 4
    ROT_90 = 5
    ROT_180 = 6
    ROT_270 = 7


class Mode(enum.IntEnum):
    """Size modes of scale()."""

    FIT_WIDTH = 0
    FIT_HEIGHT = 1
    FILL_CORNER = 2
    FILL_CORNER_PAD = 3
    FIT_BOX = 4
    FIT_BOX_PAD = 5
    FILL_CENTRE = 6


def loaded() -> Native:
    """The loaded library, or LibraryError."""
    try:
        return native()
    except (OSError, ImportError) as exc:
        raise LibraryError(str(exc)) from exc


def fs_bytes(path: PathLike) -> bytes:
    """A path as the bytes the C calls take."""
    raw = os.fsencode(os.fspath(path))
    if b"\0" in raw:
        raise ValueError(f"path contains a zero byte: {path!r}")
    return raw


def fs_text(path: PathLike) -> str:
    return os.fsdecode(os.fspath(path))


def library_path() -> str:
    """The path of the loaded libqbimage.so.1, as it was opened."""
    return loaded().library_path


def version() -> str:
    """The version that the library's header states, e.g. "1.0.0"."""
    return loaded().version


def hw_level() -> int:
    """The processor level the resamplers use: 1 basic, 2 SSE2, 3 SSE3."""
    return int(loaded().lib.utils_check_hw())


def media_type(path: PathLike) -> MediaType:
    """The media type of a file from the text behind the last dot of its path."""
    raw = fs_bytes(path)
    dot = raw.rfind(b".")
    if dot < 0:
        return MediaType.UNKNOWN
    return MediaType(loaded().lib.utils_get_media_type(raw[dot + 1:]))


def thumbnail(src: PathLike, dst: PathLike, size: tuple[int, int] = (128, 128),
              quality: int = 85, background: int = 0xFFFFFF) -> None:
    """A JPEG thumbnail of exactly ``size`` (width, height) of a JPEG, PNG or RAW file.

    The picture is fitted into the box, turned upright by its Exif
    orientation and padded with white; ``background`` (0xRRGGBB) lies under
    transparent PNG pixels. Raises ThumbnailError: code 2 if the file has no
    extension or cannot be opened, 9 for anything else. A failed call can
    leave a partial ``dst``.
    """
    n = loaded()
    width, height = size
    rc = n.lib.easy_image_create_thumb(fs_bytes(src), fs_bytes(dst), width, height, quality,
                                       background)
    if rc != 0:
        raise _errors.failure(ThumbnailError, fs_text(src), rc)


def transform(src: PathLike, dst: PathLike, xform: int,
              crop: tuple[int, int, int, int] | None = None, quality: int = 85) -> None:
    """Rotate, flip and optionally crop a JPEG into ``dst``.

    Lossless where the picture fills the block grid along the mirrored
    axes, else decoded and encoded again at ``quality``. ``crop`` is
    ``(x, y, width, height)``. Raises TransformError with code -1 (input
    unreadable), -2 (output cannot be opened), -3 (decoder failed) or -4
    (encoder failed).
    """
    n = loaded()
    c_crop = n.ffi.new("image_crop *", list(crop)) if crop is not None else n.ffi.NULL
    rc = n.lib.image_jpeg_transform(fs_bytes(src), fs_bytes(dst), int(xform), c_crop, quality)
    if rc != 0:
        raise _errors.failure(TransformError, fs_text(src), rc)


def raw_preview(src: PathLike, dst: PathLike, force_decode: bool = False, xform: int = 0,
                quality: int = 85) -> None:
    """A JPEG preview of a camera RAW file.

    The camera's embedded preview, unchanged, when it has 1920 pixels or
    more on its long side and ``force_decode`` is false; else the
    demosaiced sensor data at full size, turned by ``xform`` (2 to 7; 0 and
    1 leave it as stored). Raises RawPreviewError with code -1 (LibRaw
    refused or failed), -2 (output cannot be written) or -4 (not a
    three-colour picture).
    """
    n = loaded()
    rc = n.lib.image_raw_to_preview_jpeg(fs_bytes(src), fs_bytes(dst), 1 if force_decode else 0,
                                         int(xform), quality)
    if rc != 0:
        raise _errors.failure(RawPreviewError, fs_text(src), rc)


def frame(frame_path: PathLike, photo: PathLike, dst: PathLike,
          box: tuple[int, int, int, int]) -> None:
    """Lay a JPEG photo under a PNG frame; write an RGBA PNG of the frame's size.

    ``box`` is ``(x, y, width, height)`` in frame pixels; the photo is scaled
    by its width over the box's width and shows through the frame's alpha
    there. Raises FrameError (code 9) with the library's own line, whose rc
    is -1 (frame unreadable, box empty or outside, output not written) or
    -2 (photo unreadable or refused).
    """
    n = loaded()
    ctx, lines, _handle = n.new_ctx()
    x, y, w, h = box
    rc = n.lib.image_create_framed_image(ctx, fs_bytes(frame_path), fs_bytes(photo),
                                         fs_bytes(dst), x, y, w, h)
    if rc != 0:
        raise _errors.failure(FrameError, fs_text(photo), rc, lines)


def metadata(path: PathLike) -> dict[str, Any]:
    """The metadata of a JPEG (from Exif) or camera RAW file (through LibRaw).

    The dict has the keys of ``qbimage meta --json``, in its order: "file"
    (the path as given), "type", the upright "width" and "height",
    "orientation", date, camera and exposure fields, GPS. A value whose flag
    says absent, an empty text and a rational with a zero numerator are
    None; rationals come as ``[num, den]`` with a ``*_decimal`` beside them;
    GPS also in signed decimal degrees and metres. Raises MetadataError.
    """
    n = loaded()
    text = fs_text(path)
    kind = media_type(path)
    if kind not in (MediaType.JPEG, MediaType.RAW):
        raise MetadataError(f"{text}: metadata is read from JPEG and camera RAW files only "
                            "(by the file name's extension)", None, text)
    record = n.ffi.new("image_metadata *")
    ctx, lines, _handle = n.new_ctx()
    rc = n.lib.image_get_metadata(ctx, fs_bytes(path), int(kind), record)
    if rc != 0:
        raise _errors.failure(MetadataError, text, rc, lines)
    return record_to_dict(text, "jpeg" if kind == MediaType.JPEG else "raw", record, n.ffi)
