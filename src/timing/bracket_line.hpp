// A TMST-to-RAW line that respects each anchor's bracket instead of its midpoint
// alone. Pure binary128 arithmetic.
#pragma once

#include <span>

#include "common/quad.hpp"
#include "timing/tmst_mapper.hpp"

namespace pelmor_lusk {

struct BracketLine {
  bool valid = false;
  binary128 slope_ns_per_tick = 0;
  binary128 intercept_ns = 0;   // RAW ns at tick 0
  binary128 widening_ns = 0;    // how far every bracket had to grow for one line to pass; 0 when none
};

// The lines through every bracket [raw_before_ns, raw_after_ns] at its tick form
// a convex set; this takes the middle of its slopes, then the intercept centred
// between the bracket ends at that slope. When no line passes through them all
// (a stretched bracket that lies, a clock that bends), every bracket is widened
// by the least amount that admits one and that line is taken. Anchors oldest
// first with strictly increasing ticks; at least two.
BracketLine fit_bracket_line(std::span<const TmstAnchor> anchors);

}  // namespace pelmor_lusk
