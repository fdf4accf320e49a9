// Test helpers: deterministic JPEG files written with libjpeg, decoding back
// to pixels, whole files, temporary directories, a log capture.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <jpeglib.h>

#include "qbimage.h"

namespace qbtest {

// An interleaved 8-bit picture.
struct Picture {
    int width = 0, height = 0, components = 0;
    std::vector<uint8_t> pixels;  // width * height * components

    uint8_t *at(int x, int y) { return &pixels[(size_t(y) * width + x) * components]; }
    const uint8_t *at(int x, int y) const { return &pixels[(size_t(y) * width + x) * components]; }
};

// A smooth gradient; with `mark`, a saturated red block (grey: black) over
// the top-left quarter of each side, so orientation shows after transforms.
Picture make_picture(int width, int height, int components, bool mark = true);
inline Picture make_flat(int width, int height, int components, uint8_t value)
{
    return {width, height, components, std::vector<uint8_t>(size_t(width) * height * components, value)};
}
// What a camera stores for Exif orientation 1..8 of the upright `up`.
Picture stored_as(const Picture &up, int orientation);

struct JpegOptions {
    int quality = 92;
    int h_samp = 2, v_samp = 2;  // luma sampling factors (YCbCr only)
    bool progressive = false;
    int restart_interval = 0;  // in MCUs, 0 = none
    J_COLOR_SPACE jpeg_color_space = JCS_UNKNOWN;  // JCS_UNKNOWN: libjpeg default
    std::vector<std::pair<int, std::vector<uint8_t>>> markers{};  // {code, payload} after SOI
    bool write_jfif = true;
};

// Encode `pic` (1 or 3 components): empty/false on failure.
std::vector<uint8_t> encode_jpeg(const Picture &pic, const JpegOptions &opt = JpegOptions());
bool write_jpeg(const std::string &path, const Picture &pic, const JpegOptions &opt = JpegOptions());
// Full-size decode: width 0 on failure.
Picture decode_jpeg(const std::vector<uint8_t> &data);
Picture read_jpeg(const std::string &path);

// An ICC-profile APP2 payload whose header names `cmm` as preferred CMM.
std::vector<uint8_t> icc_app2_payload(const char cmm[4]);

// An image_log_fn appending "level code file:line text\n" to the
// std::string at `user`.
void capture_log(int32_t level, void *user, int32_t code, const char *file, int32_t line,
                 const char *format, ...);

inline std::vector<uint8_t> read_file(const std::string &path)  // empty if unreadable
{
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool write_file(const std::string &path, const std::vector<uint8_t> &data)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(data.data()), std::streamsize(data.size()));
    out.close();
    return !out.fail();
}

// A fresh directory under /tmp, removed with its files when this dies.
class TempDir {
public:
    TempDir() : dir_(mkdtemp(tmpl_) ? tmpl_ : "") {}
    ~TempDir() { std::error_code ec; if (!dir_.empty()) std::filesystem::remove_all(dir_, ec); }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    std::string path(const std::string &name) const { return dir_ + "/" + name; }
    const std::string &dir() const { return dir_; }

private:
    char tmpl_[19] = "/tmp/qbtest.XXXXXX";
    std::string dir_;
};

// Rough colour test of a decoded pixel (grey: dark).
inline bool is_reddish(const uint8_t *px, int components)
{
    return components == 1 ? px[0] < 40 : px[0] > 150 && px[1] < 90 && px[2] < 90;
}

// One request of a host to image_jpeg_scale.
struct HostRequest {
    const char *output;
    image_xform xform;
    image_scale_params params;
    const char *stamp = nullptr;
    image_overlay *overlay = nullptr;
};

// Runs the requests through one decode cache the way a host does: two
// handles of `in`, its own jump target, the decompressor finished and
// destroyed. Returns the first failing scaler code, or 1 when the file
// cannot be opened or libjpeg fails. Allocates nothing of its own, so the
// fault suite can sweep it.
int32_t host_scale(const char *in, const HostRequest *requests, int count);

}  // namespace qbtest
