// The module's heap: malloc and free with a byte counter of the blocks in use
// (their usable sizes), guarded by one critical section in multi-threaded mode.
// An exhausted heap ends the process through the fatal-failure routine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zrbvh {

void* Allocate(size_t bytes);
void Free(void* block);

// Bytes currently allocated through Allocate and not yet freed.
uint64_t HeapBytesInUse();

// Multi-threaded mode (on by default) takes the critical section around the
// counter and the failure flag.
void SetMultiThreaded(bool on);
bool IsMultiThreaded();

// Runs `body` inside the module's one critical section when multi-threaded
// mode is on.
template <class Body>
void Guarded(Body&& body);

void EnterGuard();
void LeaveGuard();

template <class Body>
void Guarded(Body&& body) {
    EnterGuard();
    body();
    LeaveGuard();
}

}  // namespace zrbvh
