#include "transform_support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace qbtest {

namespace {

// With `out`, our coefficient route without its route test; else reads the
// coefficients into `coefs`. Errors longjmp: nothing here has a destructor.
bool session(FILE *in, FILE *out, uint32_t xform, const image_crop *crop, std::vector<int> *coefs)
{
    jpeg_decompress_struct dinfo;
    jpeg_compress_struct cinfo;
    image_jpeg_error err;
    dinfo.err = cinfo.err = image_jpeg_error_init(&err);
    jpeg_create_decompress(&dinfo);
    jpeg_create_compress(&cinfo);
    volatile bool ok = false;
    if (setjmp(err.jump) == 0) {
        jpeg_stdio_src(&dinfo, in);
        jpeg_read_header(&dinfo, TRUE);
        if (out) {
            jpeg_stdio_dest(&cinfo, out);
            image_transform_coefficients(&dinfo, &cinfo, xform, crop);
        } else {
            jvirt_barray_ptr *arrays = jpeg_read_coefficients(&dinfo);
            coefs->assign({int(dinfo.image_width), int(dinfo.image_height)});
            for (int ci = 0; ci < dinfo.num_components; ++ci) {
                const jpeg_component_info &c = dinfo.comp_info[ci];
                coefs->insert(coefs->end(), {c.h_samp_factor, c.v_samp_factor});
                coefs->insert(coefs->end(), c.quant_table->quantval, c.quant_table->quantval + 64);
                for (JDIMENSION by = 0; by < c.height_in_blocks; ++by) {
                    const JCOEF *row = dinfo.mem->access_virt_barray(
                        reinterpret_cast<j_common_ptr>(&dinfo), arrays[ci], by, 1, FALSE)[0][0];
                    coefs->insert(coefs->end(), row, row + c.width_in_blocks * 64);
                }
            }
            jpeg_finish_decompress(&dinfo);
        }
        ok = true;
    }
    jpeg_destroy_compress(&cinfo);
    jpeg_destroy_decompress(&dinfo);
    return ok;
}

}  // namespace

std::vector<int> read_coefficients(const std::string &path)
{
    std::vector<int> c;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f || !session(f, nullptr, 0, nullptr, &c))
        c.clear();
    if (f)
        std::fclose(f);
    return c;
}

bool force_coefficient_route(const std::string &in, const std::string &out, uint32_t xform,
                             const image_crop *crop)
{
    FILE *fi = std::fopen(in.c_str(), "rb"), *fo = std::fopen(out.c_str(), "wb");
    const bool ok = fi && fo && session(fi, fo, xform, crop, nullptr);
    for (FILE *f : {fi, fo})
        if (f)
            std::fclose(f);
    return ok;
}

std::vector<Segment> app_segments(const std::vector<uint8_t> &f)
{
    std::vector<Segment> out;
    for (size_t pos = 2; pos + 4 <= f.size() && f[pos] == 0xFF && f[pos + 1] != 0xDA;) {
        const size_t len = size_t(f[pos + 2]) << 8 | f[pos + 3];
        if (len < 2 || pos + 2 + len > f.size())
            break;
        const int marker = f[pos + 1];
        if ((marker >= 0xE0 && marker <= 0xEF) || marker == 0xFE)
            out.push_back({marker, {f.begin() + long(pos + 4), f.begin() + long(pos + 2 + len)}});
        pos += 2 + len;
    }
    return out;
}

std::vector<uint8_t> exif_payload(bool be, const std::vector<ExifEntry> &entries)
{
    std::vector<uint8_t> p = {'E', 'x', 'i', 'f', 0, 0};
    const auto put = [&](uint32_t v, int size) {
        for (int i = 0; i < size; ++i)
            p.push_back(uint8_t(v >> (be ? 8 * (size - 1 - i) : 8 * i)));
    };
    const auto put_entry = [&](const ExifEntry &e) {
        const bool short1 = e.type == 3 && e.count == 1;
        put(e.tag, 2), put(e.type, 2), put(e.count, 4);
        put(e.value, short1 ? 2 : 4), put(0, short1 ? 2 : 0);
    };
    put(be ? 0x4D4D : 0x4949, 2), put(42, 2), put(8, 4), put(2, 2);
    put_entry({0x0112, 3, 1, 6}), put_entry({34665, 4, 1, 38}), put(0, 4);  // Orientation, Exif
    put(uint32_t(entries.size()), 2);
    for (const ExifEntry &e : entries)
        put_entry(e);
    put(0, 4);
    return p;
}

bool run_jpegtran(const std::string &args)
{
    return std::system(("jpegtran " + args + " >/dev/null 2>&1").c_str()) == 0;
}

Picture reference_xform(const Picture &p, uint32_t xform, const image_crop *crop)
{
    const int x0 = crop ? crop->x : 0, y0 = crop ? crop->y : 0;
    const int w = crop ? crop->width : p.width, h = crop ? crop->height : p.height;
    Picture out{swaps_sides(xform) ? h : w, swaps_sides(xform) ? w : h, p.components, {}};
    out.pixels.resize(size_t(w) * h * p.components);
    const size_t k = xform < 8 ? xform : 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int rx = w - 1 - x, by = h - 1 - y;
            const int to_x[8] = {x, rx, x, y, by, by, rx, y};
            const int to_y[8] = {y, y, by, x, rx, x, by, rx};
            std::memcpy(out.at(to_x[k], to_y[k]), p.at(x0 + x, y0 + y), size_t(p.components));
        }
    return out;
}

}  // namespace qbtest
