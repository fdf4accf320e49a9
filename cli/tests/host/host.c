/* A tiny C host of an installed libqbimage: writes a grey JPEG with libjpeg
 * (which the public header brings in), makes a thumbnail of it and reads the
 * thumbnail's size back. Usage: host FOLDER. Prints the header's version. */
#include <stdio.h>
#include <string.h>

#include <qbimage.h>

static void quiet_log(int32_t level, void *user, int32_t code, const char *file,
                      int32_t line, const char *format, ...)
{
    (void)level; (void)user; (void)code; (void)file; (void)line; (void)format;
}

int main(int argc, char **argv)
{
    char in[4096], out[4096];
    struct jpeg_compress_struct c;
    struct jpeg_error_mgr err;
    unsigned char row[64];
    JSAMPROW rows[1];
    FILE *f;
    image_ctx ctx;
    image_metadata meta;

    if (argc != 2)
        return 2;
    snprintf(in, sizeof in, "%s/host-in.jpg", argv[1]);
    snprintf(out, sizeof out, "%s/host-out.jpg", argv[1]);
    f = fopen(in, "wb");
    if (!f)
        return 1;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    jpeg_stdio_dest(&c, f);
    c.image_width = 64;
    c.image_height = 48;
    c.input_components = 1;
    c.in_color_space = JCS_GRAYSCALE;
    jpeg_set_defaults(&c);
    jpeg_start_compress(&c, TRUE);
    memset(row, 128, sizeof row);
    rows[0] = row;
    while (c.next_scanline < c.image_height)
        jpeg_write_scanlines(&c, rows, 1);
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    fclose(f);

    if (easy_image_create_thumb(in, out, 32, 20, 85, 0xFFFFFF) != 0)
        return 1;
    memset(&ctx, 0, sizeof ctx);
    ctx.log = quiet_log;
    memset(&meta, 0, sizeof meta);
    if (image_get_metadata(&ctx, out, IMAGE_MEDIA_JPEG, &meta) != 0 || meta.width != 32 ||
        meta.height != 20)
        return 1;
    printf("%s\n", QBIMAGE_VERSION);
    return 0;
}
