#include "common/system_error_text.hpp"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace pelmor_lusk {

std::string errno_text(const std::string& context, int error_number) {
  const char* text = std::strerror(error_number);
  std::string out = context;
  out += ", errno=";
  out += std::to_string(error_number);
  out += " (";
  if (text != nullptr) out += text;
  out += ')';
  return out;
}

void throw_errno_error(const std::string& context) {
  const int error_number = errno;
  throw std::runtime_error(errno_text(context, error_number));
}

}  // namespace pelmor_lusk
