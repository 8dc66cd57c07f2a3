#include "sample_writer.hpp"

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace pelmor_lusk::stream {

SampleWriter::SampleWriter(SampleQueue& queue, std::FILE* file, std::string file_name, OutputFormat format)
    : queue_(queue), file_(file), file_name_(std::move(file_name)), format_(format) {}

void SampleWriter::run() {
  std::string text = format_ == OutputFormat::csv ? csv_header() : std::string();
  std::vector<pelmor_sample> batch;
  batch.reserve(256);
  for (;;) {
    for (const pelmor_sample& sample : batch) text += format_sample(sample, format_);
    if (!text.empty() && !failed()) {
      errno = 0;
      if (std::fwrite(text.data(), 1, text.size(), file_) != text.size() || std::fflush(file_) != 0)
        fail("cannot write " + file_name_ + ": " + std::strerror(errno != 0 ? errno : EIO));
    }
    text.clear();
    if (!batch.empty() && !failed()) record(batch);
    batch.clear();
    if (queue_.wait_and_pop_all(batch) == 0 && queue_.closed()) return;
  }
}

void SampleWriter::record(const std::vector<pelmor_sample>& batch) {
  const pelmor_sample& last = batch.back();
  const std::lock_guard lock(mutex_);
  if (progress_.samples == 0) {
    progress_.first_index = batch.front().sample_index;
    progress_.first_mapped_ns = batch.front().mapped_timestamp_raw_ns;
  }
  progress_.samples += batch.size();
  progress_.last_index = last.sample_index;
  progress_.last_mapped_ns = last.mapped_timestamp_raw_ns;
  progress_.drops = last.total_drops;
  progress_.resyncs = last.boundary_resyncs;
  progress_.batch_failures = last.batch_failures;
  progress_.uncertainty_us = last.phase_uncertainty_us;
}

WriterProgress SampleWriter::progress() const {
  const std::lock_guard lock(mutex_);
  return progress_;
}

std::string SampleWriter::error() const {
  const std::lock_guard lock(mutex_);
  return error_;
}

void SampleWriter::fail(const std::string& message) {
  const std::lock_guard lock(mutex_);
  error_ = message;
  failed_.store(true, std::memory_order_release);
}

}  // namespace pelmor_lusk::stream
