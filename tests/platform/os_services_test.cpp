// The operating-system services: timer, critical section, block sizes, and the
// fatal stop.
#include "platform/os_services.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

TEST(OsServices, TimerAdvancesAtItsStatedFrequency) {
    ASSERT_GT(platform::TimerFrequency(), 0);
    const int64_t start = platform::TimerTicks();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const double seconds = double(platform::TimerTicks() - start) / double(platform::TimerFrequency());
    EXPECT_GE(seconds, 0.015);
    EXPECT_LT(seconds, 5.0);
}

TEST(OsServices, CriticalSectionSerialisesAndIsReentrant) {
    platform::CriticalSection section;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                section.Enter();
                section.Enter();
                ++counter;
                section.Leave();
                section.Leave();
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(counter, 80000);
}

TEST(OsServices, UsableBlockSizeCoversTheRequest) {
    void* block = std::malloc(100);
    EXPECT_GE(platform::UsableBlockSize(block), 100u);
    std::free(block);
    EXPECT_EQ(platform::UsableBlockSize(nullptr), 0u);
}

TEST(OsServicesDeathTest, EndProcessExitsWithTheFatalCode) {
    EXPECT_EXIT(
        {
            platform::ShowFatalMessage("stopping now");
            platform::EndProcess();
        },
        testing::ExitedWithCode(platform::kFatalExitCode), "stopping now");
}
