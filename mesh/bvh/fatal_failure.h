// The fatal-failure routine: reports a failed check or an exhausted heap and
// stops the process. The first failure wins; a failure met while one is being
// handled returns at once.
#pragma once

namespace zrbvh {

[[noreturn]] void Fail(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

}  // namespace zrbvh
