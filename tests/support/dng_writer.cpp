#include "dng_writer.h"

#include <algorithm>
#include <cstdio>

namespace qbtest {

namespace {

enum : uint16_t {  // TIFF field types
    kByte = 1, kAscii = 2, kShort = 3, kLong = 4, kRational = 5,
};

enum : uint16_t {  // tags
    kNewSubFileType = 254,
    kImageWidth = 256,
    kImageLength = 257,
    kBitsPerSample = 258,
    kCompression = 259,
    kPhotometric = 262,
    kMake = 271,
    kModel = 272,
    kStripOffsets = 273,
    kOrientation = 274,
    kSamplesPerPixel = 277,
    kRowsPerStrip = 278,
    kStripByteCounts = 279,
    kPlanarConfiguration = 284,
    kDateTime = 306,
    kSubIfds = 330,
    kCfaRepeatPatternDim = 33421,
    kCfaPattern = 33422,
    kExposureTime = 33434,
    kFNumber = 33437,
    kExifIfd = 34665,
    kIsoSpeedRatings = 34855,
    kDateTimeOriginal = 36867,
    kFlash = 37385,
    kFocalLength = 37386,
    kDngVersion = 50706,
    kUniqueCameraModel = 50708,
    kBlackLevel = 50714,
    kWhiteLevel = 50717,
};

constexpr uint32_t kBlack = 64;
constexpr uint32_t kWhite = 4095;

// Values are units of the type's width (a rational is two 4-byte units).
struct Entry {
    uint16_t tag;
    uint16_t type;
    uint32_t count;
    std::vector<uint32_t> units;
};

Entry ascii(uint16_t tag, const std::string &text)
{
    std::vector<uint32_t> units(text.begin(), text.end());
    units.push_back(0);
    return {tag, kAscii, uint32_t(units.size()), units};
}
Entry shorts(uint16_t tag, std::vector<uint32_t> v) { return {tag, kShort, uint32_t(v.size()), v}; }
Entry longs(uint16_t tag, std::vector<uint32_t> v) { return {tag, kLong, uint32_t(v.size()), v}; }
Entry bytes(uint16_t tag, std::vector<uint32_t> v) { return {tag, kByte, uint32_t(v.size()), v}; }
Entry rational(uint16_t tag, std::pair<uint32_t, uint32_t> r)
{
    return {tag, kRational, 1, {r.first, r.second}};
}

size_t unit_width(uint16_t type)
{
    return type == kShort ? 2 : (type == kLong || type == kRational) ? 4 : 1;
}

size_t data_bytes(const Entry &e) { return e.units.size() * unit_width(e.type); }

size_t ifd_bytes(const std::vector<Entry> &entries)
{
    size_t size = 2 + 12 * entries.size() + 4;
    for (const Entry &e : entries)
        if (data_bytes(e) > 4)
            size += (data_bytes(e) + 1) & ~size_t(1);
    return size;
}

class Writer {
public:
    explicit Writer(bool big_endian) : be_(big_endian) {}

    void put(size_t width, uint32_t v)
    {
        for (size_t i = 0; i < width; ++i) {
            const size_t shift = be_ ? (width - 1 - i) * 8 : i * 8;
            out_.push_back(uint8_t(v >> shift));
        }
    }

    void put_units(const Entry &e)
    {
        for (uint32_t u : e.units)
            put(unit_width(e.type), u);
    }

    // The IFD at the current end, its long values right behind it.
    void ifd(std::vector<Entry> entries)
    {
        std::sort(entries.begin(), entries.end(),
                  [](const Entry &a, const Entry &b) { return a.tag < b.tag; });
        const size_t start = out_.size();
        size_t data = start + 2 + 12 * entries.size() + 4;
        put(2, uint32_t(entries.size()));
        for (const Entry &e : entries) {
            put(2, e.tag);
            put(2, e.type);
            put(4, e.count);
            if (data_bytes(e) <= 4) {
                put_units(e);
                for (size_t i = data_bytes(e); i < 4; ++i)
                    out_.push_back(0);
            } else {
                put(4, uint32_t(data));
                data += (data_bytes(e) + 1) & ~size_t(1);
            }
        }
        put(4, 0);  // no next IFD
        for (const Entry &e : entries)
            if (data_bytes(e) > 4) {
                put_units(e);
                if (data_bytes(e) & 1)
                    out_.push_back(0);
            }
    }

    void raw(const std::vector<uint8_t> &b) { out_.insert(out_.end(), b.begin(), b.end()); }
    std::vector<uint8_t> &bytes() { return out_; }

private:
    bool be_;
    std::vector<uint8_t> out_;
};

struct Offsets {
    uint32_t sub = 0;
    uint32_t exif = 0;
    uint32_t preview = 0;
    uint32_t sensor = 0;
};

// The RGGB mosaic of the stored scene, 16-bit samples in the file's order.
std::vector<uint8_t> sensor_strip(const DngOptions &opt)
{
    const Picture scene = dng_scene(opt, opt.sensor_width, opt.sensor_height);
    Writer w(opt.big_endian);
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x) {
            const int colour = (y & 1) + (x & 1);  // 0 R, 1 G, 2 B
            const uint32_t v = scene.at(x, y)[colour];
            w.put(2, kBlack + v * (kWhite - kBlack) / 255);
        }
    return std::move(w.bytes());
}

std::vector<uint8_t> preview_strip(const DngOptions &opt)
{
    const Picture scene = dng_scene(opt, opt.preview_width, opt.preview_height);
    if (opt.preview == DngPreview::bitmap)
        return scene.pixels;
    JpegOptions jo;
    jo.quality = 90;
    return encode_jpeg(scene, jo);
}

// Tags of the sensor data, in IFD0 or a SubIFD.
void add_sensor_tags(std::vector<Entry> &ifd, const DngOptions &opt,
                     uint32_t offset, uint32_t length)
{
    const auto w = uint32_t(opt.sensor_width);
    const auto h = uint32_t(opt.sensor_height);
    ifd.push_back(longs(kNewSubFileType, {0}));
    ifd.push_back(longs(kImageWidth, {w}));
    ifd.push_back(longs(kImageLength, {h}));
    ifd.push_back(shorts(kBitsPerSample, {16}));
    ifd.push_back(shorts(kCompression, {1}));
    ifd.push_back(shorts(kPhotometric, {32803}));
    ifd.push_back(longs(kStripOffsets, {offset}));
    ifd.push_back(shorts(kSamplesPerPixel, {1}));
    ifd.push_back(longs(kRowsPerStrip, {h}));
    ifd.push_back(longs(kStripByteCounts, {length}));
    ifd.push_back(shorts(kPlanarConfiguration, {1}));
    if (opt.cfa) {
        ifd.push_back(shorts(kCfaRepeatPatternDim, {2, 2}));
        ifd.push_back(bytes(kCfaPattern, {0, 1, 1, 2}));
    }
    ifd.push_back(longs(kBlackLevel, {kBlack}));
    ifd.push_back(longs(kWhiteLevel, {kWhite}));
}

std::vector<Entry> make_ifd0(const DngOptions &opt, const Offsets &o,
                             uint32_t preview_length, uint32_t sensor_length)
{
    std::vector<Entry> ifd;
    if (opt.preview == DngPreview::none) {
        add_sensor_tags(ifd, opt, o.sensor, sensor_length);
    } else {
        const bool jpeg = opt.preview == DngPreview::jpeg;
        const auto w = uint32_t(opt.preview_width);
        const auto h = uint32_t(opt.preview_height);
        ifd.push_back(longs(kNewSubFileType, {1}));
        ifd.push_back(longs(kImageWidth, {w}));
        ifd.push_back(longs(kImageLength, {h}));
        ifd.push_back(shorts(kBitsPerSample, {8, 8, 8}));
        ifd.push_back(shorts(kCompression, {jpeg ? 7u : 1u}));
        ifd.push_back(shorts(kPhotometric, {jpeg ? 6u : 2u}));
        ifd.push_back(longs(kStripOffsets, {o.preview}));
        ifd.push_back(shorts(kSamplesPerPixel, {3}));
        ifd.push_back(longs(kRowsPerStrip, {h}));
        ifd.push_back(longs(kStripByteCounts, {preview_length}));
        ifd.push_back(shorts(kPlanarConfiguration, {1}));
        ifd.push_back(longs(kSubIfds, {o.sub}));
    }
    ifd.push_back(ascii(kMake, opt.make));
    ifd.push_back(ascii(kModel, opt.model));
    if (opt.orientation != 0)
        ifd.push_back(shorts(kOrientation, {opt.orientation}));
    if (!opt.date.empty())
        ifd.push_back(ascii(kDateTime, opt.date));
    if (opt.exif)
        ifd.push_back(longs(kExifIfd, {o.exif}));
    ifd.push_back(bytes(kDngVersion, {1, 4, 0, 0}));
    ifd.push_back(ascii(kUniqueCameraModel, opt.make + " " + opt.model));
    return ifd;
}

std::vector<Entry> make_exif(const DngOptions &opt)
{
    std::vector<Entry> ifd;
    ifd.push_back(rational(kExposureTime, opt.exposure));
    ifd.push_back(rational(kFNumber, opt.f_number));
    ifd.push_back(shorts(kIsoSpeedRatings, {opt.iso}));
    if (!opt.date_original.empty())
        ifd.push_back(ascii(kDateTimeOriginal, opt.date_original));
    ifd.push_back(shorts(kFlash, {opt.flash}));
    ifd.push_back(rational(kFocalLength, opt.focal_length));
    return ifd;
}

uint32_t even(size_t n) { return uint32_t((n + 1) & ~size_t(1)); }

}  // namespace

Picture stored_from_upright(const Picture &upright, int orientation)
{
    const bool turned = orientation == 6 || orientation == 8;
    Picture s;
    s.width = turned ? upright.height : upright.width;
    s.height = turned ? upright.width : upright.height;
    s.components = upright.components;
    s.pixels.resize(upright.pixels.size());
    for (int y = 0; y < s.height; ++y)
        for (int x = 0; x < s.width; ++x) {
            int ux = x, uy = y;
            if (orientation == 3) {
                ux = s.width - 1 - x;
                uy = s.height - 1 - y;
            } else if (orientation == 6) {  // stored rows become columns from the right
                ux = s.height - 1 - y;
                uy = x;
            } else if (orientation == 8) {  // stored rows become columns from the left
                ux = y;
                uy = s.width - 1 - x;
            }
            std::copy_n(upright.at(ux, uy), s.components, s.at(x, y));
        }
    return s;
}

Picture dng_scene(const DngOptions &opt, int stored_width, int stored_height)
{
    const bool turned = opt.orientation >= 5 && opt.orientation <= 8;
    const Picture upright = turned ? make_picture(stored_height, stored_width, 3)
                                   : make_picture(stored_width, stored_height, 3);
    return stored_from_upright(upright, opt.orientation);
}

std::vector<uint8_t> build_dng(const DngOptions &opt)
{
    const std::vector<uint8_t> sensor = sensor_strip(opt);
    const std::vector<uint8_t> preview =
        opt.preview == DngPreview::none ? std::vector<uint8_t>() : preview_strip(opt);
    const auto plen = uint32_t(preview.size());
    const auto slen = uint32_t(sensor.size());

    // Sizes do not depend on the offsets, so a first pass with zeros lays
    // the file out: header, IFD0, SubIFD, Exif IFD, preview, sensor data.
    Offsets o;
    const size_t ifd0_size = ifd_bytes(make_ifd0(opt, o, plen, slen));
    std::vector<Entry> sub;
    if (opt.preview != DngPreview::none)
        add_sensor_tags(sub, opt, 0, slen);
    const size_t sub_size = sub.empty() ? 0 : ifd_bytes(sub);
    const size_t exif_size = opt.exif ? ifd_bytes(make_exif(opt)) : 0;
    o.sub = even(8 + ifd0_size);
    o.exif = even(o.sub + sub_size);
    o.preview = even(o.exif + exif_size);
    o.sensor = even(o.preview + plen);
    const uint32_t end = o.sensor + slen;

    Offsets written = o;
    if (opt.damaged_preview)
        written.preview = end + 0x100000;  // far beyond what LibRaw reads past the end

    Writer w(opt.big_endian);
    w.raw(opt.big_endian ? std::vector<uint8_t>{'M', 'M', 0, 42}
                         : std::vector<uint8_t>{'I', 'I', 42, 0});
    w.put(4, 8);
    w.ifd(make_ifd0(opt, written, plen, slen));
    auto pad_to = [&](uint32_t at) { w.bytes().resize(at, 0); };
    if (!sub.empty()) {
        pad_to(o.sub);
        sub.clear();
        add_sensor_tags(sub, opt, o.sensor, slen);
        w.ifd(sub);
    }
    if (opt.exif) {
        pad_to(o.exif);
        w.ifd(make_exif(opt));
    }
    pad_to(o.preview);
    w.raw(preview);
    pad_to(o.sensor);
    w.raw(sensor);
    return std::move(w.bytes());
}

bool write_dng(const std::string &path, const DngOptions &opt)
{
    return write_file(path, build_dng(opt));
}

}  // namespace qbtest
