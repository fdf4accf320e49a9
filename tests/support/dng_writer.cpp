#include "dng_writer.h"

#include <vector>

#include "exif_writer.h"
#include "test_jpeg.h"

namespace qbtest {
namespace {

constexpr uint32_t kBlack = 64, kWhite = 4095;

ExifField L(uint16_t tag, uint32_t value) { return {tag, kTiffLong, {value}}; }
ExifField R(uint16_t tag, uint32_t n, uint32_t d) { return {tag, kTiffRational, {n, d}}; }

// The marked gradient at a stored size, as the orientation stores it.
Picture stored_scene(int w, int h, int orientation)
{
    const bool turned = orientation == 6 || orientation == 8;
    return stored_as(make_picture(turned ? h : w, turned ? w : h, 3), orientation);
}

// The tags of the sensor data (subfile type 0) or of the preview.
std::vector<ExifField> picture_tags(bool sensor, const DngOptions &opt, uint32_t offset,
                                    uint32_t length)
{
    const bool jpeg = opt.preview == DngPreview::jpeg;
    const auto w = uint32_t(sensor ? kDngSensorWidth : opt.preview_width);
    const auto h = uint32_t(sensor ? kDngSensorHeight : opt.preview_height);
    std::vector<ExifField> t = {
        L(254, sensor ? 0 : 1), L(256, w), L(257, h),
        exif_short(258, sensor ? std::vector<uint16_t>{16} : std::vector<uint16_t>{8, 8, 8}),
        exif_short(259, {uint16_t(sensor || !jpeg ? 1 : 7)}),
        exif_short(262, {uint16_t(sensor ? 32803 : jpeg ? 6 : 2)}), L(273, offset),
        exif_short(277, {uint16_t(sensor ? 1 : 3)}), L(278, h), L(279, length),
        exif_short(284, {1})};
    if (sensor)
        t.insert(t.end(), {L(50714, kBlack), L(50717, kWhite)});
    if (sensor && opt.cfa)  // a 2 x 2 pattern: R G G B
        t.insert(t.end(), {exif_short(33421, {2, 2}), {33422, kTiffByte, {0, 1, 1, 2}}});
    return t;
}

}  // namespace

bool write_dng(const std::string &path, const DngOptions &opt)
{
    ExifBlock dng;  // the preview, then the sensor data, from offset 8
    const bool preview = opt.preview != DngPreview::none;
    if (preview) {
        const Picture p = stored_scene(opt.preview_width, opt.preview_height, opt.orientation);
        dng.data = opt.preview == DngPreview::bitmap ? p.pixels : encode_jpeg(p);
        dng.data.resize((dng.data.size() + 1) & ~size_t(1), 0);
    }
    const auto preview_length = uint32_t(dng.data.size()), sensor_at = 8 + preview_length;
    const Picture scene = stored_scene(kDngSensorWidth, kDngSensorHeight, opt.orientation);
    for (int y = 0; y < scene.height; ++y)
        for (int x = 0; x < scene.width; ++x) {  // colour (y & 1) + (x & 1): R, G or B
            const uint32_t v = kBlack + scene.at(x, y)[(y & 1) + (x & 1)] * (kWhite - kBlack) / 255;
            dng.data.insert(dng.data.end(), {uint8_t(v), uint8_t(v >> 8)});
        }
    const auto sensor_length = uint32_t(8 + dng.data.size() - sensor_at);
    const auto damaged = uint32_t(dng.data.size() + 0x100000);  // far past what LibRaw reads

    dng.exif = {R(33434, 1, 250), R(33437, 28, 10), exif_short(34855, {400}),
                exif_short(37385, {1}), R(37386, 50, 1), exif_ascii(36867, "2021:06:15 14:30:45")};
    dng.ifd0 = preview ? picture_tags(false, opt, opt.damaged_preview ? damaged : 8, preview_length)
                       : picture_tags(true, opt, sensor_at, sensor_length);
    if (preview)
        dng.sub = picture_tags(true, opt, sensor_at, sensor_length);
    dng.ifd0.insert(dng.ifd0.end(), {exif_ascii(271, "Qbcam"), exif_ascii(272, "QB-1"),
                                     exif_short(274, {opt.orientation}),
                                     {50706, kTiffByte, {1, 4, 0, 0}},
                                     exif_ascii(50708, "Qbcam QB-1")});
    return write_file(path, build_tiff(dng));
}

}  // namespace qbtest
