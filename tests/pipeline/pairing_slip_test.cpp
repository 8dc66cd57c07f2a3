// The opt-in pairing-slip check: what it learns, what it takes for a slip and
// what it lets pass, alone and inside the pairing core.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pairing_script.hpp"
#include "pipeline/pairing_core.hpp"
#include "pipeline/pairing_slip.hpp"

namespace pelmor_lusk {
namespace {

using testing_support::PairingScript;

constexpr std::uint64_t period_ns = 40'000'000;  // 25 Hz sensor
constexpr std::uint64_t mapped_base = 5'000'000'000;
constexpr std::int64_t latency_ns = 30'000;

// Feeds offsets (event minus mapped) one period apart; the indices that slipped.
std::vector<std::size_t> slips_of(PairingSlipCheck& check, const std::vector<std::int64_t>& offsets,
                                  std::vector<PairingSlip>* seen = nullptr) {
  std::vector<std::size_t> at;
  for (std::size_t i = 0; i < offsets.size(); ++i) {
    const std::uint64_t mapped = mapped_base + i * period_ns;
    const auto event = static_cast<std::uint64_t>(static_cast<std::int64_t>(mapped) + offsets[i]);
    if (const std::optional<PairingSlip> slip = check.observe(event, mapped)) {
      at.push_back(i);
      if (seen != nullptr) seen->push_back(*slip);
    }
  }
  return at;
}

// A learned run: 16 samples with a little jitter around the latency.
std::vector<std::int64_t> learned_run() {
  std::vector<std::int64_t> offsets;
  for (int i = 0; i < 16; ++i) offsets.push_back(latency_ns + (i % 5) * 2'000 - 4'000);
  return offsets;
}

TEST(PairingSlipCheck, ASlipIsTheThirdDepartureInARow) {
  PairingSlipCheck check(period_ns);
  std::vector<std::int64_t> offsets = learned_run();
  for (int i = 0; i < 5; ++i) offsets.push_back(latency_ns);
  // A lost edge: every later sample carries the next one's stamp.
  for (int i = 0; i < 4; ++i) offsets.push_back(latency_ns + static_cast<std::int64_t>(period_ns));
  std::vector<PairingSlip> seen;
  EXPECT_EQ(slips_of(check, offsets, &seen), (std::vector<std::size_t>{23}));
  ASSERT_TRUE(check.learned());
  EXPECT_EQ(check.learned_offset_ns(), latency_ns);
  EXPECT_EQ(check.threshold_ns(), period_ns / 4);
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].offset_ns, latency_ns + static_cast<std::int64_t>(period_ns));
  EXPECT_EQ(seen[0].departing_samples, 3U);
  EXPECT_EQ(format_pairing_slip_message(seen[0]),
            "INT1 pairing slip: event_offset_ns=40030000, learned_offset_ns=30000, learned_spread_ns=2965, "
            "slip_threshold_ns=10000000, departing_samples=3");

  // An extra edge half a period on, then the previous sample's stamps.
  PairingSlipCheck other(period_ns);
  std::vector<std::int64_t> extra = learned_run();
  extra.push_back(latency_ns - static_cast<std::int64_t>(period_ns / 2));
  extra.push_back(latency_ns - static_cast<std::int64_t>(period_ns));
  extra.push_back(latency_ns - static_cast<std::int64_t>(period_ns));
  EXPECT_EQ(slips_of(other, extra), (std::vector<std::size_t>{18}));
}

TEST(PairingSlipCheck, LateInterruptsAreNotSlips) {
  PairingSlipCheck check(period_ns);
  std::vector<std::int64_t> offsets = learned_run();
  offsets.push_back(latency_ns + 30'000'000);  // one very late
  offsets.push_back(latency_ns);
  offsets.push_back(latency_ns + 20'000'000);  // two in a row
  offsets.push_back(latency_ns + 12'000'000);
  offsets.push_back(latency_ns);
  for (int i = 0; i < 50; ++i) offsets.push_back(latency_ns + 9'000'000);  // a burst under a quarter period
  for (int i = 0; i < 3; ++i) offsets.push_back(latency_ns + 10'000'000);  // at it
  offsets.push_back(latency_ns + 15'000'000);  // and two more past it
  offsets.push_back(latency_ns + 15'000'000);
  offsets.push_back(latency_ns);
  EXPECT_TRUE(slips_of(check, offsets).empty());
}

TEST(PairingSlipCheck, LearnsOnlyFromAQuietWindowAndAgainAfterItsOwnResyncKeepsDeparting) {
  PairingSlipCheck noisy(period_ns);
  std::vector<std::int64_t> scattered;
  for (int i = 0; i < 48; ++i) scattered.push_back((i % 2 == 0 ? 1 : -1) * static_cast<std::int64_t>(period_ns / 8));
  EXPECT_TRUE(slips_of(noisy, scattered).empty());
  EXPECT_FALSE(noisy.learned());

  // A spread of exactly a sixteenth of a period is still quiet enough: four
  // samples each side of eight at the latency, 1,686,227 ns off, give a
  // median absolute deviation that scales to 2,500,000 ns.
  PairingSlipCheck edge(period_ns);
  std::vector<std::int64_t> at_limit(8, latency_ns);
  for (int i = 0; i < 4; ++i) {
    at_limit.push_back(latency_ns - 1'686'227);
    at_limit.push_back(latency_ns + 1'686'227);
  }
  EXPECT_TRUE(slips_of(edge, at_limit).empty());
  ASSERT_TRUE(edge.learned());
  EXPECT_EQ(edge.learned_spread_ns(), period_ns / 16);

  // While learning, samples are judged against no offset: an edge lost or added
  // in the learning window is a slip, and its samples are never learned.
  for (const std::int64_t shift : {static_cast<std::int64_t>(period_ns), -static_cast<std::int64_t>(period_ns / 2)}) {
    PairingSlipCheck check(period_ns);
    std::vector<std::int64_t> offsets(4, latency_ns);
    for (int i = 0; i < 3; ++i) offsets.push_back(latency_ns + shift);
    EXPECT_EQ(slips_of(check, offsets), (std::vector<std::size_t>{6}));
    check.rearmed(true);
    EXPECT_TRUE(slips_of(check, learned_run()).empty());
    ASSERT_TRUE(check.learned());
    EXPECT_EQ(check.learned_offset_ns(), latency_ns) << "learned from the four before and the run after";
  }

  // A latency that is not small against the period departs from zero for good:
  // once the resync it asked for changes nothing, every sample is learned from.
  PairingSlipCheck check(period_ns);
  const auto slow = static_cast<std::int64_t>(period_ns / 2);
  EXPECT_EQ(slips_of(check, std::vector<std::int64_t>(3, slow)), (std::vector<std::size_t>{2}));
  check.rearmed(true);
  EXPECT_TRUE(slips_of(check, std::vector<std::int64_t>(18, slow)).empty());
  ASSERT_TRUE(check.learned());
  EXPECT_EQ(check.learned_offset_ns(), slow);

  // A board whose latency grows after learning: one resync, then the check
  // learns anew from every sample, also across an unrelated re-arm.
  PairingSlipCheck grown(period_ns);
  EXPECT_TRUE(slips_of(grown, learned_run()).empty());
  EXPECT_EQ(slips_of(grown, std::vector<std::int64_t>(3, slow)), (std::vector<std::size_t>{2}));
  grown.rearmed(true);
  EXPECT_TRUE(slips_of(grown, std::vector<std::int64_t>(5, slow)).empty());
  grown.rearmed(false);
  EXPECT_TRUE(slips_of(grown, std::vector<std::int64_t>(13, slow)).empty());
  ASSERT_TRUE(grown.learned());
  EXPECT_EQ(grown.learned_offset_ns(), slow);

  // After any other arm, departures from the start are a slip as usual.
  check.rearmed(false);
  EXPECT_EQ(slips_of(check, std::vector<std::int64_t>(3, latency_ns + static_cast<std::int64_t>(period_ns))),
            (std::vector<std::size_t>{2}));
}

// Inside the core: a slip ends in a resync of its own reason, counted as a
// boundary resync, after at most two mispaired samples were emitted; without
// the check the same script goes on emitting mispaired samples.
TEST(PairingSlipInTheCore, ALostEdgeEndsInAPairingSlipResync) {
  for (const bool check : {true, false}) {
    PairingScript s(rate_profile_25hz, false, check);
    s.arm(1'000'000);
    s.stream(20);
    ASSERT_EQ(s.emitted.size(), 20U);
    const std::size_t before = s.emitted.size();
    for (int i = 0; i < 6 && s.resyncs.empty(); ++i) {
      s.sample_with_edge_off(static_cast<std::int64_t>(s.profile.nominal_step_ticks * 1000));
    }
    if (!check) {
      EXPECT_TRUE(s.resyncs.empty());
      EXPECT_EQ(s.emitted.size(), before + 6);
      continue;
    }
    ASSERT_EQ(s.resyncs.size(), 1U);
    EXPECT_EQ(s.emitted.size(), before + 2);
    const ResyncRequest& r = s.resyncs[0];
    EXPECT_EQ(r.reason, RecoveryReason::pairing_slip);
    EXPECT_STREQ(recovery_reason_name(r.reason), "pairing_slip");
    EXPECT_EQ(r.message.rfind("INT1 pairing slip: event_offset_ns=40000000, learned_offset_ns=0,", 0), 0U)
        << r.message;
    EXPECT_EQ(r.discarded_fifo_samples, 1U);
    EXPECT_EQ(s.core.counters().boundary_resyncs, 1U);
  }
}

}  // namespace
}  // namespace pelmor_lusk
