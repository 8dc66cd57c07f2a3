// Which descriptors are the board's: a lock-free table the interposed entry
// points consult before anything else, so that foreign descriptors pay one load.
#pragma once

#include <atomic>
#include <cstdint>

namespace pelmor_vboard::detail {

inline constexpr std::uint8_t kind_none = 0;
inline constexpr std::uint8_t kind_spi = 1;
inline constexpr std::uint8_t kind_chip = 2;
inline constexpr std::uint8_t kind_line = 3;
inline constexpr int fd_table_size = 65536;
extern std::atomic<std::uint8_t> g_fd_kind[fd_table_size];
inline std::uint8_t fd_kind(int fd) {
  return (fd >= 0 && fd < fd_table_size) ? g_fd_kind[fd].load(std::memory_order_acquire) : kind_none;
}

}  // namespace pelmor_vboard::detail
