// The block kernels of the lossless transform: they move quantised DCT
// blocks from the source's virtual arrays to the destination's and so turn
// or mirror a JPEG without decoding it.
//
// Mirroring an 8x8 block in the frequency domain only negates its odd rows
// (vertical mirror) or odd columns (horizontal mirror); transposing swaps
// rows and columns. No coefficient value is ever recomputed, so nothing is
// lost. Blocks of a last, partly filled iMCU cannot be mirrored without
// moving the image edge, so they are moved to the matching place unmirrored.
//
// Every size is the destination's (cinfo), computed by libjpeg inside
// jpeg_write_coefficients; all arrays live in the decoder's pool, so every
// access goes through dinfo and a refused access lands on the decoder's
// error exit. The destination arrays are not pre-zeroed, which is why each
// kernel walks the destination top to bottom in whole iMCU rows and fills
// every block that the encoder will read.
#include <array>

#include "transform/transform.h"

extern "C" {
// libjpeg's own utilities; declared in its private header only.
void jcopy_block_row(JBLOCKROW input_row, JBLOCKROW output_row,
                     JDIMENSION num_blocks);
}

namespace {

constexpr int DCTSIZE_SQ = DCTSIZE2;

// Which coefficients change sign, by the source's frequency row r and
// column c. The bits combine: both set negates where r + c is odd.
enum block_sign : int {
    SIGN_NONE = 0,
    SIGN_ODD_ROWS = 1,  // a vertical mirror
    SIGN_ODD_COLS = 2,  // a horizontal mirror
};

constexpr std::array<std::array<int, DCTSIZE_SQ>, 4> make_sign_table()
{
    std::array<std::array<int, DCTSIZE_SQ>, 4> t{};
    for (int p = 0; p < 4; ++p)
        for (int k = 0; k < DCTSIZE_SQ; ++k) {
            const bool row_odd = (p & SIGN_ODD_ROWS) && ((k / DCTSIZE) & 1);
            const bool col_odd = (p & SIGN_ODD_COLS) && ((k % DCTSIZE) & 1);
            t[p][k] = (row_odd != col_odd) ? -1 : 1;
        }
    return t;
}

constexpr auto sign_table = make_sign_table();

static_assert(sign_table[SIGN_NONE][9] == 1);
static_assert(sign_table[SIGN_ODD_ROWS][8] == -1 && sign_table[SIGN_ODD_ROWS][1] == 1);
static_assert(sign_table[SIGN_ODD_COLS][1] == -1 && sign_table[SIGN_ODD_COLS][8] == 1);
static_assert(sign_table[SIGN_ODD_ROWS | SIGN_ODD_COLS][9] == 1 &&
              sign_table[SIGN_ODD_ROWS | SIGN_ODD_COLS][1] == -1 &&
              sign_table[SIGN_ODD_ROWS | SIGN_ODD_COLS][8] == -1);

// The sign is applied in int and brought back to 16 bits, which is exact
// for every value but -32768, whose negation wraps as it does in libjpeg.
inline void block_move(const JCOEF *src, JCOEF *dst, int sign)
{
    const auto &s = sign_table[sign];
    for (int k = 0; k < DCTSIZE_SQ; ++k)
        dst[k] = JCOEF(src[k] * s[k]);
}

inline void block_move_transposed(const JCOEF *src, JCOEF *dst, int sign)
{
    const auto &s = sign_table[sign];
    for (int r = 0; r < DCTSIZE; ++r)
        for (int c = 0; c < DCTSIZE; ++c)
            dst[c * DCTSIZE + r] = JCOEF(src[r * DCTSIZE + c] * s[r * DCTSIZE + c]);
}

inline JBLOCKARRAY access(j_decompress_ptr dinfo, jvirt_barray_ptr array,
                          JDIMENSION first_row, JDIMENSION rows, bool writable)
{
    return dinfo->mem->access_virt_barray(reinterpret_cast<j_common_ptr>(dinfo),
                                          array, first_row, rows,
                                          writable ? TRUE : FALSE);
}

// Blocks along an axis that lie in whole iMCUs of `pixels`, for a component
// with `factor` blocks per iMCU on that axis.
inline uint32_t whole_imcu_blocks(uint32_t pixels, int max_factor, int factor)
{
    return (pixels / (uint32_t(max_factor) * DCTSIZE)) * uint32_t(factor);
}

// Per-component loop state shared by the kernels.
struct comp_frame {
    jpeg_component_info *comp;
    uint32_t h;
    uint32_t v;
    uint32_t x_shift;
    uint32_t y_shift;
};

inline comp_frame frame_of(j_compress_ptr cinfo, int ci, uint32_t x_offset,
                           uint32_t y_offset)
{
    jpeg_component_info *comp = &cinfo->comp_info[ci];
    const uint32_t h = uint32_t(comp->h_samp_factor);
    const uint32_t v = uint32_t(comp->v_samp_factor);
    return {comp, h, v, h * x_offset, v * y_offset};
}

}  // namespace

// ---- row bodies: one source group of v rows per destination group ----

void image_kernel_crop_copy(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t x_offset, uint32_t y_offset,
                            jvirt_barray_ptr *src_arrays,
                            jvirt_barray_ptr *dst_arrays)
{
    for (int ci = 0; ci < cinfo->num_components; ++ci) {
        const comp_frame f = frame_of(cinfo, ci, x_offset, y_offset);
        for (uint32_t dst_y = 0; dst_y < f.comp->height_in_blocks; dst_y += f.v) {
            JBLOCKARRAY dst = access(dinfo, dst_arrays[ci], dst_y, f.v, true);
            JBLOCKARRAY src = access(dinfo, src_arrays[ci], dst_y + f.y_shift, f.v, false);
            for (uint32_t oy = 0; oy < f.v; ++oy)
                jcopy_block_row(src[oy] + f.x_shift, dst[oy], f.comp->width_in_blocks);
        }
    }
}

void image_kernel_flip_h(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                         uint32_t x_offset, uint32_t y_offset,
                         jvirt_barray_ptr *src_arrays,
                         jvirt_barray_ptr *dst_arrays)
{
    for (int ci = 0; ci < cinfo->num_components; ++ci) {
        const comp_frame f = frame_of(cinfo, ci, x_offset, y_offset);
        const uint32_t mirror_width =
            whole_imcu_blocks(dinfo->image_width, cinfo->max_h_samp_factor, int(f.h));
        for (uint32_t dst_y = 0; dst_y < f.comp->height_in_blocks; dst_y += f.v) {
            JBLOCKARRAY dst = access(dinfo, dst_arrays[ci], dst_y, f.v, true);
            JBLOCKARRAY src = access(dinfo, src_arrays[ci], dst_y + f.y_shift, f.v, false);
            for (uint32_t oy = 0; oy < f.v; ++oy)
                for (uint32_t dst_x = 0; dst_x < f.comp->width_in_blocks; ++dst_x) {
                    if (f.x_shift + dst_x < mirror_width)
                        block_move(src[oy][mirror_width - f.x_shift - dst_x - 1],
                                   dst[oy][dst_x], SIGN_ODD_COLS);
                    else
                        jcopy_block_row(src[oy] + dst_x + f.x_shift, dst[oy] + dst_x, 1);
                }
        }
    }
}

void image_kernel_flip_v(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                         uint32_t x_offset, uint32_t y_offset,
                         jvirt_barray_ptr *src_arrays,
                         jvirt_barray_ptr *dst_arrays)
{
    for (int ci = 0; ci < cinfo->num_components; ++ci) {
        const comp_frame f = frame_of(cinfo, ci, x_offset, y_offset);
        const uint32_t mirror_height =
            whole_imcu_blocks(dinfo->image_height, cinfo->max_v_samp_factor, int(f.v));
        for (uint32_t dst_y = 0; dst_y < f.comp->height_in_blocks; dst_y += f.v) {
            JBLOCKARRAY dst = access(dinfo, dst_arrays[ci], dst_y, f.v, true);
            const bool y_mirror = f.y_shift + dst_y < mirror_height;
            const uint32_t first = y_mirror ? mirror_height - f.y_shift - dst_y - f.v
                                            : dst_y + f.y_shift;
            JBLOCKARRAY src = access(dinfo, src_arrays[ci], first, f.v, false);
            for (uint32_t oy = 0; oy < f.v; ++oy) {
                if (!y_mirror) {
                    jcopy_block_row(src[oy] + f.x_shift, dst[oy], f.comp->width_in_blocks);
                    continue;
                }
                JBLOCKROW src_row = src[f.v - oy - 1];
                for (uint32_t dst_x = 0; dst_x < f.comp->width_in_blocks; ++dst_x)
                    block_move(src_row[dst_x + f.x_shift], dst[oy][dst_x], SIGN_ODD_ROWS);
            }
        }
    }
}

void image_kernel_rotate_180(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                             uint32_t x_offset, uint32_t y_offset,
                             jvirt_barray_ptr *src_arrays,
                             jvirt_barray_ptr *dst_arrays)
{
    for (int ci = 0; ci < cinfo->num_components; ++ci) {
        const comp_frame f = frame_of(cinfo, ci, x_offset, y_offset);
        const uint32_t mirror_width =
            whole_imcu_blocks(dinfo->image_width, cinfo->max_h_samp_factor, int(f.h));
        const uint32_t mirror_height =
            whole_imcu_blocks(dinfo->image_height, cinfo->max_v_samp_factor, int(f.v));
        for (uint32_t dst_y = 0; dst_y < f.comp->height_in_blocks; dst_y += f.v) {
            JBLOCKARRAY dst = access(dinfo, dst_arrays[ci], dst_y, f.v, true);
            const bool y_mirror = f.y_shift + dst_y < mirror_height;
            const uint32_t first = y_mirror ? mirror_height - f.y_shift - dst_y - f.v
                                            : dst_y + f.y_shift;
            JBLOCKARRAY src = access(dinfo, src_arrays[ci], first, f.v, false);
            for (uint32_t oy = 0; oy < f.v; ++oy) {
                JBLOCKROW src_row = y_mirror ? src[f.v - oy - 1] : src[oy];
                for (uint32_t dst_x = 0; dst_x < f.comp->width_in_blocks; ++dst_x) {
                    const bool x_mirror = f.x_shift + dst_x < mirror_width;
                    const uint32_t col = x_mirror ? mirror_width - f.x_shift - dst_x - 1
                                                  : dst_x + f.x_shift;
                    const int sign = (y_mirror ? SIGN_ODD_ROWS : 0) |
                                     (x_mirror ? SIGN_ODD_COLS : 0);
                    if (sign == SIGN_NONE)
                        jcopy_block_row(src_row + col, dst[oy] + dst_x, 1);
                    else
                        block_move(src_row[col], dst[oy][dst_x], sign);
                }
            }
        }
    }
}

// ---- transposing bodies: source rows become destination columns ----

namespace {

// What separates the four transposing kernels: whether each axis mirrors.
struct transpose_kind {
    bool mirror_x;  // destination columns run against the source rows
    bool mirror_y;  // destination rows run against the source columns
};

void transpose_blocks(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                      uint32_t x_offset, uint32_t y_offset,
                      jvirt_barray_ptr *src_arrays, jvirt_barray_ptr *dst_arrays,
                      transpose_kind kind)
{
    for (int ci = 0; ci < cinfo->num_components; ++ci) {
        const comp_frame f = frame_of(cinfo, ci, x_offset, y_offset);
        // After the exchange of sampling factors the destination's
        // horizontal factors measure the source's height, and vice versa.
        const uint32_t mirror_width =
            kind.mirror_x ? whole_imcu_blocks(dinfo->image_height,
                                              cinfo->max_h_samp_factor, int(f.h))
                          : 0;
        const uint32_t mirror_height =
            kind.mirror_y ? whole_imcu_blocks(dinfo->image_width,
                                              cinfo->max_v_samp_factor, int(f.v))
                          : 0;
        for (uint32_t dst_y = 0; dst_y < f.comp->height_in_blocks; dst_y += f.v) {
            JBLOCKARRAY dst = access(dinfo, dst_arrays[ci], dst_y, f.v, true);
            const bool y_mirror = f.y_shift + dst_y < mirror_height;
            for (uint32_t oy = 0; oy < f.v; ++oy) {
                const uint32_t col = y_mirror ? mirror_height - f.y_shift - dst_y - oy - 1
                                              : dst_y + oy + f.y_shift;
                for (uint32_t dst_x = 0; dst_x < f.comp->width_in_blocks; dst_x += f.h) {
                    const bool x_mirror = f.x_shift + dst_x < mirror_width;
                    const uint32_t first = x_mirror ? mirror_width - f.x_shift - dst_x - f.h
                                                    : dst_x + f.x_shift;
                    JBLOCKARRAY src = access(dinfo, src_arrays[ci], first, f.h, false);
                    const int sign = (x_mirror ? SIGN_ODD_ROWS : 0) |
                                     (y_mirror ? SIGN_ODD_COLS : 0);
                    for (uint32_t ox = 0; ox < f.h; ++ox) {
                        JBLOCKROW src_row = x_mirror ? src[f.h - ox - 1] : src[ox];
                        block_move_transposed(src_row[col], dst[oy][dst_x + ox], sign);
                    }
                }
            }
        }
    }
}

}  // namespace

void image_kernel_transpose(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t x_offset, uint32_t y_offset,
                            jvirt_barray_ptr *src_arrays,
                            jvirt_barray_ptr *dst_arrays)
{
    transpose_blocks(dinfo, cinfo, x_offset, y_offset, src_arrays, dst_arrays,
                     {false, false});
}

void image_kernel_rotate_90(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t x_offset, uint32_t y_offset,
                            jvirt_barray_ptr *src_arrays,
                            jvirt_barray_ptr *dst_arrays)
{
    transpose_blocks(dinfo, cinfo, x_offset, y_offset, src_arrays, dst_arrays,
                     {true, false});
}

void image_kernel_rotate_270(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                             uint32_t x_offset, uint32_t y_offset,
                             jvirt_barray_ptr *src_arrays,
                             jvirt_barray_ptr *dst_arrays)
{
    transpose_blocks(dinfo, cinfo, x_offset, y_offset, src_arrays, dst_arrays,
                     {false, true});
}

void image_kernel_transverse(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                             uint32_t x_offset, uint32_t y_offset,
                             jvirt_barray_ptr *src_arrays,
                             jvirt_barray_ptr *dst_arrays)
{
    transpose_blocks(dinfo, cinfo, x_offset, y_offset, src_arrays, dst_arrays,
                     {true, true});
}

// ---- the in-place horizontal flip ----

// Used where no block changes rows (code 1 with no vertical crop offset):
// the mirror and the crop's horizontal shift are both done inside each
// source row, so the encoder can read the source arrays directly and no
// second set of arrays is needed.
void image_kernel_flip_h_in_place(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                                  uint32_t x_offset,
                                  jvirt_barray_ptr *src_arrays)
{
    for (int ci = 0; ci < cinfo->num_components; ++ci) {
        const comp_frame f = frame_of(cinfo, ci, x_offset, 0);
        const uint32_t mirror_width =
            whole_imcu_blocks(dinfo->image_width, cinfo->max_h_samp_factor, int(f.h));
        for (uint32_t dst_y = 0; dst_y < f.comp->height_in_blocks; dst_y += f.v) {
            JBLOCKARRAY group = access(dinfo, src_arrays[ci], dst_y, f.v, true);
            for (uint32_t oy = 0; oy < f.v; ++oy) {
                JBLOCKROW row = group[oy];
                for (uint32_t b = 0; 2 * b < mirror_width; ++b) {
                    JCOEF *left = row[b];
                    JCOEF *right = row[mirror_width - b - 1];
                    // Both sides are read before either is written, so the
                    // middle block of an odd width (left == right) keeps its
                    // even columns and has its odd columns negated once.
                    for (int k = 0; k < DCTSIZE_SQ; k += 2) {
                        const JCOEF l0 = left[k], r0 = right[k];
                        left[k] = r0;
                        right[k] = l0;
                        const JCOEF l1 = left[k + 1], r1 = right[k + 1];
                        left[k + 1] = JCOEF(-r1);
                        right[k + 1] = JCOEF(-l1);
                    }
                }
                if (f.x_shift != 0)
                    for (uint32_t b = 0; b < f.comp->width_in_blocks; ++b)
                        jcopy_block_row(row + b + f.x_shift, row + b, 1);
            }
        }
    }
}
