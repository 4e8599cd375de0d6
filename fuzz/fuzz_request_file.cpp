// libFuzzer entry: the request-file reader on arbitrary JSON text.
#include <cstddef>
#include <cstdint>

#include "fuzz/request_file_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return zrfuzz::RunRequestFileInput(data, size);
}
