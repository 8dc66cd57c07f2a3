// The library's per-sample and per-batch arithmetic in isolation: parsing the
// largest FIFO batch the reader accepts, refitting a full anchor window in
// binary128, mapping one tick, bridging one interrupt stamp, and composing the
// line a logged timing drop writes.
//
//   pelmor_hot_paths_bench [google-benchmark flags]
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "pipeline/drop_accounting.hpp"
#include "sensor/fifo_parser.hpp"
#include "sensor/fifo_reader.hpp"
#include "timing/clock_bridge.hpp"
#include "timing/tmst_mapper.hpp"
#include "timing/tmst_mapping.hpp"

namespace {

using namespace pelmor_lusk;

constexpr std::size_t packet_bytes = 16;

std::vector<std::uint8_t> full_fifo_bytes() {
  std::vector<std::uint8_t> bytes;
  const std::size_t packets = max_fifo_read_bytes / packet_bytes;  // 130
  for (std::size_t i = 0; i < packets; ++i) {
    const auto tmst = static_cast<std::uint16_t>(i * 5000);
    const std::uint8_t packet[packet_bytes] = {
        0x68, 0x00, 0x10, 0xFF, 0xF0, 0x08, 0x00, 0x00, 0x01, 0xFF, 0xFE, 0x00, 0x02, 0x0A,
        static_cast<std::uint8_t>(tmst >> 8), static_cast<std::uint8_t>(tmst & 0xFF)};
    bytes.insert(bytes.end(), packet, packet + packet_bytes);
  }
  return bytes;
}

void BM_ParseFullFifoBatch(benchmark::State& state) {
  const std::vector<std::uint8_t> bytes = full_fifo_bytes();
  for (auto _ : state) {
    FifoBatch batch;  // fresh, as each read makes one
    batch.fifo_byte_count = static_cast<std::uint16_t>(bytes.size());
    parse_fifo_packets(bytes, batch);
    benchmark::DoNotOptimize(batch.packets.data());
  }
  state.counters["packets"] = static_cast<double>(bytes.size() / packet_bytes);
}
BENCHMARK(BM_ParseFullFifoBatch);

// Sixteen anchors 80 ms apart on a clock 2500 ppm fast, with bracket widths and
// latch points as an SPI message of 10 to 25 us gives them, far from tick 0.
TmstAnchor bench_anchor(std::uint64_t i) {
  const std::uint64_t tick0 = 7'000'000'000ULL;
  const std::uint64_t raw0 = 1'234'567'890'123'456ULL;
  const std::uint64_t tick = tick0 + i * 80'000;
  const std::uint64_t latch = raw0 + (i * 80'000 * 9975) / 10;
  const std::uint64_t width = 10'000 + (i * 7919) % 15'000;
  const std::uint64_t before = latch - (width * (3 + i % 5)) / 8;
  return {tick, before, before + width};
}

TmstMapper full_mapper(bool bracket_fit = false) {
  TmstMapper mapper(bracket_fit);
  for (std::uint64_t i = 0; i < tmst_anchor_capacity; ++i) {
    mapper.add_anchor(bench_anchor(i), tmst_refresh_residual_limit_ns);
  }
  return mapper;
}

// A full window takes one more anchor: one refit of sixteen, plus the copy of
// the window that keeps the benchmark's state. With bracket_fit, the same
// window through the bracket line (pelmor_config.flags bit 1).
void refit_16_anchors(benchmark::State& state, bool bracket_fit) {
  const TmstMapper full = full_mapper(bracket_fit);
  const TmstAnchor next = bench_anchor(tmst_anchor_capacity);
  if (!full.fit().valid || full.anchors().size() != tmst_anchor_capacity) {
    state.SkipWithError("the anchor window did not fit");
    return;
  }
  for (auto _ : state) {
    TmstMapper mapper = full;
    benchmark::DoNotOptimize(mapper.add_anchor(next, tmst_refresh_residual_limit_ns));
    benchmark::ClobberMemory();
  }
}
void BM_Refit16AnchorsBinary128(benchmark::State& state) { refit_16_anchors(state, false); }
BENCHMARK(BM_Refit16AnchorsBinary128);
void BM_Refit16AnchorsBracketFit(benchmark::State& state) { refit_16_anchors(state, true); }
BENCHMARK(BM_Refit16AnchorsBracketFit);

void BM_MapOneTick(benchmark::State& state) {
  const TmstMapper mapper = full_mapper();
  std::uint64_t tick = mapper.fit().last_tick;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map_tmst_to_raw(mapper.fit(), tick, 12'000));
    tick += 5000;
    if (tick > mapper.fit().last_tick + 400'000) tick = mapper.fit().last_tick;
  }
}
BENCHMARK(BM_MapOneTick);

// With the bracket fit, every accepted sensor sample is mapped to the middle of
// what sixteen brackets and the recent stamps allow: the window as a full one
// holds it, with eight stamps already in.
void BM_BoundOneSample(benchmark::State& state) {
  TmstMapper full = full_mapper(true);
  const std::uint64_t first = full.fit().last_tick + 5000;
  const auto stamp_at = [&](std::uint64_t tick) {
    return map_tmst_to_raw(full.fit(), tick, 0).raw_ns + 40'000;  // well above the line
  };
  for (std::uint64_t k = 0; k < tmst_upper_bound_capacity; ++k) {
    full.bound_sample(first + k * 5000, stamp_at(first + k * 5000));
  }
  const std::uint64_t tick = first + tmst_upper_bound_capacity * 5000;
  const std::uint64_t stamp = stamp_at(tick);
  for (auto _ : state) {
    TmstMapper mapper = full;
    benchmark::DoNotOptimize(mapper.bound_sample(tick, stamp));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_BoundOneSample);

void BM_BridgeOneEvent(benchmark::State& state) {
  const ClockBracket bracket{5'000'000'120'000ULL, 4'999'987'650'000ULL, 5'000'000'120'070ULL,
                             4'999'987'650'070ULL};
  std::uint64_t event = 5'000'000'060'000ULL;
  for (auto _ : state) {
    benchmark::DoNotOptimize(bridge_event(event, bracket, 4'999'987'650'100ULL));
    event ^= 1;
  }
}
BENCHMARK(BM_BridgeOneEvent);

// The detail a TMST drop carries: the mapping diagnostic with the fit's.
void BM_FormatDropDetail(benchmark::State& state) {
  const TmstMapper mapper = full_mapper();
  const TmstMapping mapping = map_tmst_to_raw(mapper.fit(), mapper.fit().last_tick + 5000, 190'000);
  for (auto _ : state) {
    std::string detail = format_mapping_diagnostic(mapping, mapper.fit(), mapper.fit().last_tick + 5000, 190'000, 64'000);
    benchmark::DoNotOptimize(detail.data());
  }
}
BENCHMARK(BM_FormatDropDetail);

// One drop logged in full: the counters, the line composed and written to the
// standard error stream, here pointed at /dev/null.
void BM_RecordLoggedDrop(benchmark::State& state) {
  const TmstMapper mapper = full_mapper();
  const TmstMapping mapping = map_tmst_to_raw(mapper.fit(), mapper.fit().last_tick + 5000, 190'000);
  const std::string detail =
      format_mapping_diagnostic(mapping, mapper.fit(), mapper.fit().last_tick + 5000, 190'000, 64'000);
  const int saved_stderr = ::dup(STDERR_FILENO);
  const int null_fd = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved_stderr < 0 || null_fd < 0 || ::dup2(null_fd, STDERR_FILENO) < 0) {
    state.SkipWithError("cannot redirect the standard error stream");
    return;
  }
  for (auto _ : state) {
    DropAccounting accounting;  // below the full-log limit: every drop is written
    accounting.record_drop(TimingDropKind::tmst_raw, TimingDropStage::none, "TMST to RAW timing sample dropped",
                           detail);
    benchmark::DoNotOptimize(accounting.counters().total_drops);
  }
  ::dup2(saved_stderr, STDERR_FILENO);
  ::close(saved_stderr);
  ::close(null_fd);
}
BENCHMARK(BM_RecordLoggedDrop);

}  // namespace

BENCHMARK_MAIN();
