#include "host_services.h"

#include <mutex>

namespace zrobjects {

namespace {
std::mutex logMutex;
std::vector<std::string>& Log() {
    static std::vector<std::string> lines;
    return lines;
}
}  // namespace

void LogInfo(std::string text) {
    std::lock_guard lock(logMutex);
    Log().push_back(std::move(text));
}

std::vector<std::string> GetLogLines() {
    std::lock_guard lock(logMutex);
    return Log();
}

std::vector<std::string> TakeLogLines() {
    std::lock_guard lock(logMutex);
    std::vector<std::string> lines;
    lines.swap(Log());
    return lines;
}

void GetCPUInstructionInfo(int32_t* features) {
    if (!features) return;
    int32_t bits = 0;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    if (__builtin_cpu_supports("sse2")) bits |= CpuFeature_SSE2;
    if (__builtin_cpu_supports("sse4.1")) bits |= CpuFeature_SSE41;
    if (__builtin_cpu_supports("avx")) bits |= CpuFeature_AVX;
    if (__builtin_cpu_supports("avx2")) bits |= CpuFeature_AVX2;
    if (__builtin_cpu_supports("fma")) bits |= CpuFeature_FMA;
    if (__builtin_cpu_supports("avx512f")) bits |= CpuFeature_AVX512F;
    if (__builtin_cpu_supports("avx512bw")) bits |= CpuFeature_AVX512BW;
#endif
    *features = bits;
}

}  // namespace zrobjects
