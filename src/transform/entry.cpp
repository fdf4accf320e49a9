// image_jpeg_transform: rotate, flip and crop a JPEG file.
//
// Two routes. Where the source's size fills the iMCU grid along every axis
// that the code mirrors, the coefficient route moves DCT blocks and loses
// nothing. Otherwise the pixel route decodes, walks the pixels into a new
// picture and encodes again at the caller's quality.
//
// Fatal libjpeg errors longjmp back to the entry point, one jump target per
// libjpeg object, so the result tells which side failed. Nothing between a
// target and libjpeg holds an object with a destructor; what the routes
// allocate themselves sits in a record owned by the entry point, which
// releases it on every path.
#include <cstdlib>
#include <cstring>

#include <jerror.h>

#include "transform/transform.h"

extern "C" {
// libjpeg's own utility; declared in its private header only.
long jdiv_round_up(long a, long b);
}

namespace {

constexpr int APP_MARKER_COUNT = 16;
constexpr unsigned int MARKER_LENGTH_LIMIT = 0xFFFF;

// Out-of-range codes act as code 0 on the pixel route.
constexpr uint32_t XFORM_COUNT = 8;


// ---- pixel route walk ----

// Direction of the walk per code: whether source rows become output
// columns, and whether the output's columns and rows are filled from the
// far end. Start and step follow: from the far end means starting at the
// last index with step -1.
struct pixel_walk_kind {
    bool transposed;
    bool cols_reversed;
    bool rows_reversed;
};

constexpr pixel_walk_kind pixel_walk_table[XFORM_COUNT] = {
    {false, false, false},  // 0 none
    {false, true, false},   // 1 flip left to right
    {false, false, true},   // 2 flip top to bottom
    {true, false, false},   // 3 transpose
    {true, true, true},     // 4 transverse
    {true, true, false},    // 5 90 degrees clockwise
    {false, true, true},    // 6 180 degrees
    {true, false, true},    // 7 270 degrees clockwise
};

// The codes that exchange the sides are exactly the transposed walks.
static_assert(pixel_walk_table[3].transposed && pixel_walk_table[4].transposed &&
              pixel_walk_table[5].transposed && pixel_walk_table[7].transposed &&
              !pixel_walk_table[0].transposed && !pixel_walk_table[1].transposed &&
              !pixel_walk_table[2].transposed && !pixel_walk_table[6].transposed);

struct pixel_walk {
    uint32_t out_width;
    uint32_t out_height;
    int32_t start_col;
    int32_t start_row;
    int32_t col_step;
    int32_t row_step;
    bool transposed;
};

pixel_walk pixel_walk_make(uint32_t xform, uint32_t width, uint32_t height)
{
    const pixel_walk_kind kind = xform < XFORM_COUNT ? pixel_walk_table[xform]
                                                     : pixel_walk_table[0];
    pixel_walk w{};
    w.transposed = kind.transposed;
    w.out_width = kind.transposed ? height : width;
    w.out_height = kind.transposed ? width : height;
    w.start_col = kind.cols_reversed ? int32_t(w.out_width) - 1 : 0;
    w.start_row = kind.rows_reversed ? int32_t(w.out_height) - 1 : 0;
    w.col_step = kind.cols_reversed ? -1 : 1;
    w.row_step = kind.rows_reversed ? -1 : 1;
    return w;
}

// The pixel route's crop lies in the source and must stay strictly inside
// it: touching the right or bottom edge is refused. Sums are taken in 64
// bits, so one too large for 32 bits counts as beyond the edge.
bool pixel_crop_accepted(const image_crop *crop, JDIMENSION width,
                         JDIMENSION height)
{
    if (crop->x < 0 || crop->width < 0 || crop->y < 0 || crop->height < 0)
        return false;
    if (int64_t(crop->x) + crop->width >= int64_t(width))
        return false;
    return int64_t(crop->y) + crop->height < int64_t(height);
}

// The coefficient route's crop lies in the transformed image and may touch
// its edges, but must not be empty.

// Our own working memory counts as the decoder's: running out of it reports
// the way an exhausted decoder pool does, through the decoder's error exit.
void fail_out_of_memory(j_decompress_ptr dinfo)
{
    ERREXIT(dinfo, JERR_OUT_OF_MEMORY);
}

// Runs libjpeg under the two jump targets. Kept apart from the entry point
// so that the files, opened before any target is armed, are plain
// arguments that nothing modifies afterwards.
int32_t transform_session(FILE *input, FILE *output, uint32_t xform,
                          const image_crop *crop, int32_t quality)
{
    jpeg_decompress_struct dinfo;
    jpeg_compress_struct cinfo;
    image_jpeg_error derr;
    image_jpeg_error cerr;
    image_scan_budget budget;
    image_transform_buffers bufs;
    volatile int32_t result = IMAGE_TRANSFORM_OK;
    volatile int have_encoder = 0;

    // Zeroed objects are safe to destroy even if creation never ran.
    std::memset(&dinfo, 0, sizeof dinfo);
    std::memset(&cinfo, 0, sizeof cinfo);
    bufs.row = nullptr;
    bufs.image = nullptr;
    bufs.image_height = 0;
    bufs.image_owned = 0;

    dinfo.err = image_jpeg_error_init(&derr);
    if (setjmp(derr.jump) == 0) {
        jpeg_create_decompress(&dinfo);
        jpeg_stdio_src(&dinfo, input);
        image_scan_budget_arm(&dinfo, &budget, input);
        cinfo.err = image_jpeg_error_init(&cerr);
        if (setjmp(cerr.jump) == 0) {
            jpeg_create_compress(&cinfo);
            have_encoder = 1;
            jpeg_stdio_dest(&cinfo, output);
            image_transform_run(&dinfo, &cinfo, input, xform, crop, quality, &bufs);
        } else {
            result = IMAGE_TRANSFORM_ENCODER_FAILED;
        }
    } else {
        result = IMAGE_TRANSFORM_DECODER_FAILED;
    }

    // Both targets stay armed until here; whichever fired, tear down
    // whatever exists. The route's buffers are already released on the
    // ordinary path, and release is idempotent.
    image_transform_buffers_release(&bufs);
    if (have_encoder)
        jpeg_destroy_compress(&cinfo);
    jpeg_destroy_decompress(&dinfo);
    return result;
}

}  // namespace

void image_transform_buffers_release(image_transform_buffers *bufs)
{
    if (bufs->row) {
        std::free(bufs->row);
        bufs->row = nullptr;
    }
    if (bufs->image) {
        image_rows_free(bufs->image, bufs->image_height, bufs->image_owned);
        bufs->image = nullptr;
    }
}

extern "C" QB_API int32_t image_jpeg_transform(const char *path,
                                               const char *output,
                                               image_xform xform,
                                               const image_crop *crop,
                                               int32_t quality)
{
    // Only a regular file is read (a FIFO would block), and an output that
    // is the input itself, by any name, is refused before it is truncated.
    FILE *in = image_open_input(path);
    if (!in)
        return IMAGE_TRANSFORM_NO_INPUT;
    FILE *out = image_open_output(output, &in, 1);
    if (!out) {
        std::fclose(in);
        return IMAGE_TRANSFORM_NO_OUTPUT;
    }
    const int32_t result = transform_session(in, out, xform, crop, quality);
    std::fclose(out);
    std::fclose(in);
    return result;
}

void image_transform_run(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                         FILE *input, uint32_t xform, const image_crop *crop,
                         int32_t quality, image_transform_buffers *bufs)
{
    // Every APPn marker, uncut, so that Exif, ICC profiles and XMP survive.
    for (int i = 0; i < APP_MARKER_COUNT; ++i)
        jpeg_save_markers(dinfo, JPEG_APP0 + i, MARKER_LENGTH_LIMIT);
    jpeg_read_header(dinfo, TRUE);
    // Both routes hold the whole picture (as blocks or as rows): a header
    // that claims too much is a decoder failure before anything is held.
    if (image_jpeg_header_refused(dinfo, input))
        ERREXIT1(dinfo, JERR_IMAGE_TOO_BIG, dinfo->image_width);
    if (image_transform_is_perfect(int32_t(dinfo->image_width),
                                   int32_t(dinfo->image_height),
                                   dinfo->max_h_samp_factor * DCTSIZE,
                                   dinfo->max_v_samp_factor * DCTSIZE, xform))
        image_transform_coefficients(dinfo, cinfo, xform, crop);
    else
        image_transform_pixels(dinfo, cinfo, xform, crop, quality, bufs);
}

int32_t image_transform_is_perfect(int32_t width, int32_t height,
                                   int32_t imcu_width, int32_t imcu_height,
                                   uint32_t xform)
{
    const bool whole_cols = width % imcu_width == 0;
    const bool whole_rows = height % imcu_height == 0;
    switch (xform) {
    case IMAGE_XFORM_NONE:
    case IMAGE_XFORM_TRANSPOSE:
        return 1;
    case IMAGE_XFORM_FLIP_H:
    case IMAGE_XFORM_ROT_270:
        return whole_cols;
    case IMAGE_XFORM_FLIP_V:
    case IMAGE_XFORM_ROT_90:
        return whole_rows;
    case IMAGE_XFORM_TRANSVERSE:
    case IMAGE_XFORM_ROT_180:
        return whole_cols && whole_rows;
    default:
        return 0;
    }
}

void image_transform_pixels(j_decompress_ptr dinfo, j_compress_ptr cinfo,
                            uint32_t xform, const image_crop *crop,
                            int32_t quality, image_transform_buffers *bufs)
{
    if (crop && !pixel_crop_accepted(crop, dinfo->image_width, dinfo->image_height))
        crop = nullptr;
    const uint32_t crop_w = crop ? uint32_t(crop->width) : dinfo->image_width;
    const uint32_t crop_h = crop ? uint32_t(crop->height) : dinfo->image_height;
    const pixel_walk walk = pixel_walk_make(xform, crop_w, crop_h);

    dinfo->two_pass_quantize = TRUE;
    dinfo->dither_mode = JDITHER_FS;
    dinfo->dct_method = JDCT_FLOAT;
    dinfo->do_fancy_upsampling = TRUE;
    jpeg_start_decompress(dinfo);

    const uint32_t comps = uint32_t(dinfo->output_components);
    const size_t row_bytes = (size_t(dinfo->output_width) * comps + 15u) & ~size_t(15);
    void *row_mem = nullptr;
    if (posix_memalign(&row_mem, 16, row_bytes) != 0) {
        fail_out_of_memory(dinfo);
        return;
    }
    bufs->row = static_cast<unsigned char *>(row_mem);

    // A zero width gives the bare pointer array, whose slots are no rows.
    bufs->image = image_rows_alloc(walk.out_width, walk.out_height, comps);
    bufs->image_height = walk.out_height;
    bufs->image_owned = walk.out_width != 0;
    // An empty picture copies nothing; the encoder refuses it below.
    if (!bufs->image && walk.out_width != 0 && walk.out_height != 0) {
        fail_out_of_memory(dinfo);
        return;
    }

    const JDIMENSION col_begin = crop ? JDIMENSION(crop->x) : 0;
    const JDIMENSION col_end = crop ? col_begin + crop_w : dinfo->output_width;
    const JDIMENSION row_begin = crop ? JDIMENSION(crop->y) : 0;
    const JDIMENSION row_end = crop ? row_begin + crop_h : dinfo->output_height;

    image_rows image = bufs->image;
    JSAMPROW src = bufs->row;
    int32_t dst_col = walk.start_col;
    int32_t dst_row = walk.start_row;
    while (dinfo->output_scanline < dinfo->output_height) {
        const JDIMENSION y = dinfo->output_scanline;
        if (jpeg_read_scanlines(dinfo, &src, 1) != 1)
            break;  // only a suspending source could get here
        if (y < row_begin)
            continue;
        if (y >= row_end)
            break;  // the rows below the crop stay undecoded
        for (JDIMENSION x = col_begin; x < col_end; ++x) {
            std::memcpy(image[dst_row] + size_t(dst_col) * comps,
                        src + size_t(x) * comps, comps);
            if (walk.transposed)
                dst_row += walk.row_step;
            else
                dst_col += walk.col_step;
        }
        if (walk.transposed) {
            dst_col += walk.col_step;
            dst_row = walk.start_row;
        } else {
            dst_col = walk.start_col;
            dst_row += walk.row_step;
        }
    }

    cinfo->image_width = walk.out_width;
    cinfo->image_height = walk.out_height;
    cinfo->input_components = dinfo->output_components;
    cinfo->in_color_space = dinfo->out_color_space;
    jpeg_set_defaults(cinfo);
    jpeg_set_quality(cinfo, quality, TRUE);
    cinfo->dct_method = JDCT_FLOAT;
    // The source's own JFIF marker, if any, comes through the marker copy
    // with its version and density; a source without one stays without.
    cinfo->write_JFIF_header = FALSE;
    jpeg_start_compress(cinfo, TRUE);
    image_transform_copy_markers(dinfo, cinfo);
    jpeg_write_scanlines(cinfo, image, walk.out_height);
    image_transform_buffers_release(bufs);
    jpeg_finish_compress(cinfo);
    // A crop may have left rows undelivered; such a decoder is only
    // destroyed, by the entry point.
    if (dinfo->output_scanline == dinfo->output_height)
        jpeg_finish_decompress(dinfo);
}

