"""The metadata record as a dict: the keys of ``qbimage meta --json``.

One table gives each key's name, JSON type, meaning and value, in the
tool's output order; tests/test_agreement.py checks it against the tool's
``--list-keys`` and against its objects for the same files.
"""

from __future__ import annotations

from typing import Any, Callable, NamedTuple


class MetaKey(NamedTuple):
    name: str
    type: str
    meaning: str
    value: Callable[[str, str, Any, Any], Any]  # (file, type, record, ffi) -> value


def _text(field, ffi) -> str | None:
    raw = ffi.string(field)  # stops at the zero byte, within the field
    # The tool writes invalid UTF-8 as U+FFFD; so does this.
    return raw.decode("utf-8", errors="replace") if raw else None


def _flagged(value: int, valid: int) -> int | None:
    return int(value) if valid else None


def _rational(r) -> list[int] | None:
    return None if r.numerator == 0 else [int(r.numerator), int(r.denominator)]


def _decimal(r) -> float | None:
    if r.numerator == 0 or r.denominator == 0:
        return None
    return r.numerator / r.denominator


def _int16(v: int) -> int:
    return v - 0x10000 if v >= 0x8000 else v


KEYS: tuple[MetaKey, ...] = (
    MetaKey("file", "string", "the path as given on the command line",
            lambda f, t, m, ffi: f),
    MetaKey("type", "string", '"jpeg" (read from Exif) or "raw" (read through LibRaw)',
            lambda f, t, m, ffi: t),
    MetaKey("width", "integer", "width in pixels, upright (after the orientation)",
            lambda f, t, m, ffi: int(m.width)),
    MetaKey("height", "integer", "height in pixels, upright",
            lambda f, t, m, ffi: int(m.height)),
    MetaKey("orientation", "integer|null", "Exif orientation 1..8; null when its flag says absent",
            lambda f, t, m, ffi: _flagged(m.orientation, m.orientation_valid)),
    MetaKey("date_time", "string|null", 'capture time, "YYYY:MM:DD hh:mm:ss"',
            lambda f, t, m, ffi: _text(m.date_time, ffi)),
    MetaKey("sub_sec", "string|null", "sub-second digits of the capture time",
            lambda f, t, m, ffi: _text(m.sub_sec, ffi)),
    MetaKey("description", "string|null", "image description",
            lambda f, t, m, ffi: _text(m.description, ffi)),
    MetaKey("make", "string|null", "camera maker", lambda f, t, m, ffi: _text(m.make, ffi)),
    MetaKey("model", "string|null", "camera model", lambda f, t, m, ffi: _text(m.model, ffi)),
    MetaKey("exposure_time", "[num, den]|null", "exposure time in seconds as stored",
            lambda f, t, m, ffi: _rational(m.exposure_time)),
    MetaKey("exposure_time_decimal", "number|null", "exposure_time as a decimal",
            lambda f, t, m, ffi: _decimal(m.exposure_time)),
    MetaKey("f_number", "[num, den]|null", "f-number as stored",
            lambda f, t, m, ffi: _rational(m.f_number)),
    MetaKey("f_number_decimal", "number|null", "f_number as a decimal",
            lambda f, t, m, ffi: _decimal(m.f_number)),
    MetaKey("focal_length", "[num, den]|null", "focal length in millimetres as stored",
            lambda f, t, m, ffi: _rational(m.focal_length)),
    MetaKey("focal_length_decimal", "number|null", "focal_length as a decimal",
            lambda f, t, m, ffi: _decimal(m.focal_length)),
    MetaKey("iso", "integer|null", "ISO speed",
            lambda f, t, m, ffi: _flagged(m.iso, m.iso_valid)),
    MetaKey("flash", "integer|null", "Exif Flash value",
            lambda f, t, m, ffi: _flagged(m.flash, m.flash_valid)),
    MetaKey("exposure_program", "integer|null", "Exif ExposureProgram value",
            lambda f, t, m, ffi: _flagged(m.exposure_program, m.exposure_program_valid)),
    MetaKey("metering_mode", "integer|null", "Exif MeteringMode value",
            lambda f, t, m, ffi: _flagged(m.metering_mode, m.metering_mode_valid)),
    MetaKey("white_balance", "integer|null", "Exif WhiteBalance value",
            lambda f, t, m, ffi: _flagged(m.white_balance, m.white_balance_valid)),
    MetaKey("aperture_value", "number|null", "APEX aperture (the record's thousandths / 1000)",
            lambda f, t, m, ffi: m.aperture_value / 1000.0 if m.aperture_value_valid else None),
    MetaKey("shutter_speed_value", "number|null",
            "APEX shutter speed, signed (the record's 16-bit thousandths / 1000)",
            lambda f, t, m, ffi: (_int16(m.shutter_speed_value) / 1000.0
                                  if m.shutter_speed_value_valid else None)),
    MetaKey("gps_latitude", "integer|null", "latitude in milliseconds of arc, north positive",
            lambda f, t, m, ffi: int(m.gps_latitude) if m.gps_latitude_valid else None),
    MetaKey("gps_latitude_deg", "number|null", "latitude in signed decimal degrees",
            lambda f, t, m, ffi: m.gps_latitude / 3600000.0 if m.gps_latitude_valid else None),
    MetaKey("gps_longitude", "integer|null", "longitude in milliseconds of arc, east positive",
            lambda f, t, m, ffi: int(m.gps_longitude) if m.gps_longitude_valid else None),
    MetaKey("gps_longitude_deg", "number|null", "longitude in signed decimal degrees",
            lambda f, t, m, ffi: m.gps_longitude / 3600000.0 if m.gps_longitude_valid else None),
    MetaKey("gps_altitude", "integer|null", "altitude in millimetres",
            lambda f, t, m, ffi: int(m.gps_altitude) if m.gps_altitude_valid else None),
    MetaKey("gps_altitude_m", "number|null", "altitude in metres",
            lambda f, t, m, ffi: m.gps_altitude / 1000.0 if m.gps_altitude_valid else None),
)


def record_to_dict(file: str, media: str, record, ffi) -> dict[str, Any]:
    """The dict of one file from a record that image_get_metadata filled."""
    return {k.name: k.value(file, media, record, ffi) for k in KEYS}
