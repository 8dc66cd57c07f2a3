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
// then runs with one suppressed and one spurious INT1 edge, counting the samples
// that carry another sample's event stamp and asking pelmor-timing-report
// whether it flags them; and the cost: worker CPU time per delivered sample,
// callback latency, heap allocations per FIFO batch and on the delivery path,
// and the duration of pelmor_start.
//
//   pelmor_timestamp_bench [--duration=60] [--fault-duration=20] [--fault-after=3]
//                          [--rates=25,30] [--starts=5] [--seed=1] [--out=DIR]
//                          [--report=PATH | --no-report] [--plot]
//                          [--interp-batch=4] [--interp-window=8] [--hull-anchors=16]
//
// Prints Markdown tables on standard output; the library's own diagnostics go to
// standard error.
#include <time.h>

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
#include <vector>

#include "alloc_counter.hpp"
#include "pelmor.h"
#include "pelmor_vboard.hpp"
#include "timing_yardsticks.hpp"

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
};

[[noreturn]] void usage(const char* bad) {
  std::fprintf(stderr,
               "pelmor_timestamp_bench: bad option %s\n"
               "usage: pelmor_timestamp_bench [--duration=S] [--fault-duration=S] [--fault-after=S]\n"
               "         [--rates=25,30] [--starts=N] [--seed=N] [--out=DIR] [--report=PATH | --no-report]\n"
               "         [--plot] [--interp-batch=N] [--interp-window=N] [--hull-anchors=N]\n",
               bad);
  std::exit(2);
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
    } else if (key == "--rates") {
      o.rates.clear();
      for (std::size_t pos = 0; pos <= value.size();) {
        std::size_t comma = value.find(',', pos);
        if (comma == std::string::npos) comma = value.size();
        const std::string r = value.substr(pos, comma - pos);
        if (r != "25" && r != "30") usage(argv[i]);
        o.rates.push_back(static_cast<unsigned>(std::stoul(r)));
        pos = comma + 1;
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
  Fault fault = Fault::none;
  double seconds = 0;
  std::int32_t start_status = PELMOR_ERR_INTERNAL;
  std::uint64_t start_ns = 0;
  std::vector<CallbackRecord> records;
  bool records_overflowed = false;
  std::vector<vb::SampleTruth> truth;
  bool truth_complete = false;
  std::vector<SpiEntry> log;
  bool log_complete = false;
  pelmor_runtime_health health{};
  std::int32_t health_status = PELMOR_ERR_INTERNAL;
  std::uint64_t fault_hits = 0;
};

unsigned sensor_rate(unsigned rate) { return rate == 25 ? 25 : 200; }
double sensor_period_ns(unsigned rate) { return 1e9 / sensor_rate(rate); }

vb::Config board_config(const Options& o, unsigned rate, double seconds) {
  vb::Config cfg = vb::Config::realistic();
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

Run run_driver(const Options& o, unsigned rate, Fault fault, double seconds) {
  Run run;
  run.rate = rate;
  run.fault = fault;
  run.seconds = seconds;
  vb::reset(board_config(o, rate, seconds));

  pelmor_config config{};
  config.struct_size = sizeof config;
  config.sample_rate_hz = rate;
  config.mode = 1;
  pelmor_handle handle = nullptr;
  if (pelmor_create(&config, &handle) != PELMOR_OK) return run;
  Recorder recorder(static_cast<std::size_t>(seconds * rate * 2) + 1024);
  pelmor_set_callback(handle, &Recorder::on_sample, &recorder);

  run.start_status = start_timed(handle, run.start_ns);
  if (run.start_status == PELMOR_OK) {
    if (fault == Fault::none) {
      sleep_seconds(seconds);
    } else {
      const double before = std::min(o.fault_after_s, seconds);
      sleep_seconds(before);
      const vb::FaultId id = fault == Fault::suppressed_edge ? vb::suppress_edges(vb::Trigger::once())
                                                             : vb::spurious_edges(vb::Trigger::once());
      sleep_seconds(seconds - before);
      run.fault_hits = vb::fault_hits(id);
    }
    pelmor_stop(handle);
    run.health.struct_size = sizeof run.health;
    run.health_status = pelmor_get_runtime_health(handle, &run.health);
  }
  pelmor_destroy(handle);

  run.records = recorder.take();
  run.records_overflowed = recorder.overflowed();
  run.truth = vb::samples(0);
  run.truth_complete = vb::samples_produced() == run.truth.size();
  for (const vb::SpiMessageRecord& m : vb::spi_log(0)) {
    run.log.push_back({m.kind, m.raw_start_ns, m.raw_end_ns, m.latched && m.result >= 0, m.latch_tmst});
  }
  run.log_complete = !run.log.empty() && vb::spi_log_mark() == run.log.size();
  return run;
}

// ---- Analysis ---------------------------------------------------------------------------

struct Cost {
  double cpu_per_sample_ns = 0;
  double bus_per_sample_ns = 0;          // emulated SPI message time on the worker
  double allocations_per_batch = 0;      // the library's, per FIFO data read
  double device_allocations_per_batch = 0;
  std::vector<double> attribution;       // per data read, per snapshot, per delivery
  std::uint64_t intervals = 0;
  std::uint64_t intervals_fitting = 0;   // allocations exactly as the per-batch and per-snapshot counts predict
  std::uint64_t batches = 0;
  bool allocations_counted = false;
};

struct Analysis {
  std::size_t delivered = 0;
  std::size_t matched = 0;
  ErrorStats mapped, event, interpolated, hull, latency;
  std::size_t hull_windows = 0, hull_inconsistent = 0;
  std::size_t mispaired = 0;
  std::optional<std::uint64_t> first_mispaired;
  Cost cost;
};

struct Anchor {
  LatchBracket bracket;
};

std::vector<LatchBracket> latch_brackets(const std::vector<SpiEntry>& log) {
  std::vector<LatchBracket> out;
  for (const SpiEntry& m : log) {
    if (m.kind != vb::SpiMessageKind::tmst_snapshot || !m.latched) continue;
    std::uint64_t tick = m.latch_tmst;
    if (!out.empty()) {
      // Nominal 1 us ticks; the drift moves the prediction by far less than half a wrap.
      const std::uint64_t elapsed_ticks = (m.raw_start_ns - out.back().raw_start_ns) / 1000;
      tick = unwrap_near(out.back().tick + elapsed_ticks, m.latch_tmst, 20);
    } else {
      tick += std::uint64_t{1} << 20;  // room below for samples older than the first latch
    }
    out.push_back({tick, m.raw_start_ns, m.raw_end_ns});
  }
  return out;
}

Cost measure_cost(const Run& run) {
  Cost c;
  const auto& r = run.records;
  if (r.size() < 2) return c;
  const std::uint64_t first = r.front().callback_raw_ns;
  const std::uint64_t last = r.back().callback_raw_ns;
  const double intervals = static_cast<double>(r.size() - 1);
  c.cpu_per_sample_ns = static_cast<double>(r.back().thread_cpu_ns - r.front().thread_cpu_ns) / intervals;

  // Per callback interval: the SPI messages the worker issued in it.
  std::vector<double> x, y;
  std::size_t m = 0;
  double bus_ns = 0;
  while (m < run.log.size() && run.log[m].raw_start_ns < first) ++m;
  std::uint64_t total_allocations = 0, total_device = 0;
  for (std::size_t i = 1; i < r.size(); ++i) {
    double reads = 0, snapshots = 0;
    for (; m < run.log.size() && run.log[m].raw_start_ns < r[i].callback_raw_ns; ++m) {
      const SpiEntry& e = run.log[m];
      bus_ns += static_cast<double>(e.raw_end_ns - e.raw_start_ns);
      if (e.kind == vb::SpiMessageKind::fifo_data_read) reads += 1;
      if (e.kind == vb::SpiMessageKind::tmst_snapshot) snapshots += 1;
    }
    const std::uint64_t allocations = r[i].allocations - r[i - 1].allocations;
    total_allocations += allocations;
    total_device += r[i].device_allocations - r[i - 1].device_allocations;
    c.batches += static_cast<std::uint64_t>(reads);
    x.insert(x.end(), {reads, snapshots, 1.0});
    y.push_back(static_cast<double>(allocations));
  }
  (void)last;
  c.bus_per_sample_ns = bus_ns / intervals;
  c.intervals = r.size() - 1;
  c.allocations_counted = allocation_counting_available();
  if (!c.allocations_counted || c.batches == 0) return c;
  c.allocations_per_batch = static_cast<double>(total_allocations) / static_cast<double>(c.batches);
  c.device_allocations_per_batch = static_cast<double>(total_device) / static_cast<double>(c.batches);
  c.attribution = least_squares(x, 3, y);
  if (c.attribution.size() == 3) {
    const double per_read = std::round(c.attribution[0]);
    const double per_snapshot = std::round(c.attribution[1]);
    for (std::size_t i = 0; i < y.size(); ++i) {
      if (y[i] == per_read * x[3 * i] + per_snapshot * x[3 * i + 1]) c.intervals_fitting += 1;
    }
  }
  return c;
}

Analysis analyse(const Run& run, const Options& o) {
  Analysis a;
  a.delivered = run.records.size();
  const double period = sensor_period_ns(run.rate);
  std::vector<TruthPoint> points;
  points.reserve(run.truth.size());
  for (const vb::SampleTruth& t : run.truth) points.push_back({t.raw_ns, t.tmst_low16});
  const TruthIndex index(points);
  const std::vector<LatchBracket> brackets = latch_brackets(run.log);

  std::vector<std::int64_t> mapped, event, hull, latency, interpolated;
  std::vector<InterruptInput> interrupt_inputs;
  std::vector<std::size_t> truth_of_input;
  std::size_t anchors_seen = 0, fitted_at = SIZE_MAX;
  HullLine line;
  for (const CallbackRecord& r : run.records) {
    const auto k = index.match(r.low16, r.mapped_ns, static_cast<std::uint64_t>(period / 2));
    if (!k) continue;
    const vb::SampleTruth& t = run.truth[*k];
    a.matched += 1;
    mapped.push_back(signed_diff(r.mapped_ns, t.raw_ns));
    event.push_back(signed_diff(r.event_ns, t.raw_ns));
    latency.push_back(signed_diff(r.callback_raw_ns, t.raw_ns));
    interrupt_inputs.push_back({t.index, r.event_ns});
    truth_of_input.push_back(*k);

    const bool own_edge = t.edge == vb::EdgeOutcome::raised &&
                          std::fabs(static_cast<double>(signed_diff(r.event_ns, t.raw_ns + t.irq_latency_ns))) <=
                              period / 2;
    if (!own_edge) {
      a.mispaired += 1;
      if (!a.first_mispaired) a.first_mispaired = r.sample_index;
    }

    // (d) with the brackets the library had when it delivered the sample.
    while (anchors_seen < brackets.size() && brackets[anchors_seen].raw_end_ns <= r.callback_raw_ns) ++anchors_seen;
    if (anchors_seen >= 2) {
      if (fitted_at != anchors_seen) {
        const std::size_t from = anchors_seen > o.hull_anchors ? anchors_seen - o.hull_anchors : 0;
        line = fit_bracket_hull(std::span(brackets).subspan(from, anchors_seen - from));
        fitted_at = anchors_seen;
        a.hull_windows += 1;
        if (line.valid && !line.consistent) a.hull_inconsistent += 1;
      }
      if (line.valid) {
        const LatchBracket& newest = brackets[anchors_seen - 1];
        const std::int64_t ahead = signed_diff(r.mapped_ns, newest.raw_start_ns) / 1000;
        const std::uint64_t tick = unwrap_near(newest.tick + static_cast<std::uint64_t>(ahead), r.low16, 16);
        hull.push_back(static_cast<std::int64_t>(std::llround(line.at(tick) - static_cast<double>(t.raw_ns))));
      }
    }
  }

  InterpolationSettings settings;
  settings.batch_samples = o.interp_batch;
  settings.period_window = o.interp_window;
  settings.nominal_period_ns = period;
  const auto estimates = interpolate_from_interrupts(interrupt_inputs, settings);
  for (std::size_t i = 0; i < estimates.size(); ++i) {
    if (!estimates[i]) continue;
    interpolated.push_back(
        static_cast<std::int64_t>(std::llround(*estimates[i] - static_cast<double>(run.truth[truth_of_input[i]].raw_ns))));
  }

  a.mapped = summarize(mapped);
  a.event = summarize(event);
  a.interpolated = summarize(interpolated);
  a.hull = summarize(hull);
  a.latency = summarize(latency);
  a.cost = measure_cost(run);
  return a;
}

// ---- pelmor-timing-report ------------------------------------------------------------------

struct ReportVerdict {
  bool ran = false;
  std::string flagged;       // the MISPAIRED EVENTS line, empty when none
  std::string truth_line;    // its own ground-truth count
};

std::string shell_quote(const std::string& s) {
  std::string out = "'";
  for (const char ch : s) out += ch == '\'' ? std::string("'\\''") : std::string(1, ch);
  return out + "'";
}

std::string run_name(const Run& run) {
  return std::string(fault_tag(run.fault)) + "-" + std::to_string(run.rate) + "hz";
}

ReportVerdict write_and_report(const Run& run, const Options& o, bool plot) {
  ReportVerdict v;
  const std::string base = o.out_dir + "/" + run_name(run);
  {
    std::ofstream samples(base + "-samples.csv");
    samples << "sample_index,mapped_timestamp_raw_ns,event_timestamp_raw_ns,fifo_timestamp_low16,phase_uncertainty_us\n";
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
  std::string command = "python3 " + shell_quote(o.report) + " " + shell_quote(base + "-samples.csv") + " " +
                        shell_quote(base + "-truth.csv");
  if (plot) command += " --plot " + shell_quote(base + "-timing.png");
  command += " > " + shell_quote(base + "-report.txt") + " 2>&1";
  if (std::system(command.c_str()) != 0) return v;
  std::ifstream report(base + "-report.txt");
  std::string line;
  while (std::getline(report, line)) {
    if (line.rfind("MISPAIRED EVENTS:", 0) == 0 && v.flagged.empty()) v.flagged = line;
    if (line.rfind("ground truth:", 0) == 0) v.truth_line = line;
  }
  v.ran = true;
  return v;
}

// ---- Output ------------------------------------------------------------------------------------

std::string us(double ns, int decimals = 1) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, ns / 1000.0);
  return buf;
}

std::string stats_cells(const ErrorStats& s) {
  if (s.count == 0) return "| 0 | - | - | - | - |";
  return "| " + std::to_string(s.count) + " | " + us(s.median_abs_ns) + " | " + us(static_cast<double>(s.p99_abs_ns)) +
         " | " + us(static_cast<double>(s.max_abs_ns)) + " | " + us(s.mean_ns) + " |";
}

const char* mark(bool ok) { return ok ? "met" : "MISSED"; }

std::string median_of(std::vector<std::uint64_t> v) {
  if (v.empty()) return "-";
  std::sort(v.begin(), v.end());
  return us(static_cast<double>(v[v.size() / 2]) / 1000.0, 1);
}

std::string max_of(const std::vector<std::uint64_t>& v) {
  if (v.empty()) return "-";
  return us(static_cast<double>(*std::max_element(v.begin(), v.end())) / 1000.0, 1);
}

void warn_incomplete(const Run& run) {
  if (run.start_status != PELMOR_OK) {
    std::printf("\n> %s at %u Hz: pelmor_start failed (%s)\n", fault_name(run.fault), run.rate,
                pelmor_status_message(run.start_status));
  }
  if (!run.truth_complete) std::printf("\n> %u Hz: the board's truth ring overflowed\n", run.rate);
  if (!run.log_complete) std::printf("\n> %u Hz: the board's SPI log ring overflowed\n", run.rate);
  if (run.records_overflowed) std::printf("\n> %u Hz: more callbacks than recorded\n", run.rate);
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse_options(argc, argv);
  std::string mkdir = "mkdir -p " + shell_quote(o.out_dir);
  if (std::system(mkdir.c_str()) != 0) {
    std::fprintf(stderr, "pelmor_timestamp_bench: cannot create %s\n", o.out_dir.c_str());
    return 1;
  }

  struct RateResult {
    unsigned rate;
    Run run;
    Analysis analysis;
    ReportVerdict report;
    std::vector<std::uint64_t> starts_ns;
  };
  struct FaultResult {
    Run run;
    Analysis analysis;
    ReportVerdict report;
  };
  std::vector<RateResult> results;
  std::vector<FaultResult> faults;

  for (const unsigned rate : o.rates) {
    std::fprintf(stderr, "== %u Hz: %.0f s on the realistic profile\n", rate, o.duration_s);
    RateResult r{rate, run_driver(o, rate, Fault::none, o.duration_s), {}, {}, {}};
    r.analysis = analyse(r.run, o);
    r.report = write_and_report(r.run, o, o.plot);
    if (r.run.start_status == PELMOR_OK) r.starts_ns.push_back(r.run.start_ns);
    for (const Fault f : {Fault::suppressed_edge, Fault::spurious_edge}) {
      std::fprintf(stderr, "== %u Hz: %.0f s with %s\n", rate, o.fault_duration_s, fault_name(f));
      FaultResult fr{run_driver(o, rate, f, o.fault_duration_s), {}, {}};
      fr.analysis = analyse(fr.run, o);
      fr.report = write_and_report(fr.run, o, false);
      if (fr.run.start_status == PELMOR_OK) r.starts_ns.push_back(fr.run.start_ns);
      faults.push_back(std::move(fr));
    }
    for (unsigned i = 0; i < o.starts; ++i) {
      vb::reset(board_config(o, rate, 1));
      pelmor_config config{};
      config.struct_size = sizeof config;
      config.sample_rate_hz = rate;
      config.mode = 1;
      pelmor_handle h = nullptr;
      if (pelmor_create(&config, &h) != PELMOR_OK) continue;
      std::uint64_t ns = 0;
      if (start_timed(h, ns) == PELMOR_OK) r.starts_ns.push_back(ns);
      pelmor_stop(h);
      pelmor_destroy(h);
    }
    results.push_back(std::move(r));
  }

  std::printf("### Timestamp error against the board's ground truth (us)\n\n");
  std::printf("Realistic profile, %.0f s per rate. |e| statistics over the delivered samples matched to a true\n"
              "sample; p99 is the nearest rank; mean is signed.\n\n",
              o.duration_s);
  std::printf("| rate | timestamp | samples | median abs | p99 abs | max abs | mean |\n");
  std::printf("|---|---|---|---|---|---|---|\n");
  for (const RateResult& r : results) {
    const Analysis& a = r.analysis;
    std::printf("| %u Hz | (a) mapped_timestamp_raw_ns %s\n", r.rate, stats_cells(a.mapped).c_str());
    std::printf("| %u Hz | (b) event_timestamp_raw_ns %s\n", r.rate, stats_cells(a.event).c_str());
    std::printf("| %u Hz | (c) interrupt interpolation, batch %zu, period over %zu interrupts %s\n", r.rate,
                o.interp_batch, o.interp_window, stats_cells(a.interpolated).c_str());
    std::printf("| %u Hz | (d) convex-hull two-way, last %zu latch brackets %s\n", r.rate, o.hull_anchors,
                stats_cells(a.hull).c_str());
  }
  std::printf("\n");
  for (const RateResult& r : results) {
    const Analysis& a = r.analysis;
    std::printf("- %u Hz: %zu delivered, %zu matched; health: %llu delivered, %u drops, %u resyncs, %u batch "
                "failures. (a) median <= 8 us %s, p99 <= 20 us %s, p99 <= p99(b)/4 (%.1f us) %s. "
                "(d) refitted %zu times, %zu bracket windows admitted no single line.\n",
                r.rate, a.delivered, a.matched, static_cast<unsigned long long>(r.run.health.samples_delivered),
                r.run.health.total_drops, r.run.health.boundary_resyncs, r.run.health.batch_failures,
                mark(a.mapped.count > 0 && a.mapped.median_abs_ns <= 8000),
                mark(a.mapped.count > 0 && a.mapped.p99_abs_ns <= 20000),
                static_cast<double>(a.event.p99_abs_ns) / 4000.0,
                mark(a.mapped.count > 0 && 4 * a.mapped.p99_abs_ns <= a.event.p99_abs_ns), a.hull_windows,
                a.hull_inconsistent);
    if (r.report.ran) {
      std::printf("  pelmor-timing-report on this run: %s\n",
                  r.report.flagged.empty() ? "no mispairing flagged" : r.report.flagged.c_str());
    }
    warn_incomplete(r.run);
  }

  std::printf("\n### Mispaired event stamps after one lost or one extra INT1 edge\n\n");
  std::printf("%.0f s per run, the fault %.0f s after pelmor_start returned.\n\n", o.fault_duration_s,
              o.fault_after_s);
  std::printf("| rate | fault | fault hits | delivered | carrying another sample's event (truth) | first such sample "
              "| pelmor-timing-report |\n");
  std::printf("|---|---|---|---|---|---|---|\n");
  for (const FaultResult& f : faults) {
    const Analysis& a = f.analysis;
    std::string verdict = "not run";
    if (f.report.ran) {
      verdict = f.report.flagged.empty() ? "nothing flagged" : f.report.flagged;
      const std::string::size_type cut = verdict.find(", event_timestamp_raw_ns");
      if (cut != std::string::npos) verdict = verdict.substr(0, cut) + ")";
    }
    std::printf("| %u Hz | %s | %llu | %zu | %zu | %s | %s |\n", f.run.rate, fault_name(f.run.fault),
                static_cast<unsigned long long>(f.run.fault_hits), a.delivered, a.mispaired,
                a.first_mispaired ? std::to_string(*a.first_mispaired).c_str() : "-", verdict.c_str());
  }
  for (const FaultResult& f : faults) warn_incomplete(f.run);

  std::printf("\n### Cost\n\n");
  std::printf("| rate | worker CPU per delivered sample (us) | of which emulated SPI bus (us) | callback latency "
              "median / p99 / max (us) | library allocations per FIFO batch | per delivery beyond the batches "
              "| pelmor_start median / max (ms, %zu starts) |\n",
              results.empty() ? std::size_t{0} : results.front().starts_ns.size());
  std::printf("|---|---|---|---|---|---|---|\n");
  for (const RateResult& r : results) {
    const Cost& c = r.analysis.cost;
    const ErrorStats& l = r.analysis.latency;
    std::string allocations = "not counted (sanitizer build)";
    std::string delivery = "-";
    if (c.allocations_counted) {
      char buf[96];
      std::snprintf(buf, sizeof buf, "%.2f", c.allocations_per_batch);
      allocations = buf;
      if (c.attribution.size() == 3) {
        std::snprintf(buf, sizeof buf, "%.3f", c.attribution[2]);
        delivery = buf;
      }
    }
    std::printf("| %u Hz | %s | %s | %s / %s / %s | %s | %s | %s / %s |\n", r.rate, us(c.cpu_per_sample_ns).c_str(),
                us(c.bus_per_sample_ns).c_str(), us(l.median_abs_ns).c_str(),
                us(static_cast<double>(l.p99_abs_ns)).c_str(), us(static_cast<double>(l.max_abs_ns)).c_str(),
                allocations.c_str(), delivery.c_str(), median_of(r.starts_ns).c_str(), max_of(r.starts_ns).c_str());
  }
  std::printf("\n");
  for (const RateResult& r : results) {
    const Cost& c = r.analysis.cost;
    if (!c.allocations_counted || c.attribution.size() != 3) continue;
    std::printf("- %u Hz allocations: %llu FIFO batches over %llu callback intervals; least squares per interval: "
                "%.3f per batch, %.3f per TMST snapshot, %.3f per delivery; %llu of %llu intervals exactly "
                "%.0f x batches + %.0f x snapshots. The board's own bookkeeping inside the emulated calls: %.2f "
                "per batch (excluded).\n",
                r.rate, static_cast<unsigned long long>(c.batches), static_cast<unsigned long long>(c.intervals),
                c.attribution[0], c.attribution[1], c.attribution[2],
                static_cast<unsigned long long>(c.intervals_fitting), static_cast<unsigned long long>(c.intervals),
                std::round(c.attribution[0]), std::round(c.attribution[1]), c.device_allocations_per_batch);
    std::printf("  callback latency target p99 <= 500 us: %s\n",
                mark(r.analysis.latency.count > 0 && r.analysis.latency.p99_abs_ns <= 500000));
  }
  std::printf("\nSamples, ground truth and the report of every run: %s/\n", o.out_dir.c_str());
  return 0;
}
