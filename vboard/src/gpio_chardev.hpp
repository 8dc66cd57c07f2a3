// The GPIO character devices: chip and line info, line requests as the uAPI v2
// validates them, and each requested line's events, pending until due, then
// queued in a buffer that keeps the newest. A line descriptor is the read end
// of a pipe holding one byte while events are queued, so that the real poll()
// sees it readable; orphaned lines get their write end closed (POLLHUP).
#pragma once

#include <linux/gpio.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "pelmor_vboard.hpp"
#include "records.hpp"
#include "timeline.hpp"

namespace pelmor_vboard::detail {

struct PendingEvent {
  std::uint64_t due_raw = 0;
  std::uint64_t stamp_raw = 0;
  std::uint32_t id = 0;
  std::uint32_t offset = 0;
  std::uint64_t edge_number = UINT64_MAX;  // rising INT1 edge it belongs to
  bool drop = false;
};

struct QueuedEvent {
  gpio_v2_line_event event;
  std::uint64_t edge_number;
};

struct LineRequest {
  int fd = -1;
  int write_fd = -1;
  bool orphaned = false;  // requested before the last board reset
  std::size_t chip = 0;
  std::vector<std::uint32_t> offsets;
  std::vector<std::uint32_t> line_seqno;
  std::uint64_t flags = 0;
  std::uint32_t capacity = 16;
  std::uint32_t seqno = 0;
  std::deque<QueuedEvent> queue;
  // Events of faulted edges: queued but not yet readable, as behind a reader
  // that fell behind; the next edge overflows the buffer past them.
  std::deque<QueuedEvent> overflowing;
  std::deque<PendingEvent> pending;
  bool byte_in_pipe = false;
  std::size_t record = 0;
  std::uint64_t last_due = 0;
};

// INT1 as the sensor's configuration shapes it.
struct Int1Drive {
  bool active_high = false;
  bool latched = false;
  std::uint64_t pulse_ns = 0;
};

class GpioChardev {
 public:
  // `wake` runs whenever an event is scheduled, so that the board thread
  // makes it readable on time.
  GpioChardev(const Config& config, Records& records, Timeline& timeline, std::function<void()> wake)
      : config_(config), records_(records), timeline_(timeline), wake_(std::move(wake)) {}

  void orphan_all();
  void release(int fd);

  int chip_ioctl(std::size_t chip, unsigned long request, void* arg);
  // The new line's descriptor, or -errno. `release_stale` forgets whatever the
  // board still kept under the number the kernel just handed out.
  int request_line(std::size_t chip, gpio_v2_line_request* user, const std::function<void(int)>& release_stale);
  // `int1_high`: the physical level of INT1 now.
  int line_ioctl(int fd, unsigned long request, void* arg, bool int1_high);
  // Bytes of whole events copied to `buf`; 0 when nothing is queued.
  ssize_t read_events(int fd, void* buf, std::size_t count);

  std::uint64_t next_due() const;
  std::uint64_t pending_due(int fd) const;
  LineRequest* earliest_pending(std::uint64_t& due);
  void make_visible(LineRequest& line, std::uint64_t now);

  // INT1 asserted at `raw`; true when some line listens to the edge.
  bool assert_int1(const Int1Drive& drive, std::uint64_t raw, std::uint64_t edge_number, bool drop,
                   SampleTruth* sample);
  void release_int1(const Int1Drive& drive, std::uint64_t raw);

 private:
  LineRequest* listener(std::size_t chip, std::uint32_t offset);
  // on_line(line, offset, assert_rising) for each line that listens to INT1.
  template <typename OnLine>
  void for_each_int1_listener(const Int1Drive& drive, OnLine&& on_line);
  void discard(const QueuedEvent& lost);
  void schedule_event(LineRequest& line, std::uint32_t offset, std::uint32_t id, std::uint64_t raw,
                      std::uint64_t edge_number, bool drop, SampleTruth* sample);

  const Config& config_;
  Records& records_;
  Timeline& timeline_;
  std::function<void()> wake_;
  std::map<int, std::unique_ptr<LineRequest>> lines_;  // by descriptor, as the board's node table
};

}  // namespace pelmor_vboard::detail
