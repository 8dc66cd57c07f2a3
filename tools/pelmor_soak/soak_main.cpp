// pelmor-soak: runs the driver on the virtual board for a given time with a
// random mix of the board's faults (and optional CPU load), restarting it
// whenever the worker ends by itself, and checks what a client relies on:
//   - sample indices contiguous and mapped timestamps strictly increasing within a run;
//   - every delivered sample within its stated uncertainty of the board's truth;
//   - the health record of every run equal to what its callback saw;
// and with --cycles, that descriptors, threads and resident memory stay flat
// over that many start/stop cycles.
//
//   pelmor-soak [--seconds=60] [--rate=25|30] [--profile=ideal|realistic]
//               [--fault-every-ms=1500] [--hogs=0] [--seed=1] [--cycles=0]
//
// Prints one summary line per check and exits 1 when any invariant broke.
#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cpu_hogs.hpp"
#include "pelmor.h"
#include "pelmor_vboard.hpp"

namespace {

namespace vb = pelmor_vboard;
using namespace std::chrono_literals;

struct Options {
  double seconds = 60;
  std::uint32_t rate = 30;
  bool realistic = true;
  unsigned fault_every_ms = 1500;
  unsigned hogs = 0;
  std::uint64_t seed = 1;
  unsigned cycles = 0;
};

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: pelmor-soak [--seconds=60] [--rate=25|30] [--profile=ideal|realistic]\n"
               "                   [--fault-every-ms=1500] [--hogs=0] [--seed=1] [--cycles=0]\n");
  std::exit(2);
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const std::size_t eq = arg.find('=');
    if (eq == std::string::npos) usage();
    const std::string key = arg.substr(0, eq);
    const std::string value = arg.substr(eq + 1);
    char* end = nullptr;
    const double number = std::strtod(value.c_str(), &end);
    const bool numeric = !value.empty() && *end == '\0' && number >= 0;
    if (key == "--profile" && (value == "ideal" || value == "realistic")) {
      o.realistic = value == "realistic";
    } else if (!numeric) {
      usage();
    } else if (key == "--seconds") {
      o.seconds = number;
    } else if (key == "--rate" && (number == 25 || number == 30)) {
      o.rate = static_cast<std::uint32_t>(number);
    } else if (key == "--fault-every-ms") {
      o.fault_every_ms = static_cast<unsigned>(number);
    } else if (key == "--hogs") {
      o.hogs = static_cast<unsigned>(number);
    } else if (key == "--seed") {
      o.seed = static_cast<std::uint64_t>(number);
    } else if (key == "--cycles") {
      o.cycles = static_cast<unsigned>(number);
    } else {
      usage();
    }
  }
  return o;
}

std::uint64_t raw_now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

int count_entries(const char* dir_path) {
  int count = 0;
  if (DIR* dir = opendir(dir_path)) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
  }
  return count;
}

long resident_kb() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

pelmor_handle make_handle(std::uint32_t rate) {
  pelmor_config c{};
  c.struct_size = sizeof c;
  c.sample_rate_hz = rate;
  c.mode = 1;
  pelmor_handle handle = nullptr;
  return pelmor_create(&c, &handle) == PELMOR_OK ? handle : nullptr;
}

// What the callback saw in the current run.
struct RunRecord {
  std::mutex mutex;
  std::vector<pelmor_sample> unchecked;  // delivered, not yet compared with the truth
  std::uint64_t delivered = 0;
  std::uint64_t last_index = 0;
  std::uint64_t last_mapped = 0;
  std::uint64_t order_breaks = 0;
};

void on_sample(const pelmor_sample* s, void* user) {
  auto* r = static_cast<RunRecord*>(user);
  std::lock_guard<std::mutex> lock(r->mutex);
  if (r->delivered > 0 && (s->sample_index != r->last_index + 1 || s->mapped_timestamp_raw_ns <= r->last_mapped)) {
    r->order_breaks += 1;
  }
  r->last_index = s->sample_index;
  r->last_mapped = s->mapped_timestamp_raw_ns;
  r->delivered += 1;
  r->unchecked.push_back(*s);
}

struct Totals {
  std::uint64_t runs = 0;
  std::uint64_t delivered = 0;
  std::uint64_t checked = 0;
  std::uint64_t outside_uncertainty = 0;
  std::uint64_t without_truth = 0;
  std::uint64_t order_breaks = 0;
  std::uint64_t health_mismatches = 0;
  std::uint64_t failed_starts = 0;
  std::uint64_t faults = 0;
  std::uint64_t drops = 0;
};

// Compares the samples delivered since the last call with the board's truth.
void check_against_truth(RunRecord& record, Totals& totals) {
  std::vector<pelmor_sample> batch;
  {
    std::lock_guard<std::mutex> lock(record.mutex);
    batch.swap(record.unchecked);
  }
  if (batch.empty()) return;
  const std::vector<vb::SampleTruth> truth = vb::samples(vb::samples_produced() > 4096 ? vb::samples_produced() - 4096 : 0);
  for (const pelmor_sample& s : batch) {
    std::uint64_t best = UINT64_MAX;
    for (const vb::SampleTruth& t : truth) {
      if (!t.in_fifo || t.tmst_low16 != s.fifo_timestamp_low16) continue;
      const std::uint64_t d = t.raw_ns > s.mapped_timestamp_raw_ns ? t.raw_ns - s.mapped_timestamp_raw_ns
                                                                   : s.mapped_timestamp_raw_ns - t.raw_ns;
      if (d < best) best = d;
    }
    totals.checked += 1;
    if (best == UINT64_MAX) {
      totals.without_truth += 1;
    } else if (best > std::uint64_t{s.phase_uncertainty_us} * 1000) {
      totals.outside_uncertainty += 1;
      std::fprintf(stderr, "pelmor-soak: sample %llu off by %llu ns, stated %u us\n",
                   static_cast<unsigned long long>(s.sample_index), static_cast<unsigned long long>(best),
                   s.phase_uncertainty_us);
    }
  }
}

// One of the board's faults, drawn at random; most end by themselves.
void inject_random_fault(std::mt19937_64& rng) {
  switch (rng() % 10) {
    case 0: vb::drop_edges(vb::Trigger::once()); break;
    case 1: vb::suppress_edges(vb::Trigger::once()); break;
    case 2: vb::spurious_edges(vb::Trigger::once()); break;
    case 3: vb::stall_fifo(vb::Trigger{1, 1 + rng() % 8}); break;
    case 4: vb::fail_line_read(rng() % 2 == 0 ? EAGAIN : EINTR, vb::Trigger{1, 1 + rng() % 3}); break;
    case 5: vb::stretch_spi_message(vb::SpiMessageKind::tmst_snapshot, 100000 + rng() % 150000, vb::Trigger{1, 3}); break;
    case 6: vb::stretch_spi_message(vb::SpiMessageKind::fifo_data_read, 1'000'000 + rng() % 50'000'000, vb::Trigger::once()); break;
    case 7: vb::short_spi_message(vb::SpiMessageKind::fifo_data_read, 1, vb::Trigger::once()); break;
    case 8: vb::sentinel_samples(vb::Trigger::once()); break;
    default: vb::drop_edges(vb::Trigger{1, 2 + rng() % 3}); break;
  }
}

// Stops the run and compares its health record with what its callback saw.
void close_run(pelmor_handle handle, RunRecord& record, Totals& totals) {
  pelmor_stop(handle);
  check_against_truth(record, totals);
  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  if (pelmor_get_runtime_health(handle, &health) == PELMOR_OK) {
    if (health.samples_delivered != record.delivered) {
      totals.health_mismatches += 1;
      std::fprintf(stderr, "pelmor-soak: run %llu: health says %llu samples, the callback saw %llu\n",
                   static_cast<unsigned long long>(totals.runs), static_cast<unsigned long long>(health.samples_delivered),
                   static_cast<unsigned long long>(record.delivered));
    }
    totals.drops += health.total_drops;
  }
  totals.delivered += record.delivered;
  totals.order_breaks += record.order_breaks;
  record.delivered = 0;
  record.order_breaks = 0;
}

bool start_run(pelmor_handle handle, Totals& totals) {
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (pelmor_start(handle) == PELMOR_OK) {
      totals.runs += 1;
      return true;
    }
    totals.failed_starts += 1;
    vb::clear_faults();  // a fault meant for the stream can hit a start
  }
  return false;
}

int soak(const Options& o) {
  vb::Config config = o.realistic ? vb::Config::realistic() : vb::Config::ideal();
  config.seed = o.seed;
  vb::reset(config);
  pelmor_tools::CpuHogs hogs(o.hogs);
  std::mt19937_64 rng(o.seed);

  pelmor_handle handle = make_handle(o.rate);
  if (handle == nullptr) return 1;
  RunRecord record;
  pelmor_set_callback(handle, &on_sample, &record);
  Totals totals;
  if (!start_run(handle, totals)) return 1;

  const std::uint64_t end = raw_now_ns() + static_cast<std::uint64_t>(o.seconds * 1e9);
  std::uint64_t next_fault = raw_now_ns() + o.fault_every_ms * 1'000'000ULL;
  while (raw_now_ns() < end) {
    std::this_thread::sleep_for(100ms);
    check_against_truth(record, totals);
    if (pelmor_is_running(handle) == 0) {
      close_run(handle, record, totals);
      if (!start_run(handle, totals)) break;
    }
    if (o.fault_every_ms != 0 && raw_now_ns() >= next_fault) {
      inject_random_fault(rng);
      totals.faults += 1;
      next_fault += o.fault_every_ms * 1'000'000ULL;
    }
  }
  close_run(handle, record, totals);
  pelmor_destroy(handle);

  const double expected = o.seconds * o.rate;
  std::printf("soak: %.0f s at %u Hz (%s board, %u hogs, seed %llu): %llu runs, %llu faults injected, "
              "%llu failed starts\n",
              o.seconds, o.rate, o.realistic ? "realistic" : "ideal", o.hogs, static_cast<unsigned long long>(o.seed),
              static_cast<unsigned long long>(totals.runs), static_cast<unsigned long long>(totals.faults),
              static_cast<unsigned long long>(totals.failed_starts));
  std::printf("delivered %llu of about %.0f (%.1f%%), %llu dropped\n", static_cast<unsigned long long>(totals.delivered),
              expected, 100.0 * static_cast<double>(totals.delivered) / expected,
              static_cast<unsigned long long>(totals.drops));
  std::printf("order: %llu breaks of index or timestamp order within a run\n",
              static_cast<unsigned long long>(totals.order_breaks));
  std::printf("truth: %llu checked, %llu outside their stated uncertainty, %llu without a truth sample\n",
              static_cast<unsigned long long>(totals.checked), static_cast<unsigned long long>(totals.outside_uncertainty),
              static_cast<unsigned long long>(totals.without_truth));
  std::printf("health: %llu runs whose record differs from what the callback saw\n",
              static_cast<unsigned long long>(totals.health_mismatches));
  const bool ok = totals.order_breaks == 0 && totals.outside_uncertainty == 0 && totals.health_mismatches == 0 &&
                  totals.runs > 0 && totals.delivered > 0;
  std::printf("%s\n", ok ? "soak: every invariant held" : "soak: FAILED");
  return ok ? 0 : 1;
}

int cycles(const Options& o) {
  vb::Config config = vb::Config::ideal();
  config.seed = o.seed;
  RunRecord record;
  Totals totals;
  int fds_first = -1, threads_first = -1;
  long rss_first = -1;
  int fds_last = 0, threads_last = 0;
  long rss_last = 0;
  const unsigned settle = o.cycles / 5;  // allocator and board warm up first
  for (unsigned i = 0; i < o.cycles; ++i) {
    // The board's own records (truth, SPI log) grow with every sample it makes;
    // a power-on per cycle keeps them out of the library's figures.
    vb::reset(config);
    pelmor_handle handle = make_handle(o.rate);
    if (handle == nullptr) return 1;
    pelmor_set_callback(handle, &on_sample, &record);
    if (start_run(handle, totals)) {
      const std::uint64_t wanted = record.delivered + 1;
      while (pelmor_is_running(handle) == 1) {
        {
          std::lock_guard<std::mutex> lock(record.mutex);
          if (record.delivered >= wanted) break;
        }
        std::this_thread::sleep_for(2ms);
      }
    }
    pelmor_stop(handle);
    pelmor_destroy(handle);
    {
      std::lock_guard<std::mutex> lock(record.mutex);
      record.unchecked.clear();
    }
    fds_last = count_entries("/proc/self/fd");
    threads_last = count_entries("/proc/self/task");
    rss_last = resident_kb();
    if (i == settle) {
      fds_first = fds_last;
      threads_first = threads_last;
      rss_first = rss_last;
    }
  }
  std::printf("cycles: %u create/start/stop/destroy, %llu failed starts\n", o.cycles,
              static_cast<unsigned long long>(totals.failed_starts));
  std::printf("from cycle %u to the last: descriptors %d -> %d, threads %d -> %d, resident %ld -> %ld kB\n", settle,
              fds_first, fds_last, threads_first, threads_last, rss_first, rss_last);
  // A few pages of slack for the allocator's own bookkeeping.
  const bool ok = fds_first == fds_last && threads_first == threads_last && rss_last - rss_first <= 64;
  std::printf("%s\n", ok ? "cycles: descriptors, threads and resident memory flat" : "cycles: FAILED");
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  return o.cycles > 0 ? cycles(o) : soak(o);
}
