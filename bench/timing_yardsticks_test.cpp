#include "timing_yardsticks.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace pelmor_lusk::bench {
namespace {

TEST(ErrorStatsTest, MagnitudesRankedAndMeanSigned) {
  std::vector<std::int64_t> hundred;
  for (std::int64_t i = 1; i <= 100; ++i) hundred.push_back(i % 2 == 0 ? i : -i);
  const ErrorStats s = summarize(hundred);
  EXPECT_EQ(s.count, 100u);
  EXPECT_DOUBLE_EQ(s.median_abs_ns, 50.5);  // even count: the two middle values averaged
  EXPECT_EQ(s.p99_abs_ns, 99);               // nearest rank 99 of 100
  EXPECT_EQ(s.max_abs_ns, 100);
  EXPECT_DOUBLE_EQ(s.mean_ns, 0.5);

  hundred.push_back(-1000);
  const ErrorStats t = summarize(hundred);
  EXPECT_DOUBLE_EQ(t.median_abs_ns, 51);
  EXPECT_EQ(t.p99_abs_ns, 100);  // rank ceil(0.99 * 101) = 100
  EXPECT_EQ(t.max_abs_ns, 1000);
  EXPECT_EQ(summarize({}).count, 0u);
}

TEST(UnwrapTest, NearestCongruentValueAcrossWraps) {
  EXPECT_EQ(unwrap_near(0x1FFFF0, 0x000010, 20), 0x200010u);   // forward over a wrap
  EXPECT_EQ(unwrap_near(0x200010, 0x0FFFF0, 20), 0x1FFFF0u);   // backward over a wrap
  EXPECT_EQ(unwrap_near(0x345678, 0x45679, 20), 0x345679u);
  EXPECT_EQ(unwrap_near(5, 0xFFFF, 16), 0xFFFFu);  // nothing below zero
  EXPECT_EQ(unwrap_near(0x10005, 0xFFFF, 16), 0xFFFFu);
}

TEST(UnwrapTest, LatchesFollowElapsedRawTime) {
  // 20-bit counter, snapshots 0.6 s apart: each gap crosses or nears a wrap.
  const std::vector<LatchObservation> latches = {
      {0xF0000, 1'000'000'000, 1'000'012'000},
      {(0xF0000 + 600'000) & 0xFFFFF, 1'600'000'000, 1'600'015'000},
      {(0xF0000 + 1'200'000) & 0xFFFFF, 2'200'000'000, 2'200'011'000},
      {(0xF0000 + 2'500'000) & 0xFFFFF, 3'500'000'000, 3'500'014'000},  // 1.3 s: more than a wrap
  };
  const auto b = unwrap_latches(latches, 20);
  ASSERT_EQ(b.size(), 4u);
  EXPECT_EQ(b[0].tick, 0xF0000u + 0x100000u);
  EXPECT_EQ(b[1].tick - b[0].tick, 600'000u);
  EXPECT_EQ(b[2].tick - b[0].tick, 1'200'000u);
  EXPECT_EQ(b[3].tick - b[0].tick, 2'500'000u);
  EXPECT_EQ(b[3].raw_end_ns, 3'500'014'000u);
}

TEST(TruthIndexTest, NearestInstantWithTheSameTimestampField) {
  const std::vector<TruthPoint> points = {
      {1'000'000, 7}, {1'005'000, 8}, {66'536'000, 7}, {132'072'000, 7}};
  const TruthIndex index(points);
  EXPECT_EQ(index.match(7, 66'000'000, 2'500'000), std::optional<std::size_t>(2));
  EXPECT_EQ(index.match(7, 131'000'000, 2'500'000), std::optional<std::size_t>(3));
  EXPECT_EQ(index.match(8, 1'004'000, 2'500'000), std::optional<std::size_t>(1));
  EXPECT_FALSE(index.match(7, 100'000'000, 2'500'000));  // nearest is 33 ms away
  EXPECT_FALSE(index.match(9, 1'000'000, 2'500'000));
}

// Brackets around a known line, far from zero on both axes as in a real run.
std::vector<LatchBracket> brackets_on_line(double slope, const std::vector<std::int64_t>& before,
                                           const std::vector<std::int64_t>& after) {
  std::vector<LatchBracket> out;
  const std::uint64_t tick0 = 40'000'000'000ULL, raw0 = 9'000'000'000'000'000ULL;
  for (std::size_t i = 0; i < before.size(); ++i) {
    const std::uint64_t tick = tick0 + i * 80'000;
    const auto truth = raw0 + static_cast<std::uint64_t>(slope * static_cast<double>(i * 80'000));
    out.push_back({tick, truth - static_cast<std::uint64_t>(before[i]), truth + static_cast<std::uint64_t>(after[i])});
  }
  return out;
}

TEST(HullTest, ZeroWidthBracketsGiveTheLineItself) {
  const auto b = brackets_on_line(0.9975, std::vector<std::int64_t>(6, 0), std::vector<std::int64_t>(6, 0));
  const HullLine line = fit_bracket_hull(b);
  ASSERT_TRUE(line.valid);
  EXPECT_TRUE(line.consistent);
  EXPECT_NEAR(line.slope_ns_per_tick, 0.9975, 1e-9);
  // Extrapolated half a second past the last latch.
  const std::uint64_t tick = b.back().tick + 500'000;
  const double expected = static_cast<double>(b.back().raw_start_ns) + 0.9975 * 500'000;
  EXPECT_NEAR(line.at(tick), expected, 0.01);
}

TEST(HullTest, MidlineOfTheFeasibleSlopesCentredBetweenTheHulls) {
  // [0, 10] at tick 0 and [1000, 1010] at tick 1000: slopes 0.99 .. 1.01, and at
  // slope 1 the intercepts 0 .. 10.
  const std::vector<LatchBracket> b = {{5000, 1'000'000, 1'000'010}, {6000, 1'001'000, 1'001'010}};
  const HullLine line = fit_bracket_hull(b);
  ASSERT_TRUE(line.valid);
  EXPECT_NEAR(line.slope_min, 0.99, 1e-12);
  EXPECT_NEAR(line.slope_max, 1.01, 1e-12);
  EXPECT_NEAR(line.at(5000), 1'000'005.0, 1e-6);
  EXPECT_NEAR(line.at(6000), 1'001'005.0, 1e-6);

  // A narrow bracket in between pins the line: only slope 1 through its centre.
  std::vector<LatchBracket> pinned = b;
  pinned.insert(pinned.begin() + 1, {5500, 1'000'505, 1'000'505});
  const HullLine p = fit_bracket_hull(pinned);
  EXPECT_NEAR(p.at(5500), 1'000'505.0, 1e-6);
  EXPECT_GE(p.slope_min, 0.99 - 1e-12);
  EXPECT_LE(p.slope_max, 1.01 + 1e-12);
}

TEST(HullTest, OffCentreLatchesDoNotBiasTheLine) {
  // Latches early in some messages, late in others, so that the bracket midpoints
  // are up to 6.5 us off; the hulls still pin the line within a fraction of a us.
  const std::vector<std::int64_t> before = {2000, 12000, 3000, 9000, 1000, 14000, 6000, 2500};
  const std::vector<std::int64_t> after = {13000, 1500, 11000, 4000, 12500, 1000, 7000, 11000};
  const auto b = brackets_on_line(1.0025, before, after);
  const HullLine line = fit_bracket_hull(b);
  ASSERT_TRUE(line.valid);
  EXPECT_TRUE(line.consistent);
  for (std::size_t i = 0; i < b.size(); ++i) {
    const double truth = static_cast<double>(b[i].raw_start_ns + static_cast<std::uint64_t>(before[i]));
    EXPECT_NEAR(line.at(b[i].tick), truth, 500.0) << i;
  }
}

TEST(HullTest, InconsistentBracketsGetTheLeastWidening) {
  // Three zero-width points off a line: the widest-separation line is the
  // Chebyshev fit, y = 5 everywhere, with 5 ns of widening.
  const std::vector<LatchBracket> b = {{1000, 100, 100}, {2000, 110, 110}, {3000, 100, 100}};
  const HullLine line = fit_bracket_hull(b);
  ASSERT_TRUE(line.valid);
  EXPECT_FALSE(line.consistent);
  EXPECT_NEAR(line.widening_ns, 5.0, 1e-3);
  EXPECT_NEAR(line.slope_ns_per_tick, 0.0, 1e-6);
  EXPECT_NEAR(line.at(2000), 105.0, 1e-3);
}

TEST(LineFitTest, NeedsTwoDistinctTicks) {
  EXPECT_FALSE(fit_bracket_hull({}).valid);
  const std::vector<LatchBracket> one = {{1000, 100, 120}};
  EXPECT_FALSE(fit_bracket_hull(one).valid);
  const std::vector<LatchBracket> same = {{1000, 100, 120}, {1000, 105, 125}};
  EXPECT_FALSE(fit_bracket_hull(same).valid);
  EXPECT_FALSE(fit_midpoint_line(one).valid);
  EXPECT_FALSE(fit_midpoint_line(same).valid);
}

TEST(HullTest, AOneSidedStretchedBracketTiltsTheMidpointFitButNotTheHull) {
  // Sixteen 14 us brackets centred on the true line; the second oldest ends
  // 40 us late, as when the return from the message is delayed.
  std::vector<std::int64_t> before(16, 7000), after(16, 7000);
  const auto centred = brackets_on_line(0.9975, before, after);
  after[1] += 40000;
  const auto stretched = brackets_on_line(0.9975, before, after);
  const std::uint64_t next = centred.back().tick + 80'000;  // one refresh interval ahead
  const double truth = static_cast<double>(centred.back().raw_start_ns + 7000) + 0.9975 * 80'000;

  EXPECT_NEAR(fit_midpoint_line(centred).at(next), truth, 1.0);
  EXPECT_NEAR(fit_bracket_hull(centred).at(next), truth, 1.0);
  // The midpoint moves 20 us: +1.25 us on the mean, and a tilt that carries
  // -3.25 us to one interval past the newest bracket.
  EXPECT_NEAR(fit_midpoint_line(stretched).at(next) - truth, -2000.0, 5.0);
  EXPECT_NEAR(fit_bracket_hull(stretched).at(next), truth, 1.0);
  // Weighed by its width, the stretched bracket pulls a sixteenth as much.
  EXPECT_NEAR(fit_weighted_midpoint_line(stretched, 0).at(next), truth, 200.0);
}

TEST(InterpolationTest, NewestOfEachBatchTakesTheInterruptStampOthersAreDatedBack) {
  // A perfect clock: 5 ms per sensor sample, stamps exactly on the samples,
  // deliveries 6 or 7 sensor samples apart as at 30 Hz.
  const std::uint64_t positions[] = {0, 7, 13, 20, 27, 33, 40, 47, 53, 60};
  std::vector<InterruptInput> in;
  for (const std::uint64_t p : positions) in.push_back({p, 1'000'000'000 + p * 5'000'000});
  InterpolationSettings s;
  s.batch_samples = 3;
  s.period_window = 2;
  s.nominal_period_ns = 4'000'000;  // deliberately off: only the first batch uses it
  const auto out = interpolate_from_interrupts(in, s);
  ASSERT_EQ(out.size(), in.size());
  EXPECT_DOUBLE_EQ(*out[2], 1'065'000'000.0);
  EXPECT_DOUBLE_EQ(*out[0], 1'065'000'000.0 - 13 * 4'000'000.0);
  for (std::size_t i = 3; i < 9; ++i) EXPECT_NEAR(*out[i], static_cast<double>(in[i].event_raw_ns), 1e-3) << i;
  EXPECT_FALSE(out[9]);  // its interrupt has not come yet
}

TEST(InterpolationTest, ALateInterruptMovesItsWholeBatch) {
  std::vector<InterruptInput> in;
  for (std::uint64_t i = 0; i < 8; ++i) in.push_back({i, i * 40'000'000});
  in[7].event_raw_ns += 300'000;  // a tail in the interrupt stamp latency
  InterpolationSettings s;
  s.batch_samples = 4;
  s.period_window = 8;
  s.nominal_period_ns = 40'000'000;
  // The late stamp also stretches the period estimate, which dates the older
  // samples of the batch back further: 300, 225, 150, 75 us late.
  const auto out = interpolate_from_interrupts(in, s);
  for (std::size_t i = 4; i < 8; ++i) {
    EXPECT_NEAR(*out[i] - static_cast<double>(i * 40'000'000), 300'000.0 - static_cast<double>(7 - i) * 75'000.0, 1e-3)
        << i;
  }
  for (std::size_t i = 0; i < 4; ++i) EXPECT_NEAR(*out[i], static_cast<double>(i * 40'000'000), 1e-3) << i;

  s.batch_samples = 1;  // an interrupt per sample: the stamps as delivered
  const auto each = interpolate_from_interrupts(in, s);
  for (std::size_t i = 0; i < 8; ++i) EXPECT_DOUBLE_EQ(*each[i], static_cast<double>(in[i].event_raw_ns));
}

TEST(LeastSquaresTest, RecoversCoefficientsAndRefusesSingularSystems) {
  // y = 10 * batches + 0 * snapshots + 0 per row, as the allocation attribution sees it.
  const std::vector<double> x = {7, 1, 1, 6, 0, 1, 7, 0, 1, 6, 1, 1, 7, 0, 1};
  const std::vector<double> y = {70, 60, 70, 60, 70};
  const auto b = least_squares(x, 3, y);
  ASSERT_EQ(b.size(), 3u);
  EXPECT_NEAR(b[0], 10, 1e-9);
  EXPECT_NEAR(b[1], 0, 1e-9);
  EXPECT_NEAR(b[2], 0, 1e-9);

  // One batch and one delivery per row: the two columns are the same.
  const std::vector<double> collinear = {1, 0, 1, 1, 1, 1, 1, 0, 1};
  EXPECT_TRUE(least_squares(collinear, 3, std::vector<double>{10, 10, 10}).empty());
}

}  // namespace
}  // namespace pelmor_lusk::bench
