// A small Exif writer for tests: APP1 payloads ("Exif\0\0" and a TIFF
// structure) with IFD0, an EXIF IFD and a GPS IFD in either byte order,
// broken ones included (counts that lie, offsets past the end).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qbtest {

enum : uint16_t {  // TIFF field types
    kTiffByte = 1, kTiffAscii = 2, kTiffShort = 3, kTiffLong = 4,
    kTiffRational = 5, kTiffUndefined = 7, kTiffSRational = 10,
};

// One IFD entry. Units are of the type's width (a rational is two 4-byte
// units), laid out in the block's byte order.
struct ExifField {
    uint16_t tag = 0;
    uint16_t type = 0;
    uint32_t count = 0;  // as written; free to disagree with the units
    std::vector<uint32_t> units;
    std::optional<uint32_t> offset;  // written instead of the value, no data
};

ExifField exif_ascii(uint16_t tag, const std::string &text);  // NUL counted
ExifField exif_bytes(uint16_t tag, uint16_t type, const std::vector<uint8_t> &bytes);
ExifField exif_short(uint16_t tag, const std::vector<uint16_t> &values);
ExifField exif_long(uint16_t tag, const std::vector<uint32_t> &values);
ExifField exif_rational(uint16_t tag, const std::vector<std::pair<uint32_t, uint32_t>> &values);

struct ExifBlock {
    bool big_endian = false;
    std::vector<ExifField> ifd0, exif, gps;  // an empty exif or gps: no such IFD
    std::optional<uint32_t> exif_pointer;     // forced offset of the EXIF IFD
};

// Entries in ascending tag order; IFD0 points to the other two.
std::vector<uint8_t> build_exif(const ExifBlock &block);

}  // namespace qbtest
