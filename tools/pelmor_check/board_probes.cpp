#include "board_probes.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/gpio.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>

#include "common/clock.hpp"
#include "common/unique_fd.hpp"
#include "sensor/register_access.hpp"
#include "sensor/registers.hpp"
#include "sensor/sensor_device.hpp"
#include "sensor/spi_device.hpp"
#include "timing/gpio_interrupt_line.hpp"

namespace pelmor_lusk::check {

namespace {

struct DirCloser {
  void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};

std::string user_name(uid_t uid) {
  passwd entry{};
  passwd* found = nullptr;
  char buffer[1024];
  if (::getpwuid_r(uid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) return found->pw_name;
  return std::to_string(uid);
}

std::string group_name(gid_t gid) {
  group entry{};
  group* found = nullptr;
  char buffer[1024];
  if (::getgrgid_r(gid, &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr) return found->gr_name;
  return std::to_string(gid);
}

// errno of the stat, 0 when access was filled in.
int stat_node(const std::string& path, NodeAccess& access) {
  struct stat st{};
  if (::stat(path.c_str(), &st) != 0) return errno;
  access.mode = st.st_mode;
  access.owner = user_name(st.st_uid);
  access.group = group_name(st.st_gid);
  return 0;
}

// Snapshots are spaced like the driver's anchors at start, not one per edge.
constexpr std::uint64_t snapshot_spacing_ns = 30'000'000;
constexpr int edge_wait_ms = 5;

}  // namespace

std::vector<ChipFacts> probe_chips() {
  std::vector<ChipFacts> chips;
  std::unique_ptr<DIR, DirCloser> dir(::opendir("/dev"));
  if (!dir) return chips;
  while (const dirent* entry = ::readdir(dir.get())) {
    if (std::strncmp(entry->d_name, "gpiochip", 8) != 0) continue;
    ChipFacts chip;
    chip.name = entry->d_name;
    const std::string path = "/dev/" + chip.name;
    stat_node(path, chip.access);  // unreadable: the access stays unknown
    const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    gpiochip_info info{};
    if (!fd) {
      chip.open_errno = errno;
    } else if (::ioctl(fd.get(), GPIO_GET_CHIPINFO_IOCTL, &info) != 0) {
      chip.open_errno = errno;
    } else {
      chip.label.assign(info.label, strnlen(info.label, sizeof info.label));
      chip.lines = info.lines;
    }
    chips.push_back(std::move(chip));
  }
  return chips;
}

LineFacts probe_line(const ChipFacts& chip, std::uint32_t offset) {
  LineFacts line;
  line.chip = chip.name;
  line.offset = offset;
  line.chip_lines = chip.lines;
  if (offset >= chip.lines) return line;
  const UniqueFd fd(::open(("/dev/" + chip.name).c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    line.error = errno;
    return line;
  }
  gpio_v2_line_info info{};
  info.offset = offset;
  if (::ioctl(fd.get(), GPIO_V2_GET_LINEINFO_IOCTL, &info) != 0) {
    line.error = errno;
    return line;
  }
  line.used = (info.flags & GPIO_V2_LINE_FLAG_USED) != 0;
  line.consumer.assign(info.consumer, strnlen(info.consumer, sizeof info.consumer));
  return line;
}

SpidevFacts probe_spidev(const std::string& path) {
  SpidevFacts facts;
  facts.path = path;
  facts.stat_errno = stat_node(path, facts.access);
  if (facts.stat_errno != 0) return facts;
  const UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (!fd) facts.open_errno = errno;
  return facts;
}

std::uint8_t read_who_am_i() {
  const UniqueFd spi = open_spi_device();
  return read_register(spi, icm42688::WHO_AM_I);
}

StreamFacts stream_edges(const RateProfile& profile, std::uint64_t duration_ns) {
  StreamFacts facts;
  facts.odr_hz = profile.odr_hz;
  SensorDevice sensor(profile, 1);
  GpioInterruptLine line;
  bool streaming = false;
  std::uint64_t start = 0;
  std::uint64_t now = 0;
  try {
    sensor.open_and_configure();
    line.open_interrupt_line();
    sensor.sample_off();
    sensor.flush_fifo();
    line.drain();
    line.forget_last_sequence();
    sensor.low_noise();
    // The first message of a kind can be slow for reasons of its own (cold caches,
    // an emulator translating); the driver's anchors never see it alone either.
    sensor.snapshot();

    sensor.data_ready(true);
    streaming = true;
    start = read_raw_ns();
    now = start;
    std::uint64_t last_snapshot = 0;
    // Edges count by their own stamp, so a reader held up near the end still
    // counts what arrived in the window; snapshots keep their pace without INT1.
    auto take = [&](const BridgedEvent& event) {
      if (event.raw_ns < start || event.raw_ns - start >= duration_ns) return;
      ++facts.edges;
      facts.missed_edges += event.missed_line_events;
      facts.bridge_half_windows_ns.push_back(event.half_window_ns);
    };
    BridgedEvent event;
    while (now - start < duration_ns) {
      if (line.read_line_event(event, edge_wait_ms)) take(event);
      now = read_raw_ns();
      if (now - last_snapshot >= snapshot_spacing_ns && now - start < duration_ns) {
        const TmstSnapshot snapshot = sensor.snapshot();
        facts.snapshot_half_windows_ns.push_back((snapshot.raw_after_ns - snapshot.raw_before_ns) / 2);
        last_snapshot = now;
      }
    }
    while (line.read_line_event(event, 0)) take(event);
  } catch (const std::exception& error) {
    facts.error = error.what();
  }
  if (streaming) {
    facts.elapsed_ns = std::min(now - start, duration_ns);
    // Leave the sensor quiet, as the driver's own quiet-down does.
    try {
      sensor.data_ready(false);
      sensor.fifo_bypass();
      sensor.flush_fifo();
    } catch (...) {
    }
  }
  return facts;
}

}  // namespace pelmor_lusk::check
