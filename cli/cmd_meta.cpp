// qbimage meta: the metadata record of JPEG and RAW files, as aligned text
// or as JSON (keys in metadata_keys.cpp).
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "metadata_keys.h"
#include "util.h"

namespace qbcli {
namespace {

struct MetaOptions {
    std::vector<std::string> files;
    bool json = false, list_keys = false, log = false;
};

int list_keys(bool as_json)
{
    const std::vector<MetaKey> keys = metadata_keys();
    if (as_json) {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const MetaKey &k : keys)
            out.push_back({{"key", k.name}, {"type", k.type}, {"meaning", k.meaning}});
        std::puts(out.dump(2).c_str());
        return kExitOk;
    }
    size_t name_w = 0, type_w = 0;
    for (const MetaKey &k : keys) {
        name_w = std::max(name_w, std::string(k.name).size());
        type_w = std::max(type_w, std::string(k.type).size());
    }
    for (const MetaKey &k : keys)
        std::printf("%-*s  %-*s  %s\n", int(name_w), k.name, int(type_w), k.type, k.meaning);
    return kExitOk;
}

int run_meta(const MetaOptions &o)
{
    const std::string cmd = "meta";
    if (o.list_keys)
        return list_keys(o.json);
    if (o.files.empty()) {
        report(cmd, "no FILE given (see qbimage meta --help)");
        return kExitUsage;
    }
    LibraryLog log(o.log);
    int status = kExitOk;
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    std::string text;
    for (const std::string &file : o.files) {
        if (const std::string problem = input_problem(file); !problem.empty()) {
            report(cmd, file + ": " + problem);
            status = kExitFailed;
            continue;
        }
        const size_t dot = file.rfind('.');
        image_media_type type = IMAGE_MEDIA_UNKNOWN;
        if (dot != std::string::npos)
            type = utils_get_media_type(file.c_str() + dot + 1);
        if (type != IMAGE_MEDIA_JPEG && type != IMAGE_MEDIA_RAW) {
            report(cmd, file + ": metadata is read from JPEG and camera RAW files only "
                               "(by the file name's extension)");
            status = kExitFailed;
            continue;
        }
        image_metadata meta{};  // zero-filled: a field the file lacks stays empty
        const int32_t rc = image_get_metadata(log.ctx(), file.c_str(), type, &meta);
        const std::string lines = log.take_failures();
        if (rc != IMAGE_RC_OK) {
            std::string words = code_words(Call::metadata, rc);
            if (!lines.empty())
                words += " [library: " + lines + "]";
            report(cmd, file + ": " + words);
            status = kExitFailed;
            continue;
        }
        nlohmann::ordered_json object = metadata_json(file, type, meta);
        if (!o.json) {
            if (!text.empty())
                text += '\n';
            text += metadata_text(object);
        }
        all.push_back(std::move(object));
    }
    // Exif texts need not be UTF-8: invalid bytes become U+FFFD.
    const auto replace = nlohmann::ordered_json::error_handler_t::replace;
    if (o.json && o.files.size() == 1 && all.size() == 1)
        std::puts(all[0].dump(2, ' ', false, replace).c_str());
    else if (o.json && o.files.size() > 1)
        std::puts(all.dump(2, ' ', false, replace).c_str());
    else if (!o.json)
        std::fputs(text.c_str(), stdout);
    return status;
}

}  // namespace

void add_meta(CLI::App &app, Runner &run)
{
    auto o = std::make_shared<MetaOptions>();
    CLI::App *sub = app.add_subcommand(
        "meta", "Print the metadata record of JPEG and RAW files: size (upright), "
                "orientation, date, camera, exposure, GPS");
    sub->add_option("FILE", o->files, "JPEG or RAW files");
    sub->add_flag("--json", o->json,
                  "JSON: one object per file, an array for several files; absent values are "
                  "null");
    sub->add_flag("--list-keys", o->list_keys,
                  "Print the keys of the objects, their types and meaning (with --json as "
                  "JSON)");
    add_log_flag(*sub, o->log);
    sub->final_callback([o, &run] { run = [o] { return run_meta(*o); }; });
}

}  // namespace qbcli
