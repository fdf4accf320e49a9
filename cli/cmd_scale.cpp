// qbimage scale: several sizes of one JPEG from one decode cache, the way
// a host drives image_jpeg_scale.
#include <csetjmp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "jpeg_probe.h"
#include "util.h"

namespace qbcli {
namespace {

// The host's libjpeg error record: the manager, then the jump buffer, and
// room for libjpeg's message, which the tool quotes.
struct HostJpegError {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void host_error_exit(j_common_ptr cinfo)
{
    auto *err = reinterpret_cast<HostJpegError *>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

void host_quiet(j_common_ptr) {}

// One request, in plain data: the decode below holds a jump target, so its
// frame and what it calls hold no object with a destructor.
struct Request {
    const char *output;
    image_scale_params params;
    int32_t result;
};

struct Job {
    const char *input;
    image_xform xform;
    const char *thumb_path;
    const image_overlay *overlay;  // copied per call: the library clamps it in place
};

// Opens the input twice, reads the header into one cache and runs the
// requests in order. Returns false on a fatal libjpeg error (message in
// `message`) or when the input cannot be opened.
bool scale_from_one_decode(const Job &job, Request *requests, size_t count, char *message)
{
    image_jcache cache;
    HostJpegError err;
    FILE *volatile first = std::fopen(job.input, "rb");
    FILE *volatile second = nullptr;
    volatile bool ok = true;
    if (!first) {
        std::snprintf(message, JMSG_LENGTH_MAX, "cannot be opened");
        return false;
    }
    err.message[0] = '\0';
    image_jpeg_jcache_init(&cache, &err.mgr);
    err.mgr.error_exit = host_error_exit;
    err.mgr.output_message = host_quiet;  // warnings of a damaged file: not ours to print
    if (setjmp(err.jump)) {
        std::snprintf(message, JMSG_LENGTH_MAX, "%s", err.message);
        ok = false;
    } else {
        jpeg_create_decompress(&cache.cinfo);
        jpeg_stdio_src(&cache.cinfo, first);
        jpeg_save_markers(&cache.cinfo, JPEG_APP0 + 2, 0xFFFF);  // an Adobe RGB profile
        jpeg_read_header(&cache.cinfo, TRUE);
        second = std::fopen(job.input, "rb");  // rewound for a decode at another scale
        if (!second) {
            std::snprintf(message, JMSG_LENGTH_MAX, "cannot be opened a second time");
            ok = false;
        }
        const image_hw_level level = utils_check_hw();
        for (size_t i = 0; ok && i < count; ++i) {
            image_overlay overlay{};
            if (job.overlay)
                overlay = *job.overlay;
            requests[i].result =
                image_jpeg_scale(level, &cache, second, requests[i].output, job.xform,
                                 &requests[i].params, job.thumb_path,
                                 job.overlay ? &overlay : nullptr);
        }
    }
    jpeg_destroy_decompress(&cache.cinfo);
    image_jpeg_jcache_clean(&cache);
    std::fclose(first);
    if (second)
        std::fclose(second);
    return ok;
}

struct ScaleOptions {
    std::string in;
    std::vector<std::string> outputs;
    int mode = -1;
    int xform = 0;
    int quality = 85;
    double max_aspect = 10.0;
    bool full_chroma = false, log = false;
    std::string exif_thumb, overlay;
    double opacity = 1.0;
    int position = 8;
};

// Modes fit-width and fit-height read one side of the box and ignore the
// other, but the library refuses an empty box: a 0 given for the ignored
// side becomes the read side's value. Which side is read turns with a
// transform that exchanges width and height.
void fill_ignored_side(image_scale_params *p, image_xform xform)
{
    if (p->mode != IMAGE_SCALE_FIT_WIDTH && p->mode != IMAGE_SCALE_FIT_HEIGHT)
        return;
    const bool exchanged = xform == IMAGE_XFORM_TRANSPOSE || xform == IMAGE_XFORM_TRANSVERSE ||
                           xform == IMAGE_XFORM_ROT_90 || xform == IMAGE_XFORM_ROT_270;
    const bool reads_width = (p->mode == IMAGE_SCALE_FIT_WIDTH) != exchanged;
    int32_t &read = reads_width ? p->width : p->height;
    int32_t &ignored = reads_width ? p->height : p->width;
    if (ignored == 0)
        ignored = read;
}

// An Exif block holds at most 65533 bytes, 118 of which the stamp needs.
constexpr long kMaxExifThumb = 65415;

int run_scale(const ScaleOptions &o)
{
    const std::string cmd = "scale";
    struct Target {
        Size size;
        std::string path;
        StagedOutput staged;
    };
    std::vector<Target> targets;
    for (const std::string &arg : o.outputs) {
        const size_t colon = arg.find(':');
        const auto size =
            colon == std::string::npos ? std::nullopt : parse_size(arg.substr(0, colon), true);
        if (!size || colon + 1 >= arg.size()) {
            report(cmd, "'" + arg + "': expected WxH:OUT, e.g. 640x480:big.jpg or 160x160:-");
            return kExitUsage;
        }
        targets.push_back(Target{*size, arg.substr(colon + 1), StagedOutput()});
    }
    if (const std::string problem = input_problem(o.in); !problem.empty()) {
        report(cmd, o.in + ": " + problem);
        return kExitFailed;
    }
    for (const Target &t : targets)
        if (t.path != "-" && same_file(o.in, t.path)) {
            report(cmd, t.path + ": is the input file itself; refusing to overwrite it");
            return kExitFailed;
        }
    if (!o.exif_thumb.empty()) {
        if (const std::string problem = input_problem(o.exif_thumb); !problem.empty()) {
            report(cmd, o.exif_thumb + ": " + problem);
            return kExitFailed;
        }
        FILE *f = std::fopen(o.exif_thumb.c_str(), "rb");
        long size = -1;
        if (f && std::fseek(f, 0, SEEK_END) == 0)
            size = std::ftell(f);
        if (f)
            std::fclose(f);
        if (size > kMaxExifThumb) {
            report(cmd, o.exif_thumb + ": " + std::to_string(size) +
                            " bytes, more than the " + std::to_string(kMaxExifThumb) +
                            " an Exif block can hold");
            return kExitFailed;
        }
    }
    JpegHeader overlay_header;
    if (!o.overlay.empty()) {
        overlay_header = read_jpeg_header(o.overlay);
        if (!overlay_header.ok) {
            report(cmd, o.overlay + ": not a JPEG the overlay can use: " + overlay_header.error);
            return kExitFailed;
        }
    }
    if (o.log)
        report(cmd, "note: image_jpeg_scale takes no log record; its code is all it reports");

    std::vector<Request> requests;
    for (Target &t : targets) {
        std::string error;
        if (!t.staged.open(t.path, true, &error)) {
            report(cmd, t.path + ": " + error);
            return kExitFailed;
        }
        image_scale_params params{image_scale_mode(o.mode), t.size.width, t.size.height,
                                  o.max_aspect, o.quality, o.full_chroma ? 1 : 0, 0};
        fill_ignored_side(&params, image_xform(o.xform));
        requests.push_back(Request{t.staged.path(), params, 0});
    }

    image_overlay overlay{o.overlay.c_str(), o.opacity, o.position};
    const Job job{o.in.c_str(), image_xform(o.xform),
                  o.exif_thumb.empty() ? nullptr : o.exif_thumb.c_str(),
                  o.overlay.empty() ? nullptr : &overlay};
    char message[JMSG_LENGTH_MAX] = "";
    bool decoded = true;
    if (job.overlay) {
        // The overlay is painted into the picture it is given, which can be
        // the cache's own rows: each size then gets a decode of its own, so
        // that no size shows the overlay of another.
        for (size_t i = 0; decoded && i < requests.size(); ++i)
            decoded = scale_from_one_decode(job, &requests[i], 1, message);
    } else {
        decoded = scale_from_one_decode(job, requests.data(), requests.size(), message);
    }
    if (!decoded) {
        report(cmd, o.in + ": not a JPEG the decoder can read: " + std::string(message));
        return kExitFailed;
    }

    int status = kExitOk;
    for (size_t i = 0; i < targets.size(); ++i) {
        const Target &t = targets[i];
        const std::string what = std::to_string(t.size.width) + "x" +
                                 std::to_string(t.size.height) + ":" + t.path;
        if (requests[i].result != 0) {
            report(cmd, o.in + " -> " + what + ": " + code_words(Call::scale, requests[i].result));
            status = kExitFailed;
            continue;
        }
        std::string error;
        if (!targets[i].staged.commit(&error)) {
            report(cmd, what + ": " + error);
            status = kExitFailed;
            continue;
        }
        if (job.overlay && t.path != "-") {
            // The library leaves out an overlay it cannot lay: say so.
            const JpegHeader out = read_jpeg_header(t.path);
            if (out.ok && (overlay_header.width > out.width || overlay_header.height > out.height ||
                           overlay_header.components != out.components))
                report(cmd, "warning: " + what + ": overlay " + std::to_string(overlay_header.width) +
                                "x" + std::to_string(overlay_header.height) +
                                " left out: it must be no larger than the picture and have "
                                "its colour components");
        }
    }
    return status;
}

}  // namespace

void add_scale(CLI::App &app, Runner &run)
{
    auto o = std::make_shared<ScaleOptions>();
    CLI::App *sub = app.add_subcommand(
        "scale", "Several sizes of one JPEG from one decode cache, each to its own file");
    sub->add_option("IN", o->in, "Source JPEG")->required();
    sub->add_option("SIZES", o->outputs,
                    "WxH:OUT, one or more; OUT - is standard output. W and H are the box "
                    "of the finished (turned) picture; fit-width and fit-height read one "
                    "side (the one lying along the source's width or height) and the other "
                    "may be 0")
        ->required();
    sub->add_option("--mode", o->mode, "Size mode: 0-6 or a name")
        ->required()
        ->transform(CLI::CheckedTransformer(mode_names(), CLI::ignore_case));
    sub->add_option("--xform", o->xform, "Transform after scaling: 0-7 or a name")
        ->transform(CLI::CheckedTransformer(xform_names(), CLI::ignore_case));
    sub->add_option("--quality", o->quality, "JPEG quality")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    sub->add_option("--max-aspect", o->max_aspect,
                    "Modes fit-box and fit-box-pad: longest side over shortest before the "
                    "picture is cut")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    sub->add_flag("--full-chroma", o->full_chroma, "No chroma subsampling (4:4:4)");
    sub->add_option("--exif-thumb", o->exif_thumb,
                    "Small JPEG to embed as the Exif thumbnail of every output");
    auto *overlay = sub->add_option("--overlay", o->overlay,
                                    "JPEG laid over every output (no larger than it, same "
                                    "colour components; else left out)");
    sub->add_option("--opacity", o->opacity, "Opacity of the overlay, 0 to 1")
        ->check(CLI::Range(0.0, 1.0))
        ->needs(overlay)
        ->capture_default_str();
    sub->add_option("--position", o->position, "Place of the overlay: 0-8 or a name")
        ->transform(CLI::CheckedTransformer(position_names(), CLI::ignore_case))
        ->needs(overlay)
        ->capture_default_str();
    add_log_flag(*sub, o->log);
    sub->footer(
        "Modes: fit-width (0), fit-height (1), fill-corner (2), fill-corner-pad (3), fit-box "
        "(4), fit-box-pad (5), fill-centre (6).\nTransforms: none (0), flip-h (1), flip-v (2), "
        "transpose (3), transverse (4), rot90 (5), rot180 (6), rot270 (7).\nPositions: "
        "top-left (0) ... centre (4) ... bottom-right (8).");
    sub->final_callback([o, &run] { run = [o] { return run_scale(*o); }; });
}

}  // namespace qbcli
