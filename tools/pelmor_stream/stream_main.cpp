// pelmor-stream: streams samples from libpelmor through its public C interface
// and writes them as CSV, JSON lines or text. See help_text() for the manual.
#include <pthread.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <pelmor.h>

#include "options.hpp"
#include "sample_format.hpp"
#include "sample_queue.hpp"
#include "sample_writer.hpp"

#ifndef PELMOR_STREAM_VERSION
#define PELMOR_STREAM_VERSION "unknown"
#endif

namespace {

using namespace pelmor_lusk::stream;

constexpr std::uint64_t ns_per_s = 1'000'000'000;
constexpr std::uint64_t poll_period_ns = 50'000'000;
constexpr std::size_t queue_capacity = 8192;  // about 4.5 minutes at 30 Hz

// The only state a signal handler touches.
volatile std::sig_atomic_t stop_signal = 0;

extern "C" void on_stop_signal(int signal_number) { stop_signal = signal_number; }

std::uint64_t now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * ns_per_s + static_cast<std::uint64_t>(ts.tv_nsec);
}

void sleep_for_ns(std::uint64_t ns) {
  timespec ts{static_cast<time_t>(ns / ns_per_s), static_cast<long>(ns % ns_per_s)};
  nanosleep(&ts, nullptr);  // a signal ends it early, which is what we want
}

void print_error(const std::string& message) { std::fprintf(stderr, "pelmor-stream: %s\n", message.c_str()); }

struct CallbackState {
  SampleQueue* queue = nullptr;
  std::uint64_t limit = 0;  // 0: none
  std::atomic<std::uint64_t> taken{0};
};

// Runs on the driver's worker thread: copy and return.
void on_sample(const pelmor_sample* sample, void* user_data) {
  auto* state = static_cast<CallbackState*>(user_data);
  const std::uint64_t taken = state->taken.load(std::memory_order_relaxed);
  if (state->limit != 0 && taken >= state->limit) return;
  if (state->queue->push(*sample)) state->taken.store(taken + 1, std::memory_order_release);
}

class StatusLine {
 public:
  StatusLine(bool enabled, std::uint64_t start_ns)
      : enabled_(enabled), terminal_(isatty(STDERR_FILENO) == 1), start_ns_(start_ns) {}

  void draw(const SampleWriter& writer, const SampleQueue& queue, bool whole_run) {
    if (!enabled_) return;
    const WriterProgress p = writer.progress();
    StatusSnapshot status;
    status.elapsed_s = static_cast<double>(now_ns() - start_ns_) / 1e9;
    status.samples = p.samples;
    status.have_sample = p.samples > 0;
    status.drops = p.drops;
    status.resyncs = p.resyncs;
    status.batch_failures = p.batch_failures;
    status.uncertainty_us = p.uncertainty_us;
    status.queue_overruns = queue.overruns();
    if (whole_run) {
      status.rate_hz = measured_rate_hz(p.first_index, p.first_mapped_ns, p.last_index, p.last_mapped_ns);
    } else {
      status.rate_hz = have_previous_ ? measured_rate_hz(previous_index_, previous_mapped_ns_, p.last_index,
                                                         p.last_mapped_ns)
                                      : measured_rate_hz(p.first_index, p.first_mapped_ns, p.last_index,
                                                         p.last_mapped_ns);
      if (p.samples > 0) {
        have_previous_ = true;
        previous_index_ = p.last_index;
        previous_mapped_ns_ = p.last_mapped_ns;
      }
    }
    const std::string line = format_status_line(status);
    if (terminal_) {
      std::fprintf(stderr, "\r%s\033[K", line.c_str());
      pending_newline_ = true;
    } else {
      std::fprintf(stderr, "%s\n", line.c_str());
    }
    std::fflush(stderr);
  }

  // Ends a line redrawn in place before anything else is written to stderr.
  void finish_line() {
    if (pending_newline_) std::fputc('\n', stderr);
    pending_newline_ = false;
  }

 private:
  bool enabled_;
  bool terminal_;
  std::uint64_t start_ns_;
  bool have_previous_ = false;
  std::uint64_t previous_index_ = 0;
  std::uint64_t previous_mapped_ns_ = 0;
  bool pending_newline_ = false;
};

enum class StopReason { asked, worker_ended, output_failed };

int run(const StreamOptions& options) {
  std::FILE* output = stdout;
  std::string output_name = "standard output";
  if (!options.output.empty() && options.output != "-") {
    output = std::fopen(options.output.c_str(), "w");
    if (output == nullptr) {
      print_error("cannot open " + options.output + ": " + std::strerror(errno));
      return exit_output_failed;
    }
    output_name = options.output;
  }

  // Every thread but this one keeps SIGINT and SIGTERM blocked, so the handler
  // runs here and interrupts the wait below, never inside the driver's worker.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  struct sigaction action {};
  action.sa_handler = on_stop_signal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // a second Ctrl-C ends the program at once
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);  // a closed pipe is reported as a write error

  SampleQueue queue(queue_capacity);
  SampleWriter writer(queue, output, output_name, options.format);
  std::thread writer_thread;
  const auto finish_writer = [&] {
    queue.close();
    if (writer_thread.joinable()) writer_thread.join();
    if (output != stdout && std::fclose(output) != 0 && !writer.failed())
      print_error("cannot write " + output_name + ": " + std::strerror(errno));
  };

  CallbackState callback_state;
  callback_state.queue = &queue;
  callback_state.limit = options.count;

  pelmor_config config{};
  config.struct_size = sizeof config;
  config.sample_rate_hz = options.rate_hz;
  config.mode = 1;
  config.strict_timing = options.strict ? 1 : 0;
  config.flags = (options.pairing_check ? PELMOR_FLAG_PAIRING_CHECK : 0U) |
                 (options.bracket_fit ? PELMOR_FLAG_BRACKET_FIT : 0U);
  pelmor_handle handle = nullptr;
  int32_t status = pelmor_create(&config, &handle);
  if (status == PELMOR_OK) status = pelmor_set_callback(handle, on_sample, &callback_state);
  if (status == PELMOR_OK) status = pelmor_start(handle);
  if (status != PELMOR_OK) {
    print_error(std::string("start failed: ") + pelmor_status_message(status) + " (" + std::to_string(status) + ")");
    pelmor_destroy(handle);
    finish_writer();
    return exit_start_failed;
  }
  // Samples wait in the queue until the writer runs; nothing is written for a
  // run that never started.
  writer_thread = std::thread([&writer] { writer.run(); });
  pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);

  const std::uint64_t start_ns = now_ns();
  StatusLine status_line(!options.quiet, start_ns);
  std::uint64_t next_status_ns = start_ns + ns_per_s;
  std::uint64_t run_start_ns = start_ns;
  std::uint64_t streaming_ns = 0;  // over every run, without the restarts' starts
  std::uint32_t restarts_used = 0;
  StopReason reason = StopReason::asked;
  for (;;) {
    if (stop_signal != 0) break;
    if (pelmor_is_running(handle) == 0) {
      if (restarts_used == options.restarts) {
        reason = StopReason::worker_ended;
        break;
      }
      // The driver wrote its reason just before; the run is closed and a new one begun.
      ++restarts_used;
      status_line.finish_line();
      print_error("the driver's worker ended by itself; restarting (" + std::to_string(restarts_used) + " of " +
                  std::to_string(options.restarts) + ")");
      streaming_ns += now_ns() - run_start_ns;
      pelmor_stop(handle);
      status = pelmor_start(handle);
      run_start_ns = now_ns();
      if (status != PELMOR_OK) {
        print_error(std::string("restart failed: ") + pelmor_status_message(status) + " (" +
                    std::to_string(status) + ")");
        reason = StopReason::worker_ended;
        break;
      }
      continue;
    }
    if (writer.failed()) {
      reason = StopReason::output_failed;
      break;
    }
    if (options.count != 0 && callback_state.taken.load(std::memory_order_acquire) >= options.count) break;
    const std::uint64_t now = now_ns();
    if (options.duration_ns != 0 && now - start_ns >= options.duration_ns) break;
    if (now >= next_status_ns) {
      status_line.draw(writer, queue, false);
      while (next_status_ns <= now) next_status_ns += ns_per_s;
    }
    std::uint64_t wait = std::min(poll_period_ns, next_status_ns - now);
    if (options.duration_ns != 0) wait = std::min(wait, start_ns + options.duration_ns - now);
    sleep_for_ns(wait);
  }

  status_line.finish_line();
  if (reason == StopReason::worker_ended && status == PELMOR_OK) print_error("the driver's worker ended by itself");
  streaming_ns += now_ns() - run_start_ns;
  pelmor_stop(handle);  // joins the worker: no callback runs after this
  finish_writer();
  status_line.draw(writer, queue, true);
  status_line.finish_line();
  const std::string warning =
      format_delivery_warning(callback_state.taken.load(), streaming_ns, options.rate_hz);
  if (!warning.empty()) std::fprintf(stderr, "%s\n", warning.c_str());

  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  const int32_t health_status = pelmor_get_runtime_health(handle, &health);
  if (!options.quiet) {
    if (health_status == PELMOR_OK) {
      std::fputs(format_health_table(health).c_str(), stderr);
    } else {
      std::fprintf(stderr, "runtime health: %s\n", pelmor_status_message(health_status));
    }
  }
  pelmor_destroy(handle);

  int exit_code = exit_ok;
  if (reason == StopReason::worker_ended) {
    exit_code = exit_worker_ended;
  } else if (writer.failed()) {
    print_error(writer.error());
    exit_code = exit_output_failed;
  }
  if (queue.overruns() > 0)
    print_error(std::to_string(queue.overruns()) + " samples were lost because the output could not keep up");
  return exit_code;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  const ParsedCommand command = parse_command_line(args);
  switch (command.action) {
    case CommandAction::help:
      std::fputs(help_text().c_str(), stdout);
      return exit_ok;
    case CommandAction::version:
      std::printf("pelmor-stream %s (libpelmor %s)\n", PELMOR_STREAM_VERSION, pelmor_get_version());
      return exit_ok;
    case CommandAction::usage_error:
      print_error(command.error);
      std::fputs("Try 'pelmor-stream --help' for more information.\n", stderr);
      return exit_usage;
    case CommandAction::run:
      break;
  }
  return run(command.options);
}
