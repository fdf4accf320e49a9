#include "exif_writer.h"

#include <algorithm>

namespace qbtest {
namespace {

struct Writer {
    bool big;
    std::vector<uint8_t> out;  // TIFF bytes, offsets counted from the first

    void put(uint32_t value, uint32_t bytes)
    {
        for (uint32_t i = 0; i < bytes; ++i)
            out.push_back(uint8_t(value >> (big ? 8 * (bytes - 1 - i) : 8 * i)));
    }

    // An IFD at the end, its longer values right behind it; gives its offset.
    uint32_t ifd(std::vector<ExifField> fields)
    {
        std::stable_sort(fields.begin(), fields.end(),
                         [](const ExifField &a, const ExifField &b) { return a.tag < b.tag; });
        const auto at = uint32_t(out.size());
        Writer tail{big, {}};
        put(uint32_t(fields.size()), 2);
        for (const ExifField &f : fields) {
            put(f.tag, 2);
            put(f.type, 2);
            put(f.count, 4);
            Writer value{big, {}};
            for (uint32_t u : f.units)
                value.put(u, f.type == kTiffShort ? 2 : f.type == kTiffLong ||
                              f.type == kTiffRational || f.type == kTiffSRational ? 4 : 1);
            if (f.offset) {
                put(*f.offset, 4);
            } else if (value.out.size() > 4) {
                put(uint32_t(at + 6 + 12 * fields.size() + tail.out.size()), 4);
                value.out.resize((value.out.size() + 1) & ~size_t(1), 0);
                tail.out.insert(tail.out.end(), value.out.begin(), value.out.end());
            } else {
                value.out.resize(4, 0);
                out.insert(out.end(), value.out.begin(), value.out.end());
            }
        }
        put(0, 4);  // no next IFD
        out.insert(out.end(), tail.out.begin(), tail.out.end());
        return at;
    }
};

}  // namespace

ExifField exif_ascii(uint16_t tag, const std::string &text)
{
    return exif_bytes(tag, kTiffAscii, {text.c_str(), text.c_str() + text.size() + 1});
}

ExifField exif_bytes(uint16_t tag, uint16_t type, const std::vector<uint8_t> &bytes)
{
    return {tag, type, uint32_t(bytes.size()), {bytes.begin(), bytes.end()}, {}};
}

ExifField exif_short(uint16_t tag, const std::vector<uint16_t> &values)
{
    return {tag, kTiffShort, uint32_t(values.size()), {values.begin(), values.end()}, {}};
}

ExifField exif_long(uint16_t tag, const std::vector<uint32_t> &values)
{
    return {tag, kTiffLong, uint32_t(values.size()), values, {}};
}

ExifField exif_rational(uint16_t tag, const std::vector<std::pair<uint32_t, uint32_t>> &values)
{
    ExifField f{tag, kTiffRational, uint32_t(values.size()), {}, {}};
    for (const auto &[n, d] : values)
        f.units.insert(f.units.end(), {n, d});
    return f;
}

std::vector<uint8_t> build_exif(const ExifBlock &block)
{
    // The header, the EXIF and GPS IFDs, then IFD0, so that every pointer is
    // known when it is written; the header's pointer to IFD0 comes last.
    const bool big = block.big_endian;
    Writer w{big, {}};
    w.put(big ? 0x4D4D : 0x4949, 2);
    w.put(42, 2);
    w.put(0, 4);
    std::vector<ExifField> ifd0 = block.ifd0;
    if (!block.exif.empty()) {
        const uint32_t at = w.ifd(block.exif);
        ifd0.push_back(exif_long(34665, {block.exif_pointer.value_or(at)}));
    }
    if (!block.gps.empty())
        ifd0.push_back(exif_long(34853, {w.ifd(block.gps)}));
    Writer head{big, {'E', 'x', 'i', 'f', 0, 0}};
    head.put(w.ifd(ifd0), 4);
    std::copy(head.out.begin() + 6, head.out.end(), w.out.begin() + 4);
    w.out.insert(w.out.begin(), head.out.begin(), head.out.begin() + 6);
    return w.out;
}

}  // namespace qbtest
