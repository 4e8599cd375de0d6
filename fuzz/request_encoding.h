// A compact byte form of module requests for fuzzing DoModule: a header that
// picks the source type, the enabled scene entries, the view and the placement
// of the objects, then records that each put one typed value under one of the
// keys the renderers read - into the request, the image object, a scene entry
// or a scene object - with the key's own type or, now and then, a wrong one.
// Any byte string decodes; the encoder writes the same form for seed inputs.
#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zrfuzz {

enum class ValueType : uint8_t {
    Bool, Int, Float, Double, Float2, Float3, Float4, Double4, Matrix44f, String,
    FloatList, IntList, DoubleList, Float3List, Double2List,
    Count
};

// A key the renderers read, with its type. Keys whose value sets the amount of
// work (slab thickness, kernel radius, line thickness, image extents) carry a
// range [lo, hi] so that one input cannot ask for hours of drawing.
struct KeyRule {
    const char* key;
    ValueType type;
    double lo = 0.0;
    double hi = 0.0;
    bool Ranged() const { return lo < hi; }
};
const std::vector<KeyRule>& KnownKeys();

enum class ParamTarget : uint8_t { Request, Image, SceneEntry, Object, Count };

struct ParamRecord {
    ParamTarget target = ParamTarget::Request;
    int entry = 0;  // scene entry (or its object), for SceneEntry and Object
    std::string key;
    std::any value;
};

// Source-type choices of the header, in order.
const std::vector<std::string>& SourceChoices();  // "" at index kNoSourceKey means: key absent
constexpr int kNoSourceKey = 2;

struct DecodedInput {
    int source = 0;         // index into SourceChoices()
    uint8_t enabledMask = 0xff;
    int view = 0;
    int placement = 0;
    std::vector<std::vector<ParamRecord>> requests;  // run in order on one image
};

constexpr int kMaxRequests = 4;
constexpr size_t kMaxListLength = 24;
constexpr size_t kMaxTextLength = 24;

DecodedInput DecodeInput(const uint8_t* data, size_t size);

// Writes inputs in the same form. Add returns false (writing nothing) for a key
// that is not known or a value whose type the key does not take.
class InputEncoder {
public:
    InputEncoder(int source, uint8_t enabledMask, int view, int placement);
    bool Add(ParamTarget target, int entry, const std::string& key, const std::any& value);
    // Ends the current request; the next records go to a new one on the same image.
    void NextRequest();
    const std::vector<uint8_t>& Bytes() const { return bytes_; }

private:
    template <class T>
    void Put(const T& value);
    void PutValue(const KeyRule& rule, const std::any& value);
    std::vector<uint8_t> bytes_;
};

}  // namespace zrfuzz
