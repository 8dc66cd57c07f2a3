#include "sample_format.hpp"

#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace pelmor_lusk::stream {
namespace {

constexpr std::array<ColumnDoc, 23> columns{{
    {"sample_index", "delivered-sample number of the run, from 0, no gaps"},
    {"mapped_timestamp_raw_ns",
     "sensor timestamp of the sample mapped onto CLOCK_MONOTONIC_RAW, ns; strictly increasing"},
    {"event_timestamp_raw_ns", "INT1 edge paired with the sample, bridged onto CLOCK_MONOTONIC_RAW, ns"},
    {"phase_uncertainty_us", "uncertainty of mapped_timestamp_raw_ns, whole us rounded up (<= 200)"},
    {"accel_x_mps2", "acceleration x, m/s^2 (+-16 g range)"},
    {"accel_y_mps2", "acceleration y, m/s^2"},
    {"accel_z_mps2", "acceleration z, m/s^2"},
    {"gyro_x_radps", "angular rate x, rad/s (+-2000 deg/s range)"},
    {"gyro_y_radps", "angular rate y, rad/s"},
    {"gyro_z_radps", "angular rate z, rad/s"},
    {"temperature_c", "die temperature, degrees Celsius"},
    {"raw_temperature", "temperature byte as read, sign-extended, counts"},
    {"raw_accel_x", "accelerometer x as read, counts (2048 per g)"},
    {"raw_accel_y", "accelerometer y as read, counts"},
    {"raw_accel_z", "accelerometer z as read, counts"},
    {"raw_gyro_x", "gyroscope x as read, counts (16.4 per deg/s)"},
    {"raw_gyro_y", "gyroscope y as read, counts"},
    {"raw_gyro_z", "gyroscope z as read, counts"},
    {"fifo_timestamp_low16", "sensor timestamp field of the FIFO packet, 1 us ticks modulo 65536"},
    {"tmst_wrap_count", "wraps of the sensor's 20-bit timestamp in this run, saturated"},
    {"boundary_resyncs", "interrupt sequence-gap resyncs so far in the run"},
    {"batch_failures", "failed FIFO batches so far in the run"},
    {"total_drops", "samples dropped by the driver so far in the run"},
}};

// A printf into a growing string; every line here is short.
void append_format(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void append_format(std::string& out, const char* format, ...) {
  std::array<char, 512> buffer{};
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer.data(), buffer.size(), format, args);
  va_end(args);
  if (n > 0) out.append(buffer.data(), static_cast<std::size_t>(n) < buffer.size() ? static_cast<std::size_t>(n)
                                                                                      : buffer.size() - 1);
}

// Physical values come from 16-bit counts and are always finite; the guard
// keeps JSON valid should a non-finite value ever reach it.
void append_number(std::string& out, double value, int decimals, bool json) {
  if (!std::isfinite(value)) {
    out += json ? "null" : "nan";
    return;
  }
  append_format(out, "%.*f", decimals, value);
}

constexpr int accel_decimals = 6;
constexpr int gyro_decimals = 7;
constexpr int temperature_decimals = 4;

void append_csv(std::string& out, const pelmor_sample& s) {
  append_format(out, "%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu32, s.sample_index, s.mapped_timestamp_raw_ns,
                s.event_timestamp_raw_ns, s.phase_uncertainty_us);
  for (double a : s.accel_mps2) {
    out += ',';
    append_number(out, a, accel_decimals, false);
  }
  for (double g : s.gyro_radps) {
    out += ',';
    append_number(out, g, gyro_decimals, false);
  }
  out += ',';
  append_number(out, s.temperature_c, temperature_decimals, false);
  for (std::int16_t w : s.raw_words) append_format(out, ",%d", static_cast<int>(w));
  append_format(out, ",%u,%" PRIu32 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 "\n",
                static_cast<unsigned>(s.fifo_timestamp_low16), s.tmst_wrap_count, s.boundary_resyncs,
                s.batch_failures, s.total_drops);
}

void append_json_array(std::string& out, const double (&values)[3], int decimals) {
  out += '[';
  for (std::size_t i = 0; i < 3; ++i) {
    if (i > 0) out += ',';
    append_number(out, values[i], decimals, true);
  }
  out += ']';
}

void append_jsonl(std::string& out, const pelmor_sample& s) {
  append_format(out,
                "{\"sample_index\":%" PRIu64 ",\"mapped_timestamp_raw_ns\":%" PRIu64
                ",\"event_timestamp_raw_ns\":%" PRIu64 ",\"phase_uncertainty_us\":%" PRIu32 ",\"accel_mps2\":",
                s.sample_index, s.mapped_timestamp_raw_ns, s.event_timestamp_raw_ns, s.phase_uncertainty_us);
  append_json_array(out, s.accel_mps2, accel_decimals);
  out += ",\"gyro_radps\":";
  append_json_array(out, s.gyro_radps, gyro_decimals);
  out += ",\"temperature_c\":";
  append_number(out, s.temperature_c, temperature_decimals, true);
  out += ",\"raw_words\":[";
  for (std::size_t i = 0; i < 7; ++i) append_format(out, i == 0 ? "%d" : ",%d", static_cast<int>(s.raw_words[i]));
  append_format(out,
                "],\"fifo_timestamp_low16\":%u,\"tmst_wrap_count\":%" PRIu32 ",\"boundary_resyncs\":%" PRIu32
                ",\"batch_failures\":%" PRIu32 ",\"total_drops\":%" PRIu32 "}\n",
                static_cast<unsigned>(s.fifo_timestamp_low16), s.tmst_wrap_count, s.boundary_resyncs,
                s.batch_failures, s.total_drops);
}

// Signed difference of two u64 instants in microseconds, without overflow for
// any pair the driver can produce.
double difference_us(std::uint64_t a, std::uint64_t b) {
  return a >= b ? static_cast<double>(a - b) / 1000.0 : -static_cast<double>(b - a) / 1000.0;
}

void append_text(std::string& out, const pelmor_sample& s) {
  append_format(out,
                "#%" PRIu64 " mapped=%" PRIu64 " ns +-%" PRIu32 " us event=%" PRIu64 " ns (%+.1f us) accel=[%.3f %.3f %.3f] "
                "m/s^2 gyro=[%.4f %.4f %.4f] rad/s temp=%.2f C",
                s.sample_index, s.mapped_timestamp_raw_ns, s.phase_uncertainty_us, s.event_timestamp_raw_ns,
                difference_us(s.event_timestamp_raw_ns, s.mapped_timestamp_raw_ns), s.accel_mps2[0],
                s.accel_mps2[1], s.accel_mps2[2], s.gyro_radps[0], s.gyro_radps[1], s.gyro_radps[2],
                s.temperature_c);
  append_format(out, " raw=[%d %d %d %d %d %d %d]", s.raw_words[0], s.raw_words[1], s.raw_words[2], s.raw_words[3],
                s.raw_words[4], s.raw_words[5], s.raw_words[6]);
  append_format(out,
                " low16=%u wraps=%" PRIu32 " resyncs=%" PRIu32 " batch_failures=%" PRIu32 " drops=%" PRIu32 "\n",
                static_cast<unsigned>(s.fifo_timestamp_low16), s.tmst_wrap_count, s.boundary_resyncs,
                s.batch_failures, s.total_drops);
}

}  // namespace

std::span<const ColumnDoc> sample_columns() { return columns; }

std::string csv_header() {
  std::string header;
  for (const ColumnDoc& column : columns) {
    if (!header.empty()) header += ',';
    header += column.name;
  }
  header += '\n';
  return header;
}

std::string format_sample(const pelmor_sample& sample, OutputFormat format) {
  std::string line;
  line.reserve(320);
  switch (format) {
    case OutputFormat::csv:
      append_csv(line, sample);
      break;
    case OutputFormat::jsonl:
      append_jsonl(line, sample);
      break;
    case OutputFormat::text:
      append_text(line, sample);
      break;
  }
  return line;
}

double measured_rate_hz(std::uint64_t index_before, std::uint64_t mapped_before_ns, std::uint64_t index_now,
                        std::uint64_t mapped_now_ns) {
  if (index_now <= index_before || mapped_now_ns <= mapped_before_ns) return -1.0;
  return static_cast<double>(index_now - index_before) * 1e9 / static_cast<double>(mapped_now_ns - mapped_before_ns);
}

std::string format_status_line(const StatusSnapshot& status) {
  std::string line;
  append_format(line, "pelmor-stream: %7.1f s  %8" PRIu64 " samples  ", status.elapsed_s, status.samples);
  if (status.rate_hz >= 0.0) {
    append_format(line, "%6.2f Hz", status.rate_hz);
  } else {
    line += "     - Hz";
  }
  append_format(line, "  drops %" PRIu32 "  resyncs %" PRIu32 "  batch failures %" PRIu32, status.drops,
                status.resyncs, status.batch_failures);
  if (status.have_sample) {
    append_format(line, "  uncertainty %" PRIu32 " us", status.uncertainty_us);
  } else {
    line += "  uncertainty - us";
  }
  if (status.queue_overruns > 0) append_format(line, "  LOST BY WRITER %" PRIu64, status.queue_overruns);
  return line;
}

std::string format_delivery_warning(std::uint64_t delivered, std::uint64_t streaming_ns, std::uint32_t rate_hz) {
  // A second's worth of samples is the least worth judging.
  const std::uint64_t expected = streaming_ns / 1'000'000 * rate_hz / 1000;
  if (expected < rate_hz || delivered * 2 >= expected) return {};
  std::string line;
  const double seconds = static_cast<double>(streaming_ns) / 1e9;
  if (delivered == 0) {
    append_format(line, "pelmor-stream: warning: no sample was delivered in %.1f s of streaming", seconds);
  } else {
    append_format(line,
                  "pelmor-stream: warning: only %" PRIu64 " samples were delivered in %.1f s of streaming, where "
                  "about %" PRIu64 " were due at %" PRIu32 " Hz",
                  delivered, seconds, expected, rate_hz);
  }
  line += "; the driver's lines above tell why (resyncs, drops, a stalled FIFO)";
  return line;
}

std::string format_health_table(const pelmor_runtime_health& h) {
  std::string table;
  append_format(table, "runtime health of run %" PRIu32 ":\n", h.epoch);
  const auto row = [&table](const char* name, std::uint64_t value) {
    append_format(table, "  %-28s %12" PRIu64 "\n", name, value);
  };
  row("samples_delivered", h.samples_delivered);
  row("total_drops", h.total_drops);
  row("boundary_resyncs", h.boundary_resyncs);
  row("batch_failures", h.batch_failures);
  row("uncertainty_over_200_drops", h.uncertainty_over_200_drops);
  row("max_consecutive_drops", h.max_consecutive_drops);
  return table;
}

}  // namespace pelmor_lusk::stream
