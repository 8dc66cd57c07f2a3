#include "faults.hpp"

#include <cerrno>
#include <utility>

#include "parse.hpp"
#include "sensor.hpp"

namespace pelmor_vboard::detail {

namespace {

bool parse_errno(const std::string& text, int& out) {
  static const std::pair<const char*, int> names[] = {
      {"EIO", EIO},         {"EINVAL", EINVAL},       {"EBUSY", EBUSY},   {"ENODEV", ENODEV},
      {"EAGAIN", EAGAIN},   {"EINTR", EINTR},         {"EFAULT", EFAULT}, {"ENOMEM", ENOMEM},
      {"EPERM", EPERM},     {"ENOTTY", ENOTTY},       {"ESHUTDOWN", ESHUTDOWN},
      {"EMSGSIZE", EMSGSIZE}, {"ETIMEDOUT", ETIMEDOUT}, {"ENOENT", ENOENT}, {"EACCES", EACCES},
  };
  for (const auto& [n, v] : names) {
    if (text == n) {
      out = v;
      return true;
    }
  }
  std::uint64_t x = 0;
  if (!parse_u64(text.c_str(), x) || x == 0 || x > 4095) return false;
  out = static_cast<int>(x);
  return true;
}

bool parse_kind(const std::string& text, SpiMessageKind& out) {
  static const std::pair<const char*, SpiMessageKind> names[] = {
      {"any", SpiMessageKind::any},
      {"tmst_snapshot", SpiMessageKind::tmst_snapshot},
      {"bank_select", SpiMessageKind::bank_select},
      {"fifo_count_read", SpiMessageKind::fifo_count_read},
      {"fifo_data_read", SpiMessageKind::fifo_data_read},
      {"register_read", SpiMessageKind::register_read},
      {"register_write", SpiMessageKind::register_write},
  };
  for (const auto& [n, v] : names) {
    if (text == n) {
      out = v;
      return true;
    }
  }
  return false;
}

bool parse_target(const std::string& text, IoctlTarget& out) {
  static const std::pair<const char*, IoctlTarget> names[] = {
      {"any", IoctlTarget::any},
      {"spi_message", IoctlTarget::spi_message},
      {"spi_setup", IoctlTarget::spi_setup},
      {"gpio_chipinfo", IoctlTarget::gpio_chipinfo},
      {"gpio_line_request", IoctlTarget::gpio_line_request},
      {"gpio_line", IoctlTarget::gpio_line},
  };
  for (const auto& [n, v] : names) {
    if (text == n) {
      out = v;
      return true;
    }
  }
  return false;
}

}  // namespace

bool parse_fault(const std::string& text, Fault& f) {
  const auto parts = split(text, ":");
  static const std::pair<const char*, FaultType> names[] = {
      {"ioctl-error", FaultType::fail_ioctl},     {"spi-error", FaultType::fail_spi},
      {"spi-short", FaultType::short_spi},        {"spi-stretch", FaultType::stretch_spi},
      {"register-read", FaultType::corrupt_read}, {"drop-edge", FaultType::drop_edge},
      {"suppress-edge", FaultType::suppress_edge}, {"spurious-edge", FaultType::spurious_edge},
      {"sentinel", FaultType::sentinel},          {"stall-fifo", FaultType::stall_fifo},
      {"line-read-error", FaultType::fail_line_read}, {"bridge-stretch", FaultType::stretch_bridge},
  };
  bool known = false;
  for (const auto& [n, t] : names) {
    if (parts[0] == n) {
      f.type = t;
      known = true;
    }
  }
  if (!known) return false;
  f.error_number = EIO;
  if (f.type == FaultType::corrupt_read) f.when = Trigger::from();
  if (f.type == FaultType::short_spi) f.amount = 2;
  if (f.type == FaultType::stretch_spi || f.type == FaultType::stretch_bridge) f.amount = 250000;
  for (std::size_t i = 1; i < parts.size(); ++i) {
    const auto eq = parts[i].find('=');
    if (eq == std::string::npos) return false;
    const std::string key = parts[i].substr(0, eq);
    const std::string value = parts[i].substr(eq + 1);
    std::uint64_t n = 0;
    const bool numeric = parse_u64(value.c_str(), n);
    if (key == "nth" && numeric) f.when.nth = n;
    else if (key == "count" && numeric) f.when.count = n;
    else if (key == "errno") { if (!parse_errno(value, f.error_number)) return false; }
    else if (key == "kind") { if (!parse_kind(value, f.kind)) return false; }
    else if (key == "target") { if (!parse_target(value, f.target)) return false; }
    else if ((key == "bytes" || key == "ns") && numeric) f.amount = n;
    else if (key == "bank" && numeric && n < bank_count) f.bank = static_cast<int>(n);
    else if (key == "reg" && numeric && n <= reg::SPI_ADDRESS_MASK) f.reg = static_cast<std::uint8_t>(n);
    else if (key == "mask" && numeric && n < 256) f.mask = static_cast<std::uint8_t>(n);
    else if (key == "value" && numeric && n < 256) f.value = static_cast<std::uint8_t>(n);
    else return false;
  }
  return true;
}

FaultId FaultBook::add(Fault fault) {
  fault.id = next_id_++;
  fault.seen = 0;
  fault.hits = 0;
  if (fault.when.nth == 0) fault.when.nth = 1;
  faults_.push_back(fault);
  return fault.id;
}

void FaultBook::remove(FaultId id) {
  std::erase_if(faults_, [id](const Fault& f) { return f.id == id; });
}

std::uint64_t FaultBook::hits(FaultId id) const {
  for (const auto& f : faults_) {
    if (f.id == id) return f.hits;
  }
  return 0;
}

// Every matching fault counts the call; the first one hit decides.
Fault* FaultBook::firing(FaultType type, SpiMessageKind kind, IoctlTarget target) {
  Fault* fired = nullptr;
  for (auto& f : faults_) {
    if (f.type != type) continue;
    if (type == FaultType::fail_ioctl) {
      if (f.target != IoctlTarget::any && f.target != target) continue;
    } else if (f.kind != SpiMessageKind::any && f.kind != kind) {
      continue;
    }
    if (f.fires() && fired == nullptr) fired = &f;
  }
  return fired;
}

Fault* FaultBook::edge_fault(FaultType type) {
  Fault* fired = nullptr;
  for (auto& f : faults_) {
    if (f.type == type && f.fires() && fired == nullptr) fired = &f;
  }
  return fired;
}

std::optional<int> FaultBook::ioctl_error(IoctlTarget target) {
  if (const Fault* f = firing(FaultType::fail_ioctl, SpiMessageKind::any, target)) return f->error_number;
  return std::nullopt;
}

// Asked as "any message": a line-read fault restricted to a message kind never fires.
std::optional<int> FaultBook::line_read_error() {
  if (const Fault* f = firing(FaultType::fail_line_read, SpiMessageKind::any, IoctlTarget::any)) {
    return f->error_number;
  }
  return std::nullopt;
}

std::optional<std::uint64_t> FaultBook::bridge_stretch_ns() {
  if (const Fault* f = firing(FaultType::stretch_bridge, SpiMessageKind::any, IoctlTarget::any)) return f->amount;
  return std::nullopt;
}

int FaultBook::spi_error(SpiMessageKind kind) {
  const Fault* f = firing(FaultType::fail_spi, kind, IoctlTarget::any);
  return f != nullptr ? f->error_number : 0;
}

std::optional<std::uint64_t> FaultBook::stretch_ns(SpiMessageKind kind) {
  if (const Fault* f = firing(FaultType::stretch_spi, kind, IoctlTarget::any)) return f->amount;
  return std::nullopt;
}

int FaultBook::spi_result(SpiMessageKind kind, std::uint64_t total) {
  const Fault* f = firing(FaultType::short_spi, kind, IoctlTarget::any);
  if (f == nullptr) return static_cast<int>(total);
  return f->amount >= total ? 0 : static_cast<int>(total - f->amount);
}

std::uint8_t FaultBook::read_back(std::uint8_t bank, std::uint8_t address, std::uint8_t value) {
  for (auto& f : faults_) {
    if (f.type == FaultType::corrupt_read && f.reg == address &&
        (address == reg::REG_BANK_SEL || f.bank == static_cast<int>(bank)) && f.fires()) {
      value = static_cast<std::uint8_t>((value & ~f.mask) | (f.value & f.mask));
    }
  }
  return value;
}

std::optional<std::uint64_t> FaultBook::spurious_edge() {
  if (const Fault* f = edge_fault(FaultType::spurious_edge)) return f->amount;
  return std::nullopt;
}

}  // namespace pelmor_vboard::detail
