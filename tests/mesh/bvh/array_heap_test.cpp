// The checked array, the tracked heap and the fatal-failure messages.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "mesh/bvh/array.h"
#include "mesh/bvh/tracked_heap.h"
#include "platform/os_services.h"

// GoogleTest's built-in regular expressions (Windows) know \d but not brackets.
#if defined(GTEST_USES_SIMPLE_RE)
#define LINE_NUMBER "\\d+"
#else
#define LINE_NUMBER "[0-9]+"
#endif

// Under the address sanitizer a failed malloc must come back as null, as it
// does in the plain runtime, so that the heap's own out-of-memory path runs.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

zrbvh::Array Filled(std::initializer_list<int32_t> values) {
    zrbvh::Array array;
    for (int32_t v : values) array.PushBack(v);
    return array;
}

TEST(Array, CopyAssignCopiesElementsAndExactCapacityAndSelfAssignmentChangesNothing) {
    const zrbvh::Array source = Filled({4, -7, 9});
    zrbvh::Array copy = Filled({1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    copy = source;
    ASSERT_EQ(copy.Size(), 3);
    EXPECT_EQ(copy.Capacity(), 3);
    EXPECT_EQ(std::vector<int32_t>(copy.Data(), copy.Data() + 3), (std::vector<int32_t>{4, -7, 9}));
    EXPECT_NE(copy.Data(), source.Data());
    const int32_t* before = copy.Data();
    zrbvh::Array& alias = copy;
    copy = alias;
    EXPECT_EQ(copy.Data(), before);
    EXPECT_EQ(copy.Size(), 3);
    EXPECT_EQ(copy[1], -7);
    // Copying an empty array leaves null storage.
    copy = zrbvh::Array();
    EXPECT_EQ(copy.Size(), 0);
    EXPECT_EQ(copy.Data(), nullptr);
}

TEST(Array, ReallocateKeepsTheLeadingElementsAndZeroAllocatesNothing) {
    const uint64_t before = zrbvh::HeapBytesInUse();
    {
        zrbvh::Array array = Filled({1, 2, 3, 4});
        array.Reallocate(2);
        EXPECT_EQ(array.Capacity(), 2);
        ASSERT_EQ(array.Size(), 2);
        EXPECT_EQ(array[1], 2);
        array.Reallocate(6);
        EXPECT_EQ(array.Capacity(), 6);
        EXPECT_EQ(array[0], 1);
        EXPECT_GT(zrbvh::HeapBytesInUse(), before);
        array.Reallocate(0);
        EXPECT_EQ(array.Data(), nullptr);
        EXPECT_EQ(array.Capacity(), 0);
        EXPECT_EQ(zrbvh::HeapBytesInUse(), before);
    }
    EXPECT_EQ(zrbvh::HeapBytesInUse(), before);
}

TEST(TrackedHeap, CountsUsableBytesUntilFreed) {
    const uint64_t before = zrbvh::HeapBytesInUse();
    void* block = zrbvh::Allocate(100);
    EXPECT_EQ(zrbvh::HeapBytesInUse() - before, platform::UsableBlockSize(block));
    EXPECT_GE(platform::UsableBlockSize(block), 100u);
    zrbvh::Free(block);
    EXPECT_EQ(zrbvh::HeapBytesInUse(), before);
    zrbvh::Free(nullptr);  // a null block is ignored
    EXPECT_EQ(zrbvh::HeapBytesInUse(), before);
}

using ArrayDeathTest = testing::Test;

TEST(ArrayDeathTest, IndicesFromSizeOnOrBelowZeroFailTheIndexCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    zrbvh::Array array = Filled({1, 2, 3});
    EXPECT_EXIT((void)array[3], testing::ExitedWithCode(platform::kFatalExitCode),
                "Assertion failed!\nArray:" LINE_NUMBER "\nidx >= 0 && idx < m_size");
    EXPECT_EXIT(array[-1] = 0, testing::ExitedWithCode(platform::kFatalExitCode), "idx >= 0 && idx < m_size");
}

TEST(ArrayDeathTest, ANegativeCapacityFailsTheSizeCheck) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    zrbvh::Array array;
    EXPECT_EXIT(array.Reallocate(-1), testing::ExitedWithCode(platform::kFatalExitCode),
                "Assertion failed!\nArray:" LINE_NUMBER "\nsize >= 0");
}

TEST(ArrayDeathTest, TheFailureIsAlsoPrintedOnStandardOutputFramedByLineEnds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Standard output is sent to standard error in the child so the matcher
    // sees the framed text.
    const zrbvh::Array array;
    EXPECT_EXIT(
        {
            std::fflush(stdout);
            dup2(2, 1);
            (void)array[0];
        },
        testing::ExitedWithCode(platform::kFatalExitCode),
        "\nAssertion failed!\nArray:" LINE_NUMBER "\nidx >= 0 && idx < m_size\n");
}

TEST(TrackedHeapDeathTest, AnExhaustedHeapEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(zrbvh::Allocate(SIZE_MAX / 2), testing::ExitedWithCode(platform::kFatalExitCode),
                "Out of memory!");
}

}  // namespace
