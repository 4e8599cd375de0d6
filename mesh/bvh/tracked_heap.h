// The module's heap: malloc and free with a byte counter of the blocks in use
// (their usable sizes), guarded by the module's one critical section.
// An exhausted heap ends the process through the fatal-failure routine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zrbvh {

void* Allocate(size_t bytes);
void Free(void* block);

// Bytes currently allocated through Allocate and not yet freed.
uint64_t HeapBytesInUse();

// Runs `body` inside the module's one critical section, which guards the
// counter and the failure flag. The module's heap is always shared by threads,
// so there is no single-threaded mode that skips it.
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
