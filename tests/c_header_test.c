/* The public header compiles as C99, and its records keep their layout. */
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
    CHECK(offsetof(image_scale_params, max_aspect) == 16);
    CHECK(sizeof(image_crop) == 16);
    CHECK(offsetof(image_overlay, position) == 16);
    CHECK(offsetof(image_jcache, scale_num) == sizeof(struct jpeg_decompress_struct));
    CHECK(image_orientation2xform[6] == IMAGE_XFORM_ROT_90);
    CHECK(image_reverse_xform_table[5] == IMAGE_XFORM_ROT_270);
    CHECK(image_xform_xform_table[1][3] == 7);
    CHECK(utils_get_media_type("JPG") == IMAGE_MEDIA_JPEG);
    CHECK(image_metadata_get_xml_using_libexiv2(NULL, NULL, 0, NULL, NULL) == -1);
    /* image_metadata: hosts read it byte for byte. */
    CHECK(sizeof(image_rational) == 8);
    CHECK(offsetof(image_rational, denominator) == 4);
    CHECK(offsetof(image_metadata, orientation) == 0);
    CHECK(offsetof(image_metadata, orientation_valid) == 2);
    CHECK(offsetof(image_metadata, date_time) == 4);
    CHECK(offsetof(image_metadata, sub_sec) == 28);
    CHECK(offsetof(image_metadata, width) == 32);
    CHECK(offsetof(image_metadata, height) == 36);
    CHECK(offsetof(image_metadata, reserved_text) == 40);
    CHECK(offsetof(image_metadata, description) == 296);
    CHECK(offsetof(image_metadata, make) == 552);
    CHECK(offsetof(image_metadata, model) == 808);
    CHECK(offsetof(image_metadata, reserved_block) == 1064);
    CHECK(offsetof(image_metadata, exposure_time) == 1192);
    CHECK(offsetof(image_metadata, f_number) == 1200);
    CHECK(offsetof(image_metadata, focal_length) == 1208);
    CHECK(offsetof(image_metadata, iso) == 1216);
    CHECK(offsetof(image_metadata, iso_valid) == 1218);
    CHECK(offsetof(image_metadata, flash) == 1220);
    CHECK(offsetof(image_metadata, flash_valid) == 1222);
    CHECK(offsetof(image_metadata, exposure_program) == 1224);
    CHECK(offsetof(image_metadata, exposure_program_valid) == 1226);
    CHECK(offsetof(image_metadata, metering_mode) == 1228);
    CHECK(offsetof(image_metadata, metering_mode_valid) == 1230);
    CHECK(offsetof(image_metadata, white_balance) == 1232);
    CHECK(offsetof(image_metadata, white_balance_valid) == 1234);
    CHECK(offsetof(image_metadata, aperture_value) == 1236);
    CHECK(offsetof(image_metadata, aperture_value_valid) == 1238);
    CHECK(offsetof(image_metadata, shutter_speed_value) == 1240);
    CHECK(offsetof(image_metadata, shutter_speed_value_valid) == 1242);
    CHECK(offsetof(image_metadata, gps_latitude) == 1244);
    CHECK(offsetof(image_metadata, gps_latitude_valid) == 1248);
    CHECK(offsetof(image_metadata, gps_longitude) == 1252);
    CHECK(offsetof(image_metadata, gps_longitude_valid) == 1256);
    CHECK(offsetof(image_metadata, gps_altitude) == 1260);
    CHECK(offsetof(image_metadata, gps_altitude_valid) == 1264);
    CHECK(offsetof(image_metadata, reserved_tail) == 1266);
    CHECK(sizeof(((image_metadata *)0)->reserved_tail) == 146);
    CHECK(sizeof(image_metadata) == 1412);
    {
        /* The entry links from C and refuses a missing file with 9. */
        image_ctx ctx = {NULL, NULL, NULL, NULL, 0, 1, 2, 3};
        image_metadata meta = {0};
        CHECK(image_get_metadata(&ctx, "/nonexistent/a.jpg", IMAGE_MEDIA_JPEG, &meta) == 9);
    }
    printf("c_header: ok\n");
    return 0;
}
