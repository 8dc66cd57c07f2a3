// One TMST tick mapped onto CLOCK_MONOTONIC_RAW with its stated uncertainty, and
// the verdict on a mapping that stays outside its gate.
#pragma once

#include <cstdint>
#include <string>

#include "timing/tmst_mapper.hpp"

namespace pelmor_lusk {

inline constexpr std::uint64_t tmst_quantization_ns = 1000;
inline constexpr std::uint64_t mapping_uncertainty_gate_ns = 200000;
inline constexpr std::uint32_t mapping_uncertainty_gate_us = 200;

struct TmstMapping {
  bool valid = false;
  std::uint64_t raw_ns = 0;
  std::uint32_t uncertainty_us = 0;
  std::uint64_t mapping_residual_abs_ns = 0;
  std::uint64_t tmst_half_window_ns = 0;
  std::uint64_t slope_uncertainty_ns = 0;  // carried for the diagnostic; always 0 here
  std::uint64_t mapping_age_ns = 0;
};

struct MapperRefreshOutcome {
  TmstMapping mapping;
  bool gate_drop = false;
  std::string message;
};

// Pure; never throws.
TmstMapping map_tmst_to_raw(const TmstFit& fit, std::uint64_t tick, std::uint64_t measurement_uncertainty_ns);

// The verdict on a mapping with fit still outside its gate after fresh anchors
// were refused (last_rejected says why). Returns the soft drop with its
// message, or throws std::runtime_error with the message when it is fatal.
MapperRefreshOutcome judge_failed_mapping(const TmstFit& fit, const TmstFit& last_rejected, const TmstMapping& mapping,
                                          bool strict_timing, std::uint64_t tick,
                                          std::uint64_t measurement_uncertainty_ns,
                                          std::uint64_t gpio_delivery_age_ns);

std::string format_mapping_diagnostic(const TmstMapping& mapping, const TmstFit& fit, std::uint64_t tick,
                                      std::uint64_t measurement_uncertainty_ns, std::uint64_t gpio_delivery_age_ns);

}  // namespace pelmor_lusk
