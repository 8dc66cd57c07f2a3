#include "api/status.hpp"

#include <stdexcept>

#include "pelmor.h"

namespace pelmor_lusk {

std::int32_t translate_exception() noexcept {
  try {
    throw;
  } catch (const std::invalid_argument&) {  // a logic_error: must be tested before runtime_error
    return PELMOR_ERR_INVALID_ARGUMENT;
  } catch (const std::runtime_error&) {
    return PELMOR_ERR_IO;
  } catch (...) {
    return PELMOR_ERR_INTERNAL;
  }
}

const char* status_text(std::int32_t status) noexcept {
  if (status == PELMOR_ERR_INVALID_ARGUMENT) return "invalid argument";
  if (status == PELMOR_OK) return "ok";
  if (status > 0) return "internal error";
  if (status == PELMOR_ERR_IO) return "I/O error";
  if (status == PELMOR_ERR_INVALID_STATE) return "invalid state";
  return "internal error";
}

}  // namespace pelmor_lusk
