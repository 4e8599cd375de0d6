// libFuzzer entry: DoModule over the fixed scene with decoded parameters.
#include <cstddef>
#include <cstdint>

#include "fuzz/do_module_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zrfuzz::RunDoModuleInput(data, size);
}
