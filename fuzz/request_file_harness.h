// Feeds one fuzz input to the command-line host's request-file reader as a
// JSON document: ParseRequestDocument must either accept it, giving typed
// parameters and scene descriptions, or reject it with an InputError; any
// other exception, or a crash, is a failure. Accepted typed values must also
// survive the way back: written as JSON and read again under the same key they
// keep their exact type. Nothing is loaded or built from the document.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zrfuzz {

// Returns 0 (the libFuzzer convention); aborts on a broken property.
int RunRequestFileInput(const uint8_t* data, size_t size);

}  // namespace zrfuzz
