// The board's configuration from PELMOR_VBOARD_* variables, for programs run on
// it without code of their own (the launcher, CI jobs).
#pragma once

#include <string>

#include "pelmor_vboard.hpp"

namespace pelmor_vboard::detail {

class Board;
struct Fault;

// Registers a fault; the caller holds the board lock.
FaultId add_fault_locked(Board& board, Fault fault);
// Parses PELMOR_VBOARD_FAULTS into faults; the caller holds the board lock.
void add_environment_faults(Board& board);
// Parses one fault description ("drop-edge:nth=5:count=1"); false when invalid.
bool parse_fault(const std::string& text, Fault& fault);
// Writes the kept ground truth as CSV to PELMOR_VBOARD_TRUTH_FILE, if set.
void write_truth_file();

}  // namespace pelmor_vboard::detail
