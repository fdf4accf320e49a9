// qbimage: a command-line host of libqbimage. It links the shared library
// through its public header only and makes each of its calls by hand.
#include <cstdio>
#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "util.h"

int main(int argc, char **argv)
{
    using namespace qbcli;

    CLI::App app{"qbimage " QBIMAGE_VERSION
                 ": JPEG thumbnails, scaled copies, lossless transforms, RAW previews, "
                 "metadata and framed photos with libqbimage",
                 "qbimage"};
    app.set_version_flag("--version", "qbimage " QBIMAGE_VERSION);
    app.require_subcommand(1);
    app.footer("Run 'qbimage COMMAND --help' for the options of a command.\nExit status: 0 "
               "done, 1 a file failed, 2 wrong usage, 130 interrupted.");

    Runner run;
    add_thumb(app, run);
    add_scale(app, run);
    add_transform(app, run);
    add_meta(app, run);
    add_raw_preview(app, run);
    add_frame(app, run);
    add_batch(app, run);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help and --version end here with 0; every other parse error is
        // a usage error.
        const int rc = app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    if (!run)
        return kExitUsage;

    signals::install();
    try {
        return run();
    } catch (const std::exception &e) {
        report("", std::string("internal error: ") + e.what());
        return kExitFailed;
    }
}
