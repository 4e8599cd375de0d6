// Runs the zrslice program as a user would, capturing its exit code and
// standard error.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tests/io/file_test_support.h"

namespace zrio {

struct RunResult {
    int exitCode = -1;
    std::string err;
};

// Runs zrslice with `args` (already quoted), capturing standard error.
inline RunResult Zrslice(const std::string& args, const testing::ScratchFolder& dir) {
    const std::string errPath = dir / "stderr.txt";
    const std::string command = std::string(ZRSLICE_PATH) + " --plugin " + ZR_PLUGIN_PATH + " " + args +
                                " >/dev/null 2>" + errPath;
    const int status = std::system(command.c_str());
    RunResult run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream in(errPath);
    std::stringstream text;
    text << in.rdbuf();
    run.err = text.str();
    std::filesystem::remove(errPath);
    return run;
}

inline std::string Quoted(const std::string& s) { return "'" + s + "'"; }

}  // namespace zrio
