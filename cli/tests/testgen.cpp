// Input files for the tool's tests, and the metadata record as the library
// fills it, as plain "key=value" lines to compare the tool's JSON with.
//
//   qbimage-testgen jpeg OUT W H [--orientation N] [--exif] [--grey] [--samp HxV]
//   qbimage-testgen png OUT W H [--hole X,Y,W,H]     (RGBA: opaque, a transparent hole)
//   qbimage-testgen dng OUT [--preview none|jpeg] [--preview-size WxH] [--orientation N]
//   qbimage-testgen tree DIR N                       (N small JPEGs)
//   qbimage-testgen record FILE                      (image_get_metadata, raw fields)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "dng_writer.h"
#include "exif_writer.h"
#include "png_writer.h"
#include "test_jpeg.h"

#include <qbimage.h>

namespace {

using namespace qbtest;

[[noreturn]] void usage()
{
    std::fputs("usage: qbimage-testgen jpeg|png|dng|tree|record ...\n", stderr);
    std::exit(2);
}

// The value behind `--name`, or "" if the option is absent.
std::string option(int argc, char **argv, const char *name, bool *present = nullptr)
{
    for (int i = 0; i < argc; ++i)
        if (std::strcmp(argv[i], name) == 0) {
            if (present)
                *present = true;
            return i + 1 < argc ? argv[i + 1] : "";
        }
    return "";
}

bool flag(int argc, char **argv, const char *name)
{
    bool present = false;
    option(argc, argv, name, &present);
    return present;
}

ExifField ascii(uint16_t tag, const std::string &text) { return exif_ascii(tag, text); }
ExifField shortv(uint16_t tag, uint16_t v) { return exif_short(tag, {v}); }
ExifField longv(uint16_t tag, uint32_t v) { return {tag, kTiffLong, {v}}; }
ExifField rational(uint16_t tag, std::vector<uint32_t> units) { return {tag, kTiffRational, units}; }

// A camera's Exif block: make, model, date, exposure and a position in the
// south-west, so that the signs of the degrees show.
std::vector<uint8_t> camera_exif(int orientation, int width, int height, bool full)
{
    ExifBlock b;
    if (orientation > 0)
        b.ifd0.push_back(shortv(274, uint16_t(orientation)));
    if (!full)
        return build_exif(b);
    b.ifd0.push_back(ascii(270, "A test photo"));
    b.ifd0.push_back(ascii(271, "Qbcam"));
    b.ifd0.push_back(ascii(272, "QB-2"));
    b.exif = {rational(33434, {1, 250}),       rational(33437, {28, 10}),
              shortv(34850, 2),                ascii(36867, "2021:06:15 14:30:45"),
              shortv(37383, 5),                shortv(37385, 1),
              rational(37386, {50, 1}),        ascii(37521, "25"),
              longv(40962, uint32_t(width)),   longv(40963, uint32_t(height)),
              shortv(41987, 0)};
    b.gps = {ascii(1, "S"), rational(2, {48, 1, 51, 1, 2998, 100}),
             ascii(3, "W"), rational(4, {2, 1, 17, 1, 4020, 100}),
             {5, kTiffByte, {0}}, rational(6, {355, 10})};
    return build_exif(b);
}

int make_jpeg(int argc, char **argv)
{
    if (argc < 5)
        usage();
    const int w = std::atoi(argv[3]), h = std::atoi(argv[4]);
    const int orientation = std::atoi(option(argc, argv, "--orientation").c_str());
    const bool exif = flag(argc, argv, "--exif");
    JpegOptions opt;
    const std::string samp = option(argc, argv, "--samp");
    if (!samp.empty() && std::sscanf(samp.c_str(), "%dx%d", &opt.h_samp, &opt.v_samp) != 2)
        usage();
    if (orientation > 0 || exif) {
        opt.markers.push_back({0xE1, camera_exif(orientation, w, h, exif)});
        opt.write_jfif = false;
    }
    const Picture pic = make_picture(w, h, flag(argc, argv, "--grey") ? 1 : 3);
    return write_jpeg(argv[2], pic, opt) ? 0 : 1;
}

int make_png(int argc, char **argv)
{
    if (argc < 5)
        usage();
    Rgba pic;
    pic.width = std::atoi(argv[3]);
    pic.height = std::atoi(argv[4]);
    int hx = 0, hy = 0, hw = 0, hh = 0;
    const std::string hole = option(argc, argv, "--hole");
    if (!hole.empty() && std::sscanf(hole.c_str(), "%d,%d,%d,%d", &hx, &hy, &hw, &hh) != 4)
        usage();
    for (int y = 0; y < pic.height; ++y)
        for (int x = 0; x < pic.width; ++x) {
            const bool in_hole = x >= hx && x < hx + hw && y >= hy && y < hy + hh;
            pic.pixels.insert(pic.pixels.end(), {uint8_t(40 + x % 50), 90, uint8_t(200 - y % 50),
                                                 uint8_t(in_hole ? 0 : 255)});
        }
    return write_png_rgba(argv[2], pic) ? 0 : 1;
}

int make_dng(int argc, char **argv)
{
    if (argc < 3)
        usage();
    DngOptions opt;
    const std::string preview = option(argc, argv, "--preview");
    if (preview == "none")
        opt.preview = DngPreview::none;
    const std::string size = option(argc, argv, "--preview-size");
    if (!size.empty() &&
        std::sscanf(size.c_str(), "%dx%d", &opt.preview_width, &opt.preview_height) != 2)
        usage();
    if (const std::string o = option(argc, argv, "--orientation"); !o.empty())
        opt.orientation = uint16_t(std::atoi(o.c_str()));
    return write_dng(argv[2], opt) ? 0 : 1;
}

int make_tree(int argc, char **argv)
{
    if (argc < 4)
        usage();
    const std::string dir = argv[2];
    const int n = std::atoi(argv[3]);
    const std::vector<uint8_t> bytes = encode_jpeg(make_picture(48, 32, 3));
    for (int i = 0; i < n; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/p%04d.jpg", i);
        if (!write_file(dir + name, bytes))
            return 1;
    }
    return 0;
}

template <size_t N>
std::string text(const char (&field)[N])
{
    return std::string(field, strnlen(field, N));
}

int print_record(int argc, char **argv)
{
    if (argc < 3)
        usage();
    const char *path = argv[2];
    const char *dot = std::strrchr(path, '.');
    image_media_type type = IMAGE_MEDIA_UNKNOWN;
    if (dot)
        type = utils_get_media_type(dot + 1);
    image_metadata m{};
    const int rc = image_get_metadata(nullptr, path, type, &m);
    std::printf("rc=%d\n", rc);
    std::printf("orientation=%u\norientation_valid=%u\n", m.orientation, m.orientation_valid);
    std::printf("date_time=%s\nsub_sec=%s\n", text(m.date_time).c_str(), text(m.sub_sec).c_str());
    std::printf("width=%u\nheight=%u\n", m.width, m.height);
    std::printf("description=%s\nmake=%s\nmodel=%s\n", text(m.description).c_str(),
                text(m.make).c_str(), text(m.model).c_str());
    const std::pair<const char *, image_rational> rationals[] = {
        {"exposure_time", m.exposure_time}, {"f_number", m.f_number},
        {"focal_length", m.focal_length}};
    for (const auto &[name, r] : rationals)
        std::printf("%s_num=%u\n%s_den=%u\n", name, r.numerator, name, r.denominator);
    const std::tuple<const char *, unsigned, unsigned> shorts[] = {
        {"iso", m.iso, m.iso_valid},
        {"flash", m.flash, m.flash_valid},
        {"exposure_program", m.exposure_program, m.exposure_program_valid},
        {"metering_mode", m.metering_mode, m.metering_mode_valid},
        {"white_balance", m.white_balance, m.white_balance_valid},
        {"aperture_value", m.aperture_value, m.aperture_value_valid},
        {"shutter_speed_value", m.shutter_speed_value, m.shutter_speed_value_valid}};
    for (const auto &[name, v, valid] : shorts)
        std::printf("%s=%u\n%s_valid=%u\n", name, v, name, valid);
    const std::tuple<const char *, int, unsigned> gps[] = {
        {"gps_latitude", m.gps_latitude, m.gps_latitude_valid},
        {"gps_longitude", m.gps_longitude, m.gps_longitude_valid},
        {"gps_altitude", m.gps_altitude, m.gps_altitude_valid}};
    for (const auto &[name, v, valid] : gps)
        std::printf("%s=%d\n%s_valid=%u\n", name, v, name, valid);
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        usage();
    const std::string kind = argv[1];
    if (kind == "jpeg")
        return make_jpeg(argc, argv);
    if (kind == "png")
        return make_png(argc, argv);
    if (kind == "dng")
        return make_dng(argc, argv);
    if (kind == "tree")
        return make_tree(argc, argv);
    if (kind == "record")
        return print_record(argc, argv);
    usage();
}
