// The ICM-42688 as this library uses it: register addresses, the field values and
// masks written to them, the labels that name each write in its error text, and
// the FIFO packet header bits. Every sequence refers to these names; no register
// number appears anywhere else.
#pragma once

#include <cstddef>
#include <cstdint>

namespace pelmor_lusk::icm42688 {

// SPI frame: first byte is the address, bit 7 set for a read.
inline constexpr std::uint8_t SPI_READ_FLAG = 0x80;

// ---- Register addresses, bank 0 (REG_BANK_SEL is mapped in every bank) ----
inline constexpr std::uint8_t DEVICE_CONFIG = 0x11;
inline constexpr std::uint8_t INT_CONFIG = 0x14;
inline constexpr std::uint8_t FIFO_CONFIG = 0x16;
inline constexpr std::uint8_t FIFO_COUNTH = 0x2E;  // FIFO_COUNTL follows
inline constexpr std::uint8_t FIFO_DATA = 0x30;
inline constexpr std::uint8_t SIGNAL_PATH_RESET = 0x4B;
inline constexpr std::uint8_t INTF_CONFIG0 = 0x4C;
inline constexpr std::uint8_t PWR_MGMT0 = 0x4E;
inline constexpr std::uint8_t GYRO_CONFIG0 = 0x4F;
inline constexpr std::uint8_t ACCEL_CONFIG0 = 0x50;
inline constexpr std::uint8_t TMST_CONFIG = 0x54;
inline constexpr std::uint8_t FIFO_CONFIG1 = 0x5F;
inline constexpr std::uint8_t FIFO_CONFIG2 = 0x60;
inline constexpr std::uint8_t FIFO_CONFIG3 = 0x61;
inline constexpr std::uint8_t INT_CONFIG0 = 0x63;
inline constexpr std::uint8_t INT_CONFIG1 = 0x64;
inline constexpr std::uint8_t INT_SOURCE0 = 0x65;
inline constexpr std::uint8_t WHO_AM_I = 0x75;
inline constexpr std::uint8_t REG_BANK_SEL = 0x76;

// ---- Register addresses, bank 1 ----
inline constexpr std::uint8_t TMSTVAL0 = 0x62;  // TMSTVAL1, TMSTVAL2 follow

// ---- Field values ----
inline constexpr std::uint8_t REG_BANK_SEL_BANK0 = 0x00;
inline constexpr std::uint8_t REG_BANK_SEL_BANK1 = 0x01;

inline constexpr std::uint8_t DEVICE_CONFIG_SOFT_RESET = 0x01;

inline constexpr std::uint8_t WHO_AM_I_ICM42688 = 0x47;

// GYRO_CONFIG0 / ACCEL_CONFIG0: ODR code in bits 3:0, full scale in bits 7:5
// left at 0; the ODR code itself comes from the rate profile.

inline constexpr std::uint8_t PWR_MGMT0_SENSORS_OFF = 0x00;
inline constexpr std::uint8_t PWR_MGMT0_GYRO_ACCEL_LOW_NOISE = 0x0F;

// INT_CONFIG bits 2:0 = 011: INT1 pulsed, push-pull, active high.
inline constexpr std::uint8_t INT_CONFIG_INT1_MASK = 0x07;
inline constexpr std::uint8_t INT_CONFIG_INT1_PULSED_PUSH_PULL_HIGH = 0x03;

// INT_CONFIG0 bits 5:0: interrupt clear behaviour, 0 = default.
inline constexpr std::uint8_t INT_CONFIG0_CLEAR_MASK = 0x3F;
inline constexpr std::uint8_t INT_CONFIG0_CLEAR_DEFAULT = 0x00;

// INT_CONFIG1 bit 4: INT_ASYNC_RESET, must be 0.
inline constexpr std::uint8_t INT_CONFIG1_ASYNC_RESET = 0x10;

// INT_SOURCE0 bits 6:0 route interrupt sources to INT1; bit 3 is data ready.
inline constexpr std::uint8_t INT_SOURCE0_ALL_SOURCES = 0x7F;
inline constexpr std::uint8_t INT_SOURCE0_UI_DRDY_INT1_EN = 0x08;

// TMST_CONFIG bits 4:0: bit 4 timestamp readable through registers, bit 0
// counter on; bits 3:1 clear = 1 us resolution, no delta, no FSYNC.
inline constexpr std::uint8_t TMST_CONFIG_MASK = 0x1F;
inline constexpr std::uint8_t TMST_CONFIG_REGISTER_READ_COUNTER_ON = 0x11;

inline constexpr std::uint8_t FIFO_CONFIG_BYPASS = 0x00;
inline constexpr std::uint8_t FIFO_CONFIG_STREAM = 0x40;

// INTF_CONFIG0 bits 6:4 = 011: FIFO count in bytes, count big-endian, data big-endian.
inline constexpr std::uint8_t INTF_CONFIG0_FIFO_FORMAT_MASK = 0x70;
inline constexpr std::uint8_t INTF_CONFIG0_COUNT_BYTES_BIG_ENDIAN = 0x30;

// FIFO_CONFIG1 = 0x0F: accel, gyro, temperature and timestamp in every packet.
inline constexpr std::uint8_t FIFO_CONFIG1_ACCEL_GYRO_TEMP_TMST = 0x0F;

// FIFO_CONFIG2 holds watermark bits 7:0, FIFO_CONFIG3 bits 11:8.
inline constexpr std::uint32_t FIFO_WATERMARK_MAX = 4095;

inline constexpr std::uint8_t SIGNAL_PATH_RESET_FIFO_FLUSH = 0x02;
inline constexpr std::uint8_t SIGNAL_PATH_RESET_TMST_STROBE = 0x04;

// ---- FIFO packet header (first byte of every packet) ----
inline constexpr std::uint8_t FIFO_HEADER_MSG = 0x80;        // empty-FIFO message packet
inline constexpr std::uint8_t FIFO_HEADER_ACCEL = 0x40;
inline constexpr std::uint8_t FIFO_HEADER_GYRO = 0x20;
inline constexpr std::uint8_t FIFO_HEADER_20BIT = 0x10;      // extended packet
inline constexpr std::uint8_t FIFO_HEADER_TIMESTAMP = 0x0C;  // non-zero: timestamp present

// Packet lengths of the chip's packet shapes.
inline constexpr std::size_t FIFO_PACKET_ACCEL_GYRO_TMST = 16;  // the one accepted
inline constexpr std::size_t FIFO_PACKET_EXTENDED = 20;
inline constexpr std::size_t FIFO_PACKET_SINGLE_SENSOR = 8;
inline constexpr std::size_t FIFO_PACKET_NO_TIMESTAMP = 14;

// ---- Labelled register writes ----
struct VerifiedWrite {
  std::uint8_t reg;
  std::uint8_t value;
  const char* label;
};

struct MaskedWrite {
  std::uint8_t reg;
  std::uint8_t value;
  std::uint8_t mask;
  const char* label;
};

inline constexpr VerifiedWrite PWR_MGMT0_SAMPLE_OFF{PWR_MGMT0, PWR_MGMT0_SENSORS_OFF, "PWR_MGMT0 sample off"};
inline constexpr VerifiedWrite PWR_MGMT0_6AXIS_LOW_NOISE{PWR_MGMT0, PWR_MGMT0_GYRO_ACCEL_LOW_NOISE,
                                                          "PWR_MGMT0 6-axis low-noise"};

inline constexpr MaskedWrite INT_CONFIG_INT1_SETUP{INT_CONFIG, INT_CONFIG_INT1_PULSED_PUSH_PULL_HIGH,
                                                   INT_CONFIG_INT1_MASK, "INT_CONFIG"};
inline constexpr MaskedWrite INT_CONFIG0_SETUP{INT_CONFIG0, INT_CONFIG0_CLEAR_DEFAULT, INT_CONFIG0_CLEAR_MASK,
                                               "INT_CONFIG0"};
inline constexpr MaskedWrite INT_CONFIG1_SETUP{INT_CONFIG1, 0x00, INT_CONFIG1_ASYNC_RESET, "INT_CONFIG1"};
inline constexpr MaskedWrite INT_SOURCE0_DISABLED{INT_SOURCE0, 0x00, INT_SOURCE0_ALL_SOURCES,
                                                  "INT_SOURCE0 disabled"};
inline constexpr MaskedWrite INT_SOURCE0_DRDY_DISABLE{INT_SOURCE0, 0x00, INT_SOURCE0_UI_DRDY_INT1_EN,
                                                      "INT_SOURCE0 DRDY disable"};
inline constexpr MaskedWrite INT_SOURCE0_DRDY_ENABLE{INT_SOURCE0, INT_SOURCE0_UI_DRDY_INT1_EN,
                                                     INT_SOURCE0_UI_DRDY_INT1_EN, "INT_SOURCE0 DRDY enable"};
inline constexpr MaskedWrite TMST_CONFIG_SETUP{TMST_CONFIG, TMST_CONFIG_REGISTER_READ_COUNTER_ON, TMST_CONFIG_MASK,
                                               "TMST_CONFIG"};

inline constexpr VerifiedWrite FIFO_CONFIG_BYPASS_MODE{FIFO_CONFIG, FIFO_CONFIG_BYPASS, "FIFO_CONFIG bypass"};
inline constexpr VerifiedWrite FIFO_CONFIG_STREAM_MODE{FIFO_CONFIG, FIFO_CONFIG_STREAM, "FIFO_CONFIG stream"};
inline constexpr MaskedWrite INTF_CONFIG0_ENDIAN{INTF_CONFIG0, INTF_CONFIG0_COUNT_BYTES_BIG_ENDIAN,
                                                 INTF_CONFIG0_FIFO_FORMAT_MASK, "INTF_CONFIG0 endian"};
inline constexpr VerifiedWrite FIFO_CONFIG1_PACKET{FIFO_CONFIG1, FIFO_CONFIG1_ACCEL_GYRO_TEMP_TMST, "FIFO_CONFIG1"};

// Labels of writes whose value is only known at run time.
inline constexpr const char* GYRO_CONFIG0_LABEL = "GYRO_CONFIG0";
inline constexpr const char* ACCEL_CONFIG0_LABEL = "ACCEL_CONFIG0";
inline constexpr const char* FIFO_CONFIG2_LABEL = "FIFO_CONFIG2";
inline constexpr const char* FIFO_CONFIG3_LABEL = "FIFO_CONFIG3";

// ---- The rest of the register file, as the virtual board emulates it ----
// The library never touches these; the board needs them to answer as the chip.

inline constexpr std::uint8_t SPI_ADDRESS_MASK = 0x7F;
inline constexpr int REG_BANK_COUNT = 5;
inline constexpr std::uint8_t REG_BANK_SEL_MASK = 0x07;

// Bank 0 addresses.
inline constexpr std::uint8_t DRIVE_CONFIG = 0x13;
inline constexpr std::uint8_t TEMP_DATA1 = 0x1D;  // TEMP_DATA0 follows
inline constexpr std::uint8_t ACCEL_DATA_X1 = 0x1F;
inline constexpr std::uint8_t GYRO_DATA_X1 = 0x25;
inline constexpr std::uint8_t INT_STATUS = 0x2D;
inline constexpr std::uint8_t FIFO_COUNTL = 0x2F;
inline constexpr std::uint8_t INT_STATUS3 = 0x38;  // TEMP_DATA1..INT_STATUS3 are read-only
inline constexpr std::uint8_t INTF_CONFIG1 = 0x4D;
inline constexpr std::uint8_t GYRO_CONFIG1 = 0x51;
inline constexpr std::uint8_t GYRO_ACCEL_CONFIG0 = 0x52;
inline constexpr std::uint8_t ACCEL_CONFIG1 = 0x53;
inline constexpr std::uint8_t APEX_CONFIG0 = 0x56;
inline constexpr std::uint8_t FSYNC_CONFIG = 0x62;  // bank 0; TMSTVAL0 in bank 1
inline constexpr std::uint8_t FIFO_LOST_PKT0 = 0x6C;
inline constexpr std::uint8_t FIFO_LOST_PKT1 = 0x6D;

inline constexpr std::uint8_t INT_STATUS_FIFO_FULL = 0x02;
inline constexpr std::uint8_t INT_STATUS_DATA_RDY = 0x08;
inline constexpr std::uint8_t INT_STATUS_RESET_DONE = 0x10;

inline constexpr std::uint8_t INT_CONFIG_INT1_ACTIVE_HIGH = 0x01;
inline constexpr std::uint8_t INT_CONFIG_INT1_LATCHED = 0x04;
inline constexpr std::uint8_t INT_CONFIG1_TPULSE_8US = 0x40;  // clear: 100 us pulses

// INTF_CONFIG0: FIFO count in records instead of bytes; count and data byte order.
inline constexpr std::uint8_t INTF_CONFIG0_FIFO_COUNT_RECORDS = 0x40;
inline constexpr std::uint8_t INTF_CONFIG0_COUNT_BIG_ENDIAN = 0x20;
inline constexpr std::uint8_t INTF_CONFIG0_DATA_BIG_ENDIAN = 0x10;

// PWR_MGMT0: accel mode in bits 1:0 (2 low-power, 3 low-noise), gyro mode in bits 3:2.
inline constexpr std::uint8_t PWR_MGMT0_ACCEL_MODE_MASK = 0x03;
inline constexpr std::uint8_t PWR_MGMT0_ACCEL_LOW_POWER = 0x02;
inline constexpr std::uint8_t PWR_MGMT0_GYRO_MODE_MASK = 0x0C;
inline constexpr std::uint8_t PWR_MGMT0_GYRO_LOW_NOISE = 0x0C;

inline constexpr std::uint8_t CONFIG0_ODR_MASK = 0x0F;
inline constexpr int CONFIG0_FS_SEL_SHIFT = 5;
inline constexpr std::uint8_t GYRO_CONFIG0_FS_SEL_MASK = 0xE0;
inline constexpr std::uint8_t ACCEL_CONFIG0_FS_SEL_MASK = 0x60;  // 16, 8, 4 or 2 g

inline constexpr std::uint8_t TMST_CONFIG_EN = 0x01;
inline constexpr std::uint8_t TMST_CONFIG_DELTA_EN = 0x04;
inline constexpr std::uint8_t TMST_CONFIG_RES_16US = 0x08;
inline constexpr std::uint8_t TMST_CONFIG_TO_REGS_EN = 0x10;
inline constexpr std::uint32_t TMST_COUNTER_MASK = 0xFFFFF;  // 20 bits
inline constexpr std::uint8_t TMSTVAL2_MASK = 0x0F;

inline constexpr std::uint8_t FIFO_CONFIG_MODE_MASK = 0xC0;
inline constexpr std::uint8_t FIFO_CONFIG_STOP_ON_FULL = 0x80;  // and 0xC0

inline constexpr std::uint8_t FIFO_CONFIG1_ACCEL_EN = 0x01;
inline constexpr std::uint8_t FIFO_CONFIG1_GYRO_EN = 0x02;
inline constexpr std::uint8_t FIFO_CONFIG1_TMST_FSYNC_EN = 0x08;
inline constexpr std::uint8_t FIFO_CONFIG1_HIRES_EN = 0x10;

inline constexpr std::uint8_t SIGNAL_PATH_RESET_ABORT_AND_RESET = 0x08;

inline constexpr std::uint8_t FIFO_HEADER_TIMESTAMP_ODR = 0x08;

}  // namespace pelmor_lusk::icm42688
