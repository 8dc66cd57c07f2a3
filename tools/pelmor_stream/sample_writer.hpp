// The writer thread's side of pelmor-stream: drains the queue, formats and
// writes the samples, and keeps what the status line shows.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "options.hpp"
#include "sample_format.hpp"
#include "sample_queue.hpp"

namespace pelmor_lusk::stream {

struct WriterProgress {
  std::uint64_t samples = 0;
  std::uint64_t first_index = 0;
  std::uint64_t first_mapped_ns = 0;
  std::uint64_t last_index = 0;
  std::uint64_t last_mapped_ns = 0;
  std::uint32_t drops = 0;
  std::uint32_t resyncs = 0;
  std::uint32_t batch_failures = 0;
  std::uint32_t uncertainty_us = 0;
};

class SampleWriter {
 public:
  // `file` stays owned by the caller; `file_name` is for messages.
  SampleWriter(SampleQueue& queue, std::FILE* file, std::string file_name, OutputFormat format);

  // Thread body: returns once the queue is closed and drained. After a write
  // error the remaining samples are discarded.
  void run();

  WriterProgress progress() const;
  bool failed() const noexcept { return failed_.load(std::memory_order_acquire); }
  std::string error() const;  // set when failed()

 private:
  void record(const std::vector<pelmor_sample>& batch);
  void fail(const std::string& message);

  SampleQueue& queue_;
  std::FILE* file_;
  std::string file_name_;
  OutputFormat format_;
  mutable std::mutex mutex_;
  WriterProgress progress_;
  std::string error_;
  std::atomic<bool> failed_{false};
};

}  // namespace pelmor_lusk::stream
