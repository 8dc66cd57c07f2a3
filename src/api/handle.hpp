// What a pelmor_handle points to: the sole owner of the driver and one shared
// reference to the callback state.
#pragma once

#include <memory>

#include "api/callback_forwarding.hpp"
#include "driver/driver.hpp"
#include "pelmor.h"

struct pelmor_driver {
  std::unique_ptr<pelmor_lusk::Driver::Impl> impl;
  std::shared_ptr<pelmor_lusk::PelmorCallbackState> callback_state;
};
