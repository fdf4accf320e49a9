"""Test files, made here: JPEG through cjpeg, Exif and DNG through a small
TIFF writer, PNG through zlib."""

from __future__ import annotations

import struct
import subprocess
import zlib
from pathlib import Path

BYTE, ASCII, SHORT, LONG, RATIONAL = 1, 2, 3, 4, 5
_UNIT = {BYTE: "B", ASCII: "B", SHORT: "H", LONG: "I", RATIONAL: "I"}


def pixels(w: int, h: int, seed: int = 0, channels: int = 3) -> bytes:
    """A gradient with a red quarter at the top left and a per-seed tint."""
    rows = []
    for y in range(h):
        row = bytearray()
        for x in range(w):
            if x < w // 4 and y < h // 4:
                px = (230, 20, 20)
            else:
                px = ((x * 255) // max(1, w - 1), (y * 255) // max(1, h - 1),
                      (seed * 37 + (x ^ y)) & 0xFF)
            row += bytes(px[:channels]) if channels < 3 else bytes(px) + bytes(
                [(x * 7 + y) & 0xFF] * (channels - 3))
        rows.append(bytes(row))
    return b"".join(rows)


def jpeg_bytes(w: int, h: int, seed: int = 0, quality: int = 90, grey: bool = False,
               progressive: bool = False) -> bytes:
    ppm = b"P6 %d %d 255\n" % (w, h) + pixels(w, h, seed)
    args = ["cjpeg", "-quality", str(quality)]
    args += ["-grayscale"] if grey else []
    args += ["-progressive"] if progressive else []
    return subprocess.run(args, input=ppm, stdout=subprocess.PIPE, check=True).stdout


def tiff(ifd0: list, exif: list = (), gps: list = (), sub: list = (), data: bytes = b"") -> bytes:
    """A little-endian TIFF: `data` at offset 8, then the IFDs, IFD0 last.

    Entries are (tag, type, values); ASCII values are a str (its zero byte
    is added), RATIONAL values are flat numerator, denominator pairs.
    """
    out = bytearray(b"II*\0\0\0\0\0" + data)

    def ifd(entries) -> int:
        if len(out) % 2:
            out.append(0)
        start = len(out)
        extra_at = start + 2 + 12 * len(entries) + 4
        head, extra = bytearray(struct.pack("<H", len(entries))), bytearray()
        for tag, kind, values in sorted(entries):
            if kind == ASCII:
                payload = values.encode() + b"\0"
                count = len(payload)
            else:
                payload = struct.pack("<%d%s" % (len(values), _UNIT[kind]), *values)
                count = len(values) // 2 if kind == RATIONAL else len(values)
            if len(payload) <= 4:
                value = payload.ljust(4, b"\0")
            else:
                value = struct.pack("<I", extra_at + len(extra))
                extra += payload + b"\0" * (len(payload) % 2)
            head += struct.pack("<HHI", tag, kind, count) + value
        out.extend(head + struct.pack("<I", 0) + extra)
        return start

    ifd0 = list(ifd0)
    for tag, entries in ((330, sub), (34665, exif), (34853, gps)):
        if entries:
            ifd0.append((tag, LONG, [ifd(entries)]))
    out[4:8] = struct.pack("<I", ifd(ifd0))
    return bytes(out)


def with_exif(jpeg: bytes, ifd0: list, exif: list = (), gps: list = ()) -> bytes:
    """The JPEG with an Exif APP1 segment right behind its SOI."""
    body = b"Exif\0\0" + tiff(ifd0, exif, gps)
    return jpeg[:2] + b"\xff\xe1" + struct.pack(">H", len(body) + 2) + body + jpeg[2:]


def camera_exif(orientation: int = 1, w: int = 0, h: int = 0) -> dict:
    """Exif of a camera photo: every field the metadata record holds."""
    dims = [(40962, LONG, [w]), (40963, LONG, [h])] if w else []
    return {
        "ifd0": [(271, ASCII, "Qbcam"), (272, ASCII, "QB-7"), (270, ASCII, "a test photo"),
                 (274, SHORT, [orientation])],
        "exif": [(33434, RATIONAL, [1, 250]), (33437, RATIONAL, [28, 10]),
                 (37386, RATIONAL, [50, 1]), (37385, SHORT, [16]), (34850, SHORT, [2]),
                 (37383, SHORT, [5]), (41987, SHORT, [0]), (37378, RATIONAL, [297, 100]),
                 (37377, RATIONAL, [797, 100]), (36867, ASCII, "2021:06:15 14:30:45"),
                 (37521, ASCII, "42")] + dims,
        "gps": [(1, ASCII, "S"), (2, RATIONAL, [33, 1, 51, 1, 3054, 100]),
                (3, ASCII, "E"), (4, RATIONAL, [151, 1, 12, 1, 3660, 100]),
                (5, BYTE, [0]), (6, RATIONAL, [58500, 1000])],
    }


def png_bytes(w: int, h: int, alpha: bool = False, seed: int = 0) -> bytes:
    channels = 4 if alpha else 3
    raw = pixels(w, h, seed, channels)
    stride = w * channels
    scan = b"".join(b"\0" + raw[y * stride:(y + 1) * stride] for y in range(h))

    def chunk(kind: bytes, body: bytes) -> bytes:
        return (struct.pack(">I", len(body)) + kind + body
                + struct.pack(">I", zlib.crc32(kind + body) & 0xFFFFFFFF))

    head = struct.pack(">IIBBBBB", w, h, 8, 6 if alpha else 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) + chunk(b"IDAT", zlib.compress(scan))
            + chunk(b"IEND", b""))


def dng_bytes(orientation: int = 1, preview: bytes | None = None, seed: int = 0) -> bytes:
    """A DNG of 16-bit RGGB sensor data, 120 x 80, with an optional JPEG preview."""
    w, h, black, white = 120, 80, 64, 4095
    rgb = pixels(w, h, seed)
    sensor = bytearray()
    for y in range(h):
        for x in range(w):
            v = black + rgb[(y * w + x) * 3 + (y & 1) + (x & 1)] * (white - black) // 255
            sensor += struct.pack("<H", v)
    data = bytearray(preview or b"")
    if len(data) % 2:
        data.append(0)
    sensor_at = 8 + len(data)
    data += sensor

    def picture(is_sensor: bool, offset: int, length: int, pw: int = w, ph: int = h) -> list:
        tags = [(254, LONG, [0 if is_sensor else 1]), (256, LONG, [pw]), (257, LONG, [ph]),
                (258, SHORT, [16] if is_sensor else [8, 8, 8]),
                (259, SHORT, [1 if is_sensor else 7]),
                (262, SHORT, [32803 if is_sensor else 6]), (273, LONG, [offset]),
                (277, SHORT, [1 if is_sensor else 3]), (278, LONG, [ph]), (279, LONG, [length]),
                (284, SHORT, [1])]
        if is_sensor:
            tags += [(50714, LONG, [black]), (50717, LONG, [white]), (33421, SHORT, [2, 2]),
                     (33422, BYTE, [0, 1, 1, 2])]
        return tags

    exif = [(33434, RATIONAL, [1, 250]), (33437, RATIONAL, [28, 10]), (34855, SHORT, [400]),
            (37385, SHORT, [1]), (37386, RATIONAL, [50, 1]),
            (36867, ASCII, "2021:06:15 14:30:45")]
    camera = [(271, ASCII, "Qbcam"), (272, ASCII, "QB-1"), (274, SHORT, [orientation]),
              (50706, BYTE, [1, 4, 0, 0]), (50708, ASCII, "Qbcam QB-1")]
    if preview:
        pw, ph = jpeg_size(preview)
        ifd0 = picture(False, 8, len(preview), pw, ph) + camera
        return tiff(ifd0, exif, sub=picture(True, sensor_at, len(sensor)), data=bytes(data))
    return tiff(picture(True, sensor_at, len(sensor)) + camera, exif, data=bytes(data))


def jpeg_size(data: bytes) -> tuple[int, int]:
    i = 2
    while True:
        marker, length = data[i + 1], struct.unpack(">H", data[i + 2:i + 4])[0]
        if 0xC0 <= marker <= 0xC3:
            h, w = struct.unpack(">HH", data[i + 5:i + 9])
            return w, h
        i += 2 + length


def write(path: Path, data: bytes) -> Path:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)
    return path


def photo_tree(root: Path, count: int = 200) -> dict[str, str]:
    """A tree of `count` mixed photos (JPEG with and without Exif, grey and
    progressive JPEG, PNG with and without alpha, DNG with and without a
    preview) in nested folders, one broken JPEG and a few other files.
    Returns relative path -> kind."""
    kinds: dict[str, str] = {}
    cache: dict[tuple, bytes] = {}

    def once(key: tuple, make) -> bytes:
        if key not in cache:
            cache[key] = make()
        return cache[key]

    for i in range(count - 1):
        folder = f"{2000 + i % 4}/{i % 7:02d}"
        variant = i % 10
        seed = i % 5
        if variant < 5:
            w, h = (160 + 16 * seed, 120) if variant % 2 else (96, 150 + 8 * seed)
            data = once(("jpeg", w, h, seed, variant == 3, variant == 4),
                        lambda: jpeg_bytes(w, h, seed, grey=variant == 3, progressive=variant == 4))
            if variant == 1:
                data = with_exif(data, **camera_exif(6))
            name, kind = f"img{i:03d}.jpg", "jpeg"
        elif variant < 8:
            data = once(("png", variant, seed), lambda: png_bytes(70 + seed, 50, variant == 6, seed))
            name, kind = f"pic{i:03d}.png", "png"
        else:
            preview = once(("prev", seed), lambda: jpeg_bytes(60, 40, seed)) if variant == 9 else None
            data = once(("dng", variant, seed), lambda: dng_bytes(1 + 2 * (seed % 2), preview, seed))
            name, kind = f"raw{i:03d}.dng", "dng"
        write(root / folder / name, data)
        kinds[f"{folder}/{name}"] = kind
    write(root / "2001/broken.jpg", jpeg_bytes(64, 64)[:200] + b"\0" * 64)
    kinds["2001/broken.jpg"] = "broken"
    write(root / "notes.txt", b"not a photo\n")
    write(root / "2002/clip.mov", b"\0" * 16)
    return kinds
