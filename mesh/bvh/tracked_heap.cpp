#include "tracked_heap.h"

#include <cstdlib>

#include "mesh/bvh/fatal_failure.h"
#include "platform/os_services.h"

namespace zrbvh {

namespace {
uint64_t bytesInUse = 0;

platform::CriticalSection& Section() {
    static platform::CriticalSection section;
    return section;
}
}  // namespace

void EnterGuard() {
    Section().Enter();
}

void LeaveGuard() {
    Section().Leave();
}

void* Allocate(size_t bytes) {
    void* block = std::malloc(bytes);
    if (!block) Fail("Out of memory!");
    const size_t usable = platform::UsableBlockSize(block);
    Guarded([&] { bytesInUse += usable; });
    return block;
}

void Free(void* block) {
    if (!block) return;
    const size_t usable = platform::UsableBlockSize(block);
    Guarded([&] { bytesInUse -= usable; });
    std::free(block);
}

uint64_t HeapBytesInUse() {
    uint64_t bytes = 0;
    Guarded([&] { bytes = bytesInUse; });
    return bytes;
}

}  // namespace zrbvh
