#include "common/text.hpp"

#include <iostream>
#include <string>

namespace pelmor_lusk {

std::string hex(std::uint64_t value) {
  static constexpr char digits[] = "0123456789abcdef";
  char buf[2 + 16];
  char* end = buf + sizeof buf;
  char* p = end;
  do {
    *--p = digits[value & 0xFU];
    value >>= 4U;
  } while (value != 0);
  *--p = 'x';
  *--p = '0';
  return std::string(p, end);
}

void write_diagnostic_line(std::string_view line) {
  std::string whole;
  whole.reserve(line.size() + 1);
  whole.append(line);
  whole.push_back('\n');
  std::cerr << whole << std::flush;
}

}  // namespace pelmor_lusk
