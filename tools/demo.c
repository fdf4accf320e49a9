/*
 * qbimage-demo: makes a few sample photos (a landscape, a portrait, a
 * panorama and a grey picture) and turns each into a 128 x 128 thumbnail
 * with easy_image_create_thumb. Usage: qbimage-demo [directory]
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qbimage.h"

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

int main(int argc, char **argv)
{
    const char *dir = argc > 1 ? argv[1] : "demo-out";
    static const struct {
        const char *name;
        int width, height, grey;
    } samples[] = {
        {"landscape", 4000, 3000, 0},
        {"portrait", 1200, 1600, 0},
        {"panorama", 6000, 400, 0},
        {"grey", 800, 600, 1},
    };
    char src[4096], dst[4096];
    int failures = 0;

    if (snprintf(src, sizeof src, "mkdir -p '%s'", dir) >= (int)sizeof src ||
        system(src) != 0) {
        fprintf(stderr, "cannot create %s\n", dir);
        return 1;
    }
    for (size_t i = 0; i < sizeof samples / sizeof samples[0]; ++i) {
        snprintf(src, sizeof src, "%s/%s.jpg", dir, samples[i].name);
        snprintf(dst, sizeof dst, "%s/%s.thumb.jpg", dir, samples[i].name);
        if (write_sample(src, samples[i].width, samples[i].height, samples[i].grey) != 0) {
            fprintf(stderr, "cannot write %s\n", src);
            return 1;
        }
        int rc = easy_image_create_thumb(src, dst, 128, 128, 85, 0xFFFFFF);
        printf("%-10s %5d x %-5d -> %s (rc=%d)\n", samples[i].name, samples[i].width,
               samples[i].height, dst, rc);
        failures += rc != 0;
    }
    printf("hardware level %d\n", (int)utils_check_hw());
    return failures ? 1 : 0;
}
