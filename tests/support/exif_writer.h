// A small Exif/TIFF writer for tests: APP1 payloads with IFD0, an EXIF IFD
// and a GPS IFD in either byte order, broken ones included (counts that
// lie, offsets past the end).
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

// One IFD entry. Values are units of the type's width (1, 2 or 4 bytes; a
// rational is two 4-byte units), laid out in the block's byte order when
// the block is built, so one field list serves both orders.
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
ExifField exif_long(uint16_t tag, std::vector<uint32_t> values);
ExifField exif_rational(uint16_t tag,
                        const std::vector<std::pair<uint32_t, uint32_t>> &values);

struct ExifBlock {
    bool big_endian = false;
    std::vector<ExifField> ifd0;
    std::vector<ExifField> exif;  // empty: no EXIF IFD, no pointer to it
    std::vector<ExifField> gps;   // empty: no GPS IFD, no pointer to it
    std::optional<uint32_t> exif_pointer;  // forced offset of the EXIF IFD
};

// The APP1 payload: "Exif\0\0" and the TIFF structure, entries in ascending
// tag order with IFD0's pointers to the other two.
std::vector<uint8_t> build_exif(const ExifBlock &block);

}  // namespace qbtest
