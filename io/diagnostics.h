// Whether the libraries behind the readers (ITK, GDCM, MetaIO, assimp) may
// print their own diagnostics. Off by default: a user gets one line of ours
// per problem, and asks for the libraries' text with --verbose.
#pragma once

namespace zrio {

void ShowLibraryDiagnostics(bool shown);
bool LibraryDiagnosticsShown();

// While one lives, what the libraries write to std::cerr is dropped, unless
// their diagnostics are shown. Our own messages go through stdio and are
// never affected. Used around every library call that reads a file.
class QuietLibraries {
public:
    QuietLibraries();
    ~QuietLibraries();
    QuietLibraries(const QuietLibraries&) = delete;
    QuietLibraries& operator=(const QuietLibraries&) = delete;

private:
    void* saved_ = nullptr;  // std::cerr's buffer while it is redirected
};

}  // namespace zrio
