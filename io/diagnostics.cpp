#include "diagnostics.h"

#include <atomic>
#include <iostream>
#include <streambuf>

namespace zrio {

namespace {

std::atomic<bool> shown{false};

// Swallows everything written to it.
class NullBuffer : public std::streambuf {
protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

}  // namespace

void ShowLibraryDiagnostics(bool value) { shown = value; }
bool LibraryDiagnosticsShown() { return shown; }

QuietLibraries::QuietLibraries() {
    if (shown) return;
    static NullBuffer null;
    saved_ = std::cerr.rdbuf(&null);
}

QuietLibraries::~QuietLibraries() {
    if (saved_) std::cerr.rdbuf(static_cast<std::streambuf*>(saved_));
}

}  // namespace zrio
