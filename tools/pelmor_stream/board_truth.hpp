// Ground truth of the virtual board, for judging timestamps after a run. The
// tool does not link the board: it finds the board's control API in the
// running process, which holds it only when started under tools/pelmor-vboard.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "pelmor_vboard.hpp"

namespace pelmor_lusk::stream {

using BoardSamplesFunction = std::vector<pelmor_vboard::SampleTruth> (*)(std::uint64_t, std::size_t);

// Exported name of pelmor_vboard::samples(std::uint64_t, std::size_t).
inline constexpr const char* board_samples_symbol = "_ZN13pelmor_vboard7samplesEmm";

// The board's samples() when the board is loaded in this process, else null.
BoardSamplesFunction find_board_samples();

const char* edge_outcome_name(pelmor_vboard::EdgeOutcome outcome);

// The truth CSV: a header line and one row per sample, each with its newline.
std::string truth_csv_header();
std::string format_truth_row(const pelmor_vboard::SampleTruth& truth);

// Writes every sample the board still holds to `path`; false with `error` set
// on failure.
bool write_truth_csv(const std::string& path, BoardSamplesFunction samples, std::string& error);

}  // namespace pelmor_lusk::stream
