#include "test_jpeg.h"

#include <csetjmp>
#include <cstdio>
#include <cstring>

namespace qbtest {

namespace {

struct ErrJump { jpeg_error_mgr mgr; jmp_buf jump; };

void err_exit(j_common_ptr cinfo) { longjmp(reinterpret_cast<ErrJump *>(cinfo->err)->jump, 1); }
void silent(j_common_ptr, int) {}

// libjpeg's errors jump out of the next two, so their frames hold no object
// with a destructor.
bool encode_to(FILE *f, const Picture &pic, const JpegOptions &opt)
{
    jpeg_compress_struct cinfo;
    ErrJump err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = err_exit;
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        return false;
    }
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
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
    ErrJump err;
    uint8_t *volatile buf = nullptr;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = err_exit;
    err.mgr.emit_message = silent;
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
    size->width = int(cinfo.output_width);
    size->height = int(cinfo.output_height);
    size->components = cinfo.output_components;
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

std::vector<uint8_t> encode_jpeg(const Picture &pic, const JpegOptions &opt)
{
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    const bool ok = encode_to(f, pic, opt);
    std::fclose(f);  // sets buf and len
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

}  // namespace qbtest
