#include "exif_writer.h"

#include <algorithm>

namespace qbtest {
namespace {

constexpr uint16_t kExifPointerTag = 34665;
constexpr uint16_t kGpsPointerTag = 34853;
constexpr uint32_t kTiffHeaderBytes = 8;

unsigned unit_bytes(uint16_t type)
{
    if (type == 3 || type == 8)
        return 2;
    return (type >= 4 && type <= 5) || (type >= 9 && type <= 12) ? 4 : 1;
}

uint32_t data_bytes(const ExifField &f) { return uint32_t(f.units.size()) * unit_bytes(f.type); }
bool out_of_line(const ExifField &f) { return !f.offset && data_bytes(f) > 4; }
uint32_t even(uint32_t n) { return (n + 1) & ~1u; }

uint32_t ifd_bytes(const std::vector<ExifField> &fields)
{
    uint32_t n = 2 + 12 * uint32_t(fields.size()) + 4;
    for (const ExifField &f : fields)
        n += out_of_line(f) ? even(data_bytes(f)) : 0;
    return n;
}

struct Writer {
    bool big;
    std::vector<uint8_t> out;  // starts with "Exif\0\0", of even length

    void put(uint32_t value, unsigned bytes)
    {
        for (unsigned i = 0; i < bytes; ++i)
            out.push_back(uint8_t(value >> (big ? 8 * (bytes - 1 - i) : 8 * i)));
    }
    void put_units(const ExifField &f)
    {
        for (uint32_t u : f.units)
            put(u, unit_bytes(f.type));
    }
    // An IFD at `start` (a TIFF offset), then its out-of-line values.
    void put_ifd(std::vector<ExifField> fields, uint32_t start)
    {
        std::stable_sort(fields.begin(), fields.end(),
                         [](const ExifField &a, const ExifField &b) { return a.tag < b.tag; });
        put(uint32_t(fields.size()), 2);
        uint32_t data_at = start + 2 + 12 * uint32_t(fields.size()) + 4;
        for (const ExifField &f : fields) {
            put(f.tag, 2);
            put(f.type, 2);
            put(f.count, 4);
            if (f.offset) {
                put(*f.offset, 4);
            } else if (out_of_line(f)) {
                put(data_at, 4);
                data_at += even(data_bytes(f));
            } else {
                const size_t end = out.size() + 4;
                put_units(f);
                out.resize(end, 0);
            }
        }
        put(0, 4);  // no next IFD
        for (const ExifField &f : fields) {
            if (out_of_line(f)) {
                put_units(f);
                out.resize(even(uint32_t(out.size())), 0);
            }
        }
    }
};

}  // namespace

ExifField exif_ascii(uint16_t tag, const std::string &text)
{
    ExifField f = exif_bytes(tag, kTiffAscii, {text.begin(), text.end()});
    f.units.push_back(0);
    ++f.count;
    return f;
}

ExifField exif_bytes(uint16_t tag, uint16_t type, const std::vector<uint8_t> &bytes)
{
    return {tag, type, uint32_t(bytes.size()), {bytes.begin(), bytes.end()}, {}};
}

ExifField exif_short(uint16_t tag, const std::vector<uint16_t> &values)
{
    return {tag, kTiffShort, uint32_t(values.size()), {values.begin(), values.end()}, {}};
}

ExifField exif_long(uint16_t tag, std::vector<uint32_t> values)
{
    return {tag, kTiffLong, uint32_t(values.size()), std::move(values), {}};
}

ExifField exif_rational(uint16_t tag,
                        const std::vector<std::pair<uint32_t, uint32_t>> &values)
{
    ExifField f{tag, kTiffRational, uint32_t(values.size()), {}, {}};
    for (const auto &[n, d] : values)
        f.units.insert(f.units.end(), {n, d});
    return f;
}

std::vector<uint8_t> build_exif(const ExifBlock &block)
{
    // The pointers are inline LONGs of IFD0, 12 bytes each whatever their
    // values, so the offsets of the other IFDs are known beforehand.
    const uint32_t pointers = uint32_t(!block.exif.empty()) + uint32_t(!block.gps.empty());
    const uint32_t exif_at = kTiffHeaderBytes + ifd_bytes(block.ifd0) + 12 * pointers;
    const uint32_t gps_at = exif_at + (block.exif.empty() ? 0 : ifd_bytes(block.exif));
    std::vector<ExifField> ifd0 = block.ifd0;
    if (!block.exif.empty())
        ifd0.push_back(exif_long(kExifPointerTag, {block.exif_pointer.value_or(exif_at)}));
    if (!block.gps.empty())
        ifd0.push_back(exif_long(kGpsPointerTag, {gps_at}));

    Writer w{block.big_endian, {'E', 'x', 'i', 'f', 0, 0}};
    w.put(block.big_endian ? 0x4D4D : 0x4949, 2);
    w.put(42, 2);
    w.put(kTiffHeaderBytes, 4);
    w.put_ifd(ifd0, kTiffHeaderBytes);
    if (!block.exif.empty())
        w.put_ifd(block.exif, exif_at);
    if (!block.gps.empty())
        w.put_ifd(block.gps, gps_at);
    return w.out;
}

}  // namespace qbtest
