// Operating-system services the module needs, behind one interface with a POSIX
// and a Windows implementation: a high-resolution timer, a critical section,
// the usable size of a heap block, and the last steps of a fatal failure.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

int64_t TimerFrequency();  // ticks per second
int64_t TimerTicks();

class CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    void Enter();
    void Leave();

private:
    alignas(16) unsigned char storage_[64];
};

// Bytes usable in a block returned by malloc (malloc_usable_size / _msize).
size_t UsableBlockSize(void* block);

// Asks for the whole 2 MiB pages inside a large block to be backed by huge
// pages where the system offers them on request (Linux), so that writing the
// block the first time takes a few hundred page faults instead of one per
// 4 KiB. Only a hint: without effect where that is not offered.
void AdviseHugePages(void* block, size_t bytes);

// Shows a fatal message to the user (standard error; a message box on Windows).
void ShowFatalMessage(const char* message);
// Ends the process at once with the fatal-failure exit code.
[[noreturn]] void EndProcess();

constexpr int kFatalExitCode = 70;

}  // namespace platform
