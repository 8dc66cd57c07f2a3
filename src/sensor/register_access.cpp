#include "sensor/register_access.hpp"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

#include "common/system_error_text.hpp"
#include "common/text.hpp"
#include "sensor/spi_transfer.hpp"

namespace pelmor_lusk {

void read_registers_into(int fd, std::uint8_t reg, std::span<std::uint8_t> tx, std::span<std::uint8_t> rx) {
  // A transfer that reports success without filling rx must not hand back the
  // previous read's bytes: buffers are reused from read to read.
  std::fill(tx.begin(), tx.end(), std::uint8_t{0});
  std::fill(rx.begin(), rx.end(), std::uint8_t{0});
  tx[0] = static_cast<std::uint8_t>(reg | icm42688::SPI_READ_FLAG);
  spi_ioc_transfer transfer[1] = {
      make_spi_transfer(tx.data(), rx.data(), static_cast<std::uint32_t>(tx.size()), spi_register_speed_hz)};
  if (submit_spi_message(fd, transfer) < 0) throw_errno_error("failed to read SPI registers");
}

std::uint8_t read_register(const UniqueFd& spi, std::uint8_t reg) {
  std::array<std::uint8_t, 2> tx{};
  std::array<std::uint8_t, 2> rx{};
  read_registers_into(spi.get(), reg, tx, rx);
  return rx[1];
}

void write_register(int fd, std::uint8_t reg, std::uint8_t value) {
  const std::uint8_t tx[2] = {reg, value};
  spi_ioc_transfer transfer[1] = {make_spi_transfer(tx, nullptr, sizeof tx, spi_register_speed_hz)};
  if (submit_spi_message(fd, transfer) < 0) throw_errno_error("failed to write SPI register");
}

void write_register_verified(const UniqueFd& spi, std::uint8_t reg, std::uint8_t value, std::string_view name) {
  write_register(spi.get(), reg, value);
  const std::uint8_t back = read_register(spi, reg);
  if (back != value) {
    throw std::runtime_error("failed to verify " + std::string(name) + ": expected " + hex(value) + ", got " +
                             hex(back));
  }
}

void write_register_verified(const UniqueFd& spi, const icm42688::VerifiedWrite& write) {
  write_register_verified(spi, write.reg, write.value, write.label);
}

void write_register_masked(const UniqueFd& spi, std::uint8_t reg, std::uint8_t value, std::uint8_t mask,
                           std::string_view name) {
  const std::uint8_t old_value = read_register(spi, reg);
  const std::uint8_t new_value = merge_masked(old_value, value, mask);
  write_register(spi.get(), reg, new_value);
  const std::uint8_t back = read_register(spi, reg);
  if (((new_value ^ back) & mask) != 0) {
    throw std::runtime_error("failed to verify " + std::string(name) + ": expected masked " +
                             hex(new_value & mask) + ", got " + hex(back & mask));
  }
}

void write_register_masked(const UniqueFd& spi, const icm42688::MaskedWrite& write) {
  write_register_masked(spi, write.reg, write.value, write.mask, write.label);
}

}  // namespace pelmor_lusk
