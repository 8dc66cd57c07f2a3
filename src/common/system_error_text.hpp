// The library's form for a failed system call: "<context>, errno=<n> (<text>)".
#pragma once

#include <string>

namespace pelmor_lusk {

std::string errno_text(const std::string& context, int error_number);

// Throws std::runtime_error with errno_text(context, errno).
[[noreturn]] void throw_errno_error(const std::string& context);

}  // namespace pelmor_lusk
