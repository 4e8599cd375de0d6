#include "fatal_failure.h"

#include <cstdarg>
#include <chrono>
#include <cstdio>
#include <thread>

#include "mesh/bvh/tracked_heap.h"
#include "platform/os_services.h"

namespace zrbvh {

namespace {
bool failing = false;
thread_local bool reportingHere = false;
}

void Fail(const char* format, ...) {
    bool alreadyFailing = false;
    Guarded([&] {
        alreadyFailing = failing;
        failing = true;
    });
    if (alreadyFailing && reportingHere) {
        // A check failed while this thread was reporting (for instance inside the
        // message output): waiting would never end, so stop right away.
        platform::EndProcess();
    }
    if (alreadyFailing) {
        // Another thread is already reporting and ends the process; this one
        // must not go on past its failed check, so it waits for the end.
        for (;;) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }

    reportingHere = true;
    char message[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof message, format, args);
    va_end(args);

    std::printf("\n%s\n", message);
    std::fflush(stdout);
    platform::ShowFatalMessage(message);
    platform::EndProcess();
}

}  // namespace zrbvh
