#include "transform_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char **environ;

namespace qbtest {

namespace {

// The libjpeg frames below hold no objects with destructors: errors longjmp.
bool coefficients_from(FILE *f, Coefficients *out)
{
    jpeg_decompress_struct dinfo;
    image_jpeg_error err;
    dinfo.err = image_jpeg_error_init(&err);
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&dinfo);
        return false;
    }
    jpeg_create_decompress(&dinfo);
    jpeg_stdio_src(&dinfo, f);
    jpeg_read_header(&dinfo, TRUE);
    jvirt_barray_ptr *arrays = jpeg_read_coefficients(&dinfo);
    out->width = int(dinfo.image_width);
    out->height = int(dinfo.image_height);
    out->comps.resize(size_t(dinfo.num_components));
    for (int ci = 0; ci < dinfo.num_components; ++ci) {
        const jpeg_component_info &info = dinfo.comp_info[ci];
        Coefficients::Component &c = out->comps[size_t(ci)];
        c.h = info.h_samp_factor;
        c.v = info.v_samp_factor;
        for (int k = 0; k < 64; ++k)
            c.quant[size_t(k)] = info.quant_table->quantval[k];
        const size_t row_coefs = size_t(info.width_in_blocks) * 64;
        c.blocks.resize(row_coefs * info.height_in_blocks);
        for (JDIMENSION by = 0; by < info.height_in_blocks; ++by) {
            JBLOCKARRAY row = dinfo.mem->access_virt_barray(
                reinterpret_cast<j_common_ptr>(&dinfo), arrays[ci], by, 1, FALSE);
            std::memcpy(&c.blocks[by * row_coefs], row[0], row_coefs * sizeof(JCOEF));
        }
    }
    jpeg_finish_decompress(&dinfo);
    jpeg_destroy_decompress(&dinfo);
    return true;
}

bool forced_session(FILE *in, FILE *out, uint32_t xform, const image_crop *crop)
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
        jpeg_stdio_dest(&cinfo, out);
        jpeg_read_header(&dinfo, TRUE);
        image_transform_coefficients(&dinfo, &cinfo, xform, crop);
        ok = true;
    }
    jpeg_destroy_compress(&cinfo);
    jpeg_destroy_decompress(&dinfo);
    return ok;
}

void put(bool be, std::vector<uint8_t> &out, uint32_t v, int size)
{
    for (int i = 0; i < size; ++i)
        out.push_back(uint8_t(v >> (be ? 8 * (size - 1 - i) : 8 * i)));
}

}  // namespace

Coefficients read_coefficients(const std::string &path)
{
    Coefficients c;
    if (FILE *f = std::fopen(path.c_str(), "rb")) {
        if (!coefficients_from(f, &c))
            c.comps.clear();
        std::fclose(f);
    }
    return c;
}

bool force_coefficient_route(const std::string &in, const std::string &out,
                             uint32_t xform, const image_crop *crop)
{
    FILE *fi = std::fopen(in.c_str(), "rb"), *fo = std::fopen(out.c_str(), "wb");
    const bool ok = fi && fo && forced_session(fi, fo, xform, crop);
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
    std::vector<uint8_t> p = {'E', 'x', 'i', 'f', 0, 0, uint8_t(be ? 'M' : 'I'),
                              uint8_t(be ? 'M' : 'I')};
    const auto put_entry = [&](const ExifEntry &e) {
        const bool short1 = e.type == 3 && e.count == 1;
        put(be, p, e.tag, 2);
        put(be, p, e.type, 2);
        put(be, p, e.count, 4);
        put(be, p, e.value, short1 ? 2 : 4);
        put(be, p, 0, short1 ? 2 : 0);
    };
    put(be, p, 42, 2);
    put(be, p, 8, 4);
    put(be, p, 2, 2);
    put_entry({0x0112, 3, 1, 6});
    put_entry({34665, 4, 1, 38});
    put(be, p, 0, 4);
    put(be, p, uint32_t(entries.size()), 2);
    for (const ExifEntry &e : entries)
        put_entry(e);
    put(be, p, 0, 4);
    return p;
}

bool run_jpegtran(std::vector<std::string> args)
{
    args.insert(args.begin(), "jpegtran");
    std::vector<char *> argv;
    for (std::string &a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, "jpegtran", &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    int status = 0;
    return rc == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
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

int max_abs_diff(const Picture &a, const Picture &b)
{
    if (a.width != b.width || a.height != b.height || a.pixels.size() != b.pixels.size())
        return INT_MAX;
    int m = 0;
    for (size_t i = 0; i < a.pixels.size(); ++i)
        m = std::max(m, std::abs(int(a.pixels[i]) - int(b.pixels[i])));
    return m;
}

}  // namespace qbtest
