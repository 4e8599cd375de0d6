// Free functions of the host library: the log and the processor description.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zrobjects {

// Writes one line to the host's log.
void LogInfo(std::string text);

// Lines logged so far (oldest first); TakeLogLines also empties the log.
std::vector<std::string> GetLogLines();
std::vector<std::string> TakeLogLines();

// Processor instruction sets, one bit each (see CpuFeature).
void GetCPUInstructionInfo(int32_t* features);

enum CpuFeature : int32_t {
    CpuFeature_SSE2 = 1 << 0,
    CpuFeature_SSE41 = 1 << 1,
    CpuFeature_AVX = 1 << 2,
    CpuFeature_AVX2 = 1 << 3,
    CpuFeature_FMA = 1 << 4,
    CpuFeature_AVX512F = 1 << 5,
    CpuFeature_AVX512BW = 1 << 6,
};

}  // namespace zrobjects
