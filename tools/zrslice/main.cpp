// zrslice: the command-line host. Loads the render plug-in as a host does
// (dlopen and its seven exports, never by linking), builds a scene from a
// request file or the built-in phantoms, runs the requests and writes what came
// out.
//
//   zrslice render REQUEST.json -o OUT.png   one request file
//   zrslice info FILE [--series S] [--frame N]  what a volume or mesh file holds
//   zrslice demo -o DIR                      the gallery, from the phantoms
//   zrslice view FILE|FOLDER|phantom         the viewer, in a browser
//
// Exit codes: 0 done, 1 bad input (one line "zrslice: <file>: <what>" on
// standard error), 2 usage.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "demo.h"
#include "io/diagnostics.h"
#include "io/info.h"
#include "io/input_error.h"
#include "io/load_progress.h"
#include "io/render_run.h"
#include "view/view_command.h"

namespace {

int Fail(const std::string& line) {
    std::fprintf(stderr, "zrslice: %s\n", line.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"zrslice: command-line host of the CPU sectional render plug-in"};
    app.require_subcommand(1);
    std::string plugin = zrio::DefaultPluginPath();
    bool quiet = false, verbose = false;
    double progressAfter = 1.0;
    app.add_option("--plugin", plugin, "plug-in library to load (default: beside this program)");
    app.add_flag("-q,--quiet", quiet, "no progress lines");
    app.add_option("--progress-after", progressAfter,
                   "on a terminal, a progress line for every file load that takes longer than this (seconds, "
                   "default 1)")
        ->check(CLI::NonNegativeNumber);
    app.add_flag("--verbose", verbose, "let the file-reading libraries print their own diagnostics");

    std::string requestPath, out;
    bool strict = false;
    auto* render = app.add_subcommand("render", "run the requests of a request file and write the picture");
    render->add_flag("--strict", strict, "refuse (exit 1, nothing written) when a warning is given");
    render->add_option("REQUEST", requestPath, "request file (JSON)")->required();
    render->add_option("-o,--output", out, "picture to write (.png); the values and lists go beside it")->required();

    std::string infoPath;
    zrio::VolumeChoice infoChoice;
    int infoFrame = -1;
    auto* info = app.add_subcommand("info", "describe a volume or mesh file");
    info->add_option("FILE", infoPath, "volume file, DICOM folder or mesh file")->required();
    info->add_option("--series", infoChoice.series,
                     "the DICOM series or part to describe: a series number or UID, or a label from the list");
    info->add_option("--frame", infoFrame, "the time point of a 4-D file to describe (from 0)")
        ->check(CLI::NonNegativeNumber);

    std::string demoFolder = "out/demo";
    int demoSize = 256;
    auto* demo = app.add_subcommand("demo", "render the gallery of built-in examples");
    demo->add_option("-o,--output", demoFolder, "folder for the pictures (default out/demo)");
    demo->add_option("--size", demoSize, "picture size in pixels (default 256)")->check(CLI::Range(16, 2048));

    zrview::ViewOptions viewOptions;
    auto* view = app.add_subcommand("view", "explore a volume in the browser: serves a local page rendered by the plug-in");
    view->add_option("SOURCE", viewOptions.sources.volume,
                     "volume file, DICOM folder, or \"phantom\" for the built-in head")
        ->required();
    view->add_option("--series", viewOptions.sources.series, "the DICOM series or part to show (see zrslice info)");
    view->add_option("--mesh", viewOptions.sources.meshes, "mesh file to cut with every view (repeatable)");
    view->add_option("--labels", viewOptions.sources.labels, "label volume on the same grid (mask or overlay)");
    view->add_option("--port", viewOptions.port, "port to listen on (default 8765; 0: any free port)")
        ->check(CLI::Range(0, 65535));
    view->add_option("--host", viewOptions.host, "address to listen on (default 127.0.0.1, this machine only)");
    view->add_option("--save-dir", viewOptions.saveFolder,
                     "folder where \"Save request\" writes view-NNN.json and .png (default: here)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        // Help is a success; every other parse problem is a usage error.
        return code == 0 ? 0 : 2;
    }

    zrio::ShowLibraryDiagnostics(verbose);
    // A line rewritten in place is for a person watching a terminal, never for
    // a log or a pipe.
    zrio::ShowLoadProgress(!quiet && isatty(STDERR_FILENO), "zrslice: ", progressAfter);
    try {
        if (*info) {
            if (infoFrame >= 0) infoChoice.frame = infoFrame;
            std::fputs(zrio::DescribeFile(infoPath, infoChoice).c_str(), stdout);
            return 0;
        }
        zrio::PluginSession session(plugin);
        if (*view) {
            viewOptions.quiet = quiet;
            return zrview::RunViewer(viewOptions, session);
        }
        if (*render) {
            const zrio::RequestFile file = zrio::ParseRequestFile(requestPath);
            auto progress = [&](size_t k, size_t n, const std::string& source) {
                if (!quiet && n > 1) std::fprintf(stderr, "zrslice: request %zu/%zu %s\n", k + 1, n, source.c_str());
            };
            const zrio::RenderOutput output = zrio::RunRequestFile(file, session, progress);
            for (const std::string& warning : output.warnings)
                std::fprintf(stderr, "zrslice: warning: %s: %s\n", requestPath.c_str(), warning.c_str());
            if (strict && !output.warnings.empty())
                return Fail(requestPath + ": refused under --strict: " + std::to_string(output.warnings.size()) +
                            " warning(s) above");
            const zrio::OutputPaths paths = zrio::OutputPathsFor(out);
            zrio::WriteRenderOutput(output, paths);
            if (!quiet) std::fprintf(stderr, "zrslice: wrote %s\n", paths.picture.c_str());
            return 0;
        }
        zrslice::RunDemo(demoFolder, session, demoSize, quiet);
        if (!quiet)
            std::fprintf(stderr, "zrslice: demo pictures in %s (contact-sheet.png shows them all)\n", demoFolder.c_str());
        return 0;
    } catch (const zrio::InputError& e) {
        return Fail(e.Line());
    } catch (const zrobjects::PluginLoadError& e) {
        return Fail(e.what());
    } catch (const std::bad_alloc&) {
        return Fail("out of memory");
    } catch (const std::exception& e) {
        return Fail(e.what());
    }
}
