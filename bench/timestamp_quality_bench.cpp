// How good the delivered timestamps are and what delivering them costs, measured
// on the virtual board's realistic profile through the public C interface.
//
// For every delivered sample the error against the board's ground truth of
//   (a) mapped_timestamp_raw_ns,
//   (b) event_timestamp_raw_ns as delivered,
//   (c) the interrupt interpolation FIFO drivers commonly use, applied to the
//       delivered event stamps (see interpolate_from_interrupts),
//   (d) a convex-hull two-way estimator over the TMST latch brackets of the
//       snapshot messages the library sent (see fit_bracket_hull);
// once per pelmor_config.flags value given (the first one also drives the
// fault runs and the cost);
// then runs with one suppressed and one spurious INT1 edge, counting the samples
// that carry another sample's event stamp and asking pelmor-timing-report
// whether it flags them; and the cost: worker CPU time per delivered sample,
// callback latency, heap allocations per FIFO batch and on the delivery path,
// and the duration of pelmor_start. A short run on the ideal profile, where an
// SPI message costs no bus time, repeats the CPU measurement. Last, the targets
// table: clean runs on each board profile (realistic, slow host, PLL tick), rate
// and run length, with flags 0 and with the bracket fit, split into the first
// second and the rest, against the hull yardstick and the stated uncertainty;
// the first two seconds of the short ones go to first-seconds.csv for the plot.
//
//   pelmor_timestamp_bench [--duration=60] [--fault-duration=20] [--fault-after=3]
//                          [--ideal-seconds=10] [--settle=5] [--rates=25,30] [--starts=5]
//                          [--seed=1] [--out=DIR] [--report=PATH | --no-report] [--plot]
//                          [--interp-batch=4] [--interp-window=8] [--hull-anchors=16]
//                          [--flags=0,0x2] [--learning-slip-duration=3] [--learning-slip-samples=16]
//                          [--target-durations=10,60]
//
// Prints Markdown tables on standard output; the library's own diagnostics go to
// standard error.
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pelmor.h"
#include "pelmor_vboard.hpp"
#include "timing_yardsticks.hpp"
#include "worker_probe.hpp"

#ifndef PELMOR_TIMING_REPORT
#define PELMOR_TIMING_REPORT "tools/pelmor-timing-report"
#endif

namespace {

namespace vb = pelmor_vboard;
using namespace pelmor_lusk::bench;

std::uint64_t clock_ns(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

std::int64_t signed_diff(std::uint64_t a, std::uint64_t b) { return static_cast<std::int64_t>(a - b); }

// ---- Options ---------------------------------------------------------------------

struct Options {
  double duration_s = 60;
  double fault_duration_s = 20;
  double fault_after_s = 3;
  // Each run of the sweep over the first sensor samples of a run (0: no sweep).
  double learning_slip_s = 3;
  std::size_t learning_slip_samples = 16;
  double ideal_seconds = 10;
  double settle_s = 5;
  std::vector<unsigned> rates{25, 30};
  unsigned starts = 5;
  std::uint64_t seed = 1;
  std::string out_dir = "timestamp-bench";
  std::string report = PELMOR_TIMING_REPORT;
  bool run_report = true;
  bool plot = false;
  std::size_t interp_batch = 4;
  std::size_t interp_window = 8;
  std::size_t hull_anchors = 16;
  // pelmor_config.flags of each clean run; the first is the reference.
  std::vector<std::uint32_t> flag_sets{0, PELMOR_FLAG_BRACKET_FIT, PELMOR_FLAG_PAIRING_CHECK};
  // Run lengths of the per-profile targets table (none: no table).
  std::vector<double> target_seconds{10, 60};
};

// "flags=0x2 (bracket fit)"; "flags=0" for the default behaviour.
std::string flags_label(std::uint32_t flags) {
  if (flags == 0) return "flags=0";
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%x", flags);
  std::string names;
  const auto name = [&](std::uint32_t bit, const char* text) {
    if ((flags & bit) == 0) return;
    names += names.empty() ? "" : " + ";
    names += text;
  };
  name(PELMOR_FLAG_PAIRING_CHECK, "pairing check");
  name(PELMOR_FLAG_BRACKET_FIT, "bracket fit");
  return std::string("flags=") + hex + (names.empty() ? "" : " (" + names + ")");
}

[[noreturn]] void usage(const char* bad) {
  std::fprintf(stderr,
               "pelmor_timestamp_bench: bad option %s\n"
               "usage: pelmor_timestamp_bench [--duration=S] [--fault-duration=S] [--fault-after=S]\n"
               "         [--ideal-seconds=S] [--settle=S] [--rates=25,30] [--starts=N]\n"
               "         [--seed=N] [--out=DIR] [--report=PATH | --no-report] [--plot]\n"
               "         [--interp-batch=N] [--interp-window=N] [--hull-anchors=N]\n"
               "         [--flags=F,F...] [--learning-slip-duration=S] [--learning-slip-samples=N]\n"
               "         [--target-durations=S,S...]\n",
               bad);
  std::exit(2);
}

// "a,b,,c" as {"a", "b", "", "c"}; "" as {""}.
std::vector<std::string> comma_items(const std::string& value) {
  std::vector<std::string> items;
  for (std::size_t pos = 0; pos <= value.size();) {
    std::size_t comma = value.find(',', pos);
    if (comma == std::string::npos) comma = value.size();
    items.push_back(value.substr(pos, comma - pos));
    pos = comma + 1;
  }
  return items;
}

Options parse_options(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const auto eq = arg.find('=');
    const std::string key = arg.substr(0, eq);
    const std::string value = eq == std::string::npos ? "" : arg.substr(eq + 1);
    char* end = nullptr;
    const auto number = [&]() {
      const double v = std::strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || !(v >= 0)) usage(argv[i]);
      return v;
    };
    const auto count = [&]() { return static_cast<std::size_t>(number()); };
    if (key == "--duration") {
      o.duration_s = number();
    } else if (key == "--fault-duration") {
      o.fault_duration_s = number();
    } else if (key == "--fault-after") {
      o.fault_after_s = number();
    } else if (key == "--learning-slip-duration") {
      o.learning_slip_s = number();
    } else if (key == "--learning-slip-samples") {
      o.learning_slip_samples = count();
    } else if (key == "--settle") {
      o.settle_s = number();
    } else if (key == "--ideal-seconds") {
      o.ideal_seconds = number();
    } else if (key == "--starts") {
      o.starts = static_cast<unsigned>(count());
    } else if (key == "--seed") {
      o.seed = static_cast<std::uint64_t>(number());
    } else if (key == "--out" && !value.empty()) {
      o.out_dir = value;
    } else if (key == "--report" && !value.empty()) {
      o.report = value;
    } else if (arg == "--no-report") {
      o.run_report = false;
    } else if (arg == "--plot") {
      o.plot = true;
    } else if (key == "--interp-batch") {
      o.interp_batch = std::max<std::size_t>(1, count());
    } else if (key == "--interp-window") {
      o.interp_window = std::max<std::size_t>(1, count());
    } else if (key == "--hull-anchors") {
      o.hull_anchors = std::max<std::size_t>(2, count());
    } else if (key == "--flags") {
      o.flag_sets.clear();
      for (const std::string& f : comma_items(value)) {
        const unsigned long v = std::strtoul(f.c_str(), &end, 0);
        if (f.empty() || *end != '\0' || v > 0xFFFFFFFFul) usage(argv[i]);
        o.flag_sets.push_back(static_cast<std::uint32_t>(v));
      }
    } else if (key == "--target-durations") {
      o.target_seconds.clear();
      for (const std::string& d : value.empty() ? std::vector<std::string>{} : comma_items(value)) {
        const double v = std::strtod(d.c_str(), &end);
        if (!(v > 0) || *end != '\0') usage(argv[i]);
        o.target_seconds.push_back(v);
      }
    } else if (key == "--rates") {
      o.rates.clear();
      for (const std::string& r : comma_items(value)) {
        if (r != "25" && r != "30") usage(argv[i]);
        o.rates.push_back(static_cast<unsigned>(std::stoul(r)));
      }
    } else {
      usage(argv[i]);
    }
  }
  return o;
}

// ---- Recording ------------------------------------------------------------------------

struct CallbackRecord {
  std::uint64_t sample_index = 0;
  std::uint64_t mapped_ns = 0;
  std::uint64_t event_ns = 0;
  std::uint64_t callback_raw_ns = 0;
  std::uint64_t thread_cpu_ns = 0;
  std::uint64_t allocations = 0;         // worker thread, outside device calls
  std::uint64_t device_allocations = 0;  // worker thread, inside the board
  std::uint32_t uncertainty_us = 0;
  std::uint32_t resyncs = 0;  // boundary_resyncs as delivered
  std::uint16_t low16 = 0;
};

// Written by the worker only, read after pelmor_stop has joined it. The callback
// takes no lock and never allocates, so that it adds nothing to what it measures.
class Recorder {
 public:
  explicit Recorder(std::size_t capacity) : records_(capacity) {}

  static void on_sample(const pelmor_sample* s, void* user) {
    const std::uint64_t now = clock_ns(CLOCK_MONOTONIC_RAW);
    const std::uint64_t cpu = clock_ns(CLOCK_THREAD_CPUTIME_ID);
    const ThreadAllocations allocations = thread_allocations();
    auto* self = static_cast<Recorder*>(user);
    const std::size_t n = self->count_.load(std::memory_order_relaxed);
    if (n == self->records_.size()) {
      self->overflow_.store(true, std::memory_order_relaxed);
      return;
    }
    CallbackRecord& r = self->records_[n];
    r.sample_index = s->sample_index;
    r.mapped_ns = s->mapped_timestamp_raw_ns;
    r.event_ns = s->event_timestamp_raw_ns;
    r.callback_raw_ns = now;
    r.thread_cpu_ns = cpu;
    r.allocations = allocations.outside_device;
    r.device_allocations = allocations.inside_device;
    r.uncertainty_us = s->phase_uncertainty_us;
    r.resyncs = s->boundary_resyncs;
    r.low16 = s->fifo_timestamp_low16;
    self->count_.store(n + 1, std::memory_order_release);
  }

  std::vector<CallbackRecord> take() {
    records_.resize(count_.load(std::memory_order_acquire));
    return std::move(records_);
  }
  bool overflowed() const { return overflow_.load(); }

 private:
  std::vector<CallbackRecord> records_;
  std::atomic<std::size_t> count_{0};
  std::atomic<bool> overflow_{false};
};

struct SpiEntry {
  vb::SpiMessageKind kind = vb::SpiMessageKind::any;
  std::uint32_t transfers = 0;
  std::uint64_t raw_start_ns = 0;
  std::uint64_t raw_end_ns = 0;
  bool latched = false;
  std::uint32_t latch_tmst = 0;
};

enum class Fault { none, suppressed_edge, spurious_edge };

const char* fault_name(Fault f) {
  switch (f) {
    case Fault::suppressed_edge:
      return "one suppressed edge";
    case Fault::spurious_edge:
      return "one spurious edge";
    case Fault::none:
      break;
  }
  return "none";
}

const char* fault_tag(Fault f) {
  switch (f) {
    case Fault::suppressed_edge:
      return "suppressed";
    case Fault::spurious_edge:
      return "spurious";
    case Fault::none:
      break;
  }
  return "clean";
}

struct Run {
  unsigned rate = 0;
  std::uint32_t flags = 0;  // pelmor_config.flags
  Fault fault = Fault::none;
  std::int32_t start_status = PELMOR_ERR_INTERNAL;
  std::uint64_t start_ns = 0;
  std::vector<CallbackRecord> records;
  bool records_overflowed = false;
  std::vector<vb::SampleTruth> truth;
  std::vector<vb::EdgeTruth> edges;
  bool truth_complete = false;
  std::vector<SpiEntry> log;
  bool log_complete = false;
  std::vector<CallSpan> snapshot_spans;  // the same messages seen from outside the board
  pelmor_runtime_health health{};  // zeros when it could not be read
  std::uint64_t fault_hits = 0;
  std::uint64_t fault_edge = 0;  // the run's n-th INT1 edge (1: the boundary); 0: fault_after_s into the run
};

unsigned sensor_rate(unsigned rate) { return rate == 25 ? 25 : 200; }
double sensor_period_ns(unsigned rate) { return 1e9 / sensor_rate(rate); }

vb::Config board_config(const Options& o, unsigned rate, double seconds, vb::Profile profile) {
  vb::Config cfg = vb::Config::realistic();
  cfg.profile = profile;
  cfg.seed = o.seed + rate;
  // Keep the whole run: the sensor samples and every SPI message (two FIFO count
  // reads and a data read per sensor sample, a snapshot and its bank restore
  // every sixteenth, with room to spare).
  const auto samples = static_cast<std::size_t>(std::ceil(seconds * sensor_rate(rate)));
  cfg.truth_capacity = samples + 4096;
  cfg.spi_log_capacity = 6 * samples + 4096;
  return cfg;
}

void sleep_seconds(double s) {
  if (s > 0) std::this_thread::sleep_for(std::chrono::duration<double>(s));
}

std::int32_t start_timed(pelmor_handle h, std::uint64_t& elapsed_ns) {
  const std::uint64_t before = clock_ns(CLOCK_MONOTONIC_RAW);
  const std::int32_t status = pelmor_start(h);
  elapsed_ns = clock_ns(CLOCK_MONOTONIC_RAW) - before;
  return status;
}

vb::FaultId install_fault(Fault fault, vb::Trigger when) {
  return fault == Fault::suppressed_edge ? vb::suppress_edges(when) : vb::spurious_edges(when);
}

Run run_on_board(const Options& o, const vb::Config& board, unsigned rate, std::uint32_t flags, Fault fault,
                 double seconds, std::uint64_t fault_edge = 0) {
  Run run;
  run.rate = rate;
  run.flags = flags;
  run.fault = fault;
  run.fault_edge = fault_edge;
  vb::reset(board);
  // INT1 is quiet until the boundary is armed, so edges count from the run's start.
  std::optional<vb::FaultId> early;
  if (fault != Fault::none && fault_edge != 0) early = install_fault(fault, vb::Trigger::once(fault_edge));

  pelmor_config config{};
  config.struct_size = sizeof config;
  config.sample_rate_hz = rate;
  config.mode = 1;
  config.flags = flags;
  pelmor_handle handle = nullptr;
  if (pelmor_create(&config, &handle) != PELMOR_OK) return run;
  Recorder recorder(static_cast<std::size_t>(seconds * rate * 2) + 1024);
  pelmor_set_callback(handle, &Recorder::on_sample, &recorder);

  take_snapshot_spans();
  run.start_status = start_timed(handle, run.start_ns);
  if (run.start_status == PELMOR_OK) {
    if (fault == Fault::none || early) {
      sleep_seconds(seconds);
      if (early) run.fault_hits = vb::fault_hits(*early);
    } else {
      const double before = std::min(o.fault_after_s, seconds);
      sleep_seconds(before);
      const vb::FaultId id = install_fault(fault, vb::Trigger::once());
      sleep_seconds(seconds - before);
      run.fault_hits = vb::fault_hits(id);
    }
    pelmor_stop(handle);
    pelmor_runtime_health health{};
    health.struct_size = sizeof health;
    if (pelmor_get_runtime_health(handle, &health) == PELMOR_OK) run.health = health;
  }
  pelmor_destroy(handle);
  run.snapshot_spans = take_snapshot_spans();

  run.records = recorder.take();
  run.records_overflowed = recorder.overflowed();
  run.truth = vb::samples(0);
  run.edges = vb::edges(0);
  run.truth_complete = vb::samples_produced() == run.truth.size() && vb::edges_produced() == run.edges.size();
  for (const vb::SpiMessageRecord& m : vb::spi_log(0)) {
    run.log.push_back({m.kind, m.transfer_count, m.raw_start_ns, m.raw_end_ns, m.latched && m.result >= 0, m.latch_tmst});
  }
  run.log_complete = !run.log.empty() && vb::spi_log_mark() == run.log.size();
  return run;
}

Run run_driver(const Options& o, unsigned rate, std::uint32_t flags, Fault fault, double seconds,
               vb::Profile profile = vb::Profile::realistic, std::uint64_t fault_edge = 0) {
  return run_on_board(o, board_config(o, rate, seconds, profile), rate, flags, fault, seconds, fault_edge);
}

// ---- Analysis ---------------------------------------------------------------------------

struct Cost {
  double cpu_per_sample_ns = 0;
  double bus_per_sample_ns = 0;          // emulated SPI message time on the worker
  bool allocations_counted = false;
  std::uint64_t intervals = 0;           // between consecutive callbacks
  std::uint64_t batches = 0;             // FIFO data reads
  double allocations_per_batch = 0;      // the library's
  double device_allocations_per_batch = 0;
  std::vector<double> attribution;       // per batch, per TMST snapshot, per delivery
  std::uint64_t intervals_fitting = 0;   // exactly whole allocations per batch and per snapshot
};

struct LineErrors {
  ErrorStats errors;
  std::size_t windows = 0;       // fits
  std::size_t inconsistent = 0;  // fits over brackets no single line passes through
};

struct Analysis {
  std::size_t delivered = 0;
  std::size_t matched = 0;
  ErrorStats mapped, event, interpolated;
  ErrorStats mapped_settled;  // from settle_s after the first delivery on
  ErrorStats first_second, after_first_second;  // split one second after the first matched sample
  ErrorStats stated_first_second;
  struct EarlyPoint {
    double seconds = 0;  // after the first matched sample's true instant
    std::int64_t error_ns = 0;
    std::int64_t stated_ns = 0;
  };
  std::vector<EarlyPoint> first_seconds;  // the first two seconds, for the plot
  ErrorStats after_rebuild;  // the first second after every resync rebuilt the map
  std::size_t rebuilds = 0;
  ErrorStats stated;          // phase_uncertainty_us, in ns
  std::size_t outside_stated = 0;  // samples further from the truth than their stated uncertainty
  LineErrors hull;                    // (d), over the board's message bounds
  LineErrors hull_library_view;       // (d), over the bounds as the library sees them
  LineErrors hull_narrowed_library_view;  // the same, each narrowed as the bracket fit narrows it
  LineErrors midpoints_library_view;  // least squares over the same, as the library fits
  LineErrors weighted_library_view;   // the same, weighted by the inverse square half window
  LineErrors weighted_floor_library_view;  // with the half window taken as at least weight_floor_ns
  ErrorStats latency, to_readable, readable_to_callback;
  // How much earlier / later than the board's own bounds a snapshot message
  // begins / ends as seen from just outside the board.
  ErrorStats view_early, view_late;
  std::size_t mispaired = 0;
  std::optional<std::uint64_t> first_mispaired;
  Cost cost;
};

Cost measure_cost(const Run& run) {
  Cost c;
  const auto& r = run.records;
  if (r.size() < 2) return c;
  const double intervals = static_cast<double>(r.size() - 1);
  c.intervals = r.size() - 1;
  c.cpu_per_sample_ns = static_cast<double>(r.back().thread_cpu_ns - r.front().thread_cpu_ns) / intervals;

  // Every SPI message between the first and the last callback is the worker's.
  std::vector<double> x, y;
  std::size_t m = 0;
  while (m < run.log.size() && run.log[m].raw_start_ns < r.front().callback_raw_ns) ++m;
  double bus_ns = 0;
  std::uint64_t allocations = 0, device_allocations = 0;
  for (std::size_t i = 1; i < r.size(); ++i) {
    double reads = 0, snapshots = 0;
    for (; m < run.log.size() && run.log[m].raw_start_ns < r[i].callback_raw_ns; ++m) {
      const SpiEntry& e = run.log[m];
      bus_ns += static_cast<double>(e.raw_end_ns - e.raw_start_ns);
      if (e.kind == vb::SpiMessageKind::fifo_data_read) reads += 1;
      if (e.kind == vb::SpiMessageKind::tmst_snapshot) snapshots += 1;
    }
    const std::uint64_t in_interval = r[i].allocations - r[i - 1].allocations;
    allocations += in_interval;
    device_allocations += r[i].device_allocations - r[i - 1].device_allocations;
    c.batches += static_cast<std::uint64_t>(reads);
    x.insert(x.end(), {reads, snapshots, 1.0});
    y.push_back(static_cast<double>(in_interval));
  }
  c.bus_per_sample_ns = bus_ns / intervals;
  c.allocations_counted = probe_available();
  if (!c.allocations_counted || c.batches == 0) return c;
  c.allocations_per_batch = static_cast<double>(allocations) / static_cast<double>(c.batches);
  c.device_allocations_per_batch = static_cast<double>(device_allocations) / static_cast<double>(c.batches);
  // At 25 Hz every batch delivers one sample and the three columns are not
  // independent; then there is no attribution.
  c.attribution = least_squares(x, 3, y);
  if (c.attribution.size() == 3) {
    const double per_batch = std::round(c.attribution[0]);
    const double per_snapshot = std::round(c.attribution[1]);
    for (std::size_t i = 0; i < y.size(); ++i) {
      if (y[i] == per_batch * x[3 * i] + per_snapshot * x[3 * i + 1]) c.intervals_fitting += 1;
    }
  }
  return c;
}

// The TMST latches of the snapshot messages, bracketed by the board's own message
// bounds, or (library_view) by the instants seen just outside the board, where the
// library reads its clocks around the ioctl. Empty when the two records disagree.
std::vector<LatchBracket> snapshot_brackets(const Run& run, bool library_view) {
  std::vector<LatchObservation> latches;
  std::size_t three = 0;  // position among the three-transfer messages, which the spans follow
  for (const SpiEntry& m : run.log) {
    if (m.transfers != 3) continue;
    const std::size_t j = three++;
    if (m.kind != vb::SpiMessageKind::tmst_snapshot || !m.latched) continue;
    if (!library_view) {
      latches.push_back({m.latch_tmst, m.raw_start_ns, m.raw_end_ns});
    } else if (j < run.snapshot_spans.size()) {
      latches.push_back({m.latch_tmst, run.snapshot_spans[j].raw_before_ns, run.snapshot_spans[j].raw_after_ns});
    }
  }
  if (library_view && three != run.snapshot_spans.size()) return {};
  return unwrap_latches(latches, 20);
}

// The snapshot's strobe is out at least 1.6 us after the ioctl begins, and the
// message needs at least 24.8 us more (two chip-select pauses, two transfers):
// the margins the bracket fit narrows by, from the message the library sends.
std::vector<LatchBracket> narrowed_to_latch(std::vector<LatchBracket> brackets) {
  constexpr std::uint64_t before_ns = 1600, after_ns = 24800;
  for (LatchBracket& b : brackets) {
    if (b.raw_end_ns - b.raw_start_ns <= before_ns + after_ns) continue;
    b.raw_start_ns += before_ns;
    b.raw_end_ns -= after_ns;
  }
  return brackets;
}

struct Matched {
  const CallbackRecord* record;
  const vb::SampleTruth* truth;
};

enum class Estimator { hull, midpoint_least_squares, weighted_least_squares, weighted_least_squares_floor };

// The floor of the floored weighted candidate: about the narrowest bracket the
// board's realistic profile gives (an 8 us message plus wire time).
constexpr double weight_floor_ns = 5000;

// Each sample mapped with the line through the last o.hull_anchors brackets that
// were complete when it was delivered, as the library had them.
LineErrors line_errors(const std::vector<LatchBracket>& brackets, const std::vector<Matched>& samples,
                       const Options& o, Estimator estimator) {
  LineErrors out;
  if (brackets.empty()) return out;
  std::vector<std::int64_t> errors;
  std::size_t known = 0, fitted_with = 0;
  TickLine line;
  for (const Matched& m : samples) {
    const CallbackRecord& r = *m.record;
    while (known < brackets.size() && brackets[known].raw_end_ns <= r.callback_raw_ns) ++known;
    if (known < 2) continue;
    if (fitted_with != known) {
      const std::size_t from = known > o.hull_anchors ? known - o.hull_anchors : 0;
      const auto window = std::span(brackets).subspan(from, known - from);
      if (estimator == Estimator::hull) {
        const HullLine hull = fit_bracket_hull(window);
        if (hull.valid && !hull.consistent) out.inconsistent += 1;
        line = hull;
      } else if (estimator == Estimator::midpoint_least_squares) {
        line = fit_midpoint_line(window);
      } else {
        line = fit_weighted_midpoint_line(
            window, estimator == Estimator::weighted_least_squares_floor ? weight_floor_ns : 0.0);
      }
      fitted_with = known;
      out.windows += 1;
    }
    if (!line.valid) continue;
    const LatchBracket& newest = brackets[known - 1];
    // The tick need not be 1 us (a PLL-clocked part): its length from the brackets.
    double ns_per_tick = 1000.0;
    if (newest.tick > brackets[0].tick && newest.raw_start_ns > brackets[0].raw_start_ns) {
      ns_per_tick = static_cast<double>(newest.raw_start_ns - brackets[0].raw_start_ns) /
                    static_cast<double>(newest.tick - brackets[0].tick);
    }
    const auto ticks_ahead =
        static_cast<std::int64_t>(static_cast<double>(signed_diff(r.mapped_ns, newest.raw_start_ns)) / ns_per_tick);
    const std::uint64_t tick = unwrap_near(newest.tick + static_cast<std::uint64_t>(ticks_ahead), r.low16, 16);
    errors.push_back(std::llround(line.at(tick) - static_cast<double>(m.truth->raw_ns)));
  }
  out.errors = summarize(errors);
  return out;
}

Analysis analyse(const Run& run, const Options& o) {
  Analysis a;
  a.delivered = run.records.size();
  a.cost = measure_cost(run);
  const double period = sensor_period_ns(run.rate);
  std::vector<TruthPoint> points;
  points.reserve(run.truth.size());
  for (const vb::SampleTruth& t : run.truth) points.push_back({t.raw_ns, t.tmst_low16});
  const TruthIndex index(points);
  const std::uint64_t first_index = run.truth.empty() ? 0 : run.truth.front().index;
  std::vector<std::uint64_t> readable_at(run.truth.size(), 0);
  for (const vb::EdgeTruth& e : run.edges) {
    if (e.sample_index >= first_index && e.sample_index - first_index < readable_at.size()) {
      readable_at[e.sample_index - first_index] = e.queued_raw_ns;
    }
  }

  std::vector<Matched> matched;
  std::vector<std::int64_t> mapped, mapped_settled, stated, event, latency, to_readable, readable_to_callback;
  const std::uint64_t settled_from =
      run.records.empty() ? 0 : run.records.front().callback_raw_ns + static_cast<std::uint64_t>(o.settle_s * 1e9);
  std::vector<InterruptInput> interrupts;
  std::vector<std::int64_t> first_second, after_first_second, stated_first_second, after_rebuild;
  std::optional<std::uint64_t> first_true_ns, rebuilt_at_ns;
  std::uint32_t resyncs_seen = run.records.empty() ? 0 : run.records.front().resyncs;
  for (const CallbackRecord& r : run.records) {
    const auto k = index.match(r.low16, r.mapped_ns, static_cast<std::uint64_t>(period / 2));
    if (!k) continue;
    const vb::SampleTruth& t = run.truth[*k];
    matched.push_back({&r, &t});
    mapped.push_back(signed_diff(r.mapped_ns, t.raw_ns));
    stated.push_back(std::int64_t{r.uncertainty_us} * 1000);
    if (std::llabs(mapped.back()) > stated.back()) a.outside_stated += 1;
    if (r.callback_raw_ns >= settled_from) mapped_settled.push_back(mapped.back());
    if (!first_true_ns) first_true_ns = t.raw_ns;
    const double since_first_s = static_cast<double>(t.raw_ns - *first_true_ns) / 1e9;
    (since_first_s < 1.0 ? first_second : after_first_second).push_back(mapped.back());
    if (since_first_s < 1.0) stated_first_second.push_back(stated.back());
    if (since_first_s < 2.0) a.first_seconds.push_back({since_first_s, mapped.back(), stated.back()});
    if (r.resyncs != resyncs_seen) {
      resyncs_seen = r.resyncs;
      rebuilt_at_ns = t.raw_ns;
      a.rebuilds += 1;
    }
    if (rebuilt_at_ns && t.raw_ns - *rebuilt_at_ns < 1'000'000'000) after_rebuild.push_back(mapped.back());
    event.push_back(signed_diff(r.event_ns, t.raw_ns));
    latency.push_back(signed_diff(r.callback_raw_ns, t.raw_ns));
    if (readable_at[*k] != 0) {
      to_readable.push_back(signed_diff(readable_at[*k], t.raw_ns));
      readable_to_callback.push_back(signed_diff(r.callback_raw_ns, readable_at[*k]));
    }
    // The FIFO count tells such a driver how many sensor samples lie between.
    interrupts.push_back({t.index, r.event_ns});

    // The kernel stamp of this sample's own edge is its instant plus the modelled latency.
    const double from_own_edge = static_cast<double>(signed_diff(r.event_ns, t.raw_ns + t.irq_latency_ns));
    if (t.edge != vb::EdgeOutcome::raised || std::fabs(from_own_edge) > period / 2) {
      a.mispaired += 1;
      if (!a.first_mispaired) a.first_mispaired = r.sample_index;
    }
  }
  a.matched = matched.size();

  InterpolationSettings settings;
  settings.batch_samples = o.interp_batch;
  settings.period_window = o.interp_window;
  settings.nominal_period_ns = period;
  const auto estimates = interpolate_from_interrupts(interrupts, settings);
  std::vector<std::int64_t> interpolated;
  for (std::size_t i = 0; i < estimates.size(); ++i) {
    if (estimates[i]) interpolated.push_back(std::llround(*estimates[i] - static_cast<double>(matched[i].truth->raw_ns)));
  }

  a.hull = line_errors(snapshot_brackets(run, false), matched, o, Estimator::hull);
  const std::vector<LatchBracket> library_view = snapshot_brackets(run, true);
  a.hull_library_view = line_errors(library_view, matched, o, Estimator::hull);
  a.hull_narrowed_library_view = line_errors(narrowed_to_latch(library_view), matched, o, Estimator::hull);
  a.midpoints_library_view = line_errors(library_view, matched, o, Estimator::midpoint_least_squares);
  a.weighted_library_view = line_errors(library_view, matched, o, Estimator::weighted_least_squares);
  a.weighted_floor_library_view = line_errors(library_view, matched, o, Estimator::weighted_least_squares_floor);

  std::vector<const SpiEntry*> snapshots;
  for (const SpiEntry& m : run.log) {
    if (m.transfers == 3) snapshots.push_back(&m);
  }
  if (!snapshots.empty() && snapshots.size() == run.snapshot_spans.size()) {
    std::vector<std::int64_t> early, late;
    for (std::size_t i = 0; i < snapshots.size(); ++i) {
      early.push_back(signed_diff(snapshots[i]->raw_start_ns, run.snapshot_spans[i].raw_before_ns));
      late.push_back(signed_diff(run.snapshot_spans[i].raw_after_ns, snapshots[i]->raw_end_ns));
    }
    a.view_early = summarize(early);
    a.view_late = summarize(late);
  }

  a.mapped = summarize(mapped);
  a.mapped_settled = summarize(mapped_settled);
  a.first_second = summarize(first_second);
  a.after_first_second = summarize(after_first_second);
  a.stated_first_second = summarize(stated_first_second);
  a.after_rebuild = summarize(after_rebuild);
  a.stated = summarize(stated);
  a.event = summarize(event);
  a.interpolated = summarize(interpolated);
  a.latency = summarize(latency);
  a.to_readable = summarize(to_readable);
  a.readable_to_callback = summarize(readable_to_callback);
  return a;
}

// ---- pelmor-timing-report ------------------------------------------------------------------

struct ReportVerdict {
  bool ran = false;
  std::string flagged;  // the first "MISPAIRED EVENTS" line up to its sample range, empty when none
};

std::string shell_quote(const std::string& s) {
  std::string out = "'";
  for (const char ch : s) out += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
  return out + "'";
}

// Writes the columns pelmor-timing-report reads from a pelmor-stream CSV and a
// ground-truth file, and asks it what it sees.
ReportVerdict write_and_report(const Run& run, const Options& o, bool plot) {
  ReportVerdict v;
  const std::string base = o.out_dir + "/" + fault_tag(run.fault) + "-" + std::to_string(run.rate) + "hz";
  {
    std::ofstream samples(base + "-samples.csv");
    samples << "sample_index,mapped_timestamp_raw_ns,event_timestamp_raw_ns,fifo_timestamp_low16,"
               "phase_uncertainty_us\n";
    for (const CallbackRecord& r : run.records) {
      samples << r.sample_index << ',' << r.mapped_ns << ',' << r.event_ns << ',' << r.low16 << ','
              << r.uncertainty_us << '\n';
    }
    std::ofstream truth(base + "-truth.csv");
    truth << "index,raw_ns,tmst_low16,edge,irq_latency_ns\n";
    for (const vb::SampleTruth& t : run.truth) {
      truth << t.index << ',' << t.raw_ns << ',' << t.tmst_low16 << ',' << static_cast<unsigned>(t.edge) << ','
            << t.irq_latency_ns << '\n';
    }
    if (!samples || !truth) return v;
  }
  if (!o.run_report) return v;
  // Through its own interpreter line (the system Python, which has the plotting
  // package) when it can be executed, else whatever python3 is first in PATH.
  const std::string interpreter = ::access(o.report.c_str(), X_OK) == 0 ? "" : "python3 ";
  std::string command = interpreter + shell_quote(o.report) + " " + shell_quote(base + "-samples.csv") + " " +
                        shell_quote(base + "-truth.csv");
  if (plot) command += " --plot " + shell_quote(base + "-timing.png");
  command += " > " + shell_quote(base + "-report.txt") + " 2>&1";
  if (std::system(command.c_str()) != 0) return v;
  std::ifstream report(base + "-report.txt");
  std::string line;
  while (std::getline(report, line)) {
    if (line.rfind("MISPAIRED EVENTS:", 0) == 0 && v.flagged.empty()) {
      v.flagged = line.substr(0, line.find(", event_timestamp_raw_ns"));
    }
  }
  v.ran = true;
  return v;
}

// ---- Output ------------------------------------------------------------------------------------

std::string fixed(double value, int decimals) {
  if (std::fabs(value) < 0.5 * std::pow(10.0, -decimals)) value = 0;  // no "-0.000"
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, value);
  return buf;
}

std::string us(double ns) { return fixed(ns / 1000.0, 1); }
std::string us(std::int64_t ns) { return us(static_cast<double>(ns)); }

std::string stats_cells(const ErrorStats& s) {
  if (s.count == 0) return "0 | - | - | - | -";
  return std::to_string(s.count) + " | " + us(s.median_abs_ns) + " | " + us(s.p99_abs_ns) + " | " +
         us(s.max_abs_ns) + " | " + us(s.mean_ns);
}

std::string median_p99_max(const ErrorStats& s) {
  if (s.count == 0) return "-";
  return us(s.median_abs_ns) + " / " + us(s.p99_abs_ns) + " / " + us(s.max_abs_ns);
}

const char* verdict(bool ok) { return ok ? "met" : "**missed**"; }

std::string ms_median_max(std::vector<std::uint64_t> v) {
  if (v.empty()) return "-";
  std::sort(v.begin(), v.end());
  return fixed(static_cast<double>(v[v.size() / 2]) / 1e6, 1) + " / " + fixed(static_cast<double>(v.back()) / 1e6, 1);
}

void note_incomplete(const Run& run) {
  if (run.start_status != PELMOR_OK) {
    std::printf("- %u Hz, %s: pelmor_start failed (%s)\n", run.rate, fault_name(run.fault),
                pelmor_status_message(run.start_status));
  }
  if (!run.truth_complete) std::printf("- %u Hz, %s: the board's truth ring overflowed\n", run.rate, fault_name(run.fault));
  if (!run.log_complete) std::printf("- %u Hz, %s: the board's SPI log overflowed\n", run.rate, fault_name(run.fault));
  if (run.records_overflowed) std::printf("- %u Hz, %s: more callbacks than recorded\n", run.rate, fault_name(run.fault));
}

// A clean run with another pelmor_config.flags value than the reference's.
struct FlagsRun {
  Run run;
  Analysis analysis;
};

struct RateResult {
  Run run;  // flag_sets[0]
  Analysis analysis;
  ReportVerdict report;
  std::vector<FlagsRun> other_flags;
  std::vector<std::uint64_t> starts_ns;
  std::optional<Cost> ideal_cost;
};

struct FaultResult {
  Run run;
  Analysis analysis;
  ReportVerdict report;
  // The same fault with the pairing check added to the reference flags.
  std::optional<Run> checked_run;
  std::optional<Analysis> checked;
};

// The clean runs of one rate, the reference first.
std::vector<std::pair<const Run*, const Analysis*>> clean_runs(const RateResult& r) {
  std::vector<std::pair<const Run*, const Analysis*>> out{{&r.run, &r.analysis}};
  for (const FlagsRun& f : r.other_flags) out.emplace_back(&f.run, &f.analysis);
  return out;
}

void print_quality(const Options& o, const std::vector<RateResult>& results) {
  std::printf("### Timestamp error against the board's ground truth (us)\n\n");
  std::printf("Realistic profile, %s s per rate; every delivered sample matched to its true instant. "
              "Median, p99 (nearest rank) and max of |error|; mean is signed.\n\n",
              fixed(o.duration_s, 0).c_str());
  std::printf("| rate | timestamp | samples | median | p99 | max | mean |\n|---|---|---|---|---|---|---|\n");
  for (const RateResult& r : results) {
    const Analysis& a = r.analysis;
    const unsigned rate = r.run.rate;
    const std::string tag = r.run.flags == 0 ? "" : ", " + flags_label(r.run.flags);
    std::printf("| %u Hz | (a) mapped_timestamp_raw_ns%s | %s |\n", rate, tag.c_str(), stats_cells(a.mapped).c_str());
    std::printf("| %u Hz | (a) the same, from %s s on | %s |\n", rate, fixed(o.settle_s, 0).c_str(),
                stats_cells(a.mapped_settled).c_str());
    std::printf("| %u Hz | (b) event_timestamp_raw_ns | %s |\n", rate, stats_cells(a.event).c_str());
    std::printf("| %u Hz | (c) interrupt interpolation | %s |\n", rate, stats_cells(a.interpolated).c_str());
    std::printf("| %u Hz | (d) convex-hull two-way | %s |\n", rate, stats_cells(a.hull.errors).c_str());
    // Another run: its own (b) and (d), on its own edges and brackets.
    for (const FlagsRun& f : r.other_flags) {
      const std::string label = flags_label(f.run.flags);
      std::printf("| %u Hz | (a) mapped_timestamp_raw_ns, %s | %s |\n", rate, label.c_str(),
                  stats_cells(f.analysis.mapped).c_str());
      std::printf("| %u Hz | (a) the same, from %s s on | %s |\n", rate, fixed(o.settle_s, 0).c_str(),
                  stats_cells(f.analysis.mapped_settled).c_str());
      std::printf("| %u Hz | (b) event_timestamp_raw_ns, same run | %s |\n", rate, stats_cells(f.analysis.event).c_str());
      std::printf("| %u Hz | (d) convex-hull two-way, same run | %s |\n", rate,
                  stats_cells(f.analysis.hull.errors).c_str());
    }
  }
  std::printf("\n(c): a batch of %zu delivered samples per interrupt, period over the last %zu interrupts. "
              "(d): the last %zu TMST latch brackets complete at delivery, bounded as the board logs each snapshot "
              "message.\n\n",
              o.interp_batch, o.interp_window, o.hull_anchors);
  std::printf("The same %zu brackets as the library sees them (its clocks are read just outside the board), "
              "mapped by other estimators:\n\n",
              o.hull_anchors);
  std::printf("| rate | estimator | samples | median | p99 | max | mean |\n|---|---|---|---|---|---|---|\n");
  for (const RateResult& r : results) {
    const Analysis& a = r.analysis;
    std::printf("| %u Hz | least squares through the midpoints (the library's fit, without its gates) | %s |\n",
                r.run.rate, stats_cells(a.midpoints_library_view.errors).c_str());
    std::printf("| %u Hz | least squares weighted by 1 / half window^2 | %s |\n", r.run.rate,
                stats_cells(a.weighted_library_view.errors).c_str());
    std::printf("| %u Hz | the same, half window floored at %s us | %s |\n", r.run.rate, us(weight_floor_ns).c_str(),
                stats_cells(a.weighted_floor_library_view.errors).c_str());
    std::printf("| %u Hz | convex hull | %s |\n", r.run.rate, stats_cells(a.hull_library_view.errors).c_str());
  }
  std::printf("\n");
  for (const RateResult& r : results) {
    const Analysis& a = r.analysis;
    const bool have = a.mapped.count > 0;
    std::printf("- %u Hz: %zu delivered, %zu matched (health: %llu delivered, %u drops, %u resyncs, %u batch "
                "failures). Targets for (a): median <= 8 us %s; p99 <= 20 us %s; p99 <= p99(b) / 4 = %s us %s. "
                "(d) was refitted %zu times, %zu of them over brackets no single line passes through (%zu of %zu "
                "over the library's view).",
                r.run.rate, a.delivered, a.matched, static_cast<unsigned long long>(r.run.health.samples_delivered),
                r.run.health.total_drops, r.run.health.boundary_resyncs, r.run.health.batch_failures,
                verdict(have && a.mapped.median_abs_ns <= 8000), verdict(have && a.mapped.p99_abs_ns <= 20000),
                us(static_cast<double>(a.event.p99_abs_ns) / 4).c_str(),
                verdict(have && 4 * a.mapped.p99_abs_ns <= a.event.p99_abs_ns), a.hull.windows, a.hull.inconsistent,
                a.hull_library_view.inconsistent, a.hull_library_view.windows);
    if (a.view_early.count > 0) {
      std::printf(" Seen from just outside the board, where the library brackets it, a snapshot message begins "
                  "%s us (median; p99 %s) before the board's own start and ends %s us (p99 %s) after its end.",
                  us(a.view_early.median_abs_ns).c_str(), us(a.view_early.p99_abs_ns).c_str(),
                  us(a.view_late.median_abs_ns).c_str(), us(a.view_late.p99_abs_ns).c_str());
    }
    if (r.report.ran) {
      std::printf(" pelmor-timing-report: %s.", r.report.flagged.empty() ? "no mispairing flagged" : r.report.flagged.c_str());
    }
    std::printf("\n");
    note_incomplete(r.run);
  }
  for (const RateResult& r : results) {
    for (const auto& [run, analysis] : clean_runs(r)) {
      const Analysis& a = *analysis;
      const bool have = a.mapped.count > 0;
      std::printf("- %u Hz, %s: %zu delivered, %zu matched, %u drops, %u resyncs. (a) p99 <= p99 of (d) = %s us %s; "
                  "p99 <= p99(b) / 4 = %s us %s. Stated uncertainty median / max %s / %s us; %zu samples "
                  "further from the truth.\n",
                  run->rate, flags_label(run->flags).c_str(), a.delivered, a.matched, run->health.total_drops,
                  run->health.boundary_resyncs, us(a.hull.errors.p99_abs_ns).c_str(),
                  verdict(have && a.hull.errors.count > 0 && a.mapped.p99_abs_ns <= a.hull.errors.p99_abs_ns),
                  us(static_cast<double>(a.event.p99_abs_ns) / 4).c_str(),
                  verdict(have && 4 * a.mapped.p99_abs_ns <= a.event.p99_abs_ns), us(a.stated.median_abs_ns).c_str(),
                  us(a.stated.max_abs_ns).c_str(), a.outside_stated);
      if (run != &r.run) note_incomplete(*run);
    }
  }
}

void print_mispairing(const Options& o, const std::vector<FaultResult>& faults) {
  std::printf("\n### Mispaired event stamps after one lost or one extra INT1 edge\n\n");
  std::printf("%s s per run, the fault armed %s s after pelmor_start returned; it hits the next edge.\n\n",
              fixed(o.fault_duration_s, 0).c_str(), fixed(o.fault_after_s, 0).c_str());
  std::printf("| rate | fault | delivered | drops / resyncs / batch failures | carrying another sample's event "
              "stamp (truth) | first such sample | pelmor-timing-report | with the pairing check: carrying "
              "another's stamp, delivered, drops / resyncs |\n|---|---|---|---|---|---|---|---|\n");
  for (const FaultResult& f : faults) {
    const Analysis& a = f.analysis;
    std::string flag = "not run";
    if (f.report.ran) flag = f.report.flagged.empty() ? "nothing flagged" : f.report.flagged;
    std::string checked = "-";
    if (f.checked) {
      const Run& c = *f.checked_run;
      checked = std::to_string(f.checked->mispaired) + ", " + std::to_string(f.checked->delivered) + ", " +
                std::to_string(c.health.total_drops) + " / " + std::to_string(c.health.boundary_resyncs) +
                (c.fault_hits == 1 ? "" : " (fault did not hit once)");
    }
    std::printf("| %u Hz | %s%s | %zu | %u / %u / %u | %zu | %s | %s | %s |\n", f.run.rate, fault_name(f.run.fault),
                f.run.fault_hits == 1 ? "" : " (fault did not hit once)", a.delivered, f.run.health.total_drops,
                f.run.health.boundary_resyncs, f.run.health.batch_failures, a.mispaired,
                a.first_mispaired ? std::to_string(*a.first_mispaired).c_str() : "-", flag.c_str(), checked.c_str());
  }
  for (const FaultResult& f : faults) {
    note_incomplete(f.run);
    if (f.checked_run) note_incomplete(*f.checked_run);
  }
}

// The pairing check against an edge lost or added at each of the first sensor
// samples of a run, inside the window where it learns its offset.
struct LearningSlipRow {
  unsigned rate = 0;
  Fault fault = Fault::none;
  std::size_t runs = 0;
  std::size_t not_hit = 0;
  std::size_t failed_starts = 0;
  std::size_t worst_mispaired = 0;
  std::uint64_t worst_at_sample = 0;
  std::size_t total_mispaired = 0;
  std::uint32_t max_resyncs = 0;
};

LearningSlipRow sweep_learning_slips(const Options& o, unsigned rate, Fault fault, std::uint32_t flags) {
  LearningSlipRow row;
  row.rate = rate;
  row.fault = fault;
  for (std::uint64_t k = 1; k <= o.learning_slip_samples; ++k) {
    // Sample k of the run is announced by edge k + 1, the boundary's being the first.
    const Run run = run_driver(o, rate, flags, fault, o.learning_slip_s, vb::Profile::realistic, k + 1);
    row.runs += 1;
    if (run.start_status != PELMOR_OK) {
      row.failed_starts += 1;
      continue;
    }
    if (run.fault_hits != 1) row.not_hit += 1;
    const Analysis a = analyse(run, o);
    row.total_mispaired += a.mispaired;
    if (a.mispaired > row.worst_mispaired || row.worst_at_sample == 0) {
      row.worst_mispaired = a.mispaired;
      row.worst_at_sample = k;
    }
    row.max_resyncs = std::max(row.max_resyncs, run.health.boundary_resyncs);
  }
  return row;
}

void print_learning_slips(const Options& o, const std::vector<LearningSlipRow>& rows, std::uint32_t flags) {
  std::printf("\n### The pairing check against a slip inside its learning window\n\n");
  std::printf("One run of %s s per position, %s: an edge lost (suppressed, no sequence gap) or added at sensor "
              "sample k of the run, k = 1..%zu. Target: at most 3 delivered samples carrying another sample's "
              "event stamp (truth) in any run.\n\n",
              fixed(o.learning_slip_s, 0).c_str(), flags_label(flags).c_str(), o.learning_slip_samples);
  std::printf("| rate | fault | runs | worst run: samples carrying another's stamp (at k) | all runs | most resyncs "
              "in a run | target |\n|---|---|---|---|---|---|---|\n");
  for (const LearningSlipRow& r : rows) {
    std::string notes;
    if (r.not_hit != 0) notes += ", fault missed in " + std::to_string(r.not_hit);
    if (r.failed_starts != 0) notes += ", start failed in " + std::to_string(r.failed_starts);
    std::printf("| %u Hz | %s | %zu%s | %zu (%llu) | %zu | %u | %s |\n", r.rate, fault_name(r.fault), r.runs,
                notes.c_str(), r.worst_mispaired, static_cast<unsigned long long>(r.worst_at_sample),
                r.total_mispaired, r.max_resyncs, verdict(r.worst_mispaired <= 3 && r.failed_starts == 0));
  }
}

void print_cost(const std::vector<RateResult>& results) {
  std::printf("\n### Cost\n\n");
  std::printf("| rate | worker CPU per delivered sample (us) | of it, emulated SPI bus time (us) | same, ideal profile "
              "(us) | callback latency median / p99 / max (us) | edge to readable event (us) | readable event to "
              "callback (us) | allocations per FIFO batch | per delivery | pelmor_start median / max (ms) |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|\n");
  for (const RateResult& r : results) {
    const Cost& c = r.analysis.cost;
    std::string per_batch = "not counted", per_delivery = "-";
    if (c.allocations_counted) {
      per_batch = fixed(c.allocations_per_batch, 2);
      if (c.attribution.size() == 3) per_delivery = fixed(c.attribution[2], 2);
    }
    std::printf("| %u Hz | %s | %s | %s | %s | %s | %s | %s | %s | %s (%zu starts) |\n", r.run.rate,
                us(c.cpu_per_sample_ns).c_str(), us(c.bus_per_sample_ns).c_str(),
                r.ideal_cost ? us(r.ideal_cost->cpu_per_sample_ns).c_str() : "-",
                median_p99_max(r.analysis.latency).c_str(), median_p99_max(r.analysis.to_readable).c_str(),
                median_p99_max(r.analysis.readable_to_callback).c_str(), per_batch.c_str(), per_delivery.c_str(),
                ms_median_max(r.starts_ns).c_str(), r.starts_ns.size());
  }
  std::printf("\n");
  for (const RateResult& r : results) {
    const Cost& c = r.analysis.cost;
    std::printf("- %u Hz: callback latency p99 <= 500 us %s.", r.run.rate,
                verdict(r.analysis.latency.count > 0 && r.analysis.latency.p99_abs_ns <= 500000));
    if (c.allocations_counted) {
      std::printf(" %llu FIFO batches in %llu callback intervals", static_cast<unsigned long long>(c.batches),
                  static_cast<unsigned long long>(c.intervals));
      if (c.attribution.size() == 3) {
        std::printf("; least squares per interval: %s per batch, %s per TMST snapshot, %s per delivery; "
                    "%llu of %llu intervals hold exactly %s x batches + %s x snapshots",
                    fixed(c.attribution[0], 3).c_str(), fixed(c.attribution[1], 3).c_str(),
                    fixed(c.attribution[2], 3).c_str(), static_cast<unsigned long long>(c.intervals_fitting),
                    static_cast<unsigned long long>(c.intervals), fixed(std::round(c.attribution[0]), 0).c_str(),
                    fixed(std::round(c.attribution[1]), 0).c_str());
      } else {
        std::printf(" (one batch per delivery: batch and delivery cannot be told apart at this rate)");
      }
      std::printf(". Not counted: %s allocations per batch made by the board inside the emulated calls.",
                  fixed(c.device_allocations_per_batch, 2).c_str());
    }
    std::printf("\n");
  }
}

// ---- Targets per board profile -------------------------------------------------------------

enum class BoardVariant { realistic, slow_host, pll_tick };

const char* variant_name(BoardVariant v) {
  switch (v) {
    case BoardVariant::realistic:
      return "realistic";
    case BoardVariant::slow_host:
      return "slow-host";
    case BoardVariant::pll_tick:
      return "PLL tick";
  }
  return "?";
}

vb::Config variant_config(const Options& o, BoardVariant v, unsigned rate, double seconds) {
  const vb::Config base = board_config(o, rate, seconds, vb::Profile::realistic);
  vb::Config cfg = v == BoardVariant::slow_host ? vb::Config::slow_host() : base;
  cfg.seed = base.seed;
  cfg.truth_capacity = base.truth_capacity;
  cfg.spi_log_capacity = base.spi_log_capacity;
  if (v == BoardVariant::pll_tick) cfg.tmst_tick_ns = 1000.0 * 20.48 / 19.2;  // 19.2 MHz against 20.48
  return cfg;
}

struct TargetRow {
  BoardVariant variant = BoardVariant::realistic;
  unsigned rate = 0;
  double seconds = 0;
  std::uint32_t flags = 0;
  Fault fault = Fault::none;  // a lost edge: the pairing check resyncs and the map is rebuilt
  Run run;
  Analysis analysis;
};

double ratio(double stated, double actual) { return actual > 0 ? stated / actual : 0.0; }

// The targets of the bracket fit, judged on one row; empty when it has none.
std::string target_verdict(const TargetRow& t) {
  if ((t.flags & PELMOR_FLAG_BRACKET_FIT) == 0) return "";
  const Analysis& a = t.analysis;
  if (a.matched == 0) return "**no samples**";
  std::string missed;
  // The PLL part is held to honesty only.
  if (t.variant == BoardVariant::pll_tick) return a.outside_stated == 0 ? "met" : "**missed: samples outside**";
  const auto p99 = static_cast<double>(a.mapped.p99_abs_ns);
  const bool short_run = t.seconds < 30;
  if (short_run && p99 > 10000) missed += " p99 > 10 us;";
  if (short_run && p99 > static_cast<double>(a.event.p99_abs_ns) / 4) missed += " p99 > stamp p99 / 4;";
  if (!short_run && p99 > 5000) missed += " p99 > 5 us;";
  if (ratio(a.stated.median_abs_ns, a.mapped.median_abs_ns) > 5) missed += " stated / actual > 5;";
  if (a.outside_stated != 0) missed += " samples outside;";
  return missed.empty() ? "met" : "**missed:" + missed + "**";
}

std::vector<TargetRow> run_targets(const Options& o) {
  std::vector<TargetRow> rows;
  if (o.target_seconds.empty()) return rows;
  for (const double seconds : o.target_seconds) {
    for (const BoardVariant v : {BoardVariant::realistic, BoardVariant::slow_host, BoardVariant::pll_tick}) {
      for (const unsigned rate : o.rates) {
        for (const std::uint32_t flags : {0U, static_cast<std::uint32_t>(PELMOR_FLAG_BRACKET_FIT)}) {
          std::fprintf(stderr, "== targets: %s, %u Hz, %s s, %s\n", variant_name(v), rate, fixed(seconds, 0).c_str(),
                       flags_label(flags).c_str());
          TargetRow t;
          t.variant = v;
          t.rate = rate;
          t.seconds = seconds;
          t.flags = flags;
          t.run = run_on_board(o, variant_config(o, v, rate, seconds), rate, flags, Fault::none, seconds);
          t.analysis = analyse(t.run, o);
          rows.push_back(std::move(t));
        }
      }
    }
  }
  // A young map again: a lost edge the pairing check answers with a resync.
  const double seconds = o.target_seconds.front();
  for (const BoardVariant v : {BoardVariant::realistic, BoardVariant::slow_host}) {
    for (const unsigned rate : o.rates) {
      for (const std::uint32_t flags : {static_cast<std::uint32_t>(PELMOR_FLAG_PAIRING_CHECK),
                                        static_cast<std::uint32_t>(PELMOR_FLAG_PAIRING_CHECK | PELMOR_FLAG_BRACKET_FIT)}) {
        std::fprintf(stderr, "== targets: %s, %u Hz, %s s, one lost edge, %s\n", variant_name(v), rate,
                     fixed(seconds, 0).c_str(), flags_label(flags).c_str());
        TargetRow t;
        t.variant = v;
        t.rate = rate;
        t.seconds = seconds;
        t.flags = flags;
        t.fault = Fault::suppressed_edge;
        t.run = run_on_board(o, variant_config(o, v, rate, seconds), rate, flags, t.fault, seconds);
        t.analysis = analyse(t.run, o);
        rows.push_back(std::move(t));
      }
    }
  }
  return rows;
}

// The first two seconds of every short run, for the plot.
void write_first_seconds(const Options& o, const std::vector<TargetRow>& rows) {
  if (rows.empty()) return;
  std::ofstream out(o.out_dir + "/first-seconds.csv");
  out << "profile,rate_hz,flags,seconds,error_us,stated_us\n";
  for (const TargetRow& t : rows) {
    if (t.seconds != o.target_seconds.front() || t.fault != Fault::none) continue;
    for (const Analysis::EarlyPoint& p : t.analysis.first_seconds) {
      out << variant_name(t.variant) << ',' << t.rate << ',' << t.flags << ',' << fixed(p.seconds, 4) << ','
          << fixed(static_cast<double>(p.error_ns) / 1000.0, 2) << ',' << fixed(static_cast<double>(p.stated_ns) / 1000.0, 0)
          << '\n';
    }
  }
}

void print_targets(const Options& o, const std::vector<TargetRow>& rows) {
  if (rows.empty()) return;
  std::printf("\n### Targets per board profile\n\n");
  std::printf("One clean run per row, judged from the first delivered sample against the board's truth: "
              "|mapped - true instant| in us (p99; the first second after the first delivered sample and the rest), "
              "the INT1 stamp's p99, the convex hull over the same brackets the library saw (narrowed as the "
              "bracket fit narrows them), the median stated `phase_uncertainty_us` against the median error, and "
              "the samples further from the truth than they state. Targets (bracket fit): 10 s runs p99 <= 10 us "
              "and <= a quarter of the stamp's p99, 60 s runs p99 <= 5 us, stated / actual <= 5, none outside; "
              "on the PLL tick, none outside.\n\n");
  std::printf("| profile | rate | run | flags | samples | p99 | first second p99 | rest p99 | median | stamp p99 | "
              "hull p99 | median stated | stated / actual | outside | resyncs | targets |\n");
  std::printf("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  for (const TargetRow& t : rows) {
    if (t.fault != Fault::none) continue;
    const Analysis& a = t.analysis;
    std::printf("| %s | %u Hz | %s s | %s | %zu | %s | %s | %s | %s | %s | %s | %s | %s | %zu | %u | %s |\n",
                variant_name(t.variant), t.rate, fixed(t.seconds, 0).c_str(), flags_label(t.flags).c_str(), a.matched,
                us(a.mapped.p99_abs_ns).c_str(), us(a.first_second.p99_abs_ns).c_str(),
                us(a.after_first_second.p99_abs_ns).c_str(), us(a.mapped.median_abs_ns).c_str(),
                us(a.event.p99_abs_ns).c_str(), us(a.hull_narrowed_library_view.errors.p99_abs_ns).c_str(),
                us(a.stated.median_abs_ns).c_str(), fixed(ratio(a.stated.median_abs_ns, a.mapped.median_abs_ns), 1).c_str(),
                a.outside_stated, t.run.health.boundary_resyncs, target_verdict(t).c_str());
  }
  std::printf("\nAfter a rebuild: one INT1 edge lost %s s into the run, which the pairing check answers with a "
              "resync that rebuilds the map; the first second after each rebuild against the whole run.\n\n",
              fixed(o.fault_after_s, 0).c_str());
  std::printf("| profile | rate | flags | samples | rebuilds | p99 | first second after a rebuild: p99 | median "
              "stated | outside |\n|---|---|---|---|---|---|---|---|---|\n");
  for (const TargetRow& t : rows) {
    if (t.fault == Fault::none) continue;
    const Analysis& a = t.analysis;
    std::printf("| %s | %u Hz | %s | %zu | %zu | %s | %s | %s | %zu |\n", variant_name(t.variant), t.rate,
                flags_label(t.flags).c_str(), a.matched, a.rebuilds, us(a.mapped.p99_abs_ns).c_str(),
                a.after_rebuild.count == 0 ? "-" : us(a.after_rebuild.p99_abs_ns).c_str(),
                us(a.stated.median_abs_ns).c_str(), a.outside_stated);
  }
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse_options(argc, argv);
  const std::string mkdir = "mkdir -p " + shell_quote(o.out_dir);
  if (std::system(mkdir.c_str()) != 0) {
    std::fprintf(stderr, "pelmor_timestamp_bench: cannot create %s\n", o.out_dir.c_str());
    return 1;
  }

  std::vector<RateResult> results;
  std::vector<FaultResult> faults;
  std::vector<LearningSlipRow> learning_slips;
  const std::uint32_t checked_flags =
      (o.flag_sets.empty() ? 0U : o.flag_sets.front()) | static_cast<std::uint32_t>(PELMOR_FLAG_PAIRING_CHECK);
  for (const unsigned rate : o.rates) {
    RateResult r;
    std::fprintf(stderr, "== %u Hz: %s s on the realistic profile\n", rate, fixed(o.duration_s, 0).c_str());
    const std::uint32_t reference_flags = o.flag_sets.empty() ? 0 : o.flag_sets.front();
    r.run = run_driver(o, rate, reference_flags, Fault::none, o.duration_s);
    r.analysis = analyse(r.run, o);
    r.report = write_and_report(r.run, o, o.plot);
    if (r.run.start_status == PELMOR_OK) r.starts_ns.push_back(r.run.start_ns);
    for (std::size_t i = 1; i < o.flag_sets.size(); ++i) {
      std::fprintf(stderr, "== %u Hz: %s s on the realistic profile, %s\n", rate, fixed(o.duration_s, 0).c_str(),
                   flags_label(o.flag_sets[i]).c_str());
      FlagsRun f;
      f.run = run_driver(o, rate, o.flag_sets[i], Fault::none, o.duration_s);
      f.analysis = analyse(f.run, o);
      r.other_flags.push_back(std::move(f));
    }

    for (const Fault f : {Fault::suppressed_edge, Fault::spurious_edge}) {
      if (o.fault_duration_s <= 0) break;
      std::fprintf(stderr, "== %u Hz: %s s with %s\n", rate, fixed(o.fault_duration_s, 0).c_str(), fault_name(f));
      FaultResult fr;
      fr.run = run_driver(o, rate, reference_flags, f, o.fault_duration_s);
      fr.analysis = analyse(fr.run, o);
      fr.report = write_and_report(fr.run, o, false);
      if (fr.run.start_status == PELMOR_OK) r.starts_ns.push_back(fr.run.start_ns);
      if ((reference_flags & PELMOR_FLAG_PAIRING_CHECK) == 0) {
        std::fprintf(stderr, "== %u Hz: the same with %s\n", rate,
                     flags_label(reference_flags | PELMOR_FLAG_PAIRING_CHECK).c_str());
        fr.checked_run = run_driver(o, rate, reference_flags | PELMOR_FLAG_PAIRING_CHECK, f, o.fault_duration_s);
        fr.checked = analyse(*fr.checked_run, o);
      }
      faults.push_back(std::move(fr));
    }

    for (const Fault f : {Fault::suppressed_edge, Fault::spurious_edge}) {
      if (o.learning_slip_s <= 0 || o.learning_slip_samples == 0) break;
      std::fprintf(stderr, "== %u Hz: %s at each of the first %zu samples, %s\n", rate, fault_name(f),
                   o.learning_slip_samples, flags_label(checked_flags).c_str());
      learning_slips.push_back(sweep_learning_slips(o, rate, f, checked_flags));
    }

    if (o.ideal_seconds > 0) {
      std::fprintf(stderr, "== %u Hz: %s s on the ideal profile (cost only)\n", rate, fixed(o.ideal_seconds, 0).c_str());
      const Run ideal = run_driver(o, rate, reference_flags, Fault::none, o.ideal_seconds, vb::Profile::ideal);
      if (ideal.start_status == PELMOR_OK) r.ideal_cost = measure_cost(ideal);
    }

    for (unsigned i = 0; i < o.starts; ++i) {
      vb::reset(board_config(o, rate, 1, vb::Profile::realistic));
      pelmor_config config{};
      config.struct_size = sizeof config;
      config.sample_rate_hz = rate;
      config.mode = 1;
      config.flags = reference_flags;
      pelmor_handle h = nullptr;
      if (pelmor_create(&config, &h) != PELMOR_OK) continue;
      std::uint64_t ns = 0;
      if (start_timed(h, ns) == PELMOR_OK) r.starts_ns.push_back(ns);
      pelmor_stop(h);
      pelmor_destroy(h);
    }
    results.push_back(std::move(r));
  }

  print_quality(o, results);
  if (!faults.empty()) print_mispairing(o, faults);
  if (!learning_slips.empty()) print_learning_slips(o, learning_slips, checked_flags);
  print_cost(results);
  const std::vector<TargetRow> targets = run_targets(o);
  write_first_seconds(o, targets);
  print_targets(o, targets);
  std::printf("\nSamples, ground truth and pelmor-timing-report output of every run: %s/\n", o.out_dir.c_str());
  return 0;
}
