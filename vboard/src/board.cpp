#include "board.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "environment.hpp"
#include "real.hpp"

namespace pelmor_vboard::detail {

std::atomic<std::uint8_t> g_fd_kind[fd_table_size];

namespace {

constexpr std::uint64_t soft_reset_busy_ns = 1000000;

}  // namespace

Board& board() {
  // Never destroyed: the board thread and late interposed calls may outlive
  // static destruction at exit.
  static Board* instance = new Board();
  return *instance;
}

Board::Board() {
  ::pthread_atfork([] { board().mu_.lock(); }, [] { board().mu_.unlock(); },
                   [] {
                     Board& b = board();
                     b.thread_started_ = false;
                     b.mu_.unlock();
                   });
}

void Board::ensure_initialised() {
  if (initialised_) return;
  reset_locked(Config::from_environment());
  add_environment_faults(*this);
  if (const char* path = std::getenv("PELMOR_VBOARD_TRUTH_FILE"); path != nullptr && *path != '\0') {
    std::atexit(write_truth_file);
  }
}

void Board::reset_locked(const Config& cfg) {
  gpio_.orphan_all();
  ++generation;
  config = cfg;
  reset_records(cfg);
  faults.clear();
  wire_.reset();
  timeline_.reset(raw_now());
  sensor.power_on(cfg.who_am_i, cfg.fifo_capacity_bytes);
  sampler_.reset();
  initialised_ = true;
  wake_.notify_all();
  waiters_.notify_all();
}

void Board::apply_profile_locked() {
  timeline_.apply_profile();
  wake_.notify_all();
}

std::uint32_t Board::tmst_latch_value(std::uint64_t raw) {
  return sensor.tmst_enabled() ? sensor.counter_value(timeline_.tmst_ticks(raw)) : 0;
}

// ---- names and descriptors ----------------------------------------------------

std::uint8_t Board::node_for_name(const std::string& name, std::size_t& chip_index) {
  if (config.spidev_present && name == config.spidev_name) return kind_spi;
  for (std::size_t i = 0; i < config.chips.size(); ++i) {
    if (config.chips[i].name == name) {
      chip_index = i;
      return kind_chip;
    }
  }
  return kind_none;
}

bool Board::hides_name(const char* name) {
  return std::strncmp(name, "gpiochip", 8) == 0 || std::strncmp(name, "spidev", 6) == 0;
}

std::vector<std::pair<std::string, unsigned char>> Board::dev_entries() {
  std::vector<std::pair<std::string, unsigned char>> out;
  for (const auto& chip : config.chips) out.emplace_back(chip.name, DT_CHR);
  if (config.spidev_present) out.emplace_back(config.spidev_name, DT_CHR);
  return out;
}

int Board::open_node(std::uint8_t kind, std::size_t chip, int flags) {
  int efd_flags = 0;
  if (flags & O_CLOEXEC) efd_flags |= EFD_CLOEXEC;
  if (flags & O_NONBLOCK) efd_flags |= EFD_NONBLOCK;
  const int fd = ::eventfd(0, efd_flags);
  if (fd < 0) return -errno;
  if (fd >= fd_table_size) {
    real_close(fd);
    return -EMFILE;
  }
  release_fd(fd);  // a stale entry whose close we never saw
  nodes_[fd] = Node{kind, generation, chip};
  g_fd_kind[fd].store(kind, std::memory_order_release);
  ++counters.opens;
  return fd;
}

void Board::release_fd(int fd) {
  auto it = nodes_.find(fd);
  if (it == nodes_.end()) return;
  if (it->second.kind == kind_line) gpio_.release(fd);
  ++counters.closes;
  g_fd_kind[fd].store(kind_none, std::memory_order_release);
  nodes_.erase(it);
}

// ---- the model up to now ----------------------------------------------------------

std::uint64_t Board::next_due() const {
  return std::min({timeline_.next_sample_raw(), timeline_.next_spurious(), gpio_.next_due()});
}

void Board::advance_to(std::uint64_t now) {
  timeline_.catch_up(now);
  bool measured = false;
  bool produced = false;
  for (;;) {
    const std::uint64_t t_sample = timeline_.next_sample_raw();
    const std::uint64_t t_spurious = timeline_.next_spurious();
    std::uint64_t t_event = never;
    LineRequest* first_line = gpio_.earliest_pending(t_event);
    const std::uint64_t t = std::min({t_sample, t_spurious, t_event});
    if (t == never || t > now) break;
    if (!measured) {
      timeline_.measure_clock_offset();
      measured = true;
    }
    if (t == t_sample) {
      sampler_.produce();
      produced = true;
    } else if (t == t_spurious) {
      timeline_.pop_spurious();
      sampler_.spurious_edge(t);
    } else {
      gpio_.make_visible(*first_line, now);
    }
  }
  if (produced) waiters_.notify_all();
}

void Board::soft_reset(std::uint64_t now) {
  sensor.power_on(config.who_am_i, config.fifo_capacity_bytes);
  timeline_.restart_counter(now);
  sampler_.soft_reset();
  wire_.busy_until(now + soft_reset_busy_ns);
}

// ---- board thread --------------------------------------------------------------------

void Board::kick() {
  start_thread();
  wake_.notify_all();
}

void Board::start_thread() {
  if (thread_started_) return;
  thread_started_ = true;
  std::thread([this] { thread_main(); }).detach();
}

void Board::thread_main() {
  ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);  // edges on time, not 50 us late
  ::pthread_setname_np(::pthread_self(), "pelmor-vboard");
  Guard lk(mu_);
  for (;;) {
    advance_to(raw_now());
    const std::uint64_t due = next_due();
    if (due == never) {
      lk.wait(wake_);
      continue;
    }
    const std::uint64_t now = raw_now();
    if (due <= now) continue;
    const std::uint64_t spin = config.edge_spin_ns;
    if (spin > 0 && due - now <= spin) {
      lk.unlock();
      while (raw_now() < due) {
      }
      lk.lock();
      continue;
    }
    lk.wait(wake_, std::chrono::steady_clock::now() + std::chrono::nanoseconds(due - now - spin));
  }
}

// ---- ioctl and SPI messages --------------------------------------------------------

int Board::ioctl(int fd, unsigned long request, void* arg) {
  const std::uint64_t start = raw_now();
  std::uint64_t end = 0;
  int result = 0;
  {
    Guard lk(mu_);
    ensure_initialised();
    ++counters.ioctls;
    auto it = nodes_.find(fd);
    if (it == nodes_.end()) {
      ++counters.failed_ioctls;
      return -EBADF;
    }
    const Node& node = it->second;
    if (node.generation != generation) {
      ++counters.failed_ioctls;
      return node.kind == kind_spi ? -ESHUTDOWN : -ENODEV;
    }
    advance_to(start);
    IoctlTarget target = IoctlTarget::any;
    const bool is_message = node.kind == kind_spi && SpiWire::is_message(request);
    if (node.kind == kind_spi) {
      target = is_message ? IoctlTarget::spi_message : IoctlTarget::spi_setup;
      if (!is_message) ++counters.spi_setup_ioctls;
    } else if (node.kind == kind_chip) {
      ++counters.gpio_chip_ioctls;
      if (request == GPIO_GET_CHIPINFO_IOCTL) target = IoctlTarget::gpio_chipinfo;
      if (request == GPIO_V2_GET_LINE_IOCTL) target = IoctlTarget::gpio_line_request;
    } else {
      ++counters.gpio_line_ioctls;
      target = IoctlTarget::gpio_line;
    }
    if (const auto error = faults.ioctl_error(target)) {
      ++counters.failed_ioctls;
      return -*error;
    }
    if (node.kind == kind_spi) {
      if (is_message) {
        const std::size_t size = _IOC_SIZE(request);
        if (size % sizeof(spi_ioc_transfer) != 0) {
          result = -EINVAL;
        } else if (size == 0) {
          result = 0;
        } else {
          result = spi_message(static_cast<const spi_ioc_transfer*>(arg),
                               static_cast<unsigned>(size / sizeof(spi_ioc_transfer)), start, end);
        }
      } else {
        result = wire_.setup_ioctl(request, arg);
      }
    } else if (node.kind == kind_chip) {
      result = chip_ioctl(node, request, arg);
    } else {
      result = gpio_.line_ioctl(fd, request, arg, sampler_.int1_high());
    }
    if (result < 0) ++counters.failed_ioctls;
  }
  if (end > start) wait_until_raw(end);
  return result;
}

int Board::spi_message(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t start, std::uint64_t& end) {
  ++counters.spi_messages;
  std::uint64_t total = 0;
  int error = SpiWire::check(xfers, n, total);
  const SpiMessageKind kind = wire_.classify(xfers, n);
  if (error == 0) error = faults.spi_error(kind);
  LogSlot* slot = wire_.log_message(kind, xfers, n, start);
  if (error != 0) {
    SpiWire::log_failure(slot, error, start);
    return -error;
  }
  const std::optional<std::uint64_t> stretch = faults.stretch_ns(kind);
  const MessageTiming& timing = timeline_.spi_message(xfers, n, wire_.speed_hz(), stretch);
  SpiWire::log_timing(slot, timing, start);
  wire_.exchange(xfers, n, start, slot, [&](const ByteEffects& effects, unsigned transfer, std::uint32_t byte) {
    byte_effects(effects, timing.byte_done(start, transfer, byte), slot, start);
  });
  const int result = faults.spi_result(kind, total);
  end = start + timing.duration;
  SpiWire::log_result(slot, result, end);
  return result;
}

void Board::byte_effects(const ByteEffects& effects, std::uint64_t latch_raw, LogSlot* slot, std::uint64_t now) {
  if (effects.soft_reset) soft_reset(now);
  if (effects.strobe) {
    const std::uint32_t value = tmst_latch_value(latch_raw);
    if (sensor.tmst_to_regs()) {
      sensor.set_tmstval(value);
      SpiWire::log_latch(slot, latch_raw, value);
    }
  }
  if (effects.sampling_changed && timeline_.update_sampling(sensor.sample_period_ticks(), now)) kick();
  if (effects.int_status_read) sampler_.status_read(now);
}

// ---- line requests: a new descriptor in the table -------------------------------------

int Board::chip_ioctl(const Node& node, unsigned long request, void* arg) {
  if (request != GPIO_V2_GET_LINE_IOCTL || node.chip >= config.chips.size()) {
    return gpio_.chip_ioctl(node.chip, request, arg);
  }
  const int fd = gpio_.request_line(node.chip, static_cast<gpio_v2_line_request*>(arg),
                                    [this](int stale) { release_fd(stale); });
  if (fd >= 0) {
    nodes_[fd] = Node{kind_line, generation, node.chip};
    g_fd_kind[fd].store(kind_line, std::memory_order_release);
  }
  waiters_.notify_all();
  return fd < 0 ? fd : 0;
}

}  // namespace pelmor_vboard::detail
