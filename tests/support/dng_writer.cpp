#include "dng_writer.h"

#include <algorithm>
#include <vector>

#include "test_jpeg.h"

namespace qbtest {
namespace {

enum : uint16_t { kByte = 1, kAscii = 2, kShort = 3, kLong = 4, kRational = 5 };
constexpr uint32_t kBlack = 64, kWhite = 4095;
const std::string kDate = "2021:06:15 14:30:45";

struct Entry {
    uint16_t tag, type;
    std::vector<uint32_t> units;  // of the type's width; a rational is two
};

Entry S(uint16_t t, std::vector<uint32_t> v) { return {t, kShort, std::move(v)}; }
Entry L(uint16_t t, std::vector<uint32_t> v) { return {t, kLong, std::move(v)}; }
Entry R(uint16_t t, std::pair<uint32_t, uint32_t> v) { return {t, kRational, {v.first, v.second}}; }
Entry A(uint16_t t, const std::string &s)  // NUL included
{
    return {t, kAscii, {s.c_str(), s.c_str() + s.size() + 1}};
}

struct Writer {  // little-endian
    std::vector<uint8_t> out;

    void put(size_t width, uint32_t v)
    {
        for (size_t i = 0; i < width; ++i)
            out.push_back(uint8_t(v >> i * 8));
    }
    void pad() { out.resize((out.size() + 1) & ~size_t(1), 0); }

    // An IFD at the end, its longer values right behind it; gives its offset.
    uint32_t ifd(std::vector<Entry> entries)
    {
        std::sort(entries.begin(), entries.end(),
                  [](const Entry &a, const Entry &b) { return a.tag < b.tag; });
        pad();
        const auto start = uint32_t(out.size());
        Writer tail;
        put(2, uint32_t(entries.size()));
        for (const Entry &e : entries) {
            put(2, e.tag);
            put(2, e.type);
            put(4, uint32_t(e.type == kRational ? e.units.size() / 2 : e.units.size()));
            Writer value;
            for (uint32_t u : e.units)
                value.put(e.type == kShort ? 2 : e.type >= kLong ? 4 : 1, u);
            if (value.out.size() > 4) {
                put(4, uint32_t(start + 6 + 12 * entries.size() + tail.out.size()));
                value.pad();
                tail.out.insert(tail.out.end(), value.out.begin(), value.out.end());
            } else {
                value.out.resize(4, 0);
                out.insert(out.end(), value.out.begin(), value.out.end());
            }
        }
        put(4, 0);  // no next IFD
        out.insert(out.end(), tail.out.begin(), tail.out.end());
        return start;
    }
};

// The marked gradient at a stored size, as the orientation stores it.
Picture stored_scene(int w, int h, int orientation)
{
    const bool turned = orientation == 6 || orientation == 8;
    const Picture up = make_picture(turned ? h : w, turned ? w : h, 3);
    Picture s = make_flat(w, h, 3, 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int ux = orientation == 3 ? w - 1 - x : orientation == 6 ? h - 1 - y
                         : orientation == 8 ? y : x;
            const int uy = orientation == 3 ? h - 1 - y : orientation == 6 ? x
                         : orientation == 8 ? w - 1 - x : y;
            std::copy_n(up.at(ux, uy), 3, s.at(x, y));
        }
    return s;
}

// The tags of the sensor data (subfile type 0) or of the preview.
std::vector<Entry> picture_tags(bool sensor, const DngOptions &opt, uint32_t offset,
                                uint32_t length)
{
    const bool jpeg = opt.preview == DngPreview::jpeg;
    const auto w = uint32_t(sensor ? kDngSensorWidth : opt.preview_width);
    const auto h = uint32_t(sensor ? kDngSensorHeight : opt.preview_height);
    std::vector<Entry> t = {
        L(254, {sensor ? 0u : 1u}), L(256, {w}), L(257, {h}),
        S(258, sensor ? std::vector<uint32_t>{16} : std::vector<uint32_t>{8, 8, 8}),
        S(259, {sensor || !jpeg ? 1u : 7u}), S(262, {sensor ? 32803u : jpeg ? 6u : 2u}),
        L(273, {offset}), S(277, {sensor ? 1u : 3u}), L(278, {h}), L(279, {length}),
        S(284, {1})};
    if (sensor)
        t.insert(t.end(), {L(50714, {kBlack}), L(50717, {kWhite})});
    if (sensor && opt.cfa)  // a 2 x 2 pattern: R G G B
        t.insert(t.end(), {S(33421, {2, 2}), Entry{33422, kByte, {0, 1, 1, 2}}});
    return t;
}

}  // namespace

bool write_dng(const std::string &path, const DngOptions &opt)
{
    // Header, preview, sensor data, then the IFDs, so every offset is known
    // before it is written; the header's pointer to IFD0 is patched last.
    Writer w{{'I', 'I', 42, 0, 0, 0, 0, 0}};
    const bool preview = opt.preview != DngPreview::none;
    if (preview) {
        const Picture p = stored_scene(opt.preview_width, opt.preview_height, opt.orientation);
        const std::vector<uint8_t> strip =
            opt.preview == DngPreview::bitmap ? p.pixels : encode_jpeg(p);
        w.out.insert(w.out.end(), strip.begin(), strip.end());
        w.pad();
    }
    const auto preview_length = uint32_t(w.out.size() - 8);
    const auto sensor_at = uint32_t(w.out.size());
    const Picture scene = stored_scene(kDngSensorWidth, kDngSensorHeight, opt.orientation);
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x)  // colour (y & 1) + (x & 1): R, G or B
            w.put(2, kBlack + scene.at(x, y)[(y & 1) + (x & 1)] * (kWhite - kBlack) / 255);
    const auto sensor_length = uint32_t(w.out.size() - sensor_at);

    const uint32_t sub = preview ? w.ifd(picture_tags(true, opt, sensor_at, sensor_length)) : 0;
    std::vector<Entry> exif = {R(33434, opt.exposure), R(33437, opt.f_number), S(34855, {400}),
                               S(37385, {1}), R(37386, opt.focal_length)};
    if (opt.dated)
        exif.push_back(A(36867, kDate));
    const uint32_t exif_at = w.ifd(exif);

    const auto damaged = uint32_t(w.out.size() + 0x100000);  // far past what LibRaw reads
    std::vector<Entry> ifd0 =
        preview ? picture_tags(false, opt, opt.damaged_preview ? damaged : 8, preview_length)
                : picture_tags(true, opt, sensor_at, sensor_length);
    ifd0.insert(ifd0.end(), {A(271, "Qbcam"), A(272, "QB-1"), S(274, {opt.orientation}),
                             L(34665, {exif_at}), Entry{50706, kByte, {1, 4, 0, 0}},
                             A(50708, "Qbcam QB-1")});
    if (preview)
        ifd0.push_back(L(330, {sub}));
    const uint32_t ifd0_at = w.ifd(ifd0);
    for (int i = 0; i < 4; ++i)
        w.out[4 + i] = uint8_t(ifd0_at >> i * 8);
    return write_file(path, w.out);
}

}  // namespace qbtest
