// Whether the libraries behind the readers (ITK, GDCM, libnifti, assimp) may
// print their own diagnostics. Off by default: a user gets one line of ours
// per problem, and asks for the libraries' text with --verbose.
#pragma once

namespace zrio {

void ShowLibraryDiagnostics(bool shown);
bool LibraryDiagnosticsShown();

}  // namespace zrio
