// Run-time choice of the instruction set the vectorised kernel paths use.
//
// Every kernel keeps its plain per-pixel loop (the baseline path, SSE2 on
// x86-64); the AVX2 and AVX-512 paths compute exactly the same arithmetic, lane
// by lane and in the same order, so the target only changes the speed, never a
// byte of output. The best target the processor offers is chosen once; the
// environment variable ZR_SIMD ("baseline", "avx2" or "avx512") or
// ForceSimdTarget can lower it, which is how the tests run every path. A request
// for more than the processor offers falls back to the best it has.
#pragma once

#include <optional>
#include <vector>

namespace zrvolume {

enum class SimdTarget { Baseline = 0, Avx2 = 1, Avx512 = 2 };

// The target the kernels use for the call in progress.
SimdTarget ActiveSimdTarget();

// Every target this processor can run, baseline first.
std::vector<SimdTarget> SupportedSimdTargets();

// Overrides the choice (capped at what the processor offers); nullopt returns
// to the environment's or the processor's choice. Not meant to be called while
// a render is running.
void ForceSimdTarget(std::optional<SimdTarget> target);

const char* SimdTargetName(SimdTarget target);

}  // namespace zrvolume
