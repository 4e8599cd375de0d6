// POSIX side of the operating-system services.
#include "os_services.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>

namespace platform {

static_assert(sizeof(std::recursive_mutex) <= 64, "critical section storage too small");

int64_t TimerFrequency() { return 1000000000; }

int64_t TimerTicks() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// A critical section is re-entrant on Windows; a recursive mutex keeps that.
CriticalSection::CriticalSection() { new (storage_) std::recursive_mutex(); }
CriticalSection::~CriticalSection() { reinterpret_cast<std::recursive_mutex*>(storage_)->~recursive_mutex(); }
void CriticalSection::Enter() { reinterpret_cast<std::recursive_mutex*>(storage_)->lock(); }
void CriticalSection::Leave() { reinterpret_cast<std::recursive_mutex*>(storage_)->unlock(); }

size_t UsableBlockSize(void* block) { return block ? malloc_usable_size(block) : 0; }

void AdviseHugePages(void* block, size_t bytes) {
#ifdef MADV_HUGEPAGE
    constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
    const uintptr_t start = (reinterpret_cast<uintptr_t>(block) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) & ~(kHugePage - 1);
    if (end > start) madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE);
#else
    (void)block, (void)bytes;
#endif
}

void ShowFatalMessage(const char* message) {
    std::fprintf(stderr, "%s\n", message);
    std::fflush(stderr);
}

void EndProcess() {
    std::fflush(stdout);
    _exit(kFatalExitCode);
}

}  // namespace platform
