#include "board.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "environment.hpp"
#include "real.hpp"

namespace pelmor_vboard::detail {

std::atomic<std::uint8_t> g_fd_kind[fd_table_size];

namespace {

constexpr std::uint64_t never = UINT64_MAX;
constexpr std::size_t spidev_bufsiz = 4096;
constexpr std::uint64_t soft_reset_busy_ns = 1000000;
constexpr std::uint64_t valid_line_flags =
    GPIO_V2_LINE_FLAG_ACTIVE_LOW | GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_OUTPUT |
    GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING | GPIO_V2_LINE_FLAG_OPEN_DRAIN |
    GPIO_V2_LINE_FLAG_OPEN_SOURCE | GPIO_V2_LINE_FLAG_BIAS_PULL_UP | GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN |
    GPIO_V2_LINE_FLAG_BIAS_DISABLED | GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME | GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE;

std::uint64_t read_clock(clockid_t id) {
  timespec ts{};
  ::clock_gettime(id, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(ts.tv_nsec);
}

// Holds the calling thread until `target` on CLOCK_MONOTONIC_RAW: sleeps the bulk
// (timer slack makes sleeps late, so leave a margin) and spins the rest.
void wait_until_raw(std::uint64_t target) {
  for (;;) {
    const std::uint64_t now = raw_now();
    if (now >= target) return;
    const std::uint64_t left = target - now;
    if (left > 300000) {
      const std::uint64_t nap = left - 200000;
      timespec ts{static_cast<time_t>(nap / 1000000000ULL), static_cast<long>(nap % 1000000000ULL)};
      ::nanosleep(&ts, nullptr);
    }
  }
}

int line_flags_error(std::uint64_t flags) {
  if ((flags & ~valid_line_flags) != 0) return EINVAL;
  if ((flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_HTE) != 0) return EOPNOTSUPP;
  if ((flags & GPIO_V2_LINE_FLAG_INPUT) && (flags & GPIO_V2_LINE_FLAG_OUTPUT)) return EINVAL;
  const std::uint64_t edges = GPIO_V2_LINE_FLAG_EDGE_RISING | GPIO_V2_LINE_FLAG_EDGE_FALLING;
  if ((flags & edges) && !(flags & GPIO_V2_LINE_FLAG_INPUT)) return EINVAL;
  if ((flags & GPIO_V2_LINE_FLAG_OPEN_DRAIN) && (flags & GPIO_V2_LINE_FLAG_OPEN_SOURCE)) return EINVAL;
  const std::uint64_t drive = GPIO_V2_LINE_FLAG_OPEN_DRAIN | GPIO_V2_LINE_FLAG_OPEN_SOURCE;
  if ((flags & drive) && !(flags & GPIO_V2_LINE_FLAG_OUTPUT)) return EINVAL;
  const std::uint64_t bias =
      GPIO_V2_LINE_FLAG_BIAS_PULL_UP | GPIO_V2_LINE_FLAG_BIAS_PULL_DOWN | GPIO_V2_LINE_FLAG_BIAS_DISABLED;
  const std::uint64_t direction = GPIO_V2_LINE_FLAG_INPUT | GPIO_V2_LINE_FLAG_OUTPUT;
  if ((flags & bias) && !(flags & direction)) return EINVAL;
  const std::uint64_t b = flags & bias;
  if (b != 0 && (b & (b - 1)) != 0) return EINVAL;
  return 0;
}

bool all_zero(const void* p, std::size_t n) {
  const auto* bytes = static_cast<const unsigned char*>(p);
  return std::all_of(bytes, bytes + n, [](unsigned char c) { return c == 0; });
}

// Flags of line `index` of a request: an attribute may override the global flags.
std::uint64_t line_config_flags(const gpio_v2_line_config& config, std::uint32_t index) {
  for (std::uint32_t i = 0; i < config.num_attrs && i < GPIO_V2_LINE_NUM_ATTRS_MAX; ++i) {
    const auto& attr = config.attrs[i];
    if (attr.attr.id == GPIO_V2_LINE_ATTR_ID_FLAGS && (attr.mask >> index) & 1ULL) return attr.attr.flags;
  }
  return config.flags;
}

int config_error(const gpio_v2_line_config& config, std::uint32_t num_lines) {
  if (config.num_attrs > GPIO_V2_LINE_NUM_ATTRS_MAX) return EINVAL;
  if (!all_zero(config.padding, sizeof config.padding)) return EINVAL;
  for (std::uint32_t i = 0; i < num_lines; ++i) {
    if (int e = line_flags_error(line_config_flags(config, i))) return e;
  }
  return 0;
}

std::int16_t clamp_counts(double v) {
  return static_cast<std::int16_t>(std::clamp(std::lround(v), -32767L, 32767L));
}

}  // namespace

std::uint64_t raw_now() { return read_clock(CLOCK_MONOTONIC_RAW); }
std::uint64_t monotonic_now() { return read_clock(CLOCK_MONOTONIC); }

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

void Board::orphan_all() {
  for (auto& [fd, node] : nodes_) {
    if (node.line && node.line->write_fd >= 0) {
      real_close(node.line->write_fd);  // the reader sees POLLHUP
      node.line->write_fd = -1;
    }
  }
}

void Board::reset_locked(const Config& cfg) {
  orphan_all();
  ++generation;
  config = cfg;
  rng_ = Rng(cfg.seed);
  counters = Counters{};
  faults.clear();
  spi_log.reset(cfg.spi_log_capacity);
  truth.reset(cfg.truth_capacity);
  edge_truth.reset(cfg.truth_capacity);
  lateness.reset(8192);
  line_records.clear();
  spi_mode_ = 0;
  spi_bits_ = 8;
  spi_speed_ = 10000000;
  frame_ = Frame{};
  const std::uint64_t now = raw_now();
  model_now_ = now;
  osc = Oscillator{};
  osc.epoch_raw = osc.base_raw = now;
  osc.base_ticks = static_cast<double>(cfg.tmst_initial_ticks & 0xFFFFF);
  apply_profile_locked();
  sensor.power_on(cfg.who_am_i, cfg.fifo_capacity_bytes);
  sampling_ = false;
  next_sample_raw_ = never;
  samples_since_power_ = 0;
  unresponsive_until_ = 0;
  pin_latched_ = false;
  spurious_.clear();
  last_sample_raw_ = 0;
  initialised_ = true;
  wake_.notify_all();
  waiters_.notify_all();
}

void Board::apply_profile_locked() {
  const bool realistic = config.profile == Profile::realistic;
  osc.rebase(std::max(model_now_, osc.base_raw), config.tmst_drift_ppm * 1e-6,
             realistic ? config.timing.drift_wander_ppm * 1e-6 : 0.0,
             config.timing.drift_wander_period_s * 1e9);
  if (sampling_) next_sample_raw_ = osc.raw_at(next_tick_);
  wake_.notify_all();
}

std::uint64_t Board::tmst_ticks(std::uint64_t raw) const {
  const double t = osc.ticks_at(raw);
  return t <= 0.0 ? 0 : static_cast<std::uint64_t>(std::floor(t));
}

std::uint32_t Board::tmst_latch_value(std::uint64_t raw) {
  return sensor.tmst_enabled() ? sensor.counter_value(tmst_ticks(raw)) : 0;
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
  Node node;
  node.kind = kind;
  node.generation = generation;
  node.chip = chip;
  nodes_[fd] = std::move(node);
  g_fd_kind[fd].store(kind, std::memory_order_release);
  ++counters.opens;
  return fd;
}

void Board::release_fd(int fd) {
  auto it = nodes_.find(fd);
  if (it == nodes_.end()) return;
  Node& node = it->second;
  if (node.line) {
    if (node.line->write_fd >= 0) real_close(node.line->write_fd);
    if (node.generation == generation && node.line->record < line_records.size()) {
      line_records[node.line->record].released = true;
    }
  }
  ++counters.closes;
  g_fd_kind[fd].store(kind_none, std::memory_order_release);
  nodes_.erase(it);
}

// ---- faults ----------------------------------------------------------------------

Fault* Board::fault_firing(FaultType type, SpiMessageKind kind, IoctlTarget target) {
  Fault* fired = nullptr;
  for (auto& f : faults) {
    if (f.type != type) continue;
    if (type == FaultType::fail_ioctl) {
      if (f.target != IoctlTarget::any && f.target != target) continue;
    } else if (f.kind != SpiMessageKind::any && f.kind != kind) {
      continue;
    }
    if (f.fires() && fired == nullptr) fired = &f;
  }
  return fired;
}

bool Board::edge_fault(FaultType type, Fault** which) {
  bool any = false;
  for (auto& f : faults) {
    if (f.type == type && f.fires() && !any) {
      any = true;
      if (which != nullptr) *which = &f;
    }
  }
  return any;
}

// ---- timeline ----------------------------------------------------------------------

std::uint64_t Board::next_due() const {
  std::uint64_t due = sampling_ ? next_sample_raw_ : never;
  if (!spurious_.empty()) due = std::min(due, spurious_.front());
  for (const auto& [fd, node] : nodes_) {
    if (node.line && node.generation == generation && !node.line->pending.empty()) {
      due = std::min(due, node.line->pending.front().due_raw);
    }
  }
  return due;
}

void Board::advance_to(std::uint64_t now) {
  if (now > model_now_) model_now_ = now;
  bool measured = false;
  bool produced = false;
  for (;;) {
    const std::uint64_t t_sample = sampling_ ? next_sample_raw_ : never;
    const std::uint64_t t_spurious = spurious_.empty() ? never : spurious_.front();
    LineRequest* first_line = nullptr;
    std::uint64_t t_event = never;
    for (auto& [fd, node] : nodes_) {
      if (node.line && node.generation == generation && !node.line->pending.empty() &&
          node.line->pending.front().due_raw < t_event) {
        t_event = node.line->pending.front().due_raw;
        first_line = node.line.get();
      }
    }
    const std::uint64_t t = std::min({t_sample, t_spurious, t_event});
    if (t == never || t > now) break;
    if (!measured) {
      // A preemption inside one bracket would shift every stamp it serves; the
      // narrowest of a few brackets is the honest reading.
      std::uint64_t best_span = never;
      for (int attempt = 0; attempt < 4 && best_span > 2000; ++attempt) {
        const std::uint64_t m1 = monotonic_now();
        const std::uint64_t r = raw_now();
        const std::uint64_t m2 = monotonic_now();
        if (m2 - m1 < best_span) {
          best_span = m2 - m1;
          mono_minus_raw_ = m1 + (m2 - m1) / 2 - r;
        }
      }
      measured = true;
    }
    if (t == t_sample) {
      produce_sample();
      produced = true;
    } else if (t == t_spurious) {
      spurious_.pop_front();
      raise_int1(UINT64_MAX, t, nullptr);
    } else {
      make_visible(*first_line, now);
    }
  }
  if (produced) waiters_.notify_all();
}

void Board::update_sampling(std::uint64_t now) {
  const double period = sensor.sample_period_ticks();
  if (period <= 0.0) {
    sampling_ = false;
    next_sample_raw_ = never;
    return;
  }
  if (!sampling_) {
    sampling_ = true;
    grid_origin_ = std::floor(osc.ticks_at(now));
    grid_k_ = 0;
    samples_since_power_ = 0;
  } else if (period != period_ticks_) {
    grid_origin_ = next_tick_ - period_ticks_;  // the last sample's tick
    grid_k_ = 0;
  }
  period_ticks_ = period;
  next_tick_ = grid_origin_ + static_cast<double>(grid_k_ + 1) * period_ticks_;
  next_sample_raw_ = osc.raw_at(next_tick_);
  start_thread();
  wake_.notify_all();
}

void Board::soft_reset(std::uint64_t now) {
  sensor.power_on(config.who_am_i, config.fifo_capacity_bytes);
  sampling_ = false;
  next_sample_raw_ = never;
  pin_latched_ = false;
  spurious_.clear();
  osc.rebase(now, osc.drift, osc.wander, osc.wander_period_ns);
  osc.base_ticks = static_cast<double>(config.tmst_initial_ticks & 0xFFFFF);
  unresponsive_until_ = now + soft_reset_busy_ns;
}

std::uint64_t Board::irq_latency() {
  if (config.profile != Profile::realistic) return 0;
  const RealisticTiming& r = config.timing;
  double ns = static_cast<double>(r.irq_latency_min_ns) + rng_.exponential(static_cast<double>(r.irq_latency_mean_ns));
  if (rng_.chance(r.irq_tail_probability)) ns += static_cast<double>(rng_.between(r.irq_tail_min_ns, r.irq_tail_max_ns));
  return static_cast<std::uint64_t>(ns);
}

void Board::produce_sample() {
  const std::uint64_t raw = next_sample_raw_;
  SampleTruth s;
  s.index = counters.samples++;
  s.raw_ns = raw;
  s.monotonic_ns = raw + mono_minus_raw_;
  s.tmst_ticks = static_cast<std::uint64_t>(next_tick_);
  s.tmst = sensor.counter_value(s.tmst_ticks);

  const MotionSignal& m = config.motion;
  const double t = static_cast<double>(raw - osc.epoch_raw) * 1e-9;
  const double wave = std::sin(Oscillator::two_pi * m.frequency_hz * t);
  SampleCounts c;
  const double per_g = sensor.accel_counts_per_g();
  const double per_dps = sensor.gyro_counts_per_dps();
  for (std::size_t i = 0; i < 3; ++i) {
    c.accel[i] = clamp_counts((m.accel_mps2[i] + m.accel_amplitude_mps2 * wave) / 9.80665 * per_g);
    c.gyro[i] = clamp_counts((m.gyro_rad_s[i] + m.gyro_amplitude_rad_s * wave) * 57.29577951308232 * per_dps);
  }
  const double temp = m.temperature_c +
                      m.temperature_amplitude_c *
                          std::sin(Oscillator::two_pi * t / (m.temperature_period_s > 0 ? m.temperature_period_s : 60.0));
  c.fifo_temperature = static_cast<std::int8_t>(std::clamp(std::lround((temp - 25.0) * 2.07), -128L, 127L));
  c.register_temperature = clamp_counts((temp - 25.0) * 132.48);
  const bool sentinel_fault = edge_fault(FaultType::sentinel);
  s.sentinel = samples_since_power_ < config.startup_sentinel_samples || sentinel_fault;
  if (s.sentinel || !sensor.accel_on()) c.accel = {-32768, -32768, -32768};
  if (s.sentinel || !sensor.gyro_on()) c.gyro = {-32768, -32768, -32768};
  c.tmst = s.tmst;
  const bool stalled = edge_fault(FaultType::stall_fifo);
  std::uint64_t lost = 0;
  s.in_fifo = sensor.store_sample(c, !stalled, lost);
  counters.fifo_lost_packets += lost;
  s.tmst_low16 = static_cast<std::uint16_t>(s.tmst & 0xFFFF);
  s.accel = c.accel;
  s.gyro = c.gyro;
  s.temperature = c.fifo_temperature;
  ++samples_since_power_;
  last_sample_raw_ = raw;
  SampleTruth* slot = truth.push();
  if (slot != nullptr) *slot = s;
  if (sensor.data_ready_routed()) raise_int1(s.index, raw, slot);

  ++grid_k_;
  next_tick_ = grid_origin_ + static_cast<double>(grid_k_ + 1) * period_ticks_;
  next_sample_raw_ = osc.raw_at(next_tick_);
}

LineRequest* Board::listener(std::size_t chip, std::uint32_t offset) {
  for (auto& [fd, node] : nodes_) {
    if (!node.line || node.generation != generation || node.line->chip != chip) continue;
    const auto& offs = node.line->offsets;
    if (std::find(offs.begin(), offs.end(), offset) != offs.end()) return node.line.get();
  }
  return nullptr;
}

void Board::raise_int1(std::uint64_t sample_index, std::uint64_t raw, SampleTruth* sample) {
  const bool spurious = sample_index == UINT64_MAX;
  if (sensor.int1_latched() && pin_latched_) return;  // still asserted: no new edge
  EdgeTruth edge;
  edge.sample_index = sample_index;
  edge.raw_ns = raw;
  if (!spurious) {
    if (edge_fault(FaultType::suppress_edge)) {
      edge.outcome = EdgeOutcome::suppressed;
      if (sample != nullptr) sample->edge = EdgeOutcome::suppressed;
      EdgeTruth* e = edge_truth.push();
      ++counters.edges;
      if (e != nullptr) *e = edge;
      return;
    }
  }
  const bool drop = !spurious && edge_fault(FaultType::drop_edge);
  Fault* extra = nullptr;
  if (!spurious && edge_fault(FaultType::spurious_edge, &extra)) {
    const std::uint64_t offset =
        extra->amount != 0 ? extra->amount : static_cast<std::uint64_t>(period_ticks_ * 500.0 / (1.0 + osc.drift));
    const std::uint64_t at = raw + std::max<std::uint64_t>(offset, 1);
    spurious_.insert(std::upper_bound(spurious_.begin(), spurious_.end(), at), at);
  }
  const std::uint64_t edge_number = counters.edges++;
  EdgeTruth* e = edge_truth.push();
  if (e != nullptr) *e = edge;
  if (sensor.int1_latched()) pin_latched_ = true;

  bool observed = false;
  for (std::size_t chip = 0; chip < config.chips.size(); ++chip) {
    const std::int32_t wired = config.chips[chip].int1_offset;
    if (wired < 0) continue;
    LineRequest* line = listener(chip, static_cast<std::uint32_t>(wired));
    if (line == nullptr) continue;
    const bool active_low = (line->flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) != 0;
    const bool assert_rising = sensor.int1_active_high() != active_low;
    const std::uint64_t want_assert = assert_rising ? GPIO_V2_LINE_FLAG_EDGE_RISING : GPIO_V2_LINE_FLAG_EDGE_FALLING;
    const std::uint64_t want_release = assert_rising ? GPIO_V2_LINE_FLAG_EDGE_FALLING : GPIO_V2_LINE_FLAG_EDGE_RISING;
    const auto offset = static_cast<std::uint32_t>(wired);
    if (line->flags & want_assert) {
      schedule_event(*line, offset, assert_rising ? GPIO_V2_LINE_EVENT_RISING_EDGE : GPIO_V2_LINE_EVENT_FALLING_EDGE,
                     raw, edge_number, drop, sample);
      observed = true;
    }
    if ((line->flags & want_release) && !sensor.int1_latched()) {
      schedule_event(*line, offset, assert_rising ? GPIO_V2_LINE_EVENT_FALLING_EDGE : GPIO_V2_LINE_EVENT_RISING_EDGE,
                     raw + sensor.int1_pulse_ns(), UINT64_MAX, false, nullptr);
      observed = true;
    }
  }
  const EdgeOutcome outcome = observed ? (drop ? EdgeOutcome::dropped : EdgeOutcome::raised) : EdgeOutcome::unobserved;
  if (e != nullptr) e->outcome = outcome;
  if (sample != nullptr) sample->edge = outcome;
}

void Board::schedule_event(LineRequest& line, std::uint32_t offset, std::uint32_t id, std::uint64_t raw,
                           std::uint64_t edge_number, bool drop, SampleTruth* sample) {
  const std::uint64_t latency = irq_latency();
  const std::uint64_t due = std::max(raw + latency, line.last_due + 1);
  line.last_due = due;
  PendingEvent pe;
  pe.due_raw = due;
  pe.stamp_raw = due + mono_minus_raw_;  // kept on CLOCK_MONOTONIC from here on
  pe.id = id;
  pe.offset = offset;
  pe.edge_number = edge_number;
  pe.drop = drop;
  line.pending.push_back(pe);
  if (sample != nullptr) {
    sample->irq_latency_ns = due - raw;
    if (!drop) sample->event_monotonic_ns = pe.stamp_raw;
  }
  if (EdgeTruth* e = edge_truth.find(edge_number)) {
    e->due_raw_ns = due;
    if (!drop) e->event_monotonic_ns = pe.stamp_raw;
  }
  start_thread();
  wake_.notify_all();
}

void Board::make_visible(LineRequest& line, std::uint64_t now) {
  const PendingEvent pe = line.pending.front();
  line.pending.pop_front();
  std::size_t index = 0;
  while (index < line.offsets.size() && line.offsets[index] != pe.offset) ++index;
  if (index == line.offsets.size()) return;
  const std::uint32_t line_seqno = ++line.line_seqno[index];
  const std::uint32_t seqno = line.offsets.size() == 1 ? line_seqno : ++line.seqno;
  EdgeTruth* edge = edge_truth.find(pe.edge_number);
  SampleTruth* sample = (edge != nullptr && edge->sample_index != UINT64_MAX) ? truth.find(edge->sample_index) : nullptr;
  if (edge != nullptr) edge->line_seqno = line_seqno;
  if (sample != nullptr) sample->line_seqno = line_seqno;
  if (pe.drop) return;

  if (line.queue.size() >= line.capacity) {  // the kernel keeps the newest
    const std::uint64_t lost_edge = line.queue.front().edge_number;
    line.queue.pop_front();
    ++counters.events_discarded;
    if (EdgeTruth* old = edge_truth.find(lost_edge)) {
      if (SampleTruth* s = old->sample_index != UINT64_MAX ? truth.find(old->sample_index) : nullptr) {
        s->event_discarded = true;
      }
    }
  }
  gpio_v2_line_event ev{};
  ev.timestamp_ns = pe.stamp_raw;
  if (line.flags & GPIO_V2_LINE_FLAG_EVENT_CLOCK_REALTIME) {
    ev.timestamp_ns = pe.stamp_raw + (read_clock(CLOCK_REALTIME) - monotonic_now());
  }
  ev.id = pe.id;
  ev.offset = pe.offset;
  ev.seqno = seqno;
  ev.line_seqno = line_seqno;
  line.queue.push_back(QueuedEvent{ev, pe.edge_number});
  ++counters.events_queued;
  if (edge != nullptr) edge->queued_raw_ns = now;
  if (std::int64_t* l = lateness.push()) *l = static_cast<std::int64_t>(now - pe.due_raw);
  if (!line.byte_in_pipe && line.write_fd >= 0) {
    const char byte = 1;
    if (real_write(line.write_fd, &byte, 1) == 1) line.byte_in_pipe = true;
  }
}

void Board::release_pin(std::uint64_t raw) {
  pin_latched_ = false;
  for (std::size_t chip = 0; chip < config.chips.size(); ++chip) {
    const std::int32_t wired = config.chips[chip].int1_offset;
    if (wired < 0) continue;
    LineRequest* line = listener(chip, static_cast<std::uint32_t>(wired));
    if (line == nullptr) continue;
    const bool active_low = (line->flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) != 0;
    const bool release_rising = sensor.int1_active_high() == active_low;
    if (line->flags & (release_rising ? GPIO_V2_LINE_FLAG_EDGE_RISING : GPIO_V2_LINE_FLAG_EDGE_FALLING)) {
      schedule_event(*line, static_cast<std::uint32_t>(wired),
                     release_rising ? GPIO_V2_LINE_EVENT_RISING_EDGE : GPIO_V2_LINE_EVENT_FALLING_EDGE, raw,
                     UINT64_MAX, false, nullptr);
    }
  }
}

// ---- board thread --------------------------------------------------------------------

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

// ---- ioctl ------------------------------------------------------------------------------

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
    Node& node = it->second;
    if (node.generation != generation) {
      ++counters.failed_ioctls;
      return node.kind == kind_spi ? -ESHUTDOWN : -ENODEV;
    }
    advance_to(start);
    IoctlTarget target = IoctlTarget::any;
    const bool is_message = node.kind == kind_spi && _IOC_TYPE(request) == SPI_IOC_MAGIC && _IOC_NR(request) == 0 &&
                            _IOC_DIR(request) == _IOC_WRITE;
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
    if (Fault* f = fault_firing(FaultType::fail_ioctl, SpiMessageKind::any, target)) {
      ++counters.failed_ioctls;
      return -f->error_number;
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
        result = spi_ioctl(node, request, arg);
      }
    } else if (node.kind == kind_chip) {
      result = chip_ioctl(node, request, arg);
    } else {
      result = line_ioctl(node, request, arg);
    }
    if (result < 0) ++counters.failed_ioctls;
  }
  if (end > start) wait_until_raw(end);
  return result;
}

int Board::spi_ioctl(Node&, unsigned long request, void* arg) {
  if (_IOC_TYPE(request) != SPI_IOC_MAGIC) return -ENOTTY;
  constexpr std::uint32_t supported_modes = SPI_CPHA | SPI_CPOL | SPI_CS_HIGH | SPI_LSB_FIRST;
  switch (request) {
    case SPI_IOC_RD_MODE:
      *static_cast<std::uint8_t*>(arg) = static_cast<std::uint8_t>(spi_mode_ & 0xFF);
      return 0;
    case SPI_IOC_RD_MODE32:
      *static_cast<std::uint32_t*>(arg) = spi_mode_;
      return 0;
    case SPI_IOC_RD_LSB_FIRST:
      *static_cast<std::uint8_t*>(arg) = (spi_mode_ & SPI_LSB_FIRST) ? 1 : 0;
      return 0;
    case SPI_IOC_RD_BITS_PER_WORD:
      *static_cast<std::uint8_t*>(arg) = spi_bits_;
      return 0;
    case SPI_IOC_RD_MAX_SPEED_HZ:
      *static_cast<std::uint32_t*>(arg) = spi_speed_;
      return 0;
    case SPI_IOC_WR_MODE: {
      const std::uint8_t mode = *static_cast<const std::uint8_t*>(arg);
      if ((mode & ~supported_modes) != 0) return -EINVAL;
      spi_mode_ = (spi_mode_ & ~0xFFU) | mode;
      return 0;
    }
    case SPI_IOC_WR_MODE32: {
      const std::uint32_t mode = *static_cast<const std::uint32_t*>(arg);
      if ((mode & ~supported_modes) != 0) return -EINVAL;
      spi_mode_ = mode;
      return 0;
    }
    case SPI_IOC_WR_LSB_FIRST:
      if (*static_cast<const std::uint8_t*>(arg) != 0) spi_mode_ |= SPI_LSB_FIRST; else spi_mode_ &= ~static_cast<std::uint32_t>(SPI_LSB_FIRST);
      return 0;
    case SPI_IOC_WR_BITS_PER_WORD: {
      const std::uint8_t bits = *static_cast<const std::uint8_t*>(arg);
      if (bits != 0 && bits != 8) return -EINVAL;  // the controller moves bytes only
      spi_bits_ = 8;
      return 0;
    }
    case SPI_IOC_WR_MAX_SPEED_HZ: {
      const std::uint32_t speed = *static_cast<const std::uint32_t*>(arg);
      if (speed == 0) return -EINVAL;
      spi_speed_ = speed;
      return 0;
    }
    default:
      return -ENOTTY;
  }
}

bool Board::wire_understood() const {
  // The sensor speaks modes 0 and 3, MSB first, with an active-low select.
  const std::uint32_t clock = spi_mode_ & (SPI_CPHA | SPI_CPOL);
  return (clock == 0 || clock == (SPI_CPHA | SPI_CPOL)) && (spi_mode_ & (SPI_CS_HIGH | SPI_LSB_FIRST)) == 0;
}

SpiMessageKind Board::classify(const spi_ioc_transfer* xfers, unsigned n) const {
  // Walk the frames as the sensor will see them, without side effects.
  bool selected = frame_.selected;
  bool need_address = !frame_.selected || !frame_.have_address;
  int frames = 0;
  std::uint8_t first = 0;
  std::uint8_t current = 0;
  bool await_second = false;
  bool strobe = false;
  if (!need_address) {
    current = static_cast<std::uint8_t>((frame_.reading ? 0x80 : 0) | frame_.address);
    first = current;
    frames = 1;
    await_second = true;
  }
  for (unsigned i = 0; i < n; ++i) {
    if (!selected) {
      selected = true;
      need_address = true;
    }
    const auto* tx = reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(xfers[i].tx_buf));
    for (std::uint32_t b = 0; b < xfers[i].len; ++b) {
      const std::uint8_t byte = tx != nullptr ? tx[b] : 0;
      if (need_address) {
        current = byte;
        if (frames++ == 0) first = byte;
        need_address = false;
        await_second = true;
      } else if (await_second) {
        if (current == reg::signal_path_reset && (byte & 0x04) != 0) strobe = true;
        await_second = false;
      }
    }
    const bool last = i + 1 == n;
    if (last ? xfers[i].cs_change == 0 : xfers[i].cs_change != 0) selected = false;
  }
  if (strobe) return SpiMessageKind::tmst_snapshot;
  if (frames == 0) return SpiMessageKind::register_write;
  if (frames == 1 && first == reg::reg_bank_sel) return SpiMessageKind::bank_select;
  if (first == (0x80 | reg::fifo_counth)) return SpiMessageKind::fifo_count_read;
  if (first == (0x80 | reg::fifo_data)) return SpiMessageKind::fifo_data_read;
  return (first & 0x80) != 0 ? SpiMessageKind::register_read : SpiMessageKind::register_write;
}

std::uint8_t Board::wire_byte(std::uint8_t tx, bool understood, std::uint64_t latch_raw, LogSlot* slot,
                              std::uint64_t now) {
  if (!understood) return 0xFF;
  if (now < unresponsive_until_) return 0x00;
  if (!frame_.have_address) {
    frame_.have_address = true;
    frame_.reading = (tx & 0x80) != 0;
    frame_.address = tx & 0x7F;
    return 0x00;
  }
  ByteEffects effects;
  const std::uint8_t bank = sensor.bank();
  const std::uint8_t address = frame_.address;
  std::uint8_t rx = 0;
  if (frame_.reading) {
    rx = sensor.read(address, effects);
    for (auto& f : faults) {
      if (f.type == FaultType::corrupt_read && f.reg == address &&
          (address == reg::reg_bank_sel || f.bank == static_cast<int>(bank)) && f.fires()) {
        rx = static_cast<std::uint8_t>((rx & ~f.mask) | (f.value & f.mask));
      }
    }
  } else {
    const std::uint8_t stored = sensor.write(address, tx, effects);
    if (slot != nullptr) {
      auto& writes = slot->record.writes;
      if (slot->writes >= writes.size()) writes.emplace_back();
      writes[slot->writes++] = RegisterWrite{bank, address, tx, stored};
    }
  }
  if (!(bank == 0 && address == reg::fifo_data)) frame_.address = static_cast<std::uint8_t>((address + 1) & 0x7F);
  if (effects.soft_reset || effects.strobe || effects.sampling_changed || effects.int_status_read) {
    if (effects.soft_reset) soft_reset(now);
    if (effects.strobe) {
      const std::uint32_t value = tmst_latch_value(latch_raw);
      if (sensor.tmst_to_regs()) sensor.set_tmstval(value);
      if (slot != nullptr && sensor.tmst_to_regs()) {
        slot->record.latched = true;
        slot->record.latch_raw_ns = latch_raw;
        slot->record.latch_tmst = value;
      }
    }
    if (effects.sampling_changed) update_sampling(now);
    if (effects.int_status_read && pin_latched_) release_pin(now);
  }
  return rx;
}

int Board::spi_message(const spi_ioc_transfer* xfers, unsigned n, std::uint64_t start, std::uint64_t& end) {
  ++counters.spi_messages;
  std::uint64_t total = 0;
  std::size_t rx_total = 0;
  std::size_t tx_total = 0;
  int error = 0;
  for (unsigned i = 0; i < n && error == 0; ++i) {
    const spi_ioc_transfer& x = xfers[i];
    total += x.len;
    if (total > INT_MAX) error = EMSGSIZE;
    if (x.rx_buf != 0 && (rx_total += x.len) > spidev_bufsiz) error = EMSGSIZE;
    if (x.tx_buf != 0 && (tx_total += x.len) > spidev_bufsiz) error = EMSGSIZE;
    if (x.bits_per_word != 0 && x.bits_per_word != 8) error = EINVAL;
    if (x.tx_nbits > 1 || x.rx_nbits > 1) error = EINVAL;
  }
  const SpiMessageKind kind = classify(xfers, n);
  if (error == 0) {
    if (Fault* f = fault_firing(FaultType::fail_spi, kind, IoctlTarget::any)) error = f->error_number;
  }

  LogSlot* slot = spi_log.push();
  if (slot != nullptr) {
    SpiMessageRecord& r = slot->record;
    r.sequence = spi_log.total() - 1;
    r.kind = kind;
    r.transfer_count = n;
    r.raw_start_ns = start;
    r.latched = false;
    r.latch_raw_ns = 0;
    r.latch_tmst = 0;
    slot->writes = 0;
    slot->transfers = n;
    if (r.transfers.size() < n) r.transfers.resize(n);
    for (unsigned i = 0; i < n; ++i) {
      const spi_ioc_transfer& x = xfers[i];
      SpiTransferRecord& t = r.transfers[i];
      t.len = x.len;
      t.speed_hz = x.speed_hz;
      t.bits_per_word = x.bits_per_word;
      t.cs_change = x.cs_change != 0;
      t.delay_usecs = x.delay_usecs;
      t.word_delay_usecs = x.word_delay_usecs;
      t.tx_nbits = x.tx_nbits;
      t.rx_nbits = x.rx_nbits;
      t.has_tx = x.tx_buf != 0;
      t.has_rx = x.rx_buf != 0;
      const auto* tx = reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(x.tx_buf));
      const std::size_t kept = std::min<std::size_t>(x.len, spidev_bufsiz);
      if (tx != nullptr) t.tx.assign(tx, tx + kept); else t.tx.assign(kept, 0);
      t.rx.clear();
    }
  }
  if (error != 0) {
    if (slot != nullptr) {
      slot->record.result = -1;
      slot->record.error_number = error;
      slot->record.raw_end_ns = start;
    }
    return -error;
  }

  // How long the message takes and where inside it a strobe latches.
  std::uint64_t duration = 0;
  for (unsigned i = 0; i < n; ++i) {
    duration += static_cast<std::uint64_t>(xfers[i].delay_usecs) * 1000;
    if (xfers[i].len > 1) duration += static_cast<std::uint64_t>(xfers[i].word_delay_usecs) * 1000 * (xfers[i].len - 1);
  }
  bool random_latch = false;
  if (config.profile == Profile::realistic) {
    const RealisticTiming& r = config.timing;
    double ns = static_cast<double>(r.spi_overhead_ns) + rng_.exponential(static_cast<double>(r.spi_jitter_mean_ns));
    if (r.spi_wire_time) {
      for (unsigned i = 0; i < n; ++i) {
        const double hz = static_cast<double>(xfers[i].speed_hz != 0 ? xfers[i].speed_hz : spi_speed_);
        ns += static_cast<double>(xfers[i].len) * 8.0 * 1e9 / hz;
      }
    }
    if (rng_.chance(r.spi_tail_probability)) ns += static_cast<double>(rng_.between(r.spi_tail_min_ns, r.spi_tail_max_ns));
    duration += static_cast<std::uint64_t>(ns);
    random_latch = true;
  }
  if (Fault* f = fault_firing(FaultType::stretch_spi, kind, IoctlTarget::any)) {
    duration += f->amount;
    random_latch = true;
  }
  const std::uint64_t latch_raw =
      random_latch ? start + static_cast<std::uint64_t>(rng_.uniform() * static_cast<double>(duration)) : start;

  const bool understood = wire_understood();
  for (unsigned i = 0; i < n; ++i) {
    const spi_ioc_transfer& x = xfers[i];
    const auto* tx = reinterpret_cast<const std::uint8_t*>(static_cast<std::uintptr_t>(x.tx_buf));
    auto* rx = reinterpret_cast<std::uint8_t*>(static_cast<std::uintptr_t>(x.rx_buf));
    std::vector<std::uint8_t>* rx_log = slot != nullptr ? &slot->record.transfers[i].rx : nullptr;
    if (rx_log != nullptr) rx_log->resize(x.len);
    if (!frame_.selected) frame_ = Frame{true, false, false, 0};
    for (std::uint32_t b = 0; b < x.len; ++b) {
      const std::uint8_t in = wire_byte(tx != nullptr ? tx[b] : 0, understood, latch_raw, slot, start);
      if (rx != nullptr) rx[b] = in;
      if (rx_log != nullptr) (*rx_log)[b] = in;
    }
    const bool last = i + 1 == n;
    if (last ? x.cs_change == 0 : x.cs_change != 0) frame_ = Frame{};
  }
  int result = static_cast<int>(total);
  if (Fault* f = fault_firing(FaultType::short_spi, kind, IoctlTarget::any)) {
    result = f->amount >= total ? 0 : static_cast<int>(total - f->amount);
  }
  end = start + duration;
  if (slot != nullptr) {
    slot->record.result = result;
    slot->record.error_number = 0;
    slot->record.raw_end_ns = end;
  }
  return result;
}

ssize_t Board::spi_read_write(int fd, const void* tx, void* rx, std::size_t count) {
  const std::uint64_t start = raw_now();
  std::uint64_t end = 0;
  int result = 0;
  {
    Guard lk(mu_);
    ensure_initialised();
    if (rx != nullptr) ++counters.reads;
    auto it = nodes_.find(fd);
    if (it == nodes_.end()) return -EBADF;
    if (it->second.generation != generation) return -ESHUTDOWN;
    if (count > spidev_bufsiz) return -EMSGSIZE;
    advance_to(start);
    spi_ioc_transfer x{};
    x.tx_buf = reinterpret_cast<std::uintptr_t>(tx);
    x.rx_buf = reinterpret_cast<std::uintptr_t>(rx);
    x.len = static_cast<std::uint32_t>(count);
    result = count == 0 ? 0 : spi_message(&x, 1, start, end);
  }
  if (end > start) wait_until_raw(end);
  return result;
}

// ---- GPIO -----------------------------------------------------------------------------

int Board::chip_ioctl(Node& node, unsigned long request, void* arg) {
  if (node.chip >= config.chips.size()) return -ENODEV;
  const ChipConfig& chip = config.chips[node.chip];
  if (request == GPIO_GET_CHIPINFO_IOCTL) {
    gpiochip_info info{};
    std::strncpy(info.name, chip.name.c_str(), sizeof info.name - 1);
    std::strncpy(info.label, chip.label.c_str(), sizeof info.label - 1);
    info.lines = chip.lines;
    std::memcpy(arg, &info, sizeof info);
    return 0;
  }
  if (request == GPIO_V2_GET_LINEINFO_IOCTL) {
    gpio_v2_line_info info{};
    std::memcpy(&info, arg, sizeof info);
    if (!all_zero(info.padding, sizeof info.padding)) return -EINVAL;
    if (info.offset >= chip.lines) return -EINVAL;
    const std::uint32_t offset = info.offset;
    info = gpio_v2_line_info{};
    info.offset = offset;
    if (LineRequest* line = listener(node.chip, offset)) {
      info.flags = line->flags | GPIO_V2_LINE_FLAG_USED;
      if (line->record < line_records.size()) {
        std::strncpy(info.consumer, line_records[line->record].consumer.c_str(), sizeof info.consumer - 1);
      }
    } else {
      info.flags = GPIO_V2_LINE_FLAG_INPUT;
    }
    std::memcpy(arg, &info, sizeof info);
    return 0;
  }
  if (request == GPIO_V2_GET_LINE_IOCTL) return request_line(node, static_cast<gpio_v2_line_request*>(arg));
  return -EINVAL;
}

int Board::request_line(Node& node, gpio_v2_line_request* user) {
  gpio_v2_line_request req{};
  std::memcpy(&req, user, sizeof req);
  const ChipConfig& chip = config.chips[node.chip];
  LineRequestRecord rec;
  rec.chip_name = chip.name;
  rec.num_lines = req.num_lines;
  for (std::uint32_t i = 0; i < req.num_lines && i < GPIO_V2_LINES_MAX; ++i) rec.offsets.push_back(req.offsets[i]);
  rec.consumer.assign(req.consumer, strnlen(req.consumer, sizeof req.consumer));
  rec.flags = req.config.flags;
  rec.num_attrs = req.config.num_attrs;
  rec.event_buffer_size = req.event_buffer_size;
  rec.raw.assign(reinterpret_cast<const std::uint8_t*>(&req), reinterpret_cast<const std::uint8_t*>(&req) + sizeof req);

  auto refuse = [&](int error) {
    rec.error_number = error;
    line_records.push_back(rec);
    waiters_.notify_all();
    return -error;
  };
  if (req.num_lines == 0 || req.num_lines > GPIO_V2_LINES_MAX) return refuse(EINVAL);
  if (!all_zero(req.padding, sizeof req.padding)) return refuse(EINVAL);
  if (int e = config_error(req.config, req.num_lines)) return refuse(e);
  for (std::uint32_t i = 0; i < req.num_lines; ++i) {
    if (req.offsets[i] >= chip.lines) return refuse(EINVAL);
    for (std::uint32_t j = 0; j < i; ++j) {
      if (req.offsets[j] == req.offsets[i]) return refuse(EBUSY);
    }
    if (listener(node.chip, req.offsets[i]) != nullptr) return refuse(EBUSY);
  }
  std::uint32_t depth = req.event_buffer_size != 0 ? req.event_buffer_size : req.num_lines * 16;
  depth = std::min<std::uint32_t>(depth, GPIO_V2_LINES_MAX * 16);
  std::uint32_t capacity = 1;
  while (capacity < depth) capacity <<= 1;  // the kernel's fifo is a power of two
  rec.effective_buffer_size = capacity;

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return refuse(errno);
  if (fds[0] >= fd_table_size) {
    real_close(fds[0]);
    real_close(fds[1]);
    return refuse(EMFILE);
  }
  ::fcntl(fds[1], F_SETFL, O_NONBLOCK);
  release_fd(fds[0]);
  auto line = std::make_unique<LineRequest>();
  line->fd = fds[0];
  line->write_fd = fds[1];
  line->generation = generation;
  line->chip = node.chip;
  line->offsets = rec.offsets;
  line->line_seqno.assign(rec.offsets.size(), 0);
  line->flags = line_config_flags(req.config, 0);
  line->capacity = capacity;
  line->record = line_records.size();
  rec.fd = fds[0];
  line_records.push_back(rec);
  Node line_node;
  line_node.kind = kind_line;
  line_node.generation = generation;
  line_node.chip = node.chip;
  line_node.line = std::move(line);
  nodes_[fds[0]] = std::move(line_node);
  g_fd_kind[fds[0]].store(kind_line, std::memory_order_release);
  user->fd = fds[0];
  waiters_.notify_all();
  return 0;
}

int Board::line_ioctl(Node& node, unsigned long request, void* arg) {
  LineRequest& line = *node.line;
  if (request == GPIO_V2_LINE_GET_VALUES_IOCTL) {
    gpio_v2_line_values values{};
    std::memcpy(&values, arg, sizeof values);
    if (values.mask == 0) return -EINVAL;
    values.bits = 0;
    const std::int32_t wired = line.chip < config.chips.size() ? config.chips[line.chip].int1_offset : -1;
    const bool asserted = pin_latched_ || (last_sample_raw_ != 0 && sensor.data_ready_routed() &&
                                           model_now_ < last_sample_raw_ + sensor.int1_pulse_ns());
    const bool physical_high = asserted == sensor.int1_active_high();
    for (std::size_t i = 0; i < line.offsets.size(); ++i) {
      if (!((values.mask >> i) & 1ULL)) continue;
      bool level = static_cast<std::int32_t>(line.offsets[i]) == wired ? physical_high : false;
      if (line.flags & GPIO_V2_LINE_FLAG_ACTIVE_LOW) level = !level;
      if (level) values.bits |= 1ULL << i;
    }
    std::memcpy(arg, &values, sizeof values);
    return 0;
  }
  if (request == GPIO_V2_LINE_SET_VALUES_IOCTL) return -EPERM;
  if (request == GPIO_V2_LINE_SET_CONFIG_IOCTL) {
    gpio_v2_line_config cfg{};
    std::memcpy(&cfg, arg, sizeof cfg);
    if (int e = config_error(cfg, static_cast<std::uint32_t>(line.offsets.size()))) return -e;
    line.flags = line_config_flags(cfg, 0);
    return 0;
  }
  return -EINVAL;
}

ssize_t Board::read_line(int fd, void* buf, std::size_t count) {
  if (count < sizeof(gpio_v2_line_event)) return -EINVAL;
  bool counted = false;
  for (;;) {
    {
      Guard lk(mu_);
      ensure_initialised();
      if (!counted) ++counters.reads;
      counted = true;
      auto it = nodes_.find(fd);
      if (it == nodes_.end()) return -EBADF;
      if (it->second.generation != generation) return -ENODEV;
      if (Fault* f = fault_firing(FaultType::fail_line_read, SpiMessageKind::any, IoctlTarget::any)) {
        return -f->error_number;
      }
      advance_to(raw_now());
      LineRequest& line = *it->second.line;
      std::size_t n = 0;
      auto* out = static_cast<unsigned char*>(buf);
      while (!line.queue.empty() && (n + 1) * sizeof(gpio_v2_line_event) <= count) {
        std::memcpy(out + n * sizeof(gpio_v2_line_event), &line.queue.front().event, sizeof(gpio_v2_line_event));
        line.queue.pop_front();
        ++n;
      }
      counters.events_read += n;
      if (line.queue.empty() && line.byte_in_pipe) {
        char byte = 0;
        if (real_read(fd, &byte, 1) == 1) line.byte_in_pipe = false;
      }
      if (n > 0) return static_cast<ssize_t>(n * sizeof(gpio_v2_line_event));
      const int fl = ::fcntl(fd, F_GETFL);
      if (fl >= 0 && (fl & O_NONBLOCK)) return -EAGAIN;
    }
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, nullptr, nullptr) < 0) return -errno;
  }
}

// ---- poll ---------------------------------------------------------------------------------

int Board::poll(struct pollfd* fds, nfds_t nfds, const struct timespec* timeout, const sigset_t* sigmask) {
  const std::uint64_t begin = raw_now();
  const std::uint64_t deadline =
      timeout == nullptr
          ? never
          : begin + static_cast<std::uint64_t>(timeout->tv_sec) * 1000000000ULL + static_cast<std::uint64_t>(timeout->tv_nsec);
  pollfd local[16];
  std::vector<pollfd> heap;
  pollfd* copy = local;
  if (nfds > 16) {
    heap.resize(nfds);
    copy = heap.data();
  }
  std::vector<short> synthetic_heap;
  short synthetic_local[16];
  short* synthetic = nfds > 16 ? (synthetic_heap.resize(nfds), synthetic_heap.data()) : synthetic_local;
  bool counted = false;
  for (;;) {
    int ready = 0;
    std::uint64_t next = never;
    const std::uint64_t now = raw_now();
    {
      Guard lk(mu_);
      ensure_initialised();
      if (!counted) ++counters.polls;
      counted = true;
      advance_to(now);
      for (nfds_t i = 0; i < nfds; ++i) {
        copy[i] = fds[i];
        copy[i].revents = 0;
        synthetic[i] = -1;
        const std::uint8_t kind = fd_kind(fds[i].fd);
        if (kind == kind_spi || kind == kind_chip) {
          auto it = nodes_.find(fds[i].fd);
          const bool stale = it == nodes_.end() || it->second.generation != generation;
          short rev = 0;
          if (kind == kind_spi) {
            rev = static_cast<short>(fds[i].events & (POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM));
          }
          if (stale) rev = static_cast<short>(rev | POLLERR | POLLHUP);
          synthetic[i] = rev;
          copy[i].fd = -1;
          if (rev != 0) ++ready;
        } else if (kind == kind_line) {
          auto it = nodes_.find(fds[i].fd);
          if (it != nodes_.end() && it->second.line && it->second.generation == generation &&
              !it->second.line->pending.empty()) {
            next = std::min(next, it->second.line->pending.front().due_raw);
          }
        }
      }
    }
    std::uint64_t wake = std::min(deadline, next);
    timespec wait{};
    const timespec* wait_ptr = &wait;
    if (ready > 0) {
      wait = timespec{0, 0};
    } else if (wake == never) {
      wait_ptr = nullptr;
    } else {
      const std::uint64_t left = wake > now ? wake - now : 0;
      wait = timespec{static_cast<time_t>(left / 1000000000ULL), static_cast<long>(left % 1000000000ULL)};
    }
    const int r = real_ppoll(copy, nfds, wait_ptr, sigmask);
    if (r < 0) return -1;
    const int total = r + ready;
    if (total > 0 || ready > 0 || raw_now() >= deadline) {
      for (nfds_t i = 0; i < nfds; ++i) fds[i].revents = synthetic[i] >= 0 ? synthetic[i] : copy[i].revents;
      return total;
    }
  }
}

}  // namespace pelmor_vboard::detail
