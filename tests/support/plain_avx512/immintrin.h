// Stands in for the compiler's <immintrin.h>: the AVX-512 intrinsics of record_groups.cpp as plain
// operators and loops, so that its kernel is tested on a machine without AVX-512, too.
#pragma once

#include <cstdint>

#define ORVO_AVX512  // no function needs such instructions
#define __builtin_cpu_supports(feature) true

using U32 = std::uint32_t;
using U64 = std::uint64_t;
using __mmask8 = std::uint8_t;
typedef std::uint8_t Bytes __attribute__((vector_size(64)));
typedef U32 Ints __attribute__((vector_size(64)));
typedef U64 __m512i __attribute__((vector_size(64)));
typedef U64 Unaligned __attribute__((vector_size(64), aligned(1), may_alias));
typedef U64 __m128i __attribute__((vector_size(16)));
using V = __m512i;

/// Lane i is `value_of(i)`, or 0 where `mask` lacks bit i.
template <typename Lanes = V, typename ValueOf>
V lanes(const ValueOf& value_of, U64 mask = ~U64{0}) {
  Lanes result{};
  for (unsigned i = 0; i < sizeof(V) / sizeof result[0]; ++i) {
    if ((mask >> i & 1) != 0) result[i] = value_of(i);
  }
  return (V)result;
}

inline V _mm512_set1_epi32(int value) { return (V)(Ints{} + static_cast<U32>(value)); }
inline V _mm512_maskz_loadu_epi64(U64 mask, const U64* from) {
  return lanes([&](unsigned i) { return from[i]; }, mask);
}
inline void _mm512_mask_storeu_epi64(U64* to, U64 mask, V a) {
  for (unsigned i = 0; i < 8; ++i)
    if ((mask >> i & 1) != 0) to[i] = a[i];
}
inline V _mm512_loadu_si512(const void* from) { return *static_cast<const Unaligned*>(from); }
inline void _mm512_storeu_si512(void* to, V a) { *static_cast<Unaligned*>(to) = a; }
inline V _mm512_and_si512(V a, V b) { return a & b; }
inline V _mm512_or_si512(V a, V b) { return a | b; }
inline V _mm512_add_epi64(V a, V b) { return a + b; }
inline V _mm512_add_epi32(V a, V b) { return (V)((Ints)a + (Ints)b); }
inline V _mm512_mullo_epi32(V a, V b) { return (V)((Ints)a * (Ints)b); }
inline V _mm512_srl_epi32(V a, __m128i bits) { return (V)((Ints)a >> static_cast<U32>(bits[0])); }
inline V _mm512_sll_epi32(V a, __m128i bits) { return (V)((Ints)a << static_cast<U32>(bits[0])); }
inline V _mm512_sll_epi64(V a, __m128i bits) { return a << bits[0]; }
inline V _mm512_sllv_epi32(V a, V bits) { return (V)((Ints)a << (Ints)bits); }
inline U64 _mm512_cmpeq_epi32_mask(V a, V b) {
  U64 mask = 0;
  for (unsigned i = 0; i < 16; ++i) mask |= U64{((Ints)a)[i] == ((Ints)b)[i]} << i;
  return mask;
}
inline V _mm512_permutexvar_epi8(V from, V a) {
  return lanes<Bytes>([&](unsigned i) { return ((Bytes)a)[((Bytes)from)[i] % 64]; });
}
inline V _mm512_maskz_permutexvar_epi32(U64 mask, V from, V a) {
  return lanes<Ints>([&](unsigned i) { return ((Ints)a)[((Ints)from)[i] % 16]; }, mask);
}
inline V _mm512_maskz_permutexvar_epi64(U64 mask, V from, V a) {
  return lanes([&](unsigned i) { return a[from[i] % 8]; }, mask);
}
inline V _mm512_permutex2var_epi64(V a, V from, V b) {
  return lanes([&](unsigned i) { return ((from[i] & 8) != 0 ? b : a)[from[i] % 8]; });
}
inline V _mm512_maskz_alignr_epi32(U64 mask, V high, V low, unsigned n) {
  return lanes<Ints>([&](unsigned i) { return ((Ints)(i + n < 16 ? low : high))[(i + n) % 16]; },
                     mask);
}
inline __m128i _mm512_cvtepi32_epi8(V a) {
  const V low = lanes<Bytes>([&](unsigned i) { return ((Ints)a)[i]; }, 0xFFFF);
  return __m128i{low[0], low[1]};
}
inline __m128i _mm_cvtsi32_si128(int value) { return __m128i{static_cast<U32>(value), 0}; }
inline U64 _mm_extract_epi64(__m128i a, unsigned n) { return a[n]; }
inline U64 _pext_u64(U64 a, U64 mask) {
  U64 result = 0;
  for (unsigned n = 0; mask != 0; mask &= mask - 1)
    result |= (a >> __builtin_ctzl(mask) & 1) << n++;
  return result;
}
