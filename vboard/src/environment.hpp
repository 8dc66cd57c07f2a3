// The board's configuration from PELMOR_VBOARD_* variables, for programs run on
// it without code of their own (the launcher, CI jobs).
#pragma once

#include <string>

#include "pelmor_vboard.hpp"

namespace pelmor_vboard::detail {

class Board;

// Parses PELMOR_VBOARD_FAULTS into faults; the caller holds the board lock.
void add_environment_faults(Board& board);
// Writes the kept ground truth as CSV to PELMOR_VBOARD_TRUTH_FILE, if set.
void write_truth_file();

}  // namespace pelmor_vboard::detail
