// How far apart the lines RAW = a + b * tick can be at one tick when each must
// pass through every anchor's bracket and below every upper bound. Pure
// binary128 arithmetic.
#pragma once

#include <cstdint>
#include <span>

#include "common/quad.hpp"
#include "timing/tmst_mapper.hpp"

namespace pelmor_lusk {

struct LineSpread {
  bool feasible = false;  // some line meets every constraint at this tick
  binary128 low_ns = 0;   // the lowest of those lines at the tick
  binary128 high_ns = 0;  // the highest
};

// The optimum of a two-variable linear programme is fixed by two of its
// constraints, so each extreme is the tightest one two constraints allow alone.
// Infeasible when they cross at this tick or when no constraint bounds a side.
LineSpread line_spread_at(std::span<const TmstAnchor> anchors, std::span<const UpperBound> bounds,
                          std::uint64_t tick);

}  // namespace pelmor_lusk
