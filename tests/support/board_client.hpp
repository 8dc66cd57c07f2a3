// A client of the public C interface for tests that run the driver on the
// virtual board: records every delivered sample and waits on deliveries instead
// of sleeping.
#pragma once

#include <dirent.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "pelmor.h"

namespace pelmor_test {

inline std::uint64_t raw_now_ns() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

// Open descriptors of this process, to prove that failed starts leak nothing.
inline int open_fd_count() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++count;
    }
    closedir(dir);
  }
  return count - 1;  // the directory's own descriptor
}

struct DeliveredSample {
  pelmor_sample sample;
  std::uint64_t callback_raw_ns;
};

class BoardClient {
 public:
  explicit BoardClient(std::uint32_t rate_hz, std::uint32_t strict_timing = 0, std::uint32_t flags = 0) {
    pelmor_config config{};
    config.struct_size = sizeof config;
    config.sample_rate_hz = rate_hz;
    config.mode = 1;
    config.strict_timing = strict_timing;
    config.flags = flags;
    create_status = pelmor_create(&config, &handle);
    samples_.reserve(4096);
    if (create_status == PELMOR_OK) pelmor_set_callback(handle, &BoardClient::on_sample, this);
  }
  ~BoardClient() { pelmor_destroy(handle); }
  BoardClient(const BoardClient&) = delete;
  BoardClient& operator=(const BoardClient&) = delete;

  bool wait_for_samples(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return samples_.size() >= count; });
  }

  std::vector<DeliveredSample> samples() {
    std::lock_guard<std::mutex> lock(mutex_);
    return samples_;
  }
  std::size_t sample_count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return samples_.size();
  }

  // Polls pelmor_is_running until the worker has ended by itself.
  bool wait_until_stopped(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pelmor_is_running(handle) != 0) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::unique_lock<std::mutex> lock(mutex_);
      cv_.wait_for(lock, std::chrono::milliseconds(5));
    }
    return true;
  }

  pelmor_handle handle = nullptr;
  std::int32_t create_status = PELMOR_ERR_INTERNAL;

 private:
  static void on_sample(const pelmor_sample* sample, void* user) {
    auto* self = static_cast<BoardClient*>(user);
    const std::uint64_t now = raw_now_ns();
    {
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->samples_.push_back({*sample, now});
    }
    self->cv_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<DeliveredSample> samples_;
};

// Starting takes a few tight clock brackets and an INT1 edge within 100 ms; on a
// loaded two-core machine under a sanitizer one attempt can miss that honestly.
// Timing refusals are retried; anything else is returned at once. The failed
// attempts' lines stay in whatever stderr capture is running.
inline std::int32_t start_on_board(pelmor_handle handle, int attempts = 3) {
  std::int32_t status = PELMOR_ERR_INTERNAL;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    status = pelmor_start(handle);
    if (status != PELMOR_ERR_IO) break;
  }
  return status;
}

// Lines of a captured standard-error text that start with a prefix.
inline std::vector<std::string> lines_starting_with(const std::string& text, const std::string& prefix) {
  std::vector<std::string> out;
  std::size_t begin = 0;
  while (begin < text.size()) {
    std::size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    if (text.compare(begin, prefix.size(), prefix) == 0) out.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return out;
}

}  // namespace pelmor_test
