// The probe's figures carry the benchmark's allocation and bracket claims, so
// check them against calls whose effect is known, on the virtual board.
#include "worker_probe.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "pelmor_vboard.hpp"
#include "sensor/registers.hpp"
#include "sensor/spi_transfer.hpp"
#include "sensor/tmst_snapshot_message.hpp"

namespace pelmor_lusk::bench {
namespace {

namespace vb = pelmor_vboard;

void* volatile g_sink = nullptr;  // keeps allocations from being elided

class ProbeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!probe_available()) GTEST_SKIP() << "no probe in a sanitizer build";
    vb::reset(vb::Config{});
    fd_ = ::open("/dev/spidev2.0", O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd_, 0);
    take_snapshot_spans();
  }
  void TearDown() override {
    if (fd_ >= 0) ::close(fd_);
  }

  // WHO_AM_I, one transfer.
  int register_read(std::uint8_t& value) {
    const std::uint8_t tx[2] = {icm42688::WHO_AM_I | icm42688::SPI_READ_FLAG, 0};
    std::uint8_t rx[2] = {};
    spi_ioc_transfer x[1] = {make_spi_transfer(tx, rx, sizeof tx, spi_register_speed_hz)};
    const int r = submit_spi_message(fd_, x);
    value = rx[1];
    return r;
  }

  // The library's snapshot message (no bank-0 restore after it).
  int snapshot() {
    TmstSnapshotMessage message;
    return submit_spi_message(fd_, message.transfers());
  }

  int fd_ = -1;
};

TEST_F(ProbeTest, CountsEveryAllocationOnceOnTheThreadThatMadeIt) {
  const ThreadAllocations main_before = thread_allocations();
  std::uint64_t counted = 0;
  std::thread worker([&] {
    const ThreadAllocations before = thread_allocations();
    auto vec = std::make_unique<std::vector<int>>(100);  // two: the vector object and its storage
    g_sink = vec->data();
    void* m = std::malloc(10);
    void* c = std::calloc(3, 8);
    void* r = std::realloc(m, 4000);
    void* a = nullptr;
    ASSERT_EQ(::posix_memalign(&a, 64, 128), 0);
    g_sink = c;
    g_sink = r;
    g_sink = a;
    std::free(r);
    std::free(c);
    std::free(a);
    counted = thread_allocations().outside_device - before.outside_device;
  });
  worker.join();
  EXPECT_EQ(counted, 6u);
  // The worker's allocations stay its own (thread creation itself may allocate here).
  EXPECT_LT(thread_allocations().outside_device - main_before.outside_device, 6u);
}

TEST_F(ProbeTest, TheBoardsBookkeepingInsideADeviceCallIsCountedApart) {
  const ThreadAllocations before = thread_allocations();
  std::uint8_t who = 0;
  for (int i = 0; i < 4; ++i) ASSERT_EQ(register_read(who), 2);
  const ThreadAllocations after = thread_allocations();
  EXPECT_EQ(who, 0x47);  // the call reached the board
  EXPECT_EQ(after.outside_device, before.outside_device);
  EXPECT_GT(after.inside_device, before.inside_device);  // the board logs every message
}

TEST_F(ProbeTest, SnapshotMessagesAreTimedAroundTheBoardsOwnBounds) {
  std::uint8_t who = 0;
  const std::uint64_t mark = vb::spi_log_mark();
  ASSERT_EQ(snapshot(), 8);
  ASSERT_EQ(register_read(who), 2);
  ASSERT_EQ(snapshot(), 8);
  const std::vector<CallSpan> spans = take_snapshot_spans();
  const std::vector<vb::SpiMessageRecord> log = vb::spi_log(mark);
  ASSERT_EQ(spans.size(), 2u);  // the one-transfer read is not a snapshot
  ASSERT_EQ(log.size(), 3u);
  for (const auto& [span, message] : {std::pair{spans[0], log[0]}, std::pair{spans[1], log[2]}}) {
    EXPECT_EQ(message.kind, vb::SpiMessageKind::tmst_snapshot);
    EXPECT_LE(span.raw_before_ns, message.raw_start_ns);
    EXPECT_GE(span.raw_after_ns, message.raw_end_ns);
  }
  EXPECT_TRUE(take_snapshot_spans().empty());  // taken means forgotten
}

}  // namespace
}  // namespace pelmor_lusk::bench
