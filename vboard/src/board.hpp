// The board: one sensor, its GPIO chips and the "kernel" state of every open
// emulated descriptor, driven on the host's CLOCK_MONOTONIC_RAW. Samples and
// line events are produced lazily up to "now" by whichever call looks first
// (an SPI message, a poll or read of a line, a test's wait) and by a board
// thread that keeps the edges on time for callers that just block.
#pragma once

#include <linux/gpio.h>
#include <linux/spi/spidev.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "oscillator.hpp"
#include "pelmor_vboard.hpp"
#include "rng.hpp"
#include "sensor.hpp"

namespace pelmor_vboard::detail {

inline constexpr std::uint8_t kind_none = 0;
inline constexpr std::uint8_t kind_spi = 1;
inline constexpr std::uint8_t kind_chip = 2;
inline constexpr std::uint8_t kind_line = 3;
inline constexpr int fd_table_size = 65536;
extern std::atomic<std::uint8_t> g_fd_kind[fd_table_size];
inline std::uint8_t fd_kind(int fd) {
  return (fd >= 0 && fd < fd_table_size) ? g_fd_kind[fd].load(std::memory_order_acquire) : kind_none;
}

std::uint64_t raw_now();
std::uint64_t monotonic_now();

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

template <typename T>
class Ring {
 public:
  void reset(std::size_t capacity) {
    items_.assign(capacity, T{});
    total_ = 0;
    floor_ = 0;
  }
  void forget() { floor_ = total_; }  // keep numbering, drop what is kept
  T* push() {
    if (items_.empty()) {
      ++total_;
      return nullptr;
    }
    T* slot = &items_[total_ % items_.size()];
    ++total_;
    return slot;
  }
  T* find(std::uint64_t index) {
    if (index >= total_ || index < floor_ || items_.empty() || total_ - index > items_.size()) return nullptr;
    return &items_[index % items_.size()];
  }
  std::uint64_t total() const { return total_; }
  std::uint64_t first_kept() const {
    const std::uint64_t ring = total_ > items_.size() ? total_ - items_.size() : 0;
    return ring > floor_ ? ring : floor_;
  }

 private:
  std::vector<T> items_;
  std::uint64_t total_ = 0;
  std::uint64_t floor_ = 0;
};

struct PendingEvent {
  std::uint64_t due_raw = 0;
  std::uint64_t stamp_raw = 0;
  std::uint32_t id = 0;
  std::uint32_t offset = 0;
  std::uint64_t edge_number = UINT64_MAX;  // rising INT1 edge it belongs to
  bool drop = false;
};

struct QueuedEvent {
  gpio_v2_line_event event;
  std::uint64_t edge_number;
};

struct LineRequest {
  int fd = -1;
  int write_fd = -1;
  std::uint64_t generation = 0;
  std::size_t chip = 0;
  std::vector<std::uint32_t> offsets;
  std::vector<std::uint32_t> line_seqno;
  std::uint64_t flags = 0;
  std::uint32_t capacity = 16;
  std::uint32_t seqno = 0;
  std::deque<QueuedEvent> queue;
  std::deque<PendingEvent> pending;
  bool byte_in_pipe = false;
  std::size_t record = 0;
  std::uint64_t last_due = 0;
};

struct Node {
  std::uint8_t kind = kind_none;
  std::uint64_t generation = 0;
  std::size_t chip = 0;
  std::unique_ptr<LineRequest> line;
};

enum class FaultType : std::uint8_t {
  fail_ioctl, fail_spi, short_spi, stretch_spi, corrupt_read,
  drop_edge, suppress_edge, spurious_edge, sentinel, stall_fifo, fail_line_read,
};

struct Fault {
  FaultId id = 0;
  FaultType type = FaultType::fail_ioctl;
  IoctlTarget target = IoctlTarget::any;
  SpiMessageKind kind = SpiMessageKind::any;
  int error_number = 0;
  std::uint64_t amount = 0;  // bytes or ns
  int bank = 0;
  std::uint8_t reg = 0;
  std::uint8_t mask = 0;
  std::uint8_t value = 0;
  Trigger when{};
  std::uint64_t seen = 0;
  std::uint64_t hits = 0;

  bool fires() {
    ++seen;
    if (seen < when.nth) return false;
    if (when.count != 0 && seen >= when.nth + when.count) return false;
    ++hits;
    return true;
  }
};

// Frame state of the SPI wire: CS may stay asserted across transfers and even
// across messages (cs_change on the last transfer).
struct Frame {
  bool selected = false;
  bool have_address = false;
  bool reading = false;
  std::uint8_t address = 0;
};

struct LogSlot {
  SpiMessageRecord record;
  std::size_t transfers = 0;
  std::size_t writes = 0;
};

class Board {
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

  Config config;
  Sensor sensor;
  std::uint64_t generation = 1;
  Counters counters{};
  std::vector<Fault> faults;
  FaultId next_fault_id = 1;
  Ring<LogSlot> spi_log;
  Ring<SampleTruth> truth;
  Ring<EdgeTruth> edge_truth;
  Ring<std::int64_t> lateness;
  std::vector<LineRequestRecord> line_records;
  Oscillator osc;
  std::uint64_t tmst_origin_ticks = 0;

  std::uint32_t tmst_latch_value(std::uint64_t raw);
  std::uint64_t tmst_ticks(std::uint64_t raw) const;
  void apply_profile_locked();

 private:
  friend struct BoardAccess;
  Fault* fault_firing(FaultType type, SpiMessageKind kind, IoctlTarget target);
  bool edge_fault(FaultType type, Fault** which = nullptr);
  int spi_ioctl(Node& node, unsigned long request, void* arg);
  int spi_message(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t start, std::uint64_t& end);
  int chip_ioctl(Node& node, unsigned long request, void* arg);
  int line_ioctl(Node& node, unsigned long request, void* arg);
  int request_line(Node& node, gpio_v2_line_request* request);
  SpiMessageKind classify(const spi_ioc_transfer* xfers, unsigned n) const;
  std::uint8_t wire_byte(std::uint8_t tx, bool understood, std::uint64_t latch_raw, LogSlot* slot, std::uint64_t now);
  void handle_effects(const ByteEffects& effects, std::uint64_t latch_raw, std::uint64_t now);
  void update_sampling(std::uint64_t now);
  void soft_reset(std::uint64_t now);
  void produce_sample();
  void raise_int1(std::uint64_t sample_index, std::uint64_t raw, SampleTruth* sample);
  void schedule_event(LineRequest& line, std::uint32_t offset, std::uint32_t id, std::uint64_t raw, std::uint64_t edge_number, bool drop, SampleTruth* sample);
  void make_visible(LineRequest& line, std::uint64_t now);
  void release_pin(std::uint64_t raw);
  LineRequest* listener(std::size_t chip, std::uint32_t offset);
  std::uint64_t irq_latency();
  void orphan_all();
  void start_thread();
  void thread_main();
  bool wire_understood() const;

  std::mutex mu_;
  std::condition_variable wake_;     // board thread
  std::condition_variable waiters_;  // tests blocked in wait_for_*
  bool initialised_ = false;
  bool thread_started_ = false;
  Rng rng_;
  std::map<int, Node> nodes_;

  // spidev device settings (shared by every open, as the kernel keeps them)
  std::uint32_t spi_mode_ = 0;
  std::uint8_t spi_bits_ = 8;
  std::uint32_t spi_speed_ = 10000000;
  Frame frame_;

  // sampling
  bool sampling_ = false;
  double period_ticks_ = 0.0;
  double grid_origin_ = 0.0;
  std::uint64_t grid_k_ = 0;
  double next_tick_ = 0.0;
  std::uint64_t next_sample_raw_ = UINT64_MAX;
  std::uint64_t samples_since_power_ = 0;
  std::uint64_t model_now_ = 0;
  std::uint64_t unresponsive_until_ = 0;
  bool pin_latched_ = false;
  std::deque<std::uint64_t> spurious_;  // RAW instants of pending spurious edges
  std::uint64_t mono_minus_raw_ = 0;
  std::uint64_t last_sample_raw_ = 0;
};

Board& board();

}  // namespace pelmor_vboard::detail
