// The encoder of the pipeline: no JFIF header, float DCT, optimised
// Huffman tables, and the Exif stamp right behind SOI when asked.
//
// The jump target lives in this frame, which holds nothing with a
// destructor; the teardown at the target serves every fatal error.
#include "pipeline/pipeline.h"

int image_jpeg_encode(FILE *stream, uint32_t width, uint32_t height,
                      int32_t quality, int32_t full_chroma, int32_t components,
                      J_COLOR_SPACE color_space, int stamp, uint32_t orientation,
                      const char *thumb_path, image_rows rows)
{
    struct jpeg_compress_struct cinfo;
    image_jpeg_error err;
    cinfo.err = image_jpeg_error_init(&err);
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&cinfo);
        return -1;
    }
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, stream);
    cinfo.image_width = width;
    cinfo.image_height = height;
    cinfo.input_components = components;
    cinfo.in_color_space = color_space;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    cinfo.dct_method = JDCT_FLOAT;
    cinfo.optimize_coding = TRUE;
    cinfo.write_JFIF_header = FALSE;  // these files carry no JFIF APP0
    if (full_chroma && color_space == JCS_RGB) {
        for (int c = 0; c < components && c < cinfo.num_components; ++c) {
            cinfo.comp_info[c].h_samp_factor = 1;
            cinfo.comp_info[c].v_samp_factor = 1;
        }
    }
    jpeg_start_compress(&cinfo, TRUE);
    if (stamp)
        image_exif_stamp_write(&cinfo, orientation, thumb_path);
    jpeg_write_scanlines(&cinfo, rows, height);
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return 0;
}
