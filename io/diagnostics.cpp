#include "diagnostics.h"

#include <atomic>

namespace zrio {

namespace {
std::atomic<bool> shown{false};
}

void ShowLibraryDiagnostics(bool value) { shown = value; }
bool LibraryDiagnosticsShown() { return shown; }

}  // namespace zrio
