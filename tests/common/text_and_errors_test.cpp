// Shared message pieces: hex values, errno suffixes, whole-line diagnostics.
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "common/clock.hpp"
#include "common/system_error_text.hpp"
#include "common/text.hpp"

namespace {

TEST(Hex, LowerCaseWithoutLeadingZeros) {
  EXPECT_EQ(pelmor_lusk::hex(0), "0x0");
  EXPECT_EQ(pelmor_lusk::hex(15), "0xf");
  EXPECT_EQ(pelmor_lusk::hex(0x47), "0x47");
  EXPECT_EQ(pelmor_lusk::hex(0x0F), "0xf");
  EXPECT_EQ(pelmor_lusk::hex(UINT64_MAX), "0xffffffffffffffff");
}

TEST(ErrnoError, CarriesContextNumberAndSystemText) {
  errno = EIO;
  try {
    pelmor_lusk::throw_errno_error("failed to read SPI registers");
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "failed to read SPI registers, errno=5 (Input/output error)");
  }
  EXPECT_EQ(pelmor_lusk::errno_text("x", ENOENT), "x, errno=2 (No such file or directory)");
}

TEST(Clocks, FailingClockNamesItself) {
  try {
    pelmor_lusk::read_clock_ns(static_cast<clockid_t>(-1000), "CLOCK_MONOTONIC_RAW");
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "failed to read CLOCK_MONOTONIC_RAW, errno=22 (Invalid argument)");
  }
  const uint64_t a = pelmor_lusk::read_raw_ns();
  const uint64_t b = pelmor_lusk::read_raw_ns();
  EXPECT_LE(a, b);
}

TEST(Diagnostics, WholeLineWithNewline) {
  testing::internal::CaptureStderr();
  pelmor_lusk::write_diagnostic_line("key=1, other=0x2");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "key=1, other=0x2\n");
}

}  // namespace
