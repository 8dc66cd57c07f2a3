// What a client chose for its driver beyond the rate: the documented behaviour by
// default, and the opt-in features of pelmor_config.flags.
#pragma once

#include <cstdint>

namespace pelmor_lusk {

inline constexpr std::uint32_t run_flag_pairing_check = 1U << 0;
inline constexpr std::uint32_t run_flag_bracket_fit = 1U << 1;
inline constexpr std::uint32_t run_known_flags = run_flag_pairing_check | run_flag_bracket_fit;

struct RunOptions {
  bool strict_timing = false;
  // Learn the offset between the INT1 stamp and the mapped time, and resync when
  // it slips by a good part of a period.
  bool pairing_check = false;
  // Map through the line that passes every TMST anchor's bracket, not the
  // least-squares line through their midpoints.
  bool bracket_fit = false;

  static RunOptions from_config(std::uint32_t flags, bool strict_timing) noexcept {
    return RunOptions{strict_timing, (flags & run_flag_pairing_check) != 0, (flags & run_flag_bracket_fit) != 0};
  }
};

}  // namespace pelmor_lusk
