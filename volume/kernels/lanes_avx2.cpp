// The lane row loops (lane_kernels.inc and the families' .inc files) compiled
// for AVX2: 8 lanes, masks as all-ones lanes, masked gathers; the 16-bit masked
// store merges with the old contents. Only called after the run-time check in simd_dispatch.cpp.
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
#define ZR_LANES_AVX2 1
#include <immintrin.h>
#endif

namespace zrvolume::lanes_avx2 {

#ifdef ZR_LANES_AVX2
#pragma GCC push_options
// GCC 12 flags the deliberately undefined source operand inside its own
// AVX-512 shift intrinsics (_mm512_undefined_epi32) as maybe-uninitialised.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC target("avx2")

namespace {

struct Ops {
    static constexpr int N = 8;
    using F = __m256;
    using I = __m256i;
    using M = __m256i;  // all ones in a selected lane

    static F SetF(float v) { return _mm256_set1_ps(v); }
    static I SetI(int v) { return _mm256_set1_epi32(v); }
    static I Iota() { return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7); }
    static F LoadF(const float* p) { return _mm256_loadu_ps(p); }
    static I LoadI(const int32_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

    static F Add(F a, F b) { return _mm256_add_ps(a, b); }
    static F Sub(F a, F b) { return _mm256_sub_ps(a, b); }
    static F Mul(F a, F b) { return _mm256_mul_ps(a, b); }
    static F Div(F a, F b) { return _mm256_div_ps(a, b); }
    static F Sqrt(F v) { return _mm256_sqrt_ps(v); }
    static F MaxF(F a, F b) { return _mm256_max_ps(a, b); }  // a > b ? a : b
    static F MinF(F a, F b) { return _mm256_min_ps(a, b); }  // a < b ? a : b
    static I Cvtt(F v) { return _mm256_cvttps_epi32(v); }    // INT32_MIN when out of range
    static F CvtF(I v) { return _mm256_cvtepi32_ps(v); }

    static M Lt(F a, F b) { return _mm256_castps_si256(_mm256_cmp_ps(a, b, _CMP_LT_OQ)); }
    static M Gt(F a, F b) { return _mm256_castps_si256(_mm256_cmp_ps(a, b, _CMP_GT_OQ)); }
    static M Ge(F a, F b) { return _mm256_castps_si256(_mm256_cmp_ps(a, b, _CMP_GE_OQ)); }
    static M Le(F a, F b) { return _mm256_castps_si256(_mm256_cmp_ps(a, b, _CMP_LE_OQ)); }
    static M LtI(I a, I b) { return _mm256_cmpgt_epi32(b, a); }
    static M EqI(I a, I b) { return _mm256_cmpeq_epi32(a, b); }
    static M NegativeLanes(I v) { return _mm256_srai_epi32(v, 31); }
    static M And(M a, M b) { return _mm256_and_si256(a, b); }
    static M Or(M a, M b) { return _mm256_or_si256(a, b); }
    static M NoLanes() { return _mm256_setzero_si256(); }
    static M AllLanes() { return _mm256_set1_epi32(-1); }
    static bool Any(M m) { return !_mm256_testz_si256(m, m); }
    // Bit k set when lane k is selected.
    static unsigned Bits(M m) { return static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(m))); }
    static bool All(M m) { return _mm256_movemask_ps(_mm256_castsi256_ps(m)) == 0xff; }
    static F SelF(M m, F a, F b) { return _mm256_blendv_ps(b, a, _mm256_castsi256_ps(m)); }
    static I SelI(M m, I a, I b) { return _mm256_blendv_epi8(b, a, m); }

    static I AddI(I a, I b) { return _mm256_add_epi32(a, b); }
    // a + b in the selected lanes, a elsewhere.
    static F AddWhere(M m, F a, F b) { return _mm256_blendv_ps(a, _mm256_add_ps(a, b), _mm256_castsi256_ps(m)); }
    static I AddIWhere(M m, I a, I b) { return _mm256_add_epi32(a, _mm256_and_si256(b, m)); }
    static I SubI(I a, I b) { return _mm256_sub_epi32(a, b); }
    static I MulI(I a, I b) { return _mm256_mullo_epi32(a, b); }
    static I AndI(I a, I b) { return _mm256_and_si256(a, b); }
    static I OrI(I a, I b) { return _mm256_or_si256(a, b); }
    static I MinI(I a, I b) { return _mm256_min_epi32(a, b); }
    static I MaxI(I a, I b) { return _mm256_max_epi32(a, b); }
    template <int n>
    static I SllI(I v) {
        if constexpr (n == 0) return v;
        else return _mm256_slli_epi32(v, n);
    }
    template <int n>
    static I SrlI(I v) { return _mm256_srli_epi32(v, n); }
    template <int n>
    static I SraI(I v) { return _mm256_srai_epi32(v, n); }

    static I Gather(M m, const unsigned char* base, I offset) {
        return _mm256_mask_i32gather_epi32(_mm256_setzero_si256(), reinterpret_cast<const int*>(base), offset, m, 1);
    }
    static I GatherAll(const unsigned char* base, I offset) {
        return _mm256_i32gather_epi32(reinterpret_cast<const int*>(base), offset, 1);
    }
    static I GatherTable(const uint32_t* table, I index) {
        return _mm256_i32gather_epi32(reinterpret_cast<const int*>(table), index, 4);
    }
    // The 32-bit words at base + offset and base + offset + 4 of the lanes in
    // m (0 elsewhere), as one 64-bit load per lane: two 4-lane gathers, then
    // the words taken apart.
    template <bool all>
    static void GatherPairs(M m, const unsigned char* base, I offset, I& first, I& second) {
        const auto* words = reinterpret_cast<const long long*>(base);
        const __m128i low = _mm256_castsi256_si128(offset), high = _mm256_extracti128_si256(offset, 1);
        __m256i a, b;
        if constexpr (all) {
            a = _mm256_i32gather_epi64(words, low, 1);
            b = _mm256_i32gather_epi64(words, high, 1);
        } else {
            a = _mm256_mask_i32gather_epi64(_mm256_setzero_si256(), words, low,
                                            _mm256_cvtepi32_epi64(_mm256_castsi256_si128(m)), 1);
            b = _mm256_mask_i32gather_epi64(_mm256_setzero_si256(), words, high,
                                            _mm256_cvtepi32_epi64(_mm256_extracti128_si256(m, 1)), 1);
        }
        // a = (f0 s0 f1 s1 f2 s2 f3 s3), b the same for lanes 4..7.
        const __m256i split = _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7);
        const __m256i pa = _mm256_permutevar8x32_epi32(a, split), pb = _mm256_permutevar8x32_epi32(b, split);
        first = _mm256_permute2x128_si256(pa, pb, 0x20);
        second = _mm256_permute2x128_si256(pa, pb, 0x31);
    }

    // Low 16 bits of each lane (the values are already masked to 16 bits, so
    // the saturating pack keeps them), lanes 0..7 in order.
    static __m128i Narrow16(I v) {
        return _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packus_epi32(v, v), 0x08));
    }
    static void StoreU32(uint32_t* p, I v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
    static void StoreU16(uint16_t* p, I v) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), Narrow16(_mm256_and_si256(v, _mm256_set1_epi32(0xffff))));
    }
    static void StoreU32Masked(M m, uint32_t* p, I v) { _mm256_maskstore_epi32(reinterpret_cast<int*>(p), m, v); }
    static void StoreI32(int32_t* p, I v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }
    // One byte per lane, 0 or 1.
    static M LoadFlags(const uint8_t* p) {
        const __m256i flags = _mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)));
        return _mm256_cmpgt_epi32(flags, _mm256_setzero_si256());
    }
    static void StoreFlags(uint8_t* p, M m) {
        const __m256i ones = _mm256_and_si256(m, _mm256_set1_epi32(1));
        const __m128i words = _mm_packs_epi32(_mm256_castsi256_si128(ones), _mm256_extracti128_si256(ones, 1));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(words, words));
    }
    static void StoreU16Masked(M m, uint16_t* p, I v) {
        const __m128i keep = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i mask16 = _mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_packs_epi32(m, m), 0x08));
        const __m128i fresh = Narrow16(_mm256_and_si256(v, _mm256_set1_epi32(0xffff)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_blendv_epi8(keep, fresh, mask16));
    }
    // The first n (1 .. 8) entries at p, 0 elsewhere; nothing past them is read.
    static I LoadPrefixI(const uint32_t* p, int n) {
        const __m256i lanes = _mm256_cmpgt_epi32(_mm256_set1_epi32(n), Iota());
        return _mm256_maskload_epi32(reinterpret_cast<const int*>(p), lanes);
    }
    static void StoreF(float* p, F v) { _mm256_storeu_ps(p, v); }
    // Lane i takes lane (index_i mod 8) of v.
    static I PermuteI(I v, I index) { return _mm256_permutevar8x32_epi32(v, index); }
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

}  // namespace zrvolume::lanes_avx2
