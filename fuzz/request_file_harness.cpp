#include "fuzz/request_file_harness.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "io/input_error.h"
#include "io/request_file.h"
#include "io/tagged_params.h"

namespace zrfuzz {

namespace {

[[noreturn]] void Broken(const std::string& what) {
    std::fprintf(stderr, "request-file property broken: %s\n", what.c_str());
    std::abort();
}

void CheckRoundTrip(const zrobjects::ParamMap& params, const std::string& where) {
    for (const auto& [key, value] : params) {
        const nlohmann::json written = zrio::TaggedValueToJson(value);
        if (written.is_null()) continue;
        std::any again;
        try {
            again = zrio::ConvertTaggedValue(key, written);
        } catch (const std::exception& e) {
            Broken(where + " " + key + ": accepted, but its JSON form is refused: " + e.what());
        }
        if (again.type() != value.type()) Broken(where + " " + key + ": the type changes on the way back");
    }
}

}  // namespace

int RunRequestFileInput(const uint8_t* data, size_t size) {
    const nlohmann::json document = nlohmann::json::parse(data, data + size, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded()) return 0;
    zrio::RequestFile file;
    try {
        file = zrio::ParseRequestDocument(document, "fuzz.json", "/nonexistent-fuzz-folder");
    } catch (const zrio::InputError&) {
        return 0;  // rejected with a message naming what is wrong: fine
    }
    CheckRoundTrip(file.image.params, "image");
    for (size_t i = 0; i < file.scene.size(); ++i) {
        CheckRoundTrip(file.scene[i].objectParams, "scene objectParams");
        CheckRoundTrip(file.scene[i].params, "scene params");
    }
    for (const zrobjects::ParamMap& request : file.requests) CheckRoundTrip(request, "request");
    return 0;
}

}  // namespace zrfuzz
