// The one-file subcommands: thumb, transform, raw-preview and frame. Each
// checks its inputs, stages its output, makes one library call and says in
// words what went wrong.
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "jpeg_probe.h"
#include "util.h"

namespace qbcli {
namespace {

// The media type of a path by its extension, as the library sees it.
image_media_type media_of(const std::string &path)
{
    const size_t dot = path.rfind('.');
    if (dot == std::string::npos)
        return IMAGE_MEDIA_UNKNOWN;
    return utils_get_media_type(path.c_str() + dot + 1);
}

// Common checks of one input and one output; false after reporting.
bool check_in_out(const std::string &cmd, const std::string &in, const std::string &out)
{
    if (const std::string problem = input_problem(in); !problem.empty()) {
        report(cmd, in + ": " + problem);
        return false;
    }
    if (out != "-" && same_file(in, out)) {
        report(cmd, out + ": is the input file itself; refusing to overwrite it");
        return false;
    }
    return true;
}

bool stage(const std::string &cmd, StagedOutput &output, const std::string &path,
           bool call_writes_stdout)
{
    std::string error;
    if (output.open(path, call_writes_stdout, &error))
        return true;
    report(cmd, path + ": " + error);
    return false;
}

int finish(const std::string &cmd, StagedOutput &output, const std::string &path)
{
    std::string error;
    if (output.commit(&error))
        return kExitOk;
    report(cmd, path + ": " + error);
    return kExitFailed;
}

// ---------------------------------------------------------------------------
// thumb

struct ThumbOptions {
    std::string in, out, size = "128x128", background = "FFFFFF";
    int quality = 85;
    bool log = false;
};

int run_thumb(const ThumbOptions &o)
{
    const std::string cmd = "thumb";
    const auto size = parse_size(o.size, false);
    const auto colour = parse_colour(o.background);
    if (!size || !colour) {
        report(cmd, !size ? "--size: expected WxH with positive sides, got '" + o.size + "'"
                          : "--background: expected RRGGBB in hex, got '" + o.background + "'");
        return kExitUsage;
    }
    if (!check_in_out(cmd, o.in, o.out))
        return kExitFailed;
    LibraryLog log(o.log);
    const image_media_type type = media_of(o.in);
    if (o.log && (type == IMAGE_MEDIA_JPEG || type == IMAGE_MEDIA_RAW)) {
        // The thumbnail entry reads the orientation through a silent record
        // of its own; the same read through ours shows its lines.
        image_metadata meta{};
        image_get_metadata(log.ctx(), o.in.c_str(), type, &meta);
        log.take_failures();
    } else if (o.log) {
        report(cmd, "note: the thumbnail entry logs nothing of its own; its code is all it reports");
    }
    StagedOutput output;
    if (!stage(cmd, output, o.out, true))
        return kExitFailed;
    const int32_t rc = easy_image_create_thumb(o.in.c_str(), output.path(), size->width,
                                               size->height, o.quality, *colour);
    if (rc != IMAGE_RC_OK) {
        report(cmd, o.in + ": " + code_words(Call::thumb, rc));
        return kExitFailed;
    }
    return finish(cmd, output, o.out);
}

// ---------------------------------------------------------------------------
// transform

struct TransformOptions {
    std::string in, out, crop;
    int xform = 0;
    int quality = 85;
    bool verbose = false, log = false;
};

int run_transform(const TransformOptions &o)
{
    const std::string cmd = "transform";
    image_crop crop{};
    if (!o.crop.empty()) {
        const auto r = parse_rect(o.crop);
        if (!r) {
            report(cmd, "--crop: expected X,Y,W,H as non-negative numbers, got '" + o.crop + "'");
            return kExitUsage;
        }
        crop = image_crop{(*r)[0], (*r)[1], (*r)[2], (*r)[3]};
    }
    if (!check_in_out(cmd, o.in, o.out))
        return kExitFailed;
    if (o.log)
        report(cmd, "note: image_jpeg_transform takes no log record; its code is all it reports");
    if (o.verbose) {
        // The library picks the route by the same test on the header.
        const JpegHeader h = read_jpeg_header(o.in);
        if (!h.ok) {
            report(cmd, o.in + ": cannot read the JPEG header: " + h.error);
        } else {
            std::string why;
            const bool lossless = transform_is_lossless(h, unsigned(o.xform), &why);
            std::string line = o.in + ": " + std::to_string(h.width) + "x" +
                               std::to_string(h.height) + ", iMCU " +
                               std::to_string(h.max_h_samp * 8) + "x" +
                               std::to_string(h.max_v_samp * 8) + "; " + why + ": ";
            line += lossless ? "lossless (DCT blocks moved, quality ignored)"
                             : "re-encoded at quality " + std::to_string(o.quality) +
                                   " (through pixels)";
            if (!o.crop.empty())
                line += lossless ? "; the crop is taken from the turned picture, its left "
                                   "and top edges moved out to the iMCU grid"
                                 : "; the crop is taken from the source before turning, "
                                   "and dropped if it reaches the right or bottom edge";
            report(cmd, line);
        }
    }
    StagedOutput output;
    if (!stage(cmd, output, o.out, false))
        return kExitFailed;
    const int32_t rc = image_jpeg_transform(o.in.c_str(), output.path(), uint32_t(o.xform),
                                            o.crop.empty() ? nullptr : &crop, o.quality);
    if (rc != 0) {
        report(cmd, o.in + ": " + code_words(Call::transform, rc));
        return kExitFailed;
    }
    return finish(cmd, output, o.out);
}

// ---------------------------------------------------------------------------
// raw-preview

struct RawOptions {
    std::string in, out;
    bool force_decode = false, log = false;
    int xform = 0;
    int quality = 85;
};

int run_raw_preview(const RawOptions &o)
{
    const std::string cmd = "raw-preview";
    if (!check_in_out(cmd, o.in, o.out))
        return kExitFailed;
    if (o.log)
        report(cmd, "note: image_raw_to_preview_jpeg takes no log record; its code is all it "
                    "reports");
    StagedOutput output;
    if (!stage(cmd, output, o.out, false))
        return kExitFailed;
    const int32_t rc = image_raw_to_preview_jpeg(o.in.c_str(), output.path(),
                                                 o.force_decode ? 1 : 0, o.xform, o.quality);
    if (rc != 0) {
        report(cmd, o.in + ": " + code_words(Call::raw_preview, rc));
        return kExitFailed;
    }
    return finish(cmd, output, o.out);
}

// ---------------------------------------------------------------------------
// frame

struct FrameOptions {
    std::string frame, photo, out, box;
    bool log = false;
};

int run_frame(const FrameOptions &o)
{
    const std::string cmd = "frame";
    const auto box = parse_rect(o.box);
    if (!box) {
        report(cmd, "--box: expected X,Y,W,H as non-negative numbers, got '" + o.box + "'");
        return kExitUsage;
    }
    if (!check_in_out(cmd, o.frame, o.out) || !check_in_out(cmd, o.photo, o.out))
        return kExitFailed;
    LibraryLog log(o.log);
    StagedOutput output;
    if (!stage(cmd, output, o.out, false))
        return kExitFailed;
    const int32_t rc = image_create_framed_image(
        log.ctx(), o.frame.c_str(), o.photo.c_str(), output.path(), uint32_t((*box)[0]),
        uint32_t((*box)[1]), uint32_t((*box)[2]), uint32_t((*box)[3]));
    if (rc != IMAGE_RC_OK) {
        // The library's line ends in rc=-1 (frame, box or output) or rc=-2
        // (photo).
        const std::string lines = log.take_failures();
        std::string words = code_words(Call::frame, rc);
        if (lines.find("rc=-1") != std::string::npos)
            words = "the frame cannot be read as a PNG, the box is empty or not inside it, "
                    "or the output cannot be written; " + words;
        else if (lines.find("rc=-2") != std::string::npos)
            words = "the photo cannot be read as a JPEG, or is refused; " + words;
        report(cmd, o.frame + " + " + o.photo + ": " + words);
        return kExitFailed;
    }
    return finish(cmd, output, o.out);
}

}  // namespace

void add_thumb(CLI::App &app, Runner &run)
{
    auto o = std::make_shared<ThumbOptions>();
    CLI::App *sub = app.add_subcommand(
        "thumb", "Make the one-call thumbnail of a JPEG, PNG or RAW file: fitted into the "
                 "box, upright, padded with white");
    sub->add_option("IN", o->in, "Source photo (its extension picks the route)")->required();
    sub->add_option("OUT", o->out, "JPEG to write, or - for standard output")->required();
    sub->add_option("--size", o->size, "Box of the thumbnail, WxH")->capture_default_str();
    sub->add_option("--quality", o->quality, "JPEG quality")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    sub->add_option("--background", o->background,
                    "PNG only: colour under transparent pixels, RRGGBB")
        ->capture_default_str();
    add_log_flag(*sub, o->log);
    sub->final_callback([o, &run] { run = [o] { return run_thumb(*o); }; });
}

void add_transform(CLI::App &app, Runner &run)
{
    auto o = std::make_shared<TransformOptions>();
    CLI::App *sub = app.add_subcommand(
        "transform", "Rotate, flip or crop a JPEG, losslessly where its block grid allows");
    sub->add_option("IN", o->in, "Source JPEG")->required();
    sub->add_option("OUT", o->out, "JPEG to write, or - for standard output")->required();
    sub->add_option("--xform", o->xform, "Transform: 0-7 or a name")
        ->required()
        ->transform(CLI::CheckedTransformer(xform_names(), CLI::ignore_case));
    sub->add_option("--crop", o->crop,
                    "X,Y,W,H: on the lossless route a rectangle of the turned picture, "
                    "otherwise of the source");
    sub->add_option("--quality", o->quality, "JPEG quality when re-encoded")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    sub->add_flag("--verbose", o->verbose, "Say which route the library takes, and why");
    add_log_flag(*sub, o->log);
    sub->final_callback([o, &run] { run = [o] { return run_transform(*o); }; });
}

void add_raw_preview(CLI::App &app, Runner &run)
{
    auto o = std::make_shared<RawOptions>();
    CLI::App *sub = app.add_subcommand(
        "raw-preview", "Write a JPEG of a camera RAW file: its embedded preview of 1920 "
                       "pixels or more, else the demosaiced sensor data at full size");
    sub->add_option("IN", o->in, "Camera RAW file")->required();
    sub->add_option("OUT", o->out, "JPEG to write, or - for standard output")->required();
    sub->add_flag("--force-decode", o->force_decode, "Never use the embedded preview");
    sub->add_option("--xform", o->xform,
                    "Transform of a decoded picture: 0-7 or a name (not applied to an "
                    "embedded preview; none and flip-h leave it as stored)")
        ->transform(CLI::CheckedTransformer(xform_names(), CLI::ignore_case));
    sub->add_option("--quality", o->quality, "JPEG quality of a decoded picture")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    add_log_flag(*sub, o->log);
    sub->final_callback([o, &run] { run = [o] { return run_raw_preview(*o); }; });
}

void add_frame(CLI::App &app, Runner &run)
{
    auto o = std::make_shared<FrameOptions>();
    CLI::App *sub = app.add_subcommand(
        "frame", "Lay a JPEG photo under a PNG frame's transparency; writes a PNG of the "
                 "frame's size");
    sub->add_option("FRAME", o->frame, "PNG frame")->required();
    sub->add_option("PHOTO", o->photo, "JPEG photo")->required();
    sub->add_option("OUT", o->out, "PNG to write, or - for standard output")->required();
    sub->add_option("--box", o->box,
                    "X,Y,W,H in frame pixels: where the photo goes, scaled to width W")
        ->required();
    add_log_flag(*sub, o->log);
    sub->final_callback([o, &run] { run = [o] { return run_frame(*o); }; });
}

}  // namespace qbcli
