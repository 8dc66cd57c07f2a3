// IEEE 754 binary128 for the TMST fit and mapping: tick and nanosecond values
// near 2^64 must convert and accumulate without loss, which neither double nor
// the x87 80-bit format can do.
#pragma once

#include <cfloat>
#include <cstdint>

#if defined(__aarch64__) || defined(__riscv) || defined(__s390x__)
  #if LDBL_MANT_DIG != 113
    #error "long double is expected to be IEEE binary128 on this target"
  #endif
  #include <math.h>
#elif defined(__x86_64__) || defined(__i386__)
  #if !defined(__SIZEOF_FLOAT128__)
    #error "__float128 is required for binary128 arithmetic on x86"
  #endif
  #include <quadmath.h>
#else
  #error "no known IEEE binary128 type on this target"
#endif

namespace pelmor_lusk {

#if defined(__x86_64__) || defined(__i386__)
using binary128 = __float128;
inline constexpr int binary128_mantissa_bits = FLT128_MANT_DIG;
#else
using binary128 = long double;
inline constexpr int binary128_mantissa_bits = LDBL_MANT_DIG;
#endif

static_assert(binary128_mantissa_bits == 113, "binary128 must have a 113-bit significand");
static_assert(sizeof(binary128) == 16, "binary128 must be 16 bytes");

// 2^64 - 1 is exactly representable in binary128 (64 <= 113 bits).
inline constexpr binary128 u64_max_q = static_cast<binary128>(UINT64_MAX);

inline binary128 to_q(std::uint64_t v) { return static_cast<binary128>(v); }
inline binary128 to_q(std::int64_t v) { return static_cast<binary128>(v); }

inline binary128 abs_q(binary128 v) { return v < 0 ? -v : v; }

// Nearest integer, halves away from zero.
inline binary128 round_half_away_q(binary128 v) {
#if defined(__x86_64__) || defined(__i386__)
  return roundq(v);
#else
  return roundl(v);
#endif
}

inline binary128 ceil_q(binary128 v) {
#if defined(__x86_64__) || defined(__i386__)
  return ceilq(v);
#else
  return ceill(v);
#endif
}

// Callers check 0 <= v <= 2^64 - 1 first; inside that range the conversion is exact
// for integral v.
inline std::uint64_t to_u64(binary128 v) { return static_cast<std::uint64_t>(v); }

inline double to_double(binary128 v) { return static_cast<double>(v); }

}  // namespace pelmor_lusk
