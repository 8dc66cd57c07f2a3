// Text to values, for the PELMOR_VBOARD_* variables and the fault descriptions.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace pelmor_vboard::detail {

// Decimal, 0x hex or 0 octal; a sign or trailing text makes it invalid.
inline bool parse_u64(const char* text, std::uint64_t& out) {
  if (text == nullptr || *text == '\0') return false;
  errno = 0;
  char* end = nullptr;
  const unsigned long long v = std::strtoull(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || text[0] == '-') return false;
  out = v;
  return true;
}

// Empty fields are kept: "a,,b" is three.
inline std::vector<std::string> split(const std::string& text, const char* separators) {
  std::vector<std::string> out;
  std::string current;
  for (char c : text) {
    if (std::strchr(separators, c) != nullptr) {
      out.push_back(current);
      current.clear();
    } else {
      current += c;
    }
  }
  out.push_back(current);
  return out;
}

}  // namespace pelmor_vboard::detail
