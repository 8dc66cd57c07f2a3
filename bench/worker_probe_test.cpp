// The probe's figures carry the benchmark's allocation and bracket claims, so
// check them against calls whose effect is known, on the virtual board.
#include "worker_probe.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include "pelmor_vboard.hpp"

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
    std::uint8_t tx[2] = {0xF5, 0}, rx[2] = {};
    spi_ioc_transfer x{};
    x.tx_buf = reinterpret_cast<std::uintptr_t>(tx);
    x.rx_buf = reinterpret_cast<std::uintptr_t>(rx);
    x.len = 2;
    x.speed_hz = 4000000;
    x.bits_per_word = 8;
    const int r = ::ioctl(fd_, SPI_IOC_MESSAGE(1), &x);
    value = rx[1];
    return r;
  }

  // The TMST strobe, bank 1, TMSTVAL0..2: three transfers in one message.
  int snapshot() {
    std::uint8_t t1[2] = {0x4B, 0x04}, t2[2] = {0x76, 0x01}, t3[4] = {0xE2, 0, 0, 0}, r3[4] = {};
    spi_ioc_transfer x[3]{};
    const std::uint8_t* tx[3] = {t1, t2, t3};
    const std::uint32_t len[3] = {2, 2, 4};
    for (int i = 0; i < 3; ++i) {
      x[i].tx_buf = reinterpret_cast<std::uintptr_t>(tx[i]);
      x[i].len = len[i];
      x[i].speed_hz = 10000000;
      x[i].bits_per_word = 8;
      x[i].cs_change = i < 2 ? 1 : 0;
    }
    x[2].rx_buf = reinterpret_cast<std::uintptr_t>(r3);
    return ::ioctl(fd_, SPI_IOC_MESSAGE(3), x);
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
