#include "transform_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern char **environ;

namespace qbtest {

namespace {

struct Jump {
    jpeg_error_mgr mgr;
    jmp_buf jump;
};

void jump_exit(j_common_ptr cinfo)
{
    longjmp(reinterpret_cast<Jump *>(cinfo->err)->jump, 1);
}

void quiet(j_common_ptr, int) {}

void init_err(Jump *err)
{
    jpeg_std_error(&err->mgr);
    err->mgr.error_exit = jump_exit;
    err->mgr.emit_message = quiet;
}

// libjpeg frames below keep to plain data: errors longjmp out of them.
bool encode_layout(FILE *f, const Picture *pic, const JpegLayout *lay)
{
    jpeg_compress_struct cinfo;
    Jump err;
    init_err(&err);
    cinfo.err = &err.mgr;
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        return false;
    }
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
    cinfo.image_width = JDIMENSION(pic->width);
    cinfo.image_height = JDIMENSION(pic->height);
    cinfo.input_components = pic->components;
    cinfo.in_color_space = lay->in_color_space;
    jpeg_set_defaults(&cinfo);
    jpeg_set_colorspace(&cinfo, lay->jpeg_color_space);
    jpeg_set_quality(&cinfo, lay->quality, TRUE);
    if (!lay->luma_table.empty()) {
        unsigned int table[64];
        for (int i = 0; i < 64; ++i)
            table[i] = lay->luma_table[size_t(i)];
        jpeg_add_quant_table(&cinfo, 0, table, 100, TRUE);
    }
    for (int ci = 0; ci < cinfo.num_components && size_t(ci) < lay->sampling.size(); ++ci) {
        cinfo.comp_info[ci].h_samp_factor = lay->sampling[size_t(ci)][0];
        cinfo.comp_info[ci].v_samp_factor = lay->sampling[size_t(ci)][1];
    }
    cinfo.write_JFIF_header = lay->write_jfif ? TRUE : FALSE;
    cinfo.restart_interval = unsigned(lay->restart_interval);
    if (lay->progressive)
        jpeg_simple_progression(&cinfo);
    jpeg_start_compress(&cinfo, TRUE);
    for (const auto &m : lay->markers)
        jpeg_write_marker(&cinfo, m.first, m.second.data(), unsigned(m.second.size()));
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(
            &pic->pixels[size_t(cinfo.next_scanline) * pic->width * pic->components]);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return true;
}

bool coefficients_from(FILE *f, Coefficients *out)
{
    jpeg_decompress_struct dinfo;
    Jump err;
    init_err(&err);
    dinfo.err = &err.mgr;
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
    out->color_space = dinfo.jpeg_color_space;
    out->progressive = dinfo.progressive_mode != 0;
    out->comps.resize(size_t(dinfo.num_components));
    for (int ci = 0; ci < dinfo.num_components; ++ci) {
        const jpeg_component_info &ci_info = dinfo.comp_info[ci];
        Coefficients::Component &c = out->comps[size_t(ci)];
        c.h = ci_info.h_samp_factor;
        c.v = ci_info.v_samp_factor;
        c.width_in_blocks = int(ci_info.width_in_blocks);
        c.height_in_blocks = int(ci_info.height_in_blocks);
        const JQUANT_TBL *q = ci_info.quant_table
                                  ? ci_info.quant_table
                                  : dinfo.quant_tbl_ptrs[ci_info.quant_tbl_no];
        if (q)
            for (int k = 0; k < 64; ++k)
                c.quant[size_t(k)] = q->quantval[k];
        c.blocks.resize(size_t(c.width_in_blocks) * c.height_in_blocks * 64);
        for (int by = 0; by < c.height_in_blocks; ++by) {
            JBLOCKARRAY row = dinfo.mem->access_virt_barray(
                reinterpret_cast<j_common_ptr>(&dinfo), arrays[ci], JDIMENSION(by), 1, FALSE);
            for (int bx = 0; bx < c.width_in_blocks; ++bx)
                std::memcpy(&c.blocks[(size_t(by) * c.width_in_blocks + bx) * 64],
                            row[0][bx], 64 * sizeof(JCOEF));
        }
    }
    jpeg_finish_decompress(&dinfo);
    jpeg_destroy_decompress(&dinfo);
    return true;
}

bool info_from(FILE *f, JpegInfo *out)
{
    jpeg_decompress_struct dinfo;
    Jump err;
    init_err(&err);
    dinfo.err = &err.mgr;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&dinfo);
        return false;
    }
    jpeg_create_decompress(&dinfo);
    jpeg_stdio_src(&dinfo, f);
    jpeg_read_header(&dinfo, TRUE);
    out->width = int(dinfo.image_width);
    out->height = int(dinfo.image_height);
    out->components = dinfo.num_components;
    out->max_h = dinfo.max_h_samp_factor;
    out->max_v = dinfo.max_v_samp_factor;
    jpeg_destroy_decompress(&dinfo);
    return true;
}

bool plan_from(FILE *f, uint32_t xform, const image_crop *crop, PlanResult *out)
{
    jpeg_decompress_struct dinfo;
    Jump err;
    init_err(&err);
    dinfo.err = &err.mgr;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&dinfo);
        return false;
    }
    jpeg_create_decompress(&dinfo);
    jpeg_stdio_src(&dinfo, f);
    jpeg_read_header(&dinfo, TRUE);
    std::memset(&out->plan, 0, sizeof out->plan);
    image_transform_plan_make(&dinfo, &out->plan, xform, crop);
    out->has_dst_arrays = out->plan.dst_arrays != nullptr;
    out->plan.dst_arrays = nullptr;
    jpeg_destroy_decompress(&dinfo);
    return true;
}

// The entry point's session, with the route test left out.
int32_t forced_session(FILE *in, FILE *out, uint32_t xform, const image_crop *crop)
{
    jpeg_decompress_struct dinfo;
    jpeg_compress_struct cinfo;
    image_jpeg_error derr;
    image_jpeg_error cerr;
    volatile int32_t result = 0;
    volatile int have_encoder = 0;
    std::memset(&dinfo, 0, sizeof dinfo);
    std::memset(&cinfo, 0, sizeof cinfo);
    dinfo.err = image_jpeg_error_init(&derr);
    derr.mgr.emit_message = quiet;
    if (setjmp(derr.jump) == 0) {
        jpeg_create_decompress(&dinfo);
        jpeg_stdio_src(&dinfo, in);
        cinfo.err = image_jpeg_error_init(&cerr);
        if (setjmp(cerr.jump) == 0) {
            jpeg_create_compress(&cinfo);
            have_encoder = 1;
            jpeg_stdio_dest(&cinfo, out);
            for (int i = 0; i < 16; ++i)
                jpeg_save_markers(&dinfo, JPEG_APP0 + i, 0xFFFF);
            jpeg_read_header(&dinfo, TRUE);
            image_transform_coefficients(&dinfo, &cinfo, xform, crop);
        } else {
            result = -4;
        }
    } else {
        result = -3;
    }
    if (have_encoder)
        jpeg_destroy_compress(&cinfo);
    jpeg_destroy_decompress(&dinfo);
    return result;
}

uint32_t get16(bool be, const uint8_t *p)
{
    return be ? uint32_t(p[0]) << 8 | p[1] : uint32_t(p[1]) << 8 | p[0];
}

uint32_t get32(bool be, const uint8_t *p)
{
    return be ? uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]
              : uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}

void put(bool be, std::vector<uint8_t> &out, uint32_t v, int size)
{
    for (int i = 0; i < size; ++i) {
        const int shift = be ? 8 * (size - 1 - i) : 8 * i;
        out.push_back(uint8_t(v >> shift));
    }
}

void put_entry(bool be, std::vector<uint8_t> &out, const ExifEntry &e)
{
    put(be, out, e.tag, 2);
    put(be, out, e.type, 2);
    put(be, out, e.count, 4);
    if (e.type == 3 && e.count == 1) {  // SHORT: left-justified in the field
        put(be, out, e.value, 2);
        put(be, out, 0, 2);
    } else {
        put(be, out, e.value, 4);
    }
}

}  // namespace

JpegLayout ycc_layout(int h, int v)
{
    JpegLayout l;
    l.sampling = {{h, v}, {1, 1}, {1, 1}};
    return l;
}

JpegLayout grey_layout(int h, int v)
{
    JpegLayout l;
    l.in_color_space = JCS_GRAYSCALE;
    l.jpeg_color_space = JCS_GRAYSCALE;
    l.sampling = {{h, v}};
    return l;
}

bool write_jpeg_layout(const std::string &path, const Picture &pic, const JpegLayout &layout)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    const bool ok = encode_layout(f, &pic, &layout);
    return std::fclose(f) == 0 && ok;
}

Coefficients read_coefficients(const std::string &path)
{
    Coefficients c;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return c;
    c.ok = coefficients_from(f, &c);
    std::fclose(f);
    return c;
}

JpegInfo read_info(const std::string &path)
{
    JpegInfo info;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return info;
    info.ok = info_from(f, &info);
    std::fclose(f);
    return info;
}

PlanResult plan_for_file(const std::string &path, uint32_t xform, const image_crop *crop)
{
    PlanResult r;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return r;
    r.ok = plan_from(f, xform, crop, &r);
    std::fclose(f);
    return r;
}

int32_t force_coefficient_route(const std::string &in, const std::string &out,
                                uint32_t xform, const image_crop *crop)
{
    FILE *fi = std::fopen(in.c_str(), "rb");
    if (!fi)
        return -1;
    FILE *fo = std::fopen(out.c_str(), "wb");
    if (!fo) {
        std::fclose(fi);
        return -2;
    }
    const int32_t r = forced_session(fi, fo, xform, crop);
    std::fclose(fo);
    std::fclose(fi);
    return r;
}

std::vector<Segment> read_segments(const std::vector<uint8_t> &file)
{
    std::vector<Segment> out;
    if (file.size() < 2 || file[0] != 0xFF || file[1] != 0xD8)
        return out;
    size_t pos = 2;
    while (pos + 4 <= file.size()) {
        if (file[pos] != 0xFF)
            break;
        const int marker = file[pos + 1];
        if (marker == 0xDA || marker == 0xD9)
            break;
        const size_t len = size_t(file[pos + 2]) << 8 | file[pos + 3];
        if (len < 2 || pos + 2 + len > file.size())
            break;
        Segment s;
        s.marker = marker;
        s.data.assign(file.begin() + long(pos + 4), file.begin() + long(pos + 2 + len));
        out.push_back(std::move(s));
        pos += 2 + len;
    }
    return out;
}

std::vector<Segment> app_segments(const std::vector<uint8_t> &file)
{
    std::vector<Segment> out;
    for (Segment &s : read_segments(file))
        if (s.marker >= 0xE0 && s.marker <= 0xEF)
            out.push_back(std::move(s));
    return out;
}

std::vector<uint8_t> exif_payload(bool be, const std::vector<ExifEntry> &entries)
{
    std::vector<uint8_t> p = {'E', 'x', 'i', 'f', 0, 0};
    p.push_back(be ? 'M' : 'I');
    p.push_back(be ? 'M' : 'I');
    put(be, p, 42, 2);
    put(be, p, 8, 4);  // IFD0 right behind the header
    const uint32_t exif_ifd = 8 + 2 + 2 * 12 + 4;
    put(be, p, 2, 2);
    put_entry(be, p, {0x0112, 3, 1, 6});  // Orientation
    put_entry(be, p, {34665, 4, 1, exif_ifd});
    put(be, p, 0, 4);
    put(be, p, uint32_t(entries.size()), 2);
    for (const ExifEntry &e : entries)
        put_entry(be, p, e);
    put(be, p, 0, 4);
    return p;
}

bool exif_find(const std::vector<uint8_t> &payload, uint16_t tag, ExifEntry *out)
{
    if (payload.size() < 6 + 8)
        return false;
    const uint8_t *t = payload.data() + 6;
    const size_t len = payload.size() - 6;
    const bool be = t[0] == 'M';
    uint32_t ifd0 = get32(be, t + 4);
    if (ifd0 + 2 > len)
        return false;
    uint32_t n = get16(be, t + ifd0);
    uint32_t exif = 0;
    for (uint32_t i = 0; i < n && ifd0 + 2 + 12 * (i + 1) <= len; ++i) {
        const uint8_t *e = t + ifd0 + 2 + 12 * i;
        if (get16(be, e) == 34665)
            exif = get32(be, e + 8);
    }
    if (exif == 0 || exif + 2 > len)
        return false;
    n = get16(be, t + exif);
    for (uint32_t i = 0; i < n && exif + 2 + 12 * (i + 1) <= len; ++i) {
        const uint8_t *e = t + exif + 2 + 12 * i;
        if (get16(be, e) != tag)
            continue;
        out->tag = tag;
        out->type = uint16_t(get16(be, e + 2));
        out->count = get32(be, e + 4);
        out->value = out->type == 3 ? get16(be, e + 8) : get32(be, e + 8);
        return true;
    }
    return false;
}

bool have_jpegtran()
{
    return run_jpegtran({"-version"});
}

bool run_jpegtran(const std::vector<std::string> &args)
{
    std::vector<char *> argv;
    std::string name = "jpegtran";
    argv.push_back(name.data());
    std::vector<std::string> copy = args;
    for (std::string &a : copy)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, "jpegtran", &fa, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0)
        return false;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::vector<std::string> jpegtran_switches(uint32_t xform)
{
    switch (xform) {
    case 1: return {"-flip", "horizontal"};
    case 2: return {"-flip", "vertical"};
    case 3: return {"-transpose"};
    case 4: return {"-transverse"};
    case 5: return {"-rotate", "90"};
    case 6: return {"-rotate", "180"};
    case 7: return {"-rotate", "270"};
    default: return {};
    }
}

Picture crop_picture(const Picture &p, int x, int y, int w, int h)
{
    Picture out;
    out.width = w;
    out.height = h;
    out.components = p.components;
    out.pixels.resize(size_t(w) * h * p.components);
    for (int yy = 0; yy < h; ++yy)
        for (int xx = 0; xx < w; ++xx)
            std::memcpy(out.at(xx, yy), p.at(x + xx, y + yy), size_t(p.components));
    return out;
}

Picture apply_xform(const Picture &p, uint32_t xform)
{
    const int w = p.width, h = p.height;
    const bool swap = xform == 3 || xform == 4 || xform == 5 || xform == 7;
    Picture out;
    out.width = swap ? h : w;
    out.height = swap ? w : h;
    out.components = p.components;
    out.pixels.resize(p.pixels.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            int X = x, Y = y;
            switch (xform) {
            case 1: X = w - 1 - x; break;
            case 2: Y = h - 1 - y; break;
            case 3: X = y; Y = x; break;
            case 4: X = h - 1 - y; Y = w - 1 - x; break;
            case 5: X = h - 1 - y; Y = x; break;
            case 6: X = w - 1 - x; Y = h - 1 - y; break;
            case 7: X = y; Y = w - 1 - x; break;
            default: break;
            }
            std::memcpy(out.at(X, Y), p.at(x, y), size_t(p.components));
        }
    return out;
}

int max_abs_diff(const Picture &a, const Picture &b)
{
    if (a.width != b.width || a.height != b.height || a.components != b.components ||
        a.pixels.size() != b.pixels.size())
        return INT_MAX;
    int m = 0;
    for (size_t i = 0; i < a.pixels.size(); ++i)
        m = std::max(m, std::abs(int(a.pixels[i]) - int(b.pixels[i])));
    return m;
}

}  // namespace qbtest
