#include "volume/kernels/simd_dispatch.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace zrvolume {

namespace {

SimdTarget DetectBestTarget() {
#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__) && !defined(__clang__) && !defined(_WIN32)
    // The vector paths are compiled for Linux-like x86 targets with GCC only:
    // mingw does not align the stack for 32- and 64-byte spills, and clang (the
    // sanitizer and fuzzing builds) has no "#pragma GCC target".
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl"))
        return SimdTarget::Avx512;
    if (__builtin_cpu_supports("avx2")) return SimdTarget::Avx2;
#endif
    return SimdTarget::Baseline;
}

SimdTarget BestTarget() {
    static const SimdTarget best = DetectBestTarget();
    return best;
}

SimdTarget Capped(SimdTarget wanted) {
    return static_cast<int>(wanted) < static_cast<int>(BestTarget()) ? wanted : BestTarget();
}

SimdTarget EnvironmentTarget() {
    const char* text = std::getenv("ZR_SIMD");
    if (text == nullptr) return BestTarget();
    if (std::strcmp(text, "baseline") == 0 || std::strcmp(text, "sse2") == 0) return SimdTarget::Baseline;
    if (std::strcmp(text, "avx2") == 0) return Capped(SimdTarget::Avx2);
    return BestTarget();  // "avx512" or anything unknown: the best available
}

// -1: no override.
std::atomic<int> forcedTarget{-1};

}  // namespace

SimdTarget ActiveSimdTarget() {
    const int forced = forcedTarget.load(std::memory_order_relaxed);
    if (forced >= 0) return static_cast<SimdTarget>(forced);
    static const SimdTarget fromEnvironment = EnvironmentTarget();
    return fromEnvironment;
}

std::vector<SimdTarget> SupportedSimdTargets() {
    std::vector<SimdTarget> targets;
    for (int t = 0; t <= static_cast<int>(BestTarget()); ++t) targets.push_back(static_cast<SimdTarget>(t));
    return targets;
}

void ForceSimdTarget(std::optional<SimdTarget> target) {
    forcedTarget.store(target ? static_cast<int>(Capped(*target)) : -1, std::memory_order_relaxed);
}

const char* SimdTargetName(SimdTarget target) {
    switch (target) {
        case SimdTarget::Avx512: return "avx512";
        case SimdTarget::Avx2: return "avx2";
        default: return "baseline";
    }
}

}  // namespace zrvolume
