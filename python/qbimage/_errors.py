"""qbimage.Error and its families, and the library's return codes in words."""

from __future__ import annotations

# The same words as the qbimage tool prints for each call's codes.
CODE_WORDS: dict[str, dict[int, str]] = {
    "thumbnail": {
        2: "the file cannot be opened, or its name has no extension",
        9: "no thumbnail could be made: not a supported photo, damaged or refused, "
           "or the output not written",
    },
    "scale": {
        -1: "the output cannot be opened for writing",
        -2: "the picture cannot be produced: size refused, damaged data or the encoder failed",
    },
    "transform": {
        -1: "the input cannot be read",
        -2: "the output cannot be opened for writing",
        -3: "the decoder failed: not a JPEG, or damaged",
        -4: "the encoder failed: an empty crop, a full disk or a picture it refuses",
    },
    "raw_preview": {
        -1: "LibRaw refused the file or failed to decode it, or the rotation failed",
        -2: "the output cannot be written",
        -4: "not a three-colour picture",
    },
    "metadata": {9: "no metadata could be read"},
    "frame": {9: "the framed picture could not be made"},
}


def code_words(call: str, code: int) -> str:
    """What a return code of a call means, with the code: "words (library code N)"."""
    words = CODE_WORDS.get(call, {}).get(code, "unknown failure")
    return f"{words} (library code {code})"


class Error(Exception):
    """A call of libqbimage failed.

    Attributes: ``code``, the library's return code (None when the failure
    was found before the library was called); ``call``, the package's
    function (``"thumbnail"``, ``"scale"``, ...); ``path``, the file the
    failure concerns; ``message``, the failure in words.
    """

    call = "library"

    def __init__(self, message: str, code: int | None = None, path: str | None = None):
        super().__init__(message)
        self.message = message
        self.code = code
        self.path = path

    def __reduce__(self):  # keeps the attributes across processes (Dask)
        return (type(self), (self.message, self.code, self.path))

    def __str__(self) -> str:
        return self.message


class LibraryError(Error):
    """libqbimage.so.1 or its header cannot be loaded."""

    call = "load"


class ThumbnailError(Error):
    """easy_image_create_thumb failed: code 2 or 9."""

    call = "thumbnail"


class ScaleError(Error):
    """The decode cache or image_jpeg_scale failed: code -1 or -2.

    ``failed`` lists ``(path, code)`` of the outputs that were not written.
    """

    call = "scale"

    def __init__(self, message: str, code: int | None = None, path: str | None = None,
                 failed: list[tuple[str, int]] | None = None):
        super().__init__(message, code, path)
        self.failed = list(failed or [])

    def __reduce__(self):
        return (type(self), (self.message, self.code, self.path, self.failed))


class TransformError(Error):
    """image_jpeg_transform failed: code -1 to -4."""

    call = "transform"


class RawPreviewError(Error):
    """image_raw_to_preview_jpeg failed: code -1, -2 or -4."""

    call = "raw_preview"


class MetadataError(Error):
    """image_get_metadata failed (code 9), or the file is no JPEG or RAW file."""

    call = "metadata"


class FrameError(Error):
    """image_create_framed_image failed: code 9."""

    call = "frame"


def failure(kind: type[Error], path: str, code: int | None, lines: list | None = None,
            words: str | None = None) -> Error:
    """An error of `kind` for `path`, quoting the library's log lines if any."""
    text = words if words is not None else code_words(kind.call, code if code is not None else 0)
    logged = [entry[3] for entry in (lines or []) if entry[0] != 0]
    if logged:
        text += " [library: " + "; ".join(logged) + "]"
    return kind(f"{path}: {text}", code, path)
