// The lane row loops (lane_kernels.inc and the families' .inc files) compiled
// for AVX-512 (F, BW, DQ, VL): 16 lanes, mask registers, masked gathers and
// stores. Only called after the
// run-time check in simd_dispatch.cpp.
#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "volume/kernels/family_lane_rows.h"
#include "volume/kernels/lane_rows.h"
#include "volume/kernels/otf_lookup.h"
#include "volume/kernels/slab_compositing.h"
#include "volume/kernels/slab_lane_rows.h"
#include "volume/kernels/upscale_lanes.h"

#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__) && !defined(__clang__) && !defined(_WIN32)
#define ZR_LANES_AVX512 1
#include <immintrin.h>
#endif

namespace zrvolume::lanes_avx512 {

#ifdef ZR_LANES_AVX512
#pragma GCC push_options
// GCC 12 flags the deliberately undefined source operand inside its own
// AVX-512 shift intrinsics (_mm512_undefined_epi32) as maybe-uninitialised.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC target("avx512f,avx512bw,avx512dq,avx512vl,avx2,bmi2")

namespace {

struct Ops {
    static constexpr int N = 16;
    using F = __m512;
    using I = __m512i;
    using M = __mmask16;

    static F SetF(float v) { return _mm512_set1_ps(v); }
    static I SetI(int v) { return _mm512_set1_epi32(v); }
    static I Iota() { return _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15); }
    static F LoadF(const float* p) { return _mm512_loadu_ps(p); }
    static I LoadI(const int32_t* p) { return _mm512_loadu_si512(p); }

    static F Add(F a, F b) { return _mm512_add_ps(a, b); }
    static F Sub(F a, F b) { return _mm512_sub_ps(a, b); }
    static F Mul(F a, F b) { return _mm512_mul_ps(a, b); }
    static F Div(F a, F b) { return _mm512_div_ps(a, b); }
    static F Sqrt(F v) { return _mm512_sqrt_ps(v); }
    static F MaxF(F a, F b) { return _mm512_max_ps(a, b); }  // a > b ? a : b
    static F MinF(F a, F b) { return _mm512_min_ps(a, b); }  // a < b ? a : b
    static I Cvtt(F v) { return _mm512_cvttps_epi32(v); }    // INT32_MIN when out of range
    static F CvtF(I v) { return _mm512_cvtepi32_ps(v); }

    static M Lt(F a, F b) { return _mm512_cmp_ps_mask(a, b, _CMP_LT_OQ); }
    static M Gt(F a, F b) { return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ); }
    static M Ge(F a, F b) { return _mm512_cmp_ps_mask(a, b, _CMP_GE_OQ); }
    static M Le(F a, F b) { return _mm512_cmp_ps_mask(a, b, _CMP_LE_OQ); }
    static M LtI(I a, I b) { return _mm512_cmplt_epi32_mask(a, b); }
    static M EqI(I a, I b) { return _mm512_cmpeq_epi32_mask(a, b); }
    static M NegativeLanes(I v) { return _mm512_movepi32_mask(v); }
    static M And(M a, M b) { return static_cast<M>(a & b); }
    static M Or(M a, M b) { return static_cast<M>(a | b); }
    static M NoLanes() { return 0; }
    static M AllLanes() { return 0xffff; }
    static bool Any(M m) { return m != 0; }
    // Bit k set when lane k is selected.
    static unsigned Bits(M m) { return m; }
    static bool All(M m) { return m == 0xffff; }
    static F SelF(M m, F a, F b) { return _mm512_mask_blend_ps(m, b, a); }
    static I SelI(M m, I a, I b) { return _mm512_mask_blend_epi32(m, b, a); }

    static I AddI(I a, I b) { return _mm512_add_epi32(a, b); }
    // a + b in the lanes of m, a elsewhere.
    static F AddWhere(M m, F a, F b) { return _mm512_mask_add_ps(a, m, a, b); }
    static I AddIWhere(M m, I a, I b) { return _mm512_mask_add_epi32(a, m, a, b); }
    static I SubI(I a, I b) { return _mm512_sub_epi32(a, b); }
    static I MulI(I a, I b) { return _mm512_mullo_epi32(a, b); }
    static I AndI(I a, I b) { return _mm512_and_si512(a, b); }
    static I OrI(I a, I b) { return _mm512_or_si512(a, b); }
    static I MinI(I a, I b) { return _mm512_min_epi32(a, b); }
    static I MaxI(I a, I b) { return _mm512_max_epi32(a, b); }
    template <int n>
    static I SllI(I v) {
        if constexpr (n == 0) return v;
        else return _mm512_slli_epi32(v, n);
    }
    template <int n>
    static I SrlI(I v) { return _mm512_srli_epi32(v, n); }
    template <int n>
    static I SraI(I v) { return _mm512_srai_epi32(v, n); }

    // 32-bit loads at base + offset (bytes) for the active lanes, 0 elsewhere.
    static I Gather(M m, const unsigned char* base, I offset) {
        return _mm512_mask_i32gather_epi32(_mm512_setzero_si512(), m, offset, base, 1);
    }
    static I GatherAll(const unsigned char* base, I offset) { return _mm512_i32gather_epi32(offset, base, 1); }
    static I GatherTable(const uint32_t* table, I index) { return _mm512_i32gather_epi32(index, table, 4); }
    // The 32-bit words at base + offset and base + offset + 4 of the lanes in
    // m (0 elsewhere), as one 64-bit load per lane: two 8-lane gathers, then
    // the words taken apart.
    template <bool all>
    static void GatherPairs(M m, const unsigned char* base, I offset, I& first, I& second) {
        const __m256i low = _mm512_castsi512_si256(offset), high = _mm512_extracti64x4_epi64(offset, 1);
        __m512i a, b;
        if constexpr (all) {
            a = _mm512_i32gather_epi64(low, base, 1);
            b = _mm512_i32gather_epi64(high, base, 1);
        } else {
            a = _mm512_mask_i32gather_epi64(_mm512_setzero_si512(), static_cast<__mmask8>(m), low, base, 1);
            b = _mm512_mask_i32gather_epi64(_mm512_setzero_si512(), static_cast<__mmask8>(m >> 8), high, base,
                                            1);
        }
        const __m512i firsts = _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
        first = _mm512_permutex2var_epi32(a, firsts, b);
        second = _mm512_permutex2var_epi32(a, _mm512_add_epi32(firsts, _mm512_set1_epi32(1)), b);
    }

    static void StoreU32(uint32_t* p, I v) { _mm512_storeu_si512(p, v); }
    static void StoreU16(uint16_t* p, I v) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), _mm512_cvtepi32_epi16(v));
    }
    static void StoreU32Masked(M m, uint32_t* p, I v) { _mm512_mask_storeu_epi32(p, m, v); }
    static void StoreI32(int32_t* p, I v) { _mm512_storeu_si512(p, v); }
    // One byte per lane, 0 or 1.
    static M LoadFlags(const uint8_t* p) {
        return _mm512_test_epi32_mask(_mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
                                      _mm512_set1_epi32(1));
    }
    static void StoreFlags(uint8_t* p, M m) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm512_cvtepi32_epi8(_mm512_maskz_mov_epi32(m, _mm512_set1_epi32(1))));
    }
    static void StoreU16Masked(M m, uint16_t* p, I v) { _mm256_mask_storeu_epi16(p, m, _mm512_cvtepi32_epi16(v)); }
    // The first n (1 .. 16) entries at p, 0 elsewhere; nothing past them is read.
    static I LoadPrefixI(const uint32_t* p, int n) {
        return _mm512_maskz_loadu_epi32(static_cast<__mmask16>((1u << n) - 1u), p);
    }
    static void StoreF(float* p, F v) { _mm512_storeu_ps(p, v); }
    // Lane i takes lane (index_i mod 16) of v.
    static I PermuteI(I v, I index) { return _mm512_permutexvar_epi32(index, v); }
};

#include "volume/kernels/lane_kernels.inc"
#include "volume/kernels/slab_compositing_lanes.inc"
#include "volume/kernels/curved_slab_lanes.inc"
#include "volume/kernels/upscale_lanes.inc"
#include "volume/kernels/cell_lanes.inc"
#include "volume/kernels/masked_slice_lanes.inc"
#include "volume/kernels/label_overlay_lanes.inc"
#include "volume/kernels/float_grey_lanes.inc"

}  // namespace

int OtfSliceRow(const OtfSliceRowJob& job) { return OtfSliceRowLanes(job); }
int SlabRow(const SlabRowJob& job) { return SlabRowLanes(job); }
int CurvedRow(const CurvedRowJob& job) { return CurvedRowLanes(job); }
int ContourInsideRow(const ContourRowJob& job) { return ContourInsideRowLanes(job); }
int ContourSampleRow(const ContourRowJob& job) { return ContourSampleRowLanes(job); }
int SlabCompositingRow(const SlabCompositingRowJob& job) { return SlabCompositingRowLanes(job); }
int CurvedSlabRow(const CurvedSlabRowJob& job) { return CurvedSlabRowLanes(job); }
int UpscaleTerms(const UpscaleTermsJob& job) { return UpscaleTermsLanes(job); }
int UpscaleBlend(const UpscaleBlendJob& job) { return UpscaleBlendLanes(job); }
int MaskedSliceRow(const MaskedSliceRowJob& job) { return MaskedSliceRowLanes(job); }
int LabelOverlayRow(const LabelOverlayRowJob& job) { return LabelOverlayRowLanes(job); }
int FloatGreyRow(const FloatGreyRowJob& job) { return FloatGreyRowLanes(job); }

#pragma GCC diagnostic pop
#pragma GCC pop_options
#else
// No vector path on this target: the per-pixel loops draw every pixel.
int OtfSliceRow(const OtfSliceRowJob&) { return 0; }
int SlabRow(const SlabRowJob&) { return 0; }
int CurvedRow(const CurvedRowJob&) { return 0; }
int ContourInsideRow(const ContourRowJob&) { return 0; }
int ContourSampleRow(const ContourRowJob&) { return 0; }
int SlabCompositingRow(const SlabCompositingRowJob&) { return 0; }
int CurvedSlabRow(const CurvedSlabRowJob&) { return 0; }
int UpscaleTerms(const UpscaleTermsJob&) { return 0; }
int UpscaleBlend(const UpscaleBlendJob&) { return 0; }
int MaskedSliceRow(const MaskedSliceRowJob& job) { return job.span.from; }
int LabelOverlayRow(const LabelOverlayRowJob& job) { return job.span.from; }
int FloatGreyRow(const FloatGreyRowJob& job) { return job.span.from; }
#endif

}  // namespace zrvolume::lanes_avx512
