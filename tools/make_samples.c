/*
 * qbimage-samples: writes the sample photos of the README's demo into a
 * folder: a landscape, a portrait, a panorama and a grey picture as JPEG,
 * a half-transparent PNG, and a PNG frame with a clear window.
 * Usage: qbimage-samples [directory]   (default demo-out/photos)
 */
#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <png.h>

#include <jpeglib.h>

static int write_sample(const char *path, int width, int height, int grey)
{
    struct jpeg_compress_struct cinfo;
    struct jpeg_error_mgr jerr;
    FILE *f = fopen(path, "wb");
    if (!f)
        return -1;
    int comps = grey ? 1 : 3;
    unsigned char *row = malloc((size_t)width * comps);
    if (!row) {
        fclose(f);
        return -1;
    }
    cinfo.err = jpeg_std_error(&jerr);
    jpeg_create_compress(&cinfo);
    jpeg_stdio_dest(&cinfo, f);
    cinfo.image_width = (JDIMENSION)width;
    cinfo.image_height = (JDIMENSION)height;
    cinfo.input_components = comps;
    cinfo.in_color_space = grey ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, 90, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    while (cinfo.next_scanline < cinfo.image_height) {
        int y = (int)cinfo.next_scanline;
        for (int x = 0; x < width; ++x) {
            /* a sky-to-ground gradient with a sun disc */
            int dx = x - width * 3 / 4, dy = y - height / 4;
            int sun = dx * dx + dy * dy < (height / 8) * (height / 8);
            unsigned char r = sun ? 255 : (unsigned char)(60 + 120 * y / height);
            unsigned char g = sun ? 220 : (unsigned char)(110 + 60 * x / width);
            unsigned char b = sun ? 60 : (unsigned char)(230 - 150 * y / height);
            if (grey) {
                row[x] = (unsigned char)((r * 3 + g * 6 + b) / 10);
            } else {
                row[x * 3] = r;
                row[x * 3 + 1] = g;
                row[x * 3 + 2] = b;
            }
        }
        JSAMPROW rp = row;
        jpeg_write_scanlines(&cinfo, &rp, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    free(row);
    return fclose(f) == 0 ? 0 : -1;
}

/* One RGBA pixel of the PNG samples at (x, y). */
static void png_sample_pixel(int frame, int width, int height, int x, int y,
                             unsigned char *px)
{
    if (frame) {
        /* A wooden frame 40 pixels wide, opaque, whose shadow reaches 8
         * pixels into the clear window it leaves. */
        int in_x = x < width - 1 - x ? x : width - 1 - x;
        int in_y = y < height - 1 - y ? y : height - 1 - y;
        int d = (in_x < in_y ? in_x : in_y) - 40; /* depth into the window */
        if (d < 0) {
            px[0] = (unsigned char)(110 + (x * 7 + y * 3) % 30);
            px[1] = (unsigned char)(70 + (x * 5 + y) % 20);
            px[2] = 40;
            px[3] = 255;
        } else {
            px[0] = px[1] = px[2] = 0;
            px[3] = (unsigned char)(d >= 8 ? 0 : 200 - d * 25);
        }
    } else {
        /* Colour bands that fade in from clear on the left, with a clear
         * hole in the middle: the background shows through. */
        int cx = x - width / 2, cy = y - height / 2, r = height / 6;
        px[0] = (unsigned char)(255 * x / width);
        px[1] = (unsigned char)(255 * y / height);
        px[2] = (unsigned char)(((x / 40 + y / 40) % 2) ? 230 : 60);
        px[3] = (unsigned char)(cx * cx + cy * cy < r * r ? 0 : 255 * x / width);
    }
}

/* An 8-bit RGBA PNG sample written with libpng: a frame or a picture. */
static int write_png_sample(const char *path, int width, int height, int frame)
{
    FILE *f = fopen(path, "wb");
    if (!f)
        return -1;
    unsigned char *row = malloc((size_t)width * 4);
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, NULL, NULL, NULL);
    png_infop info = png ? png_create_info_struct(png) : NULL;
    if (!row || !info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        free(row);
        fclose(f);
        return -1;
    }
    png_init_io(png, f);
    png_set_IHDR(png, info, (png_uint_32)width, (png_uint_32)height, 8,
                 PNG_COLOR_TYPE_RGB_ALPHA, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x)
            png_sample_pixel(frame, width, height, x, y, row + x * 4);
        png_write_row(png, row);
    }
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    free(row);
    return fclose(f) == 0 ? 0 : -1;
}

int main(int argc, char **argv)
{
    const char *dir = argc > 1 ? argv[1] : "demo-out/photos";
    static const struct {
        const char *name;
        int width, height, grey;
    } samples[] = {
        {"landscape", 4000, 3000, 0},
        {"portrait", 1200, 1600, 0},
        {"panorama", 6000, 400, 0},
        {"grey", 800, 600, 1},
    };
    char path[4096];

    if (snprintf(path, sizeof path, "mkdir -p '%s'", dir) >= (int)sizeof path ||
        system(path) != 0) {
        fprintf(stderr, "cannot create %s\n", dir);
        return 1;
    }
    for (size_t i = 0; i < sizeof samples / sizeof samples[0]; ++i) {
        snprintf(path, sizeof path, "%s/%s.jpg", dir, samples[i].name);
        if (write_sample(path, samples[i].width, samples[i].height, samples[i].grey) != 0) {
            fprintf(stderr, "cannot write %s\n", path);
            return 1;
        }
    }
    /* A PNG with transparency (its thumbnail shows the background colour
     * where it is clear), and a frame with a clear window. */
    snprintf(path, sizeof path, "%s/badge.png", dir);
    if (write_png_sample(path, 640, 480, 0) != 0) {
        fprintf(stderr, "cannot write %s\n", path);
        return 1;
    }
    snprintf(path, sizeof path, "%s/frame.png", dir);
    if (write_png_sample(path, 480, 360, 1) != 0) {
        fprintf(stderr, "cannot write %s\n", path);
        return 1;
    }
    return 0;
}
