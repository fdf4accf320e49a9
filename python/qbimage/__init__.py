"""Python over libqbimage's C interface: thumbnails, scaled copies, lossless
transforms, RAW previews, metadata and framed photos.

Pure Python through cffi in ABI mode; the declarations come from the
library's public header, qbimage.h. The library is found through the
environment variable QBIMAGE_LIBRARY (a path to the .so), then beside this
package, then by the system's loader, at the first call.

Every failure raises ``qbimage.Error`` (one subclass per call family) with
the library's code and a message in words. Paths may be ``str``, ``bytes``
or ``os.PathLike``. The library calls run without the GIL, so threads run
them in parallel. ``qbimage.cluster`` makes the thumbnails of a whole tree
on a Dask cluster; ``python3 -m qbimage batch`` does so from the shell.
"""

from ._api import (MediaType, Mode, Xform, frame, hw_level, library_path, media_type, metadata,
                   raw_preview, thumbnail, transform, version)
from ._errors import (Error, FrameError, LibraryError, MetadataError, RawPreviewError, ScaleError,
                      ThumbnailError, TransformError, code_words)
from ._metadata import KEYS as METADATA_KEYS
from ._scale import scale

__all__ = [
    "Error", "FrameError", "LibraryError", "MetadataError", "RawPreviewError", "ScaleError",
    "ThumbnailError", "TransformError", "METADATA_KEYS", "MediaType", "Mode", "Xform",
    "code_words", "frame", "hw_level", "library_path", "media_type", "metadata", "raw_preview",
    "scale", "thumbnail", "transform", "version",
]
