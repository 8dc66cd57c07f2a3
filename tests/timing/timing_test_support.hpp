// Hand-built anchors, anchor sources and error capture for the timing tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

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

// The snapshot that yields anchor a.
inline TmstSnapshot snapshot_of(const TmstAnchor& a) {
  TmstSnapshot s;
  s.tmst_ticks = static_cast<std::uint32_t>(a.tick);
  s.raw_before_ns = a.raw_before_ns;
  s.raw_after_ns = a.raw_after_ns;
  return s;
}

// Snapshots from a function of the attempt number (0-based, from when the
// script was set, over both kinds); pauses are counted. The script may be
// replaced between steps.
class ScriptedSource final : public AnchorSource {
 public:
  using Script = std::function<TmstSnapshot(int)>;
  explicit ScriptedSource(Script script = {}) : script_(std::move(script)) {}
  TmstSnapshot take_snapshot() override {
    snapshots += 1;
    return script_(attempt_++);
  }
  TmstSnapshot take_refresh_snapshot() override {
    refresh_snapshots += 1;
    return take_snapshot();
  }
  void pause_ns(std::int64_t ns) override {
    pauses += 1;
    last_pause_ns = ns;
  }
  void script(Script next) {
    script_ = std::move(next);
    attempt_ = 0;
  }
  // The anchors in order, one per snapshot.
  void feed(std::vector<TmstAnchor> anchors) {
    script([anchors = std::move(anchors)](int i) { return snapshot_of(anchors.at(static_cast<std::size_t>(i))); });
  }

  int snapshots = 0;
  int refresh_snapshots = 0;
  int pauses = 0;
  std::int64_t last_pause_ns = 0;

 private:
  Script script_;
  int attempt_ = 0;
};

}  // namespace pelmor_lusk::testing_support
