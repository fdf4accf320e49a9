// Test helpers: deterministic JPEG files written with libjpeg, decoding back
// to pixels, temporary directories.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <jpeglib.h>

namespace qbtest {

// An interleaved 8-bit picture.
struct Picture {
    int width = 0;
    int height = 0;
    int components = 0;
    std::vector<uint8_t> pixels;  // width * height * components

    uint8_t *at(int x, int y) { return &pixels[(size_t(y) * width + x) * components]; }
    const uint8_t *at(int x, int y) const { return &pixels[(size_t(y) * width + x) * components]; }
};

// A picture of the given size filled by a pattern: a smooth gradient with,
// where `mark` is set, a saturated red block in the top-left corner (a
// quarter of each side) so orientation can be checked after transforms.
Picture make_picture(int width, int height, int components, bool mark = true);

// A picture filled with one value per component.
Picture make_flat(int width, int height, int components, uint8_t value);

struct JpegOptions {
    int quality = 92;
    int h_samp = 2;  // luma sampling factors (ignored for grey)
    int v_samp = 2;
    bool progressive = false;
    int restart_interval = 0;  // in MCUs, 0 = none
    J_COLOR_SPACE jpeg_color_space = JCS_UNKNOWN;  // JCS_UNKNOWN: libjpeg default
    // Raw APPn segments written right after SOI: {marker code, payload}.
    std::vector<std::pair<int, std::vector<uint8_t>>> markers;
    bool write_jfif = true;
};

// Encode `pic` (1 or 3 components) to a JPEG file. Returns false on failure.
bool write_jpeg(const std::string &path, const Picture &pic,
                const JpegOptions &opt = JpegOptions());
// The same, into memory.
std::vector<uint8_t> encode_jpeg(const Picture &pic,
                                 const JpegOptions &opt = JpegOptions());

// Decode a JPEG file at full size; empty picture (width 0) on failure.
Picture read_jpeg(const std::string &path);
Picture decode_jpeg(const std::vector<uint8_t> &data);

// An ICC-profile APP2 payload whose header names `cmm` as preferred CMM.
std::vector<uint8_t> icc_app2_payload(const char cmm[4]);

// Whole-file helpers.
std::vector<uint8_t> read_file(const std::string &path);
bool write_file(const std::string &path, const std::vector<uint8_t> &data);

// A fresh directory under /tmp, removed with its files when this dies.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    const std::string &dir() const { return dir_; }

private:
    std::string dir_;
};

// Rough colour test of a decoded pixel.
bool is_reddish(const uint8_t *px, int components);

}  // namespace qbtest
