#include "environment.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "board.hpp"
#include "parse.hpp"

namespace pelmor_vboard {

using detail::Board;
using detail::Fault;
using detail::parse_u64;
using detail::split;

namespace {

void complain(const char* name, const char* value) {
  std::fprintf(stderr, "pelmor-vboard: ignoring %s=%s\n", name, value);
}

bool parse_double(const char* text, double& out) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  const double v = std::strtod(text, &end);
  if (errno != 0 || end == text || *end != '\0') return false;
  out = v;
  return true;
}

template <typename T>
void env_unsigned(const char* name, T& field) {
  const char* v = std::getenv(name);
  if (v == nullptr) return;
  std::uint64_t x = 0;
  if (parse_u64(v, x)) field = static_cast<T>(x); else complain(name, v);
}

void env_double(const char* name, double& field) {
  const char* v = std::getenv(name);
  if (v == nullptr) return;
  if (!parse_double(v, field)) complain(name, v);
}

void env_bool(const char* name, bool& field) {
  const char* v = std::getenv(name);
  if (v == nullptr) return;
  if (std::strcmp(v, "1") == 0 || std::strcmp(v, "yes") == 0 || std::strcmp(v, "on") == 0) field = true;
  else if (std::strcmp(v, "0") == 0 || std::strcmp(v, "no") == 0 || std::strcmp(v, "off") == 0) field = false;
  else complain(name, v);
}

void env_vector(const char* name, std::array<double, 3>& field) {
  const char* v = std::getenv(name);
  if (v == nullptr) return;
  const auto parts = split(v, ",");
  std::array<double, 3> out{};
  if (parts.size() != 3) return complain(name, v);
  for (std::size_t i = 0; i < 3; ++i) {
    if (!parse_double(parts[i].c_str(), out[i])) return complain(name, v);
  }
  field = out;
}

}  // namespace

Config Config::ideal() { return Config{}; }

Config Config::realistic() {
  Config c;
  c.profile = Profile::realistic;
  c.tmst_drift_ppm = 2500.0;
  return c;
}

Config Config::slow_host() {
  Config c = realistic();
  c.tmst_drift_ppm = -85.0;
  RealisticTiming& t = c.timing;
  t.spi_entry_ns = 5000;
  t.spi_entry_jitter_mean_ns = 5000;
  t.spi_transfer_setup_ns = 1000;
  t.spi_return_ns = 6000;
  t.spi_return_jitter_mean_ns = 6000;
  t.irq_latency_min_ns = 5000;
  t.irq_latency_mean_ns = 12000;
  t.irq_readable_delay_ns = 25000;
  return c;
}

Config Config::from_environment() {
  Config c;
  if (const char* v = std::getenv("PELMOR_VBOARD_PROFILE")) {
    if (std::strcmp(v, "realistic") == 0) c = Config::realistic();
    else if (std::strcmp(v, "slow-host") == 0) c = Config::slow_host();
    else if (std::strcmp(v, "ideal") != 0) complain("PELMOR_VBOARD_PROFILE", v);
  }
  env_unsigned("PELMOR_VBOARD_SEED", c.seed);
  env_double("PELMOR_VBOARD_DRIFT_PPM", c.tmst_drift_ppm);
  env_double("PELMOR_VBOARD_TICK_NS", c.tmst_tick_ns);
  env_unsigned("PELMOR_VBOARD_TMST_START", c.tmst_initial_ticks);
  env_unsigned("PELMOR_VBOARD_WHO_AM_I", c.who_am_i);
  env_unsigned("PELMOR_VBOARD_FIFO_BYTES", c.fifo_capacity_bytes);
  env_unsigned("PELMOR_VBOARD_STARTUP_SENTINELS", c.startup_sentinel_samples);
  env_unsigned("PELMOR_VBOARD_SPI_LOG", c.spi_log_capacity);
  env_unsigned("PELMOR_VBOARD_TRUTH", c.truth_capacity);
  env_unsigned("PELMOR_VBOARD_EDGE_SPIN_NS", c.edge_spin_ns);
  if (const char* v = std::getenv("PELMOR_VBOARD_SPIDEV")) {
    if (std::strcmp(v, "none") == 0 || std::strcmp(v, "0") == 0) c.spidev_present = false;
    else if (*v != '\0' && std::strchr(v, '/') == nullptr) c.spidev_name = v;
    else complain("PELMOR_VBOARD_SPIDEV", v);
  }
  if (const char* v = std::getenv("PELMOR_VBOARD_CHIPS")) {
    std::vector<ChipConfig> chips;
    bool ok = true;
    if (std::strcmp(v, "none") != 0) {
      for (const auto& item : split(v, ",")) {
        const auto eq = item.find('=');
        if (eq == std::string::npos || eq == 0) {
          ok = false;
          break;
        }
        ChipConfig chip;
        chip.name = item.substr(0, eq);
        const auto fields = split(item.substr(eq + 1), ":");
        chip.label = fields[0];
        std::uint64_t lines = chip.lines;
        if (fields.size() > 1 && !parse_u64(fields[1].c_str(), lines)) ok = false;
        chip.lines = static_cast<std::uint32_t>(lines);
        if (fields.size() > 2) {
          if (fields[2] == "none") {
            chip.int1_offset = -1;
          } else {
            std::uint64_t off = 0;
            if (!parse_u64(fields[2].c_str(), off)) ok = false;
            chip.int1_offset = static_cast<std::int32_t>(off);
          }
        }
        if (fields.size() > 3 || chip.name.find('/') != std::string::npos) ok = false;
        chips.push_back(chip);
      }
    }
    if (ok) c.chips = chips; else complain("PELMOR_VBOARD_CHIPS", v);
  }
  RealisticTiming& r = c.timing;
  env_unsigned("PELMOR_VBOARD_SPI_ENTRY_NS", r.spi_entry_ns);
  env_unsigned("PELMOR_VBOARD_SPI_ENTRY_JITTER_NS", r.spi_entry_jitter_mean_ns);
  env_unsigned("PELMOR_VBOARD_SPI_SETUP_NS", r.spi_transfer_setup_ns);
  env_unsigned("PELMOR_VBOARD_SPI_RETURN_NS", r.spi_return_ns);
  env_unsigned("PELMOR_VBOARD_SPI_RETURN_JITTER_NS", r.spi_return_jitter_mean_ns);
  env_bool("PELMOR_VBOARD_SPI_WIRE_TIME", r.spi_wire_time);
  env_double("PELMOR_VBOARD_SPI_TAIL_PROBABILITY", r.spi_tail_probability);
  env_unsigned("PELMOR_VBOARD_SPI_TAIL_MIN_NS", r.spi_tail_min_ns);
  env_unsigned("PELMOR_VBOARD_SPI_TAIL_MAX_NS", r.spi_tail_max_ns);
  env_unsigned("PELMOR_VBOARD_IRQ_LATENCY_MIN_NS", r.irq_latency_min_ns);
  env_unsigned("PELMOR_VBOARD_IRQ_LATENCY_MEAN_NS", r.irq_latency_mean_ns);
  env_double("PELMOR_VBOARD_IRQ_TAIL_PROBABILITY", r.irq_tail_probability);
  env_unsigned("PELMOR_VBOARD_IRQ_TAIL_MIN_NS", r.irq_tail_min_ns);
  env_unsigned("PELMOR_VBOARD_IRQ_TAIL_MAX_NS", r.irq_tail_max_ns);
  env_unsigned("PELMOR_VBOARD_IRQ_READABLE_NS", r.irq_readable_delay_ns);
  env_double("PELMOR_VBOARD_WANDER_PPM", r.drift_wander_ppm);
  env_double("PELMOR_VBOARD_WANDER_PERIOD_S", r.drift_wander_period_s);
  MotionSignal& m = c.motion;
  env_vector("PELMOR_VBOARD_ACCEL", m.accel_mps2);
  env_vector("PELMOR_VBOARD_GYRO", m.gyro_rad_s);
  env_double("PELMOR_VBOARD_ACCEL_AMPLITUDE", m.accel_amplitude_mps2);
  env_double("PELMOR_VBOARD_GYRO_AMPLITUDE", m.gyro_amplitude_rad_s);
  env_double("PELMOR_VBOARD_MOTION_HZ", m.frequency_hz);
  env_double("PELMOR_VBOARD_TEMP_C", m.temperature_c);
  env_double("PELMOR_VBOARD_TEMP_AMPLITUDE_C", m.temperature_amplitude_c);
  return c;
}

namespace detail {

void add_environment_faults(Board& b) {
  const char* v = std::getenv("PELMOR_VBOARD_FAULTS");
  if (v == nullptr || *v == '\0') return;
  for (const auto& item : split(v, ";")) {
    if (item.empty()) continue;
    Fault f;
    if (parse_fault(item, f)) b.faults.add(f); else complain("PELMOR_VBOARD_FAULTS item", item.c_str());
  }
}

void write_truth_file() {
  const char* path = std::getenv("PELMOR_VBOARD_TRUTH_FILE");
  if (path == nullptr || *path == '\0') return;
  const std::vector<SampleTruth> all = pelmor_vboard::samples();
  std::FILE* out = std::fopen(path, "w");
  if (out == nullptr) return;
  std::fprintf(out, "index,raw_ns,monotonic_ns,tmst_ticks,tmst,tmst_low16,in_fifo,sentinel,edge,line_seqno,"
                    "event_monotonic_ns,irq_latency_ns\n");
  for (const auto& s : all) {
    std::fprintf(out, "%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%u,%u,%d,%d,%u,%u,%" PRIu64 ",%" PRIu64 "\n",
                 s.index, s.raw_ns, s.monotonic_ns, s.tmst_ticks, s.tmst, s.tmst_low16, s.in_fifo ? 1 : 0,
                 s.sentinel ? 1 : 0, static_cast<unsigned>(s.edge), s.line_seqno, s.event_monotonic_ns,
                 s.irq_latency_ns);
  }
  std::fclose(out);
}

}  // namespace detail
}  // namespace pelmor_vboard
