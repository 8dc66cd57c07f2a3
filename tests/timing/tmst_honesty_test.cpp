// The anchor map must not claim more than it knows: on a board with a known TMST
// drift, the true slope lies inside the fit's own slope uncertainty and fresh
// ticks map within their stated uncertainty of the true instant.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "board_sensor.hpp"
#include "run/sensor_anchor_source.hpp"
#include "common/clock.hpp"
#include "pelmor_vboard.hpp"
#include "timing/tmst_mapping.hpp"

namespace pelmor_lusk {
namespace {

namespace vb = pelmor_vboard;

struct BoardCase {
  const char* name;
  vb::Config config;
};

class TmstHonesty : public ::testing::TestWithParam<std::tuple<BoardCase, bool>> {};

TEST_P(TmstHonesty, StatedUncertaintyCoversTheTruth) {
  vb::Config config = std::get<0>(GetParam()).config;
  config.timing.drift_wander_ppm = 0.0;  // a fixed, known drift
  vb::reset(config);
  const auto sensor = testing_support::power_up_sensor();
  SensorAnchorSource source(*sensor);

  const bool bracket_fit = std::get<1>(GetParam());
  TmstMapper mapper(bracket_fit, bracket_fit ? source.latch_margins() : LatchMargins{});
  TmstUnwrap unwrap;
  establish_anchor_map(mapper, unwrap, source);
  ASSERT_TRUE(mapper.fit().valid);

  // Positive ppm: the counter runs fast, so fewer RAW ns per tick; a longer tick, more.
  const double true_slope = config.tmst_tick_ns / (1.0 + config.tmst_drift_ppm * 1e-6);
  EXPECT_LE(std::fabs(to_double(mapper.fit().slope_ns_per_tick) - true_slope),
            to_double(mapper.fit().slope_uncertainty_ns_per_tick))
      << format_fit_diagnostic(mapper.fit());

  for (int i = 0; i < 10; ++i) {
    sleep_ms(7);
    const std::uint64_t now = read_raw_ns();
    TmstUnwrap probe = unwrap;  // same unwrapping domain as the anchors
    const std::uint64_t tick = probe.unwrap(vb::tmst_at(now));
    const TmstMapping m = map_tmst_to_raw(mapper.fit(), tick, 0);
    // A loaded machine may widen a bracket past the gate; the claim must hold anyway.
    ASSERT_NE(m.raw_ns, 0U) << format_mapping_diagnostic(m, mapper.fit(), tick, 0, 0);
    const std::uint64_t error = m.raw_ns > now ? m.raw_ns - now : now - m.raw_ns;
    EXPECT_LE(error, std::uint64_t{m.uncertainty_us} * 1000)
        << format_mapping_diagnostic(m, mapper.fit(), tick, 0, 0);
    // The middle of what the brackets allow, and its half-width, hold too.
    if (const std::optional<TightMapping> tight = mapper.bound_sample(tick, UINT64_MAX)) {
      const std::uint64_t off = tight->raw_ns > now ? tight->raw_ns - now : now - tight->raw_ns;
      EXPECT_LE(off, std::uint64_t{tight->uncertainty_us} * 1000) << format_fit_diagnostic(mapper.fit());
      EXPECT_LE(tight->uncertainty_us, m.uncertainty_us);
    } else {
      EXPECT_FALSE(bracket_fit && std::get<0>(GetParam()).config.profile == vb::Profile::realistic)
          << "the realistic board's brackets agree on a line";
    }
  }
}

vb::Config drifting(vb::Config config, double ppm) {
  config.tmst_drift_ppm = ppm;
  return config;
}

vb::Config pll_tick(vb::Config config) {
  config.tmst_tick_ns = 1000.0 * 20.48 / 19.2;
  return config;
}

INSTANTIATE_TEST_SUITE_P(Profiles, TmstHonesty,
                         ::testing::Combine(::testing::Values(BoardCase{"ideal", drifting(vb::Config::ideal(), 180.0)},
                                                              BoardCase{"realistic",
                                                                        drifting(vb::Config::realistic(), 2500.0)},
                                                              BoardCase{"slow_host", vb::Config::slow_host()},
                                                              BoardCase{"pll_tick", pll_tick(vb::Config::realistic())}),
                                            ::testing::Bool()),
                         [](const auto& case_info) {
                           return std::string(std::get<0>(case_info.param).name) +
                                  (std::get<1>(case_info.param) ? "_bracket_fit" : "");
                         });

}  // namespace
}  // namespace pelmor_lusk
