// Injected faults: what is set, how the environment spells it, and whether a
// given call or sample is hit. Every query below counts as one of the calls the
// matching faults apply to, hit or not, so callers ask exactly once per call and
// only where the fault could act.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pelmor_vboard.hpp"

namespace pelmor_vboard::detail {

enum class FaultType : std::uint8_t {
  fail_ioctl, fail_spi, short_spi, stretch_spi, corrupt_read,
  drop_edge, suppress_edge, spurious_edge, sentinel, stall_fifo, fail_line_read, stretch_bridge,
};

struct Fault {
  FaultId id = 0;
  FaultType type = FaultType::fail_ioctl;
  IoctlTarget target = IoctlTarget::any;
  SpiMessageKind kind = SpiMessageKind::any;
  int error_number = 0;
  std::uint64_t amount = 0;  // bytes or ns
  int bank = 0;
  std::uint8_t reg = 0;
  std::uint8_t mask = 0;
  std::uint8_t value = 0;
  Trigger when{};
  std::uint64_t seen = 0;
  std::uint64_t hits = 0;

  bool fires() {
    ++seen;
    if (seen < when.nth) return false;
    if (when.count != 0 && seen >= when.nth + when.count) return false;
    ++hits;
    return true;
  }
};

// Parses one fault description ("drop-edge:nth=5:count=1"); false when invalid.
bool parse_fault(const std::string& text, Fault& fault);

class FaultBook {
 public:
  FaultId add(Fault fault);
  void remove(FaultId id);
  void clear() { faults_.clear(); }  // ids keep counting across resets
  std::uint64_t hits(FaultId id) const;

  // An errno to fail with; an error number of 0 still fails the call (returning 0).
  std::optional<int> ioctl_error(IoctlTarget target);
  std::optional<int> line_read_error();
  // Asked once per INT1 event a line read hands out: how long each of the next
  // two CLOCK_MONOTONIC reads on the reading thread is held.
  std::optional<std::uint64_t> bridge_stretch_ns();
  // 0 when the message goes through.
  int spi_error(SpiMessageKind kind);
  std::optional<std::uint64_t> stretch_ns(SpiMessageKind kind);
  // The ioctl result of a message of `total` bytes.
  int spi_result(SpiMessageKind kind, std::uint64_t total);
  // A register byte as the wire returns it; every matching fault applies.
  std::uint8_t read_back(std::uint8_t bank, std::uint8_t address, std::uint8_t value);

  // Per sample or edge.
  bool sentinel() { return edge_fault(FaultType::sentinel) != nullptr; }
  bool stall_fifo() { return edge_fault(FaultType::stall_fifo) != nullptr; }
  bool suppress_edge() { return edge_fault(FaultType::suppress_edge) != nullptr; }
  bool drop_edge() { return edge_fault(FaultType::drop_edge) != nullptr; }
  // The offset of the extra edge (0: the board picks it).
  std::optional<std::uint64_t> spurious_edge();

 private:
  Fault* firing(FaultType type, SpiMessageKind kind, IoctlTarget target);
  Fault* edge_fault(FaultType type);

  std::vector<Fault> faults_;
  FaultId next_id_ = 1;
};

}  // namespace pelmor_vboard::detail
