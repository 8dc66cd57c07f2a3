// Text forms of what pelmor-stream writes: sample lines in each format, the
// status line and the health table. Pure functions of their inputs.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <pelmor.h>

#include "options.hpp"

namespace pelmor_lusk::stream {

struct ColumnDoc {
  const char* name;  // CSV header name
  const char* doc;   // unit, clock and meaning, for --help
};

// The CSV columns in order: every field of pelmor_sample except struct_size.
std::span<const ColumnDoc> sample_columns();

// The header line of the CSV format, with its newline.
std::string csv_header();

// One sample as one line in `format`, with its newline.
std::string format_sample(const pelmor_sample& sample, OutputFormat format);

// What the status line shows; filled by the writer as it writes samples.
struct StatusSnapshot {
  double elapsed_s = 0.0;
  std::uint64_t samples = 0;
  double rate_hz = -1.0;  // negative: not measurable yet
  std::uint32_t drops = 0;
  std::uint32_t resyncs = 0;
  std::uint32_t batch_failures = 0;
  std::uint32_t uncertainty_us = 0;
  bool have_sample = false;
  std::uint64_t queue_overruns = 0;  // samples the writer could not keep up with
};

// One status line without line ending.
std::string format_status_line(const StatusSnapshot& status);

// Rate from two observations of (sample_index, mapped_timestamp_raw_ns);
// negative when it cannot be measured.
double measured_rate_hz(std::uint64_t index_before, std::uint64_t mapped_before_ns, std::uint64_t index_now,
                        std::uint64_t mapped_now_ns);

// A warning without line ending when a run delivered nothing, or fewer than half
// the samples its streaming time implies at rate_hz (the health record cannot
// tell: a run that resyncs again and again drops nothing); empty otherwise, and
// for runs too short to judge.
std::string format_delivery_warning(std::uint64_t delivered, std::uint64_t streaming_ns, std::uint32_t rate_hz);

// The runtime-health record as a small table, one line per counter.
std::string format_health_table(const pelmor_runtime_health& health);

}  // namespace pelmor_lusk::stream
