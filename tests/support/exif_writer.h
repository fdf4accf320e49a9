// TIFF structures for tests: Exif APP1 payloads in either byte order, and
// the DNG files of dng_writer.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qbtest {

enum : uint16_t { kTiffByte = 1, kTiffAscii = 2, kTiffShort = 3, kTiffLong = 4, kTiffRational = 5 };

// One IFD entry: values of the type's width, a rational taking two. With an
// offset, that is written in place of the values and no data goes out.
struct ExifField {
    uint16_t tag = 0, type = 0;
    std::vector<uint32_t> units{};
    std::optional<uint32_t> offset{};
};

inline ExifField exif_ascii(uint16_t tag, const std::string &text)  // NUL counted
{
    return {tag, kTiffAscii, {text.c_str(), text.c_str() + text.size() + 1}};
}
inline ExifField exif_short(uint16_t tag, const std::vector<uint16_t> &values)
{
    return {tag, kTiffShort, {values.begin(), values.end()}};
}

struct ExifBlock {
    bool big_endian = false;
    std::vector<ExifField> ifd0{}, exif{}, gps{}, sub{};  // empty: no such IFD; sub: tag 330
    std::vector<uint8_t> data{};                          // at offset 8, ahead of the IFDs
};

std::vector<uint8_t> build_tiff(const ExifBlock &block);  // IFD0 last
std::vector<uint8_t> build_exif(const ExifBlock &block);  // "Exif\0\0" and the TIFF

}  // namespace qbtest
