#include "exif_writer.h"

#include <algorithm>

namespace qbtest {
namespace {

struct Writer {
    bool big;
    std::vector<uint8_t> out;

    void put(uint32_t value, int bytes)
    {
        for (int i = 0; i < bytes; ++i)
            out.push_back(uint8_t(value >> 8 * (big ? bytes - 1 - i : i)));
    }

    void append(std::vector<uint8_t> bytes)  // padded to an even length
    {
        bytes.resize((bytes.size() + 1) & ~size_t(1), 0);
        out.insert(out.end(), bytes.begin(), bytes.end());
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
            Writer value{big, {}};
            for (uint32_t u : f.units)
                value.put(u, f.type == kTiffShort ? 2 : f.type == kTiffLong ||
                              f.type == kTiffRational ? 4 : 1);
            put(f.tag, 2);
            put(f.type, 2);
            put(uint32_t(f.units.size() / (f.type == kTiffRational ? 2 : 1)), 4);
            if (f.offset) {
                put(*f.offset, 4);
            } else if (value.out.size() > 4) {
                put(uint32_t(at + 6 + 12 * fields.size() + tail.out.size()), 4);
                tail.append(value.out);
            } else {
                value.out.resize(4, 0);
                append(value.out);
            }
        }
        put(0, 4);
        append(tail.out);
        return at;
    }
};

}  // namespace

std::vector<uint8_t> build_tiff(const ExifBlock &block)
{
    Writer w{block.big_endian, {}};
    w.put(block.big_endian ? 0x4D4D : 0x4949, 2);
    w.put(42, 2);
    w.put(0, 4);
    w.append(block.data);
    std::vector<ExifField> ifd0 = block.ifd0;
    const std::pair<uint16_t, const std::vector<ExifField> *> links[] = {
        {330, &block.sub}, {34665, &block.exif}, {34853, &block.gps}};
    for (const auto &[tag, ifd] : links)
        if (!ifd->empty())
            ifd0.push_back({tag, kTiffLong, {w.ifd(*ifd)}});
    Writer pointer{block.big_endian, {}};
    pointer.put(w.ifd(ifd0), 4);
    std::copy(pointer.out.begin(), pointer.out.end(), w.out.begin() + 4);
    return w.out;
}

std::vector<uint8_t> build_exif(const ExifBlock &block)
{
    std::vector<uint8_t> out = {'E', 'x', 'i', 'f', 0, 0}, tiff = build_tiff(block);
    out.insert(out.end(), tiff.begin(), tiff.end());
    return out;
}

}  // namespace qbtest
