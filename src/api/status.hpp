// Translation of internal exceptions into the public status codes.
#pragma once

#include <cstdint>

namespace pelmor_lusk {

// Must be called from inside a catch block: rethrows the exception in flight and
// maps std::invalid_argument to -1, std::runtime_error (system_error included)
// to -3 and anything else to -4. Writes nothing.
std::int32_t translate_exception() noexcept;

const char* status_text(std::int32_t status) noexcept;

}  // namespace pelmor_lusk
