// Hand-built anchors, anchor sources and error capture for the timing tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "timing/anchor_map.hpp"
#include "timing/tmst_mapper.hpp"

namespace pelmor_lusk::testing_support {

// The text of the E that f throws; "" when it returns, "<other>" for another type.
template <class E, class F>
std::string error_of(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  } catch (...) {
    return "<other>";
  }
  return {};
}

inline constexpr std::uint64_t base_raw_ns = 1'000'000'000;

// Midpoint `mid`, half window `half`.
inline TmstAnchor anchor(std::uint64_t tick, std::uint64_t mid, std::uint64_t half = 1000) {
  return TmstAnchor{tick, mid - half, mid + half};
}
// On the exact line raw = base + 1000 ns per tick.
inline TmstAnchor ideal(std::uint64_t tick, std::uint64_t half = 1000) {
  return anchor(tick, base_raw_ns + tick * 1000, half);
}
inline TmstMapper ideal_mapper(std::uint32_t count, std::uint64_t half = 1000) {
  TmstMapper m;
  for (std::uint64_t i = 0; i < count; ++i) m.add_anchor(ideal(i * 10000, half), 50000);
  return m;
}

inline TmstSnapshot ideal_snapshot(std::uint64_t tick, std::uint64_t half = 1000) {
  TmstSnapshot s;
  s.tmst_ticks = static_cast<std::uint32_t>(tick);
  s.raw_before_ns = base_raw_ns + tick * 1000 - half;
  s.raw_after_ns = base_raw_ns + tick * 1000 + half;
  return s;
}

// Snapshots from a function of the attempt number (0-based); pauses are counted.
class ScriptedSource final : public AnchorSource {
 public:
  explicit ScriptedSource(std::function<TmstSnapshot(int)> script) : script_(std::move(script)) {}
  TmstSnapshot take_snapshot() override { return script_(snapshots++); }
  void pause_ns(std::int64_t ns) override {
    pauses += 1;
    last_pause_ns = ns;
  }
  int snapshots = 0;
  int pauses = 0;
  std::int64_t last_pause_ns = 0;

 private:
  std::function<TmstSnapshot(int)> script_;
};

}  // namespace pelmor_lusk::testing_support
