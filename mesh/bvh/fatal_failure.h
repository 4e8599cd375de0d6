// The fatal-failure routine: reports a failed check or an exhausted heap and
// stops the process. The first failure wins; a failure met on another thread
// while one is being reported waits for the end of the process instead of
// returning, since returning would carry on past its failed check. The other
// threads are not suspended first: the failing thread cannot know what they
// hold (a thread stopped inside the C runtime's heap or output lock would
// deadlock the report), and ending the process stops them.
#pragma once

namespace zrbvh {

[[noreturn]] void Fail(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

}  // namespace zrbvh
