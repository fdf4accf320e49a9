/* The public header compiles as C99 and its names link from C. The layout
 * of image_metadata is asserted in the header wherever static assertions
 * exist (C++, C11); here, the records it does not assert and its size. */
#include <stddef.h>
#include <stdio.h>

#include "qbimage.h"

#define CHECK(cond)                                                        \
    do {                                                                   \
        if (!(cond)) {                                                     \
            fprintf(stderr, "c_header: %s failed\n", #cond);               \
            return 1;                                                      \
        }                                                                  \
    } while (0)

int main(void)
{
    image_ctx ctx = {NULL, NULL, NULL, NULL, 0, 1, 2, 3};
    image_metadata meta = {0};
    CHECK(offsetof(image_scale_params, max_aspect) == 16);
    CHECK(sizeof(image_crop) == 16);
    CHECK(offsetof(image_overlay, position) == 16);
    CHECK(offsetof(image_jcache, scale_num) == sizeof(struct jpeg_decompress_struct));
    CHECK(sizeof(image_metadata) == 1412 && offsetof(image_metadata, iso_valid) == 1218);
    CHECK(image_orientation2xform[6] == IMAGE_XFORM_ROT_90);
    CHECK(image_reverse_xform_table[5] == IMAGE_XFORM_ROT_270);
    CHECK(image_xform_xform_table[1][3] == 7);
    CHECK(utils_get_media_type("JPG") == IMAGE_MEDIA_JPEG);
    CHECK(image_metadata_get_xml_using_libexiv2(NULL, NULL, 0, NULL, NULL) == -1);
    /* The entry refuses a missing file with 9. */
    CHECK(image_get_metadata(&ctx, "/nonexistent/a.jpg", IMAGE_MEDIA_JPEG, &meta) == 9);
    printf("c_header: ok\n");
    return 0;
}
