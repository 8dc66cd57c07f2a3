// binary128 must carry every u64 exactly and round the way the fit expects.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include "common/quad.hpp"

namespace {

using pelmor_lusk::binary128;
using pelmor_lusk::ceil_q;
using pelmor_lusk::round_half_away_q;
using pelmor_lusk::to_q;
using pelmor_lusk::to_u64;

TEST(Binary128, EveryU64RoundTripsExactly) {
  const uint64_t edges[] = {0, 1, 2, (1ULL << 53) + 1, (1ULL << 63) - 1, 1ULL << 63, (1ULL << 63) + 1,
                            UINT64_MAX - 1, UINT64_MAX};
  for (uint64_t v : edges) EXPECT_EQ(to_u64(to_q(v)), v) << v;
  std::mt19937_64 rng(7);
  for (int i = 0; i < 100000; ++i) {
    const uint64_t v = rng();
    ASSERT_EQ(to_u64(to_q(v)), v);
  }
  // Differences near 2^64 that double would lose.
  EXPECT_EQ(to_q(UINT64_MAX) - to_q(UINT64_MAX - 1), to_q(uint64_t{1}));
  EXPECT_EQ(pelmor_lusk::u64_max_q, to_q(UINT64_MAX));
}

TEST(Binary128, RoundsHalvesAwayFromZero) {
  EXPECT_EQ(round_half_away_q(to_q(int64_t{5}) / 2), 3);
  EXPECT_EQ(round_half_away_q(to_q(int64_t{-5}) / 2), -3);
  EXPECT_EQ(round_half_away_q(to_q(int64_t{3}) / 2), 2);
  EXPECT_EQ(round_half_away_q(to_q(int64_t{-3}) / 2), -2);
  EXPECT_EQ(round_half_away_q(to_q(int64_t{-1}) / 2), -1);
  EXPECT_EQ(round_half_away_q(to_q(int64_t{7}) / 4), 2);   // 1.75
  EXPECT_EQ(round_half_away_q(to_q(int64_t{5}) / 4), 1);   // 1.25
  EXPECT_EQ(round_half_away_q(to_q(int64_t{-5}) / 4), -1);
  // Half of an odd value near 2^64 is still exact.
  EXPECT_EQ(to_u64(round_half_away_q(to_q(UINT64_MAX - 2) / 2 + to_q(UINT64_MAX - 2) / 2)), UINT64_MAX - 2);
}

TEST(Binary128, CeilingRoundsUpIncludingNegatives) {
  EXPECT_EQ(ceil_q(to_q(int64_t{1}) / 2), 1);
  EXPECT_EQ(ceil_q(to_q(int64_t{-1}) / 2), 0);
  EXPECT_EQ(ceil_q(to_q(int64_t{-3}) / 2), -1);
  EXPECT_EQ(ceil_q(to_q(int64_t{4})), 4);
  EXPECT_EQ(ceil_q(to_q(int64_t{4}) + to_q(int64_t{1}) / to_q(uint64_t{1} << 40)), 5);
}

}  // namespace
