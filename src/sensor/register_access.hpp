// One-transfer register reads and writes over spidev, and the two verifying
// write variants. Every failure throws; nothing here retries or switches banks.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "common/unique_fd.hpp"
#include "sensor/registers.hpp"

namespace pelmor_lusk {

// Consecutive registers (or bytes of a data port) starting at reg, into frames
// the caller owns (equal sizes, address byte included): the answer is rx[1..],
// cleared first. Allocates nothing.
void read_registers_into(int fd, std::uint8_t reg, std::span<std::uint8_t> tx, std::span<std::uint8_t> rx);

// One register.
std::uint8_t read_register(const UniqueFd& spi, std::uint8_t reg);

// reg must be below 0x80; no read-back.
void write_register(int fd, std::uint8_t reg, std::uint8_t value);

// Write, then read back the whole byte; a mismatch throws
// "failed to verify <name>: expected 0x.., got 0x..".
void write_register_verified(const UniqueFd& spi, std::uint8_t reg, std::uint8_t value, std::string_view name);
void write_register_verified(const UniqueFd& spi, const icm42688::VerifiedWrite& write);

// Read-modify-write of the bits in mask, checked under the mask only.
void write_register_masked(const UniqueFd& spi, std::uint8_t reg, std::uint8_t value, std::uint8_t mask,
                           std::string_view name);
void write_register_masked(const UniqueFd& spi, const icm42688::MaskedWrite& write);

// The byte a masked write puts on the wire.
constexpr std::uint8_t merge_masked(std::uint8_t old_value, std::uint8_t value, std::uint8_t mask) {
  return static_cast<std::uint8_t>((old_value & ~mask) | (value & mask));
}

}  // namespace pelmor_lusk
