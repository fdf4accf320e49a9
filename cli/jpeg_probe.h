// What the tool itself reads of a JPEG file with libjpeg: its header, for
// the route of a transform and to check an overlay.
#pragma once

#include <string>

namespace qbcli {

struct JpegHeader {
    bool ok = false;
    std::string error;  // libjpeg's words when !ok
    unsigned width = 0;
    unsigned height = 0;
    int components = 0;
    int max_h_samp = 0;  // iMCU = 8 x max_h_samp by 8 x max_v_samp pixels
    int max_v_samp = 0;
};

JpegHeader read_jpeg_header(const std::string &path);

// Whether image_jpeg_transform can take its lossless (coefficient) route
// for this file and transform: the iMCU test the library makes. `why` gets
// the reason in words.
bool transform_is_lossless(const JpegHeader &h, unsigned xform, std::string *why);

}  // namespace qbcli
