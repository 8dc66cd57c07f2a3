// How often pelmor_start succeeds on a busy machine: repeated starts on the
// virtual board's realistic profile while CPU hogs (busy child processes) compete
// for every core. Each successful start is proven by two delivered samples, then
// stopped. A start is tried once, as a client without a retry loop would.
//
//   pelmor_start_under_load [--starts=200] [--rates=25,30] [--hogs=2] [--seed=1]
//
// Prints a Markdown table on standard output, with the reasons of failed starts;
// the library's own lines go to standard error.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "cpu_hogs.hpp"
#include "pelmor.h"
#include "pelmor_vboard.hpp"

namespace {

namespace vb = pelmor_vboard;
using namespace std::chrono_literals;

struct Options {
  unsigned starts = 200;
  std::vector<unsigned> rates{25, 30};
  unsigned hogs = 2;
  std::uint64_t seed = 1;
};

[[noreturn]] void usage() {
  std::fprintf(stderr, "usage: pelmor_start_under_load [--starts=N] [--rates=25,30] [--hogs=N] [--seed=N]\n");
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
    const unsigned long long number = std::strtoull(value.c_str(), &end, 10);
    if (key == "--rates") {
      o.rates.clear();
      for (std::size_t pos = 0; pos < value.size();) {
        const std::size_t comma = value.find(',', pos);
        const std::string item = value.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        if (item != "25" && item != "30") usage();
        o.rates.push_back(item == "25" ? 25U : 30U);
        pos = comma == std::string::npos ? value.size() : comma + 1;
      }
      continue;
    }
    if (value.empty() || *end != '\0') usage();
    if (key == "--starts") {
      o.starts = static_cast<unsigned>(number);
    } else if (key == "--hogs") {
      o.hogs = static_cast<unsigned>(number);
    } else if (key == "--seed") {
      o.seed = number;
    } else {
      usage();
    }
  }
  return o;
}

struct Deliveries {
  std::mutex mutex;
  std::condition_variable cv;
  unsigned count = 0;
};

void on_sample(const pelmor_sample*, void* user) {
  auto* d = static_cast<Deliveries*>(user);
  {
    std::lock_guard<std::mutex> lock(d->mutex);
    d->count += 1;
  }
  d->cv.notify_all();
}

// The reason of the last "ICM-42688 start failed: " line written to the log so
// far, cut before its figures.
std::string last_start_failure(std::FILE* log) {
  std::fflush(log);
  std::rewind(log);
  std::string reason = "(no line)";
  char line[4096];
  const std::string prefix = "ICM-42688 start failed: ";
  while (std::fgets(line, sizeof line, log) != nullptr) {
    const std::string text = line;
    if (text.compare(0, prefix.size(), prefix) != 0) continue;
    std::string rest = text.substr(prefix.size());
    const std::size_t anchors = rest.find(", anchors=");
    if (anchors != std::string::npos) rest = rest.substr(0, anchors);
    while (!rest.empty() && (rest.back() == '\n' || rest.back() == ',')) rest.pop_back();
    reason = rest;
  }
  std::fseek(log, 0, SEEK_END);
  return reason;
}

struct RateResult {
  unsigned rate = 0;
  unsigned succeeded = 0;
  unsigned failed = 0;
  unsigned no_samples = 0;
  std::map<std::string, unsigned> reasons;
};

RateResult run_rate(unsigned rate, const Options& o, std::FILE* log) {
  RateResult result;
  result.rate = rate;
  vb::Config config = vb::Config::realistic();
  config.seed = o.seed;
  vb::reset(config);

  pelmor_config c{};
  c.struct_size = sizeof c;
  c.sample_rate_hz = rate;
  c.mode = 1;
  pelmor_handle handle = nullptr;
  if (pelmor_create(&c, &handle) != PELMOR_OK) std::exit(1);
  Deliveries deliveries;
  pelmor_set_callback(handle, &on_sample, &deliveries);

  for (unsigned i = 0; i < o.starts; ++i) {
    const unsigned before = deliveries.count;
    if (pelmor_start(handle) != PELMOR_OK) {
      result.failed += 1;
      result.reasons[last_start_failure(log)] += 1;
      continue;
    }
    std::unique_lock<std::mutex> lock(deliveries.mutex);
    const bool delivered = deliveries.cv.wait_for(lock, 10s, [&] { return deliveries.count >= before + 2; });
    lock.unlock();
    pelmor_stop(handle);
    if (delivered) {
      result.succeeded += 1;
    } else {
      result.no_samples += 1;
    }
  }
  pelmor_destroy(handle);
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  // The library's lines go to a scratch file first, where failed starts are read
  // back, and are copied to standard error at the end.
  std::FILE* log = std::tmpfile();
  if (log == nullptr) return 1;
  std::fflush(stderr);
  const int saved_stderr = ::dup(STDERR_FILENO);
  ::dup2(::fileno(log), STDERR_FILENO);

  std::vector<RateResult> results;
  {
    pelmor_tools::CpuHogs hogs(o.hogs);
    for (unsigned rate : o.rates) results.push_back(run_rate(rate, o, log));
  }

  std::fflush(stderr);
  ::dup2(saved_stderr, STDERR_FILENO);
  std::rewind(log);
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, log)) > 0;) std::fwrite(buffer, 1, n, stderr);

  std::printf("| rate | CPU hogs | starts | succeeded | failed | started, no samples in 10 s |\n");
  std::printf("|---|---|---|---|---|---|\n");
  for (const RateResult& r : results) {
    std::printf("| %u Hz | %u | %u | %u | %u | %u |\n", r.rate, o.hogs, o.starts, r.succeeded, r.failed, r.no_samples);
  }
  for (const RateResult& r : results) {
    for (const auto& [reason, count] : r.reasons) std::printf("\n%u Hz, %u x: %s\n", r.rate, count, reason.c_str());
  }
  return 0;
}
