#include "test_jpeg.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <csetjmp>

#include "common/common.h"

namespace qbtest {

namespace {

// libjpeg's errors jump out of the next two, so their frames hold no object
// with a destructor; the buffers are malloc'd and handed over by pointer.
bool encode_to(unsigned char **buf, unsigned long *len, const Picture &pic, const JpegOptions &opt)
{
    jpeg_compress_struct cinfo;
    image_jpeg_error err;
    cinfo.err = image_jpeg_error_init(&err);
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        return false;
    }
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, buf, len);
    cinfo.image_width = JDIMENSION(pic.width);
    cinfo.image_height = JDIMENSION(pic.height);
    cinfo.input_components = pic.components;
    cinfo.in_color_space = pic.components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    if (opt.jpeg_color_space != JCS_UNKNOWN)
        jpeg_set_colorspace(&cinfo, opt.jpeg_color_space);
    jpeg_set_quality(&cinfo, opt.quality, TRUE);
    if (pic.components == 3 && cinfo.jpeg_color_space == JCS_YCbCr) {
        cinfo.comp_info[0].h_samp_factor = opt.h_samp;
        cinfo.comp_info[0].v_samp_factor = opt.v_samp;
    }
    cinfo.write_JFIF_header = opt.write_jfif ? TRUE : FALSE;
    cinfo.restart_interval = unsigned(opt.restart_interval);
    if (opt.progressive)
        jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    for (const auto &m : opt.markers)
        jpeg_write_marker(&cinfo, m.first, m.second.data(), unsigned(m.second.size()));
    const size_t stride = size_t(pic.width) * pic.components;
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(&pic.pixels[stride * cinfo.next_scanline]);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return true;
}

// A malloc'd frame, or null; its size goes into *size (the caller's).
uint8_t *decode_from(const std::vector<uint8_t> &data, Picture *size)
{
    jpeg_decompress_struct cinfo;
    image_jpeg_error err;
    uint8_t *volatile buf = nullptr;
    cinfo.err = image_jpeg_error_init(&err);
    err.mgr.emit_message = [](j_common_ptr, int) {};
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        std::free(buf);
        return nullptr;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data.data(), static_cast<unsigned long>(data.size()));
    jpeg_read_header(&cinfo, TRUE);
    jpeg_start_decompress(&cinfo);
    const size_t stride = size_t(cinfo.output_width) * cinfo.output_components;
    buf = static_cast<uint8_t *>(std::malloc(stride * cinfo.output_height));
    while (buf && cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = buf + stride * cinfo.output_scanline;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);  // fails, and jumps, if rows are missing
    *size = {int(cinfo.output_width), int(cinfo.output_height), cinfo.output_components, {}};
    jpeg_destroy_decompress(&cinfo);
    return buf;
}

}  // namespace

Picture make_picture(int width, int height, int components, bool mark)
{
    Picture p = make_flat(width, height, components, 0);
    const int wd = width > 1 ? width : 1, hd = height > 1 ? height : 1;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const bool in_mark = mark && x < (width + 3) / 4 && y < (height + 3) / 4;
            for (int c = 0; c < components; ++c)
                p.at(x, y)[c] = uint8_t(in_mark ? (components == 1 ? 0 : c == 0 ? 230 : 20)
                                                : (x * 97 / wd + y * 61 / hd + c * 40) % 200 + 30);
        }
    return p;
}

// Orientations 5..8 exchange the sides, then a and b may run backwards.
Picture stored_as(const Picture &up, int o)
{
    const bool t = o >= 5, fa = o == 2 || o == 3 || o == 7 || o == 8;
    const bool fb = o == 3 || o == 4 || o == 6 || o == 7;
    Picture s = make_flat(t ? up.height : up.width, t ? up.width : up.height, up.components, 0);
    for (int y = 0; y < up.height; ++y)
        for (int x = 0; x < up.width; ++x) {
            const int a = t ? y : x, b = t ? x : y;
            std::memcpy(s.at(fa ? s.width - 1 - a : a, fb ? s.height - 1 - b : b), up.at(x, y),
                        size_t(up.components));
        }
    return s;
}

std::vector<uint8_t> encode_jpeg(const Picture &pic, const JpegOptions &opt)
{
    unsigned char *buf = nullptr;
    unsigned long len = 0;
    const bool ok = encode_to(&buf, &len, pic, opt);
    std::vector<uint8_t> out = ok ? std::vector<uint8_t>(buf, buf + len) : std::vector<uint8_t>();
    std::free(buf);
    return out;
}

bool write_jpeg(const std::string &path, const Picture &pic, const JpegOptions &opt)
{
    const std::vector<uint8_t> data = encode_jpeg(pic, opt);
    return !data.empty() && write_file(path, data);
}

Picture decode_jpeg(const std::vector<uint8_t> &data)
{
    Picture p;
    uint8_t *buf = data.empty() ? nullptr : decode_from(data, &p);
    if (!buf)
        return {};
    p.pixels.assign(buf, buf + size_t(p.width) * p.height * p.components);
    std::free(buf);
    return p;
}

Picture read_jpeg(const std::string &path) { return decode_jpeg(read_file(path)); }

std::vector<uint8_t> icc_app2_payload(const char cmm[4])
{
    std::vector<uint8_t> d(14 + 128, 0);
    std::memcpy(d.data(), "ICC_PROFILE", 12);
    d[12] = d[13] = 1;  // sequence number, count
    d[14 + 3] = 128;  // profile size (big-endian) in the ICC header
    std::memcpy(&d[14 + 4], cmm, 4);  // preferred CMM
    std::memcpy(&d[14 + 36], "acsp", 4);
    return d;
}

void capture_log(int32_t level, void *user, int32_t code, const char *file, int32_t line,
                 const char *format, ...)
{
    char text[1200];
    const int n = std::snprintf(text, sizeof text, "%d %d %s:%d ", level, code, file, line);
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(text + n, sizeof text - size_t(n), format, ap);
    va_end(ap);
    *static_cast<std::string *>(user) += text + std::string("\n");
}

int32_t host_scale(const char *in, const HostRequest *requests, int count)
{
    FILE *first = std::fopen(in, "rb"), *second = std::fopen(in, "rb");
    image_jcache cache;
    image_jpeg_error err;
    volatile int32_t rc = 1;
    image_jpeg_jcache_init(&cache, &err.mgr);
    err.mgr.error_exit = image_jpeg_error_exit;
    if (first && second && setjmp(err.jump) != 0) {
        rc = 1;
    } else if (first && second) {
        jpeg_create_decompress(&cache.cinfo);
        jpeg_stdio_src(&cache.cinfo, first);
        jpeg_save_markers(&cache.cinfo, JPEG_APP0 + 2, 0xFFFF);
        jpeg_read_header(&cache.cinfo, TRUE);
        rc = 0;
        for (int i = 0; i < count && rc == 0; ++i) {
            const HostRequest &r = requests[i];
            rc = image_jpeg_scale(utils_check_hw(), &cache, second, r.output, r.xform,
                                  &r.params, r.stamp, r.overlay);
        }
        if (rc == 0)
            jpeg_finish_decompress(&cache.cinfo);
    }
    jpeg_destroy_decompress(&cache.cinfo);
    image_jpeg_jcache_clean(&cache);
    for (FILE *f : {first, second})
        if (f)
            std::fclose(f);
    return rc;
}

}  // namespace qbtest
