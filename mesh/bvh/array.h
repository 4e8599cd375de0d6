// A growable array of 32-bit signed integers whose element reads are bounds
// tested. Storage comes from the tracked heap; a failed check ends the process
// through the fatal-failure routine with "Assertion failed!\n<file>:<line>\n<check>".
// Elements are plain and copied bytewise. Not thread-safe: copy before a parallel
// region, then only read inside it.
#pragma once

#include <cstdint>

namespace zrbvh {

class Array {
public:
    Array() = default;
    Array(const Array& other);
    Array& operator=(const Array& other);
    ~Array();

    // Resizes the storage to exactly `capacity` elements, keeping the first
    // min(capacity, Size()) of them. A capacity of 0 frees the storage.
    void Reallocate(int32_t capacity);

    // Makes the array exactly the `count` elements at `values` (storage of
    // exactly that capacity), as a copy assignment does.
    void Assign(const int32_t* values, int32_t count);

    // Appends one element, growing the storage when it is full.
    void PushBack(int32_t value);

    // Element `index`; an index outside 0 .. Size() - 1 is a fatal failure.
    int32_t& operator[](int32_t index);
    const int32_t& operator[](int32_t index) const;

    int32_t Size() const { return m_size; }
    int32_t Capacity() const { return m_capacity; }
    const int32_t* Data() const { return m_data; }
    int32_t* Data() { return m_data; }

private:
    // Field order is part of the layout the hierarchy hands across the library
    // boundary: element pointer, size, capacity.
    int32_t* m_data = nullptr;
    int32_t m_size = 0;
    int32_t m_capacity = 0;
};

}  // namespace zrbvh
