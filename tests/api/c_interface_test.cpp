// The exported functions as a client sees them, without any device present.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "pelmor.h"

namespace {

pelmor_config valid_config(uint32_t rate = 30) {
  pelmor_config config{};
  config.struct_size = sizeof config;
  config.sample_rate_hz = rate;
  config.mode = 1;
  return config;
}

int32_t create_with(const pelmor_config& config, pelmor_handle* handle) { return pelmor_create(&config, handle); }

TEST(CreateValidation, OutputHandleIsCheckedFirstAndNulledBeforeOtherChecks) {
  pelmor_config config = valid_config();
  EXPECT_EQ(pelmor_create(&config, nullptr), PELMOR_ERR_INVALID_ARGUMENT);

  auto poison = reinterpret_cast<pelmor_handle>(static_cast<uintptr_t>(0x1234));
  pelmor_handle handle = poison;
  EXPECT_EQ(pelmor_create(nullptr, &handle), PELMOR_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(handle, nullptr);

  handle = poison;
  config.struct_size = 40;
  EXPECT_EQ(create_with(config, &handle), PELMOR_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(handle, nullptr);
}

TEST(CreateValidation, EveryFieldIsChecked) {
  struct Case {
    const char* what;
    void (*mutate)(pelmor_config&);
  };
  const Case cases[] = {
      {"struct_size 49", [](pelmor_config& c) { c.struct_size = 49; }},
      {"rate 26", [](pelmor_config& c) { c.sample_rate_hz = 26; }},
      {"rate 0", [](pelmor_config& c) { c.sample_rate_hz = 0; }},
      {"rate 200", [](pelmor_config& c) { c.sample_rate_hz = 200; }},
      {"mode 0", [](pelmor_config& c) { c.mode = 0; }},
      {"mode 2", [](pelmor_config& c) { c.mode = 2; }},
      {"flags bit 2", [](pelmor_config& c) { c.flags = 4; }},
      {"flags top bit with known ones", [](pelmor_config& c) { c.flags = 0x80000003U; }},
      {"strict 2", [](pelmor_config& c) { c.strict_timing = 2; }},
      {"strict 0xffffffff", [](pelmor_config& c) { c.strict_timing = 0xFFFFFFFFU; }},
      {"first reserved", [](pelmor_config& c) { c.reserved[0] = 1; }},
      {"last reserved (bytes 44..47)", [](pelmor_config& c) { c.reserved[6] = 0x80000000U; }},
  };
  for (const Case& c : cases) {
    pelmor_config config = valid_config();
    c.mutate(config);
    pelmor_handle handle = reinterpret_cast<pelmor_handle>(static_cast<uintptr_t>(8));
    EXPECT_EQ(create_with(config, &handle), PELMOR_ERR_INVALID_ARGUMENT) << c.what;
    EXPECT_EQ(handle, nullptr) << c.what;
  }

  for (uint32_t rate : {25U, 30U}) {
    for (uint32_t strict : {0U, 1U}) {
      pelmor_config config = valid_config(rate);
      config.strict_timing = strict;
      config.flags = strict == 0 ? PELMOR_FLAG_PAIRING_CHECK | PELMOR_FLAG_BRACKET_FIT : PELMOR_FLAG_BRACKET_FIT;
      pelmor_handle handle = nullptr;
      ASSERT_EQ(create_with(config, &handle), PELMOR_OK);
      ASSERT_NE(handle, nullptr);
      EXPECT_EQ(pelmor_is_running(handle), 0);
      pelmor_destroy(handle);
    }
  }
}

TEST(StatusAndVersion, TextsFollowTheTable) {
  EXPECT_STREQ(pelmor_status_message(0), "ok");
  EXPECT_STREQ(pelmor_status_message(-1), "invalid argument");
  EXPECT_STREQ(pelmor_status_message(-2), "invalid state");
  EXPECT_STREQ(pelmor_status_message(-3), "I/O error");
  EXPECT_STREQ(pelmor_status_message(-4), "internal error");
  EXPECT_STREQ(pelmor_status_message(-99), "internal error");
  EXPECT_STREQ(pelmor_status_message(5), "internal error");
  EXPECT_STREQ(pelmor_status_message(INT32_MIN), "internal error");
  EXPECT_STREQ(pelmor_status_message(INT32_MAX), "internal error");
  EXPECT_STREQ(pelmor_get_version(), "1.1.0");
}

TEST(NullHandles, AreRefusedOrIgnored) {
  pelmor_runtime_health health{};
  health.struct_size = sizeof health;
  EXPECT_EQ(pelmor_start(nullptr), PELMOR_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(pelmor_stop(nullptr), PELMOR_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(pelmor_set_callback(nullptr, nullptr, nullptr), PELMOR_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(pelmor_is_running(nullptr), 0);
  EXPECT_EQ(pelmor_get_runtime_health(nullptr, &health), PELMOR_ERR_INVALID_ARGUMENT);
  pelmor_destroy(nullptr);
}

TEST(RuntimeHealth, ArgumentChecksComeBeforeStateAndNothingIsWritten) {
  pelmor_config config = valid_config();
  pelmor_handle handle = nullptr;
  ASSERT_EQ(create_with(config, &handle), PELMOR_OK);

  EXPECT_EQ(pelmor_get_runtime_health(handle, nullptr), PELMOR_ERR_INVALID_ARGUMENT);

  pelmor_runtime_health health;
  std::memset(&health, 0xAB, sizeof health);
  health.struct_size = 40;
  EXPECT_EQ(pelmor_get_runtime_health(handle, &health), PELMOR_ERR_INVALID_ARGUMENT);
  EXPECT_EQ(health.struct_size, 40U);
  EXPECT_EQ(health.epoch, 0xABABABABU);

  health.struct_size = sizeof health;
  EXPECT_EQ(pelmor_get_runtime_health(handle, &health), PELMOR_ERR_INVALID_STATE);
  EXPECT_EQ(health.epoch, 0xABABABABU);

  // A stop with no run behind it takes no snapshot.
  EXPECT_EQ(pelmor_stop(handle), PELMOR_OK);
  EXPECT_EQ(pelmor_get_runtime_health(handle, &health), PELMOR_ERR_INVALID_STATE);
  pelmor_destroy(handle);
}

TEST(Lifecycle, StopIsIdempotentAndDestroyIsLegalInEveryState) {
  pelmor_config config = valid_config(25);
  pelmor_handle handle = nullptr;
  ASSERT_EQ(create_with(config, &handle), PELMOR_OK);
  EXPECT_EQ(pelmor_stop(handle), PELMOR_OK);
  EXPECT_EQ(pelmor_stop(handle), PELMOR_OK);
  pelmor_destroy(handle);

  ASSERT_EQ(create_with(config, &handle), PELMOR_OK);
  pelmor_destroy(handle);  // never started
}

TEST(Lifecycle, StartWithoutDeviceFailsCleanlyAndLeavesTheHandleReusable) {
  pelmor_config config = valid_config();
  pelmor_handle handle = nullptr;
  ASSERT_EQ(create_with(config, &handle), PELMOR_OK);
  for (int attempt = 0; attempt < 2; ++attempt) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(pelmor_start(handle), PELMOR_ERR_IO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ICM-42688 start failed: failed to open SPI device /dev/spidev2.0, errno=2 (No such file or "
              "directory)\n");
    EXPECT_EQ(pelmor_is_running(handle), 0);
    pelmor_runtime_health health{};
    health.struct_size = sizeof health;
    EXPECT_EQ(pelmor_get_runtime_health(handle, &health), PELMOR_ERR_INVALID_STATE);
  }
  EXPECT_EQ(pelmor_set_callback(handle, nullptr, nullptr), PELMOR_OK);
  EXPECT_EQ(pelmor_stop(handle), PELMOR_OK);
  pelmor_destroy(handle);
}

}  // namespace
