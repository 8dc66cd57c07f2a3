// The in-process control API: every call takes the board lock, brings the model
// up to now and answers from it.
#include <algorithm>
#include <chrono>

#include "board.hpp"
#include "environment.hpp"

#define PELMOR_VBOARD_API __attribute__((visibility("default")))

namespace pelmor_vboard {

using detail::Board;
using detail::board;
using detail::Fault;
using detail::FaultType;
using detail::raw_now;

namespace {

detail::Guard locked(Board& b) {
  detail::Guard lk = b.lock();
  b.ensure_initialised();
  b.advance_to(raw_now());
  return lk;
}

FaultId add(Fault f) {
  Board& b = board();
  auto lk = locked(b);
  return b.faults.add(f);
}

Fault fault_of(FaultType type, Trigger when) {
  Fault f;
  f.type = type;
  f.when = when;
  return f;
}

// Faults that need nothing but their kind and trigger.
FaultId add(FaultType type, Trigger when) { return add(fault_of(type, when)); }

template <typename Pred>
bool wait_on(std::chrono::nanoseconds timeout, Pred pred) {
  Board& b = board();
  auto lk = locked(b);
  const std::uint64_t deadline = raw_now() + static_cast<std::uint64_t>(std::max<std::int64_t>(timeout.count(), 0));
  for (;;) {
    const std::uint64_t now = raw_now();
    b.advance_to(now);
    if (pred(b)) return true;
    if (now >= deadline) return false;
    // Wake at the next modelled instant as well, so that waiting never depends
    // on the board thread being scheduled.
    const std::uint64_t wake = std::min(deadline, b.next_due());
    const std::uint64_t left = wake > now ? wake - now : 0;
    lk.wait(b.waiters(), std::chrono::steady_clock::now() +
                             std::chrono::nanoseconds(std::min<std::uint64_t>(left, 50000000)));
  }
}

}  // namespace

PELMOR_VBOARD_API void reset(const Config& config) {
  Board& b = board();
  auto lk = b.lock();
  b.reset_locked(config);
}

PELMOR_VBOARD_API void reset_from_environment() {
  Board& b = board();
  auto lk = b.lock();
  b.reset_locked(Config::from_environment());
  detail::add_environment_faults(b);
}

PELMOR_VBOARD_API Config current_config() {
  Board& b = board();
  auto lk = locked(b);
  return b.config;
}

PELMOR_VBOARD_API void set_profile(Profile profile, const RealisticTiming& timing) {
  Board& b = board();
  auto lk = locked(b);
  b.config.profile = profile;
  b.config.timing = timing;
  b.apply_profile_locked();
}

PELMOR_VBOARD_API void set_tmst_drift_ppm(double ppm) {
  Board& b = board();
  auto lk = locked(b);
  b.config.tmst_drift_ppm = ppm;
  b.apply_profile_locked();
}

PELMOR_VBOARD_API void set_motion(const MotionSignal& motion) {
  Board& b = board();
  auto lk = locked(b);
  b.config.motion = motion;
}

PELMOR_VBOARD_API std::array<std::uint8_t, 128> register_bank(int bank) {
  Board& b = board();
  auto lk = locked(b);
  std::array<std::uint8_t, 128> out{};
  if (bank < 0 || bank >= detail::bank_count) return out;
  out = b.sensor.bank_array(bank);
  out[detail::reg::REG_BANK_SEL] = b.sensor.peek(0, detail::reg::REG_BANK_SEL);
  return out;
}

PELMOR_VBOARD_API std::uint8_t register_value(int bank, std::uint8_t reg) {
  Board& b = board();
  auto lk = locked(b);
  return b.sensor.peek(bank, static_cast<std::uint8_t>(reg & detail::reg::SPI_ADDRESS_MASK));
}

PELMOR_VBOARD_API std::uint8_t active_bank() {
  Board& b = board();
  auto lk = locked(b);
  return b.sensor.bank();
}

PELMOR_VBOARD_API std::size_t fifo_level_bytes() {
  Board& b = board();
  auto lk = locked(b);
  return b.sensor.fifo_level();
}

PELMOR_VBOARD_API std::vector<SpiMessageRecord> spi_log(std::uint64_t since) {
  Board& b = board();
  auto lk = locked(b);
  std::vector<SpiMessageRecord> out;
  for (std::uint64_t i = std::max(since, b.spi_log.first_kept()); i < b.spi_log.total(); ++i) {
    const detail::LogSlot* slot = b.spi_log.find(i);
    if (slot == nullptr) continue;
    SpiMessageRecord r = slot->record;
    r.transfers.resize(slot->transfers);
    r.writes.resize(slot->writes);
    out.push_back(std::move(r));
  }
  return out;
}

PELMOR_VBOARD_API std::uint64_t spi_log_mark() {
  Board& b = board();
  auto lk = locked(b);
  return b.spi_log.total();
}

PELMOR_VBOARD_API void clear_spi_log() {
  Board& b = board();
  auto lk = locked(b);
  b.spi_log.forget();
}

PELMOR_VBOARD_API std::vector<LineRequestRecord> line_requests() {
  Board& b = board();
  auto lk = locked(b);
  return b.line_records;
}

PELMOR_VBOARD_API std::optional<LineRequestRecord> last_line_request() {
  Board& b = board();
  auto lk = locked(b);
  if (b.line_records.empty()) return std::nullopt;
  return b.line_records.back();
}

PELMOR_VBOARD_API std::uint64_t samples_produced() {
  Board& b = board();
  auto lk = locked(b);
  return b.counters.samples;
}

PELMOR_VBOARD_API std::vector<SampleTruth> samples(std::uint64_t first, std::size_t max_count) {
  Board& b = board();
  auto lk = locked(b);
  std::vector<SampleTruth> out;
  for (std::uint64_t i = std::max(first, b.truth.first_kept()); i < b.truth.total() && out.size() < max_count; ++i) {
    if (const SampleTruth* s = b.truth.find(i)) out.push_back(*s);
  }
  return out;
}

PELMOR_VBOARD_API std::optional<SampleTruth> sample(std::uint64_t index) {
  Board& b = board();
  auto lk = locked(b);
  if (const SampleTruth* s = b.truth.find(index)) return *s;
  return std::nullopt;
}

PELMOR_VBOARD_API std::uint64_t edges_produced() {
  Board& b = board();
  auto lk = locked(b);
  return b.edge_truth.total();
}

PELMOR_VBOARD_API std::vector<EdgeTruth> edges(std::uint64_t first, std::size_t max_count) {
  Board& b = board();
  auto lk = locked(b);
  std::vector<EdgeTruth> out;
  for (std::uint64_t i = std::max(first, b.edge_truth.first_kept()); i < b.edge_truth.total() && out.size() < max_count;
       ++i) {
    if (const EdgeTruth* e = b.edge_truth.find(i)) out.push_back(*e);
  }
  return out;
}

PELMOR_VBOARD_API std::uint64_t tmst_ticks_at(std::uint64_t raw_ns) {
  Board& b = board();
  auto lk = locked(b);
  return b.tmst_ticks(raw_ns);
}

PELMOR_VBOARD_API std::uint32_t tmst_at(std::uint64_t raw_ns) {
  Board& b = board();
  auto lk = locked(b);
  return b.sensor.counter_value(b.tmst_ticks(raw_ns));
}

PELMOR_VBOARD_API Counters counters() {
  Board& b = board();
  auto lk = locked(b);
  return b.counters;
}

PELMOR_VBOARD_API std::uint64_t ioctl_count() {
  Board& b = board();
  auto lk = locked(b);
  return b.counters.ioctls;
}

PELMOR_VBOARD_API std::vector<std::int64_t> edge_lateness_ns() {
  Board& b = board();
  auto lk = locked(b);
  std::vector<std::int64_t> out;
  for (std::uint64_t i = b.lateness.first_kept(); i < b.lateness.total(); ++i) {
    if (const std::int64_t* l = b.lateness.find(i)) out.push_back(*l);
  }
  return out;
}

PELMOR_VBOARD_API FaultId fail_ioctl(IoctlTarget target, int error_number, Trigger when) {
  Fault f = fault_of(FaultType::fail_ioctl, when);
  f.target = target;
  f.error_number = error_number;
  return add(f);
}

PELMOR_VBOARD_API FaultId fail_spi_message(SpiMessageKind kind, int error_number, Trigger when) {
  Fault f = fault_of(FaultType::fail_spi, when);
  f.kind = kind;
  f.error_number = error_number;
  return add(f);
}

PELMOR_VBOARD_API FaultId short_spi_message(SpiMessageKind kind, std::uint32_t missing_bytes, Trigger when) {
  Fault f = fault_of(FaultType::short_spi, when);
  f.kind = kind;
  f.amount = missing_bytes;
  return add(f);
}

PELMOR_VBOARD_API FaultId stretch_spi_message(SpiMessageKind kind, std::uint64_t extra_ns, Trigger when) {
  Fault f = fault_of(FaultType::stretch_spi, when);
  f.kind = kind;
  f.amount = extra_ns;
  return add(f);
}

PELMOR_VBOARD_API FaultId corrupt_register_read(int bank, std::uint8_t reg, std::uint8_t mask, std::uint8_t value,
                                                Trigger when) {
  Fault f = fault_of(FaultType::corrupt_read, when);
  f.bank = bank;
  f.reg = static_cast<std::uint8_t>(reg & detail::reg::SPI_ADDRESS_MASK);
  f.mask = mask;
  f.value = value;
  return add(f);
}

PELMOR_VBOARD_API FaultId drop_edges(Trigger when) { return add(FaultType::drop_edge, when); }

PELMOR_VBOARD_API FaultId suppress_edges(Trigger when) { return add(FaultType::suppress_edge, when); }

PELMOR_VBOARD_API FaultId spurious_edges(Trigger when, std::uint64_t offset_ns) {
  Fault f = fault_of(FaultType::spurious_edge, when);
  f.amount = offset_ns;
  return add(f);
}

PELMOR_VBOARD_API FaultId sentinel_samples(Trigger when) { return add(FaultType::sentinel, when); }

PELMOR_VBOARD_API FaultId stall_fifo(Trigger when) { return add(FaultType::stall_fifo, when); }

PELMOR_VBOARD_API FaultId stretch_bridge(std::uint64_t extra_ns, Trigger when) {
  Fault f = fault_of(FaultType::stretch_bridge, when);
  f.amount = extra_ns;
  return add(f);
}

PELMOR_VBOARD_API FaultId fail_line_read(int error_number, Trigger when) {
  Fault f = fault_of(FaultType::fail_line_read, when);
  f.error_number = error_number;
  return add(f);
}

PELMOR_VBOARD_API void set_spidev_present(bool present) {
  Board& b = board();
  auto lk = locked(b);
  b.config.spidev_present = present;
}

PELMOR_VBOARD_API void set_chips(const std::vector<ChipConfig>& chips) {
  Board& b = board();
  auto lk = locked(b);
  b.config.chips = chips;
}

PELMOR_VBOARD_API void set_who_am_i(std::uint8_t value) {
  Board& b = board();
  auto lk = locked(b);
  b.config.who_am_i = value;
  b.sensor.raw(0, detail::reg::WHO_AM_I) = value;
}

PELMOR_VBOARD_API std::uint64_t fault_hits(FaultId id) {
  Board& b = board();
  auto lk = locked(b);
  return b.faults.hits(id);
}

PELMOR_VBOARD_API void clear_fault(FaultId id) {
  Board& b = board();
  auto lk = locked(b);
  b.faults.remove(id);
}

PELMOR_VBOARD_API void clear_faults() {
  Board& b = board();
  auto lk = locked(b);
  b.faults.clear();
}

PELMOR_VBOARD_API bool wait_for_samples(std::uint64_t total, std::chrono::nanoseconds timeout) {
  return wait_on(timeout, [total](Board& b) { return b.counters.samples >= total; });
}

PELMOR_VBOARD_API bool wait_for_edges(std::uint64_t total, std::chrono::nanoseconds timeout) {
  return wait_on(timeout, [total](Board& b) { return b.edge_truth.total() >= total; });
}

PELMOR_VBOARD_API bool wait_for_line_request(std::chrono::nanoseconds timeout) {
  return wait_on(timeout, [](Board& b) { return !b.line_records.empty(); });
}

PELMOR_VBOARD_API bool wait_for_spi_messages(std::uint64_t total, std::chrono::nanoseconds timeout) {
  return wait_on(timeout, [total](Board& b) { return b.counters.spi_messages >= total; });
}

}  // namespace pelmor_vboard
