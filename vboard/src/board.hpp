// The board: one sensor, its GPIO chips and the "kernel" state of every open
// emulated descriptor, driven on the host's CLOCK_MONOTONIC_RAW. Samples and
// line events are produced lazily up to "now" by whichever call looks first
// (an SPI message, a poll or read of a line, a test's wait) and by a board
// thread that keeps the edges on time for callers that just block.
//
// The board is the front: it owns the descriptor table and the one lock, and
// routes each call to its parts (the SPI wire, the GPIO chardev, the timeline,
// the faults and the sampler). The parts have no lock of their own; every call
// into them is made under the board's, from here or from the control API.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/types.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "descriptors.hpp"
#include "faults.hpp"
#include "gpio_chardev.hpp"
#include "pelmor_vboard.hpp"
#include "records.hpp"
#include "sampler.hpp"
#include "sensor.hpp"
#include "spi_wire.hpp"
#include "timeline.hpp"

namespace pelmor_vboard::detail {

// The board's lock. Our entry points run inside sanitizer interceptors (poll,
// read, ...) that stop recording lock calls while the real function runs, so the
// lock is also announced to ThreadSanitizer directly; without it the hooks are null.
extern "C" void __tsan_acquire(void* addr) __attribute__((weak));
extern "C" void __tsan_release(void* addr) __attribute__((weak));

inline void announce_acquire(void* m) {
  if (__tsan_acquire != nullptr) __tsan_acquire(m);
}
inline void announce_release(void* m) {
  if (__tsan_release != nullptr) __tsan_release(m);
}

class Guard {
 public:
  explicit Guard(std::mutex& m) : lk_(m) { announce_acquire(&m); }
  Guard(Guard&& other) noexcept = default;
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
  ~Guard() {
    if (lk_.owns_lock()) announce_release(lk_.mutex());
  }
  void unlock() {
    announce_release(lk_.mutex());
    lk_.unlock();
  }
  void lock() {
    lk_.lock();
    announce_acquire(lk_.mutex());
  }
  template <typename Until>
  void wait(std::condition_variable& cv, const Until& until) {
    announce_release(lk_.mutex());
    cv.wait_until(lk_, until);
    announce_acquire(lk_.mutex());
  }
  void wait(std::condition_variable& cv) {
    announce_release(lk_.mutex());
    cv.wait(lk_);
    announce_acquire(lk_.mutex());
  }

 private:
  std::unique_lock<std::mutex> lk_;
};

// An emulated descriptor. A line's own state lives in the GPIO chardev under
// the same number.
struct Node {
  std::uint8_t kind = kind_none;
  std::uint64_t generation = 0;
  std::size_t chip = 0;
};

// The records (counters, logs, ground truth) are the board's public face: the
// control API reads them straight off it.
class Board : public Records {
 public:
  Board();
  void reset_locked(const Config& config);
  Guard lock() { return Guard(mu_); }
  void ensure_initialised();

  // ---- descriptors (interposition layer) ----
  // Returns the emulated node kind for a /dev entry name, or kind_none.
  std::uint8_t node_for_name(const std::string& name, std::size_t& chip_index);
  static bool hides_name(const char* name);  // host entries the board owns
  std::vector<std::pair<std::string, unsigned char>> dev_entries();
  int open_node(std::uint8_t kind, std::size_t chip, int flags);
  void release_fd(int fd);
  int ioctl(int fd, unsigned long request, void* arg);
  ssize_t read_line(int fd, void* buf, std::size_t count);
  ssize_t spi_read_write(int fd, const void* tx, void* rx, std::size_t count);
  int poll(struct pollfd* fds, nfds_t nfds, const struct timespec* timeout, const sigset_t* sigmask);

  // ---- control API ----
  std::mutex& mutex() { return mu_; }
  void advance_to(std::uint64_t now);
  std::uint64_t next_due() const;
  void notify_waiters() { waiters_.notify_all(); }
  std::condition_variable& waiters() { return waiters_; }
  std::uint32_t tmst_latch_value(std::uint64_t raw);
  std::uint64_t tmst_ticks(std::uint64_t raw) const { return timeline_.tmst_ticks(raw); }
  void apply_profile_locked();

  Config config;
  Sensor sensor;
  FaultBook faults;
  std::uint64_t generation = 1;

 private:
  int chip_ioctl(const Node& node, unsigned long request, void* arg);
  int spi_message(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t start, std::uint64_t& end);
  void byte_effects(const ByteEffects& effects, std::uint64_t latch_raw, LogSlot* slot, std::uint64_t now);
  void soft_reset(std::uint64_t now);
  void kick();  // something is due: the board thread runs and looks again
  void start_thread();
  void thread_main();

  std::mutex mu_;
  std::condition_variable wake_;     // board thread
  std::condition_variable waiters_;  // tests blocked in wait_for_*
  bool initialised_ = false;
  bool thread_started_ = false;
  std::map<int, Node> nodes_;

  Timeline timeline_{config};
  SpiWire wire_{sensor, faults, spi_log};
  GpioChardev gpio_{config, *this, timeline_, [this] { kick(); }};
  Sampler sampler_{config, sensor, timeline_, faults, gpio_, *this};
};

Board& board();

}  // namespace pelmor_vboard::detail
