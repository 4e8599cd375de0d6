#include "array.h"

#include <algorithm>
#include <cstring>

#include "mesh/bvh/fatal_failure.h"
#include "mesh/bvh/tracked_heap.h"

// The failure message names the container, not the path of this file, so that
// reports read the same wherever the sources were built.
#define ZR_ARRAY_CHECK_AS(condition, text) \
    ((condition) ? void(0) : ::zrbvh::Fail("Assertion failed!\n%s:%d\n%s", "Array", __LINE__, text))
#define ZR_ARRAY_CHECK(condition) ZR_ARRAY_CHECK_AS(condition, #condition)

namespace zrbvh {

Array::Array(const Array& other) { *this = other; }

Array& Array::operator=(const Array& other) {
    if (this == &other) return *this;
    Assign(other.m_data, other.m_size);
    return *this;
}

void Array::Assign(const int32_t* values, int32_t count) {
    // Taking the source's size is a resize of this array, so a negative size
    // fails the resize check.
    ZR_ARRAY_CHECK_AS(count >= 0, "idx >= 0 && idx <= m_size");
    m_size = 0;
    if (m_capacity != count) Reallocate(count);
    m_size = count;
    if (count > 0) std::memcpy(m_data, values, static_cast<size_t>(count) * sizeof(int32_t));
}

Array::~Array() { Free(m_data); }

void Array::Reallocate(int32_t capacity) {
    ZR_ARRAY_CHECK_AS(capacity >= 0, "size >= 0");
    if (capacity == 0) {
        Free(m_data);
        m_data = nullptr;
        m_capacity = 0;
        m_size = 0;
        return;
    }
    auto* data = static_cast<int32_t*>(Allocate(static_cast<size_t>(capacity) * sizeof(int32_t)));
    const int32_t kept = std::min(capacity, m_size);
    if (kept > 0) std::memcpy(data, m_data, static_cast<size_t>(kept) * sizeof(int32_t));
    Free(m_data);
    m_data = data;
    m_capacity = capacity;
    m_size = kept;
}

void Array::PushBack(int32_t value) {
    if (m_size == m_capacity) Reallocate(m_capacity < 8 ? 8 : m_capacity + m_capacity / 2);
    m_data[m_size++] = value;
}

int32_t& Array::operator[](int32_t idx) {
    ZR_ARRAY_CHECK(idx >= 0 && idx < m_size);
    return m_data[idx];
}

const int32_t& Array::operator[](int32_t idx) const {
    ZR_ARRAY_CHECK(idx >= 0 && idx < m_size);
    return m_data[idx];
}

}  // namespace zrbvh
