// The one error type of the command-line host for bad input: it names the file
// (or the command-line argument) at fault and says what is wrong, so that main
// can print it as a single line "zrslice: <file>: <what>" and exit with 1.
#pragma once

#include <stdexcept>
#include <string>

namespace zrio {

class InputError : public std::runtime_error {
public:
    InputError(std::string file, const std::string& what)
        : std::runtime_error(what), file_(std::move(file)) {}

    const std::string& File() const { return file_; }
    // "<file>: <what>", or just <what> when no file is known.
    std::string Line() const { return file_.empty() ? what() : file_ + ": " + what(); }

private:
    std::string file_;
};

// Collapses a multi-line library message to its first non-empty line.
std::string FirstLine(const std::string& text);

}  // namespace zrio
