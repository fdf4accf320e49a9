// The exported transform tables: Exif orientation to transform code, the
// composition of two codes, and the inverse of each code.
#include "qbimage.h"

extern "C" {

const uint32_t image_orientation2xform[9] = {0, 0, 1, 6, 2, 3, 5, 4, 7};

const uint8_t image_xform_xform_table[8][8] = {
    {0, 1, 2, 3, 4, 5, 6, 7}, {1, 0, 6, 7, 5, 4, 2, 3},
    {2, 6, 0, 5, 7, 3, 1, 4}, {3, 5, 7, 0, 6, 1, 4, 2},
    {4, 7, 5, 6, 0, 2, 3, 1}, {5, 3, 4, 2, 1, 6, 7, 0},
    {6, 2, 1, 4, 3, 7, 0, 5}, {7, 4, 3, 1, 2, 0, 5, 6},
};

const uint8_t image_reverse_xform_table[8] = {0, 1, 2, 3, 4, 7, 6, 5};

}  // extern "C"
