// A freshly reset virtual board with the SPI device opened as the driver opens it.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "common/unique_fd.hpp"
#include "pelmor_vboard.hpp"
#include "sensor/spi_device.hpp"

namespace pelmor_lusk::test {

namespace vb = pelmor_vboard;
using Bytes = std::vector<std::uint8_t>;

class SensorBoard : public ::testing::Test {
 protected:
  void SetUp() override {
    vb::reset(vb::Config::ideal());
    spi_ = open_spi_device();
    restart_log();
  }
  void restart_log() { mark_ = vb::spi_log_mark(); }
  std::vector<vb::SpiMessageRecord> log() const { return vb::spi_log(mark_); }

  UniqueFd spi_;
  std::uint64_t mark_ = 0;
};

inline std::string errno_suffix(int error_number) {
  return ", errno=" + std::to_string(error_number) + " (" + std::strerror(error_number) + ")";
}

template <typename F>
std::string thrown_text(F&& call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "<no exception>";
}

// One transfer with every field we do not set left at zero.
inline void expect_transfer(const vb::SpiTransferRecord& t, const Bytes& tx, bool rx, std::uint32_t speed_hz,
                            bool cs_change = false) {
  EXPECT_EQ(t.tx, tx);
  EXPECT_EQ(t.len, tx.size());
  EXPECT_EQ(t.speed_hz, speed_hz);
  EXPECT_EQ(t.bits_per_word, 8);
  EXPECT_EQ(t.cs_change, cs_change);
  EXPECT_TRUE(t.has_tx);
  EXPECT_EQ(t.has_rx, rx);
  EXPECT_EQ(t.delay_usecs + t.word_delay_usecs + t.tx_nbits + t.rx_nbits, 0);
}

// A single-transfer register message at 4 MHz.
inline void expect_register_message(const vb::SpiMessageRecord& m, const Bytes& tx, bool rx) {
  ASSERT_EQ(m.transfers.size(), 1U);
  expect_transfer(m.transfers[0], tx, rx, 4000000);
}

}  // namespace pelmor_lusk::test
