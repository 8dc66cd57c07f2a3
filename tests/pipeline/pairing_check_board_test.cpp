// The opt-in pairing check on the realistic board: after one INT1 edge lost or
// added without a sequence gap, the run resyncs for the slip and at most three
// delivered samples carry another sample's event stamp.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "pelmor.h"
#include "pelmor_vboard.hpp"
#include "support/board_client.hpp"
#include "support/board_truth.hpp"

namespace {

using namespace std::chrono_literals;
namespace vb = pelmor_vboard;

struct EdgeCase {
  std::uint32_t rate_hz;
  bool extra_edge;  // else a suppressed one
};

// Delivered samples whose event stamp is not their own edge's.
std::size_t mispaired(const std::vector<pelmor_test::DeliveredSample>& delivered, std::uint64_t period_ns) {
  const std::vector<vb::SampleTruth> truth = vb::samples();
  std::size_t count = 0;
  for (const pelmor_test::DeliveredSample& d : delivered) {
    const std::optional<vb::SampleTruth> t = pelmor_test::truth_for(truth, d.sample);
    if (!t) continue;
    const std::uint64_t own = t->raw_ns + t->irq_latency_ns;
    const std::uint64_t stamp = d.sample.event_timestamp_raw_ns;
    const std::uint64_t off = stamp > own ? stamp - own : own - stamp;
    if (t->edge != vb::EdgeOutcome::raised || off > period_ns / 2) ++count;
  }
  return count;
}

class PairingCheckOnTheBoard : public testing::TestWithParam<EdgeCase> {};

TEST_P(PairingCheckOnTheBoard, ResyncsForTheSlipWithAtMostThreeMispairedSamples) {
  const EdgeCase c = GetParam();
  vb::reset(vb::Config::realistic());
  pelmor_test::BoardClient client(c.rate_hz, 0, PELMOR_FLAG_PAIRING_CHECK);
  testing::internal::CaptureStderr();
  ASSERT_EQ(pelmor_test::start_on_board(client.handle), PELMOR_OK);
  ASSERT_TRUE(client.wait_for_samples(2 * c.rate_hz, 20000ms));
  const std::uint64_t edges_before = vb::edges_produced();
  if (c.extra_edge) {
    vb::spurious_edges(vb::Trigger::once(2));
  } else {
    vb::suppress_edges(vb::Trigger::once(2));
  }
  while (vb::edges_produced() < edges_before + 4) std::this_thread::sleep_for(5ms);
  const bool delivered = client.wait_for_samples(client.sample_count() + 3 * c.rate_hz, 20000ms);
  pelmor_stop(client.handle);
  const std::string log = testing::internal::GetCapturedStderr();
  ASSERT_TRUE(delivered) << log;

  const std::uint64_t period_ns = c.rate_hz == 25 ? 40'000'000 : 5'000'000;
  EXPECT_LE(mispaired(client.samples(), period_ns), 3U) << log;
  std::size_t slip_resyncs = 0;
  for (const std::string& line : pelmor_test::lines_starting_with(log, "TIMING_BOUNDARY_RESYNC INT1 pairing slip: ")) {
    if (line.find("recovery_reason=pairing_slip") != std::string::npos) ++slip_resyncs;
  }
  EXPECT_EQ(slip_resyncs, 1U) << log;
  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  ASSERT_EQ(pelmor_get_runtime_health(client.handle, &health), PELMOR_OK);
  EXPECT_GE(health.boundary_resyncs, 1U);
}

INSTANTIATE_TEST_SUITE_P(BothRates, PairingCheckOnTheBoard,
                         testing::Values(EdgeCase{25, false}, EdgeCase{25, true}, EdgeCase{30, false},
                                         EdgeCase{30, true}),
                         [](const testing::TestParamInfo<EdgeCase>& param_info) {
                           return std::to_string(param_info.param.rate_hz) + "Hz_" +
                                  (param_info.param.extra_edge ? "ExtraEdge" : "LostEdge");
                         });

}  // namespace
