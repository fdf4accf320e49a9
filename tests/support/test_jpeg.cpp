#include "test_jpeg.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace qbtest {

namespace {

struct ErrJump {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

void err_exit(j_common_ptr cinfo)
{
    longjmp(reinterpret_cast<ErrJump *>(cinfo->err)->jump, 1);
}

void silent(j_common_ptr, int) {}

// Kept free of objects with destructors: libjpeg's errors jump out of here.
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
        jpeg_write_marker(&cinfo, m.first, m.second.data(),
                          unsigned(m.second.size()));
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(
            &pic.pixels[size_t(cinfo.next_scanline) * pic.width * pic.components]);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return true;
}

// Decodes into out->pixels, which the caller has sized after the header.
// Plain frame for the same reason as above.
bool decode_from(FILE *f, Picture *out)
{
    jpeg_decompress_struct cinfo;
    ErrJump err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = err_exit;
    err.mgr.emit_message = silent;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, f);
    jpeg_read_header(&cinfo, TRUE);
    jpeg_start_decompress(&cinfo);
    out->width = int(cinfo.output_width);
    out->height = int(cinfo.output_height);
    out->components = cinfo.output_components;
    size_t need = size_t(out->width) * out->height * out->components;
    if (out->pixels.capacity() < need) {
        jpeg_destroy_decompress(&cinfo);
        return false;  // caller retries with room
    }
    out->pixels.resize(need);
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = &out->pixels[size_t(cinfo.output_scanline) * out->width *
                                    out->components];
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return true;
}

// Frame size from the header alone, so decode_from never has to allocate.
bool header_size(FILE *f, size_t *bytes)
{
    jpeg_decompress_struct cinfo;
    ErrJump err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = err_exit;
    err.mgr.emit_message = silent;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, f);
    jpeg_read_header(&cinfo, TRUE);
    jpeg_calc_output_dimensions(&cinfo);
    *bytes = size_t(cinfo.output_width) * cinfo.output_height * cinfo.output_components;
    jpeg_destroy_decompress(&cinfo);
    return true;
}

}  // namespace

Picture make_picture(int width, int height, int components, bool mark)
{
    Picture p;
    p.width = width;
    p.height = height;
    p.components = components;
    p.pixels.resize(size_t(width) * height * components);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            uint8_t *px = p.at(x, y);
            bool in_mark = mark && x < (width + 3) / 4 && y < (height + 3) / 4;
            for (int c = 0; c < components; ++c) {
                int v = (x * 97 / (width > 1 ? width : 1) + y * 61 / (height > 1 ? height : 1) +
                         c * 40) % 200 + 30;
                if (in_mark)
                    v = components == 1 ? 0 : (c == 0 ? 230 : 20);
                px[c] = uint8_t(v);
            }
        }
    return p;
}

Picture make_flat(int width, int height, int components, uint8_t value)
{
    Picture p;
    p.width = width;
    p.height = height;
    p.components = components;
    p.pixels.assign(size_t(width) * height * components, value);
    return p;
}

bool write_jpeg(const std::string &path, const Picture &pic, const JpegOptions &opt)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    bool ok = encode_to(f, pic, opt);
    return std::fclose(f) == 0 && ok;
}

std::vector<uint8_t> encode_jpeg(const Picture &pic, const JpegOptions &opt)
{
    char *buf = nullptr;
    size_t len = 0;
    FILE *f = open_memstream(&buf, &len);
    if (!f)
        return {};
    bool ok = encode_to(f, pic, opt);
    std::fclose(f);
    std::vector<uint8_t> out;
    if (ok)
        out.assign(buf, buf + len);
    std::free(buf);
    return out;
}

static Picture decode_stream(FILE *f)
{
    Picture p;
    size_t bytes = 0;
    if (!header_size(f, &bytes))
        return {};
    std::rewind(f);
    p.pixels.reserve(bytes);
    if (!decode_from(f, &p))
        return {};
    return p;
}

Picture read_jpeg(const std::string &path)
{
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return {};
    Picture p = decode_stream(f);
    std::fclose(f);
    return p;
}

Picture decode_jpeg(const std::vector<uint8_t> &data)
{
    if (data.empty())
        return {};
    FILE *f = fmemopen(const_cast<uint8_t *>(data.data()), data.size(), "rb");
    if (!f)
        return {};
    Picture p = decode_stream(f);
    std::fclose(f);
    return p;
}

std::vector<uint8_t> icc_app2_payload(const char cmm[4])
{
    std::vector<uint8_t> d(14 + 128, 0);
    std::memcpy(d.data(), "ICC_PROFILE", 12);
    d[12] = 1;  // sequence number
    d[13] = 1;  // count
    d[14 + 3] = 128;  // profile size (big-endian) in the ICC header
    std::memcpy(&d[14 + 4], cmm, 4);  // preferred CMM
    std::memcpy(&d[14 + 36], "acsp", 4);
    return d;
}

std::vector<uint8_t> read_file(const std::string &path)
{
    std::vector<uint8_t> out;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return out;
    uint8_t buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
        out.insert(out.end(), buf, buf + n);
    std::fclose(f);
    return out;
}

bool write_file(const std::string &path, const std::vector<uint8_t> &data)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    bool ok = data.empty() || std::fwrite(data.data(), 1, data.size(), f) == data.size();
    return std::fclose(f) == 0 && ok;
}

TempDir::TempDir()
{
    char tmpl[] = "/tmp/qbtest.XXXXXX";
    const char *d = mkdtemp(tmpl);
    dir_ = d ? d : "/tmp";
}

TempDir::~TempDir()
{
    if (dir_ != "/tmp") {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

bool is_reddish(const uint8_t *px, int components)
{
    if (components == 1)
        return px[0] < 40;
    return px[0] > 150 && px[1] < 90 && px[2] < 90;
}

}  // namespace qbtest
