// Reads a JPEG header with libjpeg, silently, with its own jump target.
#include "jpeg_probe.h"

#include <csetjmp>
#include <cstdio>

#include <jpeglib.h>

#include "util.h"

namespace qbcli {
namespace {

struct ProbeError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void probe_error_exit(j_common_ptr cinfo)
{
    auto *err = reinterpret_cast<ProbeError *>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

void probe_quiet(j_common_ptr) {}

// No object with a destructor lives in this frame: it holds the jump target.
bool probe(FILE *file, JpegHeader *out, char *message)
{
    jpeg_decompress_struct cinfo;
    ProbeError err;
    cinfo.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = probe_error_exit;
    err.mgr.output_message = probe_quiet;
    err.message[0] = '\0';
    if (setjmp(err.jump)) {
        std::snprintf(message, JMSG_LENGTH_MAX, "%s", err.message);
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_stdio_src(&cinfo, file);
    jpeg_read_header(&cinfo, TRUE);
    out->width = cinfo.image_width;
    out->height = cinfo.image_height;
    out->components = cinfo.num_components;
    out->max_h_samp = cinfo.max_h_samp_factor;
    out->max_v_samp = cinfo.max_v_samp_factor;
    jpeg_destroy_decompress(&cinfo);
    return true;
}

}  // namespace

JpegHeader read_jpeg_header(const std::string &path)
{
    JpegHeader h;
    if (const std::string problem = input_problem(path); !problem.empty()) {
        h.error = problem;
        return h;
    }
    FILE *file = std::fopen(path.c_str(), "rb");
    if (!file) {
        h.error = "cannot be opened";
        return h;
    }
    char message[JMSG_LENGTH_MAX] = "";
    h.ok = probe(file, &h, message);
    if (!h.ok)
        h.error = message;
    std::fclose(file);
    return h;
}

bool transform_is_lossless(const JpegHeader &h, unsigned xform, std::string *why)
{
    const unsigned iw = unsigned(h.max_h_samp) * 8;
    const unsigned ih = unsigned(h.max_v_samp) * 8;
    const bool whole_cols = iw && h.width % iw == 0;
    const bool whole_rows = ih && h.height % ih == 0;
    const std::string cols = "the width " + std::to_string(h.width) +
                             (whole_cols ? " fills" : " does not fill") + " whole iMCUs of " +
                             std::to_string(iw) + " pixels";
    const std::string rows = "the height " + std::to_string(h.height) +
                             (whole_rows ? " fills" : " does not fill") + " whole iMCUs of " +
                             std::to_string(ih) + " pixels";
    switch (xform) {
    case IMAGE_XFORM_NONE:
    case IMAGE_XFORM_TRANSPOSE:
        *why = xform_name(xform) + " mirrors no edge";
        return true;
    case IMAGE_XFORM_FLIP_H:
    case IMAGE_XFORM_ROT_270:
        *why = xform_name(xform) + " mirrors the columns and " + cols;
        return whole_cols;
    case IMAGE_XFORM_FLIP_V:
    case IMAGE_XFORM_ROT_90:
        *why = xform_name(xform) + " mirrors the rows and " + rows;
        return whole_rows;
    case IMAGE_XFORM_TRANSVERSE:
    case IMAGE_XFORM_ROT_180:
        *why = xform_name(xform) + " mirrors both axes: " + cols + ", " + rows;
        return whole_cols && whole_rows;
    default:
        *why = "no such transform";
        return false;
    }
}

}  // namespace qbcli
