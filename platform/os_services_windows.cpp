// Windows side of the operating-system services.
#include "os_services.h"

#include <windows.h>
#include <malloc.h>

#include <cstdio>
#include <new>

namespace platform {

static_assert(sizeof(CRITICAL_SECTION) <= 64, "critical section storage too small");

int64_t TimerFrequency() {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f.QuadPart;
}

int64_t TimerTicks() {
    LARGE_INTEGER t;
    QueryPerformanceCounter(&t);
    return t.QuadPart;
}

CriticalSection::CriticalSection() { InitializeCriticalSection(reinterpret_cast<CRITICAL_SECTION*>(storage_)); }
CriticalSection::~CriticalSection() { DeleteCriticalSection(reinterpret_cast<CRITICAL_SECTION*>(storage_)); }
void CriticalSection::Enter() { EnterCriticalSection(reinterpret_cast<CRITICAL_SECTION*>(storage_)); }
void CriticalSection::Leave() { LeaveCriticalSection(reinterpret_cast<CRITICAL_SECTION*>(storage_)); }

size_t UsableBlockSize(void* block) { return block ? _msize(block) : 0; }

// Large pages need a privilege ordinary users lack; the hint has no equivalent.
void AdviseHugePages(void*, size_t) {}

void ShowFatalMessage(const char* message) {
    std::fprintf(stderr, "%s\n", message);
    std::fflush(stderr);
    // A message box would block unattended runs; only interactive sessions get one.
    if (GetConsoleWindow() == nullptr) MessageBoxA(nullptr, message, "Fatal failure", MB_OK | MB_ICONERROR);
}

void EndProcess() {
    std::fflush(stdout);
    ExitProcess(kFatalExitCode);
}

}  // namespace platform
