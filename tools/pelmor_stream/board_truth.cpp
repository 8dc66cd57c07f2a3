#include "board_truth.hpp"

#include <dlfcn.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>

namespace pelmor_lusk::stream {

BoardSamplesFunction find_board_samples() {
  void* symbol = dlsym(RTLD_DEFAULT, board_samples_symbol);
  if (symbol == nullptr) return nullptr;
  return reinterpret_cast<BoardSamplesFunction>(symbol);
}

const char* edge_outcome_name(pelmor_vboard::EdgeOutcome outcome) {
  using pelmor_vboard::EdgeOutcome;
  switch (outcome) {
    case EdgeOutcome::none:
      return "none";
    case EdgeOutcome::raised:
      return "raised";
    case EdgeOutcome::suppressed:
      return "suppressed";
    case EdgeOutcome::dropped:
      return "dropped";
    case EdgeOutcome::unobserved:
      return "unobserved";
  }
  return "unknown";
}

std::string truth_csv_header() {
  return "index,raw_ns,monotonic_ns,tmst_ticks,tmst,tmst_low16,in_fifo,sentinel,edge,line_seqno,"
         "event_monotonic_ns,irq_latency_ns,event_discarded\n";
}

std::string format_truth_row(const pelmor_vboard::SampleTruth& t) {
  char buffer[384];
  const int n = std::snprintf(buffer, sizeof buffer,
                              "%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu32 ",%u,%d,%d,%s,%" PRIu32
                              ",%" PRIu64 ",%" PRIu64 ",%d\n",
                              t.index, t.raw_ns, t.monotonic_ns, t.tmst_ticks, t.tmst,
                              static_cast<unsigned>(t.tmst_low16), t.in_fifo ? 1 : 0, t.sentinel ? 1 : 0,
                              edge_outcome_name(t.edge), t.line_seqno, t.event_monotonic_ns, t.irq_latency_ns,
                              t.event_discarded ? 1 : 0);
  return std::string(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
}

bool write_truth_csv(const std::string& path, BoardSamplesFunction samples, std::string& error) {
  const std::vector<pelmor_vboard::SampleTruth> truth = samples(0, std::numeric_limits<std::size_t>::max());
  std::FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  bool ok = std::fputs(truth_csv_header().c_str(), file) >= 0;
  for (const auto& row : truth) {
    if (!ok) break;
    ok = std::fputs(format_truth_row(row).c_str(), file) >= 0;
  }
  const int saved_errno = errno;
  if (std::fclose(file) != 0 || !ok) {
    error = "cannot write " + path + ": " + std::strerror(ok ? errno : saved_errno);
    return false;
  }
  return true;
}

}  // namespace pelmor_lusk::stream
