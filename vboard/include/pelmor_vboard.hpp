// In-process control of the virtual board: an emulated ICM-42688 behind
// /dev/spidev2.0 and a GPIO chip labelled "34120000.gpio" whose line 16 carries
// the sensor's INT1. The board sits under the unmodified library by interposing
// open/ioctl/poll/read/opendir/close; this header is how tests and tools steer
// it, read its register file and logs, switch faults and score timestamps
// against the ground truth.
//
// Every function is thread-safe and may be called at any time. The board
// initialises itself from the environment (PELMOR_VBOARD_*) on first use;
// reset() replaces that with an explicit configuration. Times are nanoseconds:
// "raw" on CLOCK_MONOTONIC_RAW, "monotonic" on CLOCK_MONOTONIC.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace pelmor_vboard {

// ---- Configuration -----------------------------------------------------------

enum class Profile : std::uint8_t {
  ideal = 0,      // no added latency: an SPI message takes the time of the call, the
                  // TMST strobe latches at the ioctl, edges are stamped at the sample
  realistic = 1,  // SPI messages timed as the kernel's spidev runs them (entry, each
                  // transfer on the wire, chip-select gaps, return) with jitter and a
                  // rare long tail; the strobe latches when its byte completes;
                  // interrupt stamp latency
};

// The kernel's pause with chip select released after a transfer with cs_change
// (drivers/spi/spi.c, _spi_transfer_cs_change_delay: spidev leaves the delay
// unset, so the core's default of 10 us applies).
inline constexpr std::uint64_t kernel_cs_change_delay_ns = 10000;

// Noise of the realistic profile (ignored by ideal). Durations in ns.
struct RealisticTiming {
  // One SPI message, in the order the kernel runs it:
  //   entry: system call, copying the transfers in, queueing to the controller
  //          and asserting chip select: spi_entry_ns + exponential(jitter mean);
  //   each transfer: controller setup, then its bytes on the wire (bytes * 8 /
  //          speed, with its word delays), then its delay_usecs; after a transfer
  //          with cs_change other than the last, chip select is released for
  //          kernel_cs_change_delay_ns;
  //   return: completion, copying out, back to user space:
  //          spi_return_ns + exponential(jitter mean);
  // and, with the given probability, a uniform tail inserted at a random point
  // of it (a preemption). The ioctl returns only at the end.
  std::uint64_t spi_entry_ns = 3000;
  std::uint64_t spi_entry_jitter_mean_ns = 3000;
  std::uint64_t spi_transfer_setup_ns = 500;
  std::uint64_t spi_return_ns = 4000;
  std::uint64_t spi_return_jitter_mean_ns = 3000;
  bool spi_wire_time = true;               // bytes * 8 / speed_hz on the wire
  double spi_tail_probability = 0.001;
  std::uint64_t spi_tail_min_ns = 150000;
  std::uint64_t spi_tail_max_ns = 400000;
  // Interrupt stamp latency: min + exponential(mean) [+ uniform tail]; the event
  // becomes readable irq_readable_delay_ns after its stamp.
  std::uint64_t irq_latency_min_ns = 3000;
  std::uint64_t irq_latency_mean_ns = 9000;
  double irq_tail_probability = 0.002;
  std::uint64_t irq_tail_min_ns = 100000;
  std::uint64_t irq_tail_max_ns = 400000;
  std::uint64_t irq_readable_delay_ns = 0;
  // Slow sinusoidal wander of the TMST oscillator around Config::tmst_drift_ppm.
  double drift_wander_ppm = 20.0;
  double drift_wander_period_s = 600.0;
};

// What the sensor measures. Converted with the full-scale selected in
// GYRO_CONFIG0 / ACCEL_CONFIG0 (2048 counts per g and 16.4 counts per deg/s at
// the power-on full scale) and 2.07 counts per degree C around 25 C.
struct MotionSignal {
  std::array<double, 3> accel_mps2{0.0, 0.0, 9.80665};
  std::array<double, 3> gyro_rad_s{0.0, 0.0, 0.0};
  double accel_amplitude_mps2 = 0.0;   // sinusoid added to every accel axis
  double gyro_amplitude_rad_s = 0.0;   // sinusoid added to every gyro axis
  double frequency_hz = 1.0;
  double temperature_c = 30.0;
  double temperature_amplitude_c = 0.0;
  double temperature_period_s = 60.0;
};

struct ChipConfig {
  std::string name = "gpiochip0";       // /dev entry and gpiochip_info.name
  std::string label = "34120000.gpio";  // gpiochip_info.label
  std::uint32_t lines = 32;
  std::int32_t int1_offset = 16;        // line wired to the sensor's INT1; -1: none
  int open_errno = 0;                   // non-zero: opening the entry fails with it
};

struct Config {
  Profile profile = Profile::ideal;
  RealisticTiming timing{};                  // noise of Profile::realistic
  // TMST oscillator: positive ppm means the counter (and the ODR derived from the
  // same oscillator) runs fast against CLOCK_MONOTONIC_RAW.
  double tmst_drift_ppm = 0.0;
  // Length of one TMST tick at zero drift: 1000 on a part clocked at 20.48 MHz,
  // 1066.67 on one whose counter runs from a 19.2 MHz PLL. The ODR derives from
  // the same clock, so FIFO timestamps still step by whole nominal periods.
  double tmst_tick_ns = 1000.0;
  std::uint32_t tmst_initial_ticks = 0;      // 20-bit counter value at power-on
  bool spidev_present = true;
  std::string spidev_name = "spidev2.0";     // /dev entry of the sensor
  std::vector<ChipConfig> chips{ChipConfig{}};  // /dev entries in readdir order
  std::uint8_t who_am_i = 0x47;
  std::uint32_t fifo_capacity_bytes = 2048;
  std::uint32_t startup_sentinel_samples = 0;  // first N samples after each power-up
  MotionSignal motion{};
  std::uint64_t seed = 1;                    // every random draw of the board
  std::size_t spi_log_capacity = 1024;       // messages kept (ring); 0 disables
  std::size_t truth_capacity = 65536;        // samples and edges kept (ring)
  // The board thread sleeps until this long before each due instant and spins
  // the rest: edges become readable on time at the price of CPU. 0: sleep only
  // (lateness is then the host's timer wake-up latency).
  std::uint64_t edge_spin_ns = 0;

  static Config ideal();
  // realistic profile, drift 2500 ppm with wander
  static Config realistic();
  // realistic timing on a slower host: SPI messages of 15-55 us, interrupt
  // stamps 5-65 us late and readable 25 us after, drift -85 ppm
  static Config slow_host();
  // Defaults overlaid with the PELMOR_VBOARD_* variables (see docs/virtual-board.md).
  // Unparsable values are reported on stderr once and ignored.
  static Config from_environment();
};

// Power-on with `config`: registers at their reset values, FIFO empty, logs,
// counters, ground truth and faults cleared, TMST restarted. Descriptors opened
// before the reset are orphaned as if the device had been unplugged: their
// ioctls fail (ESHUTDOWN on spidev, ENODEV on GPIO), every descriptor polls as
// POLLHUP | POLLERR and a line's read fails with ENODEV; close() still works.
void reset(const Config& config = Config{});
// reset(Config::from_environment()) and the faults of PELMOR_VBOARD_FAULTS.
void reset_from_environment();
Config current_config();

// Changes that keep the sensor state (take effect for the next message/sample).
void set_profile(Profile profile, const RealisticTiming& timing = RealisticTiming{});
void set_tmst_drift_ppm(double ppm);
void set_motion(const MotionSignal& motion);

// ---- Register file -----------------------------------------------------------

// Register contents as the sensor holds them, read without side effects (no
// clear-on-read, no FIFO pop). bank is 0..4 (2-4 are plain storage); others read
// as zeros.
std::array<std::uint8_t, 128> register_bank(int bank);
std::uint8_t register_value(int bank, std::uint8_t reg);
std::uint8_t active_bank();                     // REG_BANK_SEL as selected
std::size_t fifo_level_bytes();                 // bytes waiting in the FIFO

// ---- SPI transfer log ---------------------------------------------------------

struct SpiTransferRecord {
  std::uint64_t raw_wire_start_ns = 0;          // first bit on the wire
  std::uint64_t raw_wire_end_ns = 0;            // last bit on the wire
  std::uint32_t len = 0;
  std::uint32_t speed_hz = 0;                   // as submitted (0 = device default)
  std::uint8_t bits_per_word = 0;               // as submitted
  bool cs_change = false;
  std::uint16_t delay_usecs = 0;
  std::uint8_t word_delay_usecs = 0;
  std::uint8_t tx_nbits = 0;
  std::uint8_t rx_nbits = 0;
  bool has_tx = false;                          // tx_buf was non-null
  bool has_rx = false;                          // rx_buf was non-null
  std::vector<std::uint8_t> tx;                 // bytes clocked out (zeros without tx_buf)
  std::vector<std::uint8_t> rx;                 // bytes the sensor answered
};

// One register write as the sensor applied it, in wire order.
struct RegisterWrite {
  std::uint8_t bank = 0;
  std::uint8_t reg = 0;
  std::uint8_t value = 0;                       // byte on the wire
  std::uint8_t stored = 0;                      // register content afterwards
};

enum class SpiMessageKind : std::uint8_t {
  any = 0,            // matches every message (faults only)
  tmst_snapshot,      // writes SIGNAL_PATH_RESET with the strobe bit 0x04
  bank_select,        // a single write of REG_BANK_SEL
  fifo_count_read,    // read starting at FIFO_COUNTH
  fifo_data_read,     // read starting at FIFO_DATA
  register_read,      // any other read
  register_write,     // any other write
};

struct SpiMessageRecord {
  std::uint64_t sequence = 0;                   // 0, 1, ... since reset
  SpiMessageKind kind = SpiMessageKind::any;
  std::uint32_t transfer_count = 0;             // n of SPI_IOC_MESSAGE(n)
  int result = 0;                               // ioctl return value
  int error_number = 0;                         // errno when result < 0
  std::uint64_t raw_start_ns = 0;               // ioctl entry
  std::uint64_t raw_end_ns = 0;                 // instant the message completes
  bool latched = false;                         // a TMST strobe latched in this message
  std::uint64_t latch_raw_ns = 0;               // true instant: its strobe byte completed
  std::uint32_t latch_tmst = 0;                 // 20-bit value latched
  std::vector<SpiTransferRecord> transfers;
  std::vector<RegisterWrite> writes;
};

// Messages with sequence >= since that are still in the ring, oldest first.
std::vector<SpiMessageRecord> spi_log(std::uint64_t since = 0);
std::uint64_t spi_log_mark();                   // sequence the next message will get
void clear_spi_log();

// ---- GPIO line requests -------------------------------------------------------

struct LineRequestRecord {
  std::string chip_name;
  std::vector<std::uint32_t> offsets;           // offsets[0 .. num_lines)
  std::string consumer;
  std::uint64_t flags = 0;                      // config.flags
  std::uint32_t num_attrs = 0;
  std::uint32_t num_lines = 0;
  std::uint32_t event_buffer_size = 0;          // as requested
  std::uint32_t effective_buffer_size = 0;      // as the kernel sizes it
  int fd = -1;                                  // returned descriptor, -1 on failure
  int error_number = 0;                         // errno of a refused request
  bool released = false;                        // the line descriptor was closed
  std::vector<std::uint8_t> raw;                // the 592-byte record as submitted
};

// Every GPIO_V2_GET_LINE_IOCTL since reset, refused ones included, in order.
std::vector<LineRequestRecord> line_requests();
std::optional<LineRequestRecord> last_line_request();

// ---- Ground truth ---------------------------------------------------------------

enum class EdgeOutcome : std::uint8_t {
  none = 0,     // no edge: data-ready not routed to INT1, or INT1 still latched
  raised,       // an event was queued on the requesting line
  suppressed,   // fault: no edge, no sequence advance
  dropped,      // fault: the buffer overflowed at this edge (see drop_edges)
  unobserved,   // the pin moved but no line request listens to it
};

struct SampleTruth {
  std::uint64_t index = 0;                      // 0, 1, ... since reset
  std::uint64_t raw_ns = 0;                     // true instant of the sample
  std::uint64_t monotonic_ns = 0;               // the same instant on CLOCK_MONOTONIC
  std::uint64_t tmst_ticks = 0;                 // unwrapped TMST count at the sample
  std::uint32_t tmst = 0;                       // 20-bit counter value
  std::uint16_t tmst_low16 = 0;                 // the FIFO packet's timestamp field
  bool in_fifo = false;                         // appended (stream mode, FIFO not stalled)
  bool sentinel = false;                        // axes carry -32768
  std::array<std::int16_t, 3> accel{};
  std::array<std::int16_t, 3> gyro{};
  std::int8_t temperature = 0;
  EdgeOutcome edge = EdgeOutcome::none;
  std::uint32_t line_seqno = 0;                 // kernel line_seqno given to its edge (raised/dropped)
  std::uint64_t event_monotonic_ns = 0;         // event stamp (raised)
  std::uint64_t irq_latency_ns = 0;             // stamp minus sample instant
  bool event_discarded = false;                 // the line's event buffer overflowed past it
};

struct EdgeTruth {
  std::uint64_t sample_index = 0;               // UINT64_MAX for a spurious edge
  std::uint64_t raw_ns = 0;                     // instant the pin rose
  std::uint64_t event_monotonic_ns = 0;         // kernel stamp
  std::uint64_t due_raw_ns = 0;                 // instant the event is due to be readable
  std::uint64_t queued_raw_ns = 0;              // instant the board made it readable
  std::uint32_t line_seqno = 0;
  EdgeOutcome outcome = EdgeOutcome::none;
};

std::uint64_t samples_produced();
// Samples with index >= first still kept, oldest first, at most max_count.
std::vector<SampleTruth> samples(std::uint64_t first = 0, std::size_t max_count = SIZE_MAX);
std::optional<SampleTruth> sample(std::uint64_t index);
std::uint64_t edges_produced();
std::vector<EdgeTruth> edges(std::uint64_t first = 0, std::size_t max_count = SIZE_MAX);

// The model's counter at a RAW instant: unwrapped and as the 20-bit register.
std::uint64_t tmst_ticks_at(std::uint64_t raw_ns);
std::uint32_t tmst_at(std::uint64_t raw_ns);

// ---- Counters -------------------------------------------------------------------

struct Counters {
  std::uint64_t opens = 0;                      // emulated nodes opened
  std::uint64_t closes = 0;
  std::uint64_t ioctls = 0;                     // every ioctl on an emulated descriptor
  std::uint64_t spi_messages = 0;
  std::uint64_t spi_setup_ioctls = 0;           // SPI_IOC_RD_* / SPI_IOC_WR_*
  std::uint64_t gpio_chip_ioctls = 0;
  std::uint64_t gpio_line_ioctls = 0;
  std::uint64_t failed_ioctls = 0;
  std::uint64_t polls = 0;                      // poll/ppoll calls with an emulated descriptor
  std::uint64_t reads = 0;                      // reads of an emulated descriptor
  std::uint64_t samples = 0;
  std::uint64_t fifo_lost_packets = 0;          // overflowed out of the FIFO
  std::uint64_t edges = 0;                      // INT1 data-ready edges modelled (suppressed and spurious included)
  std::uint64_t events_queued = 0;
  std::uint64_t events_discarded = 0;           // line event buffer overflow
  std::uint64_t events_read = 0;
};
Counters counters();
std::uint64_t ioctl_count();

// Lateness of the board in making events readable (queued minus due), for the
// most recent events kept, oldest first.
std::vector<std::int64_t> edge_lateness_ns();

// ---- Faults ------------------------------------------------------------------------

// Which calls a fault hits, counted from the moment it is set among the calls it
// applies to: the nth is the first affected, then `count` in all (0: every one
// from the nth on).
struct Trigger {
  std::uint64_t nth = 1;
  std::uint64_t count = 1;
  static Trigger once(std::uint64_t nth = 1) { return {nth, 1}; }
  static Trigger from(std::uint64_t nth = 1) { return {nth, 0}; }
};

enum class IoctlTarget : std::uint8_t {
  any = 0,            // any ioctl on an emulated descriptor
  spi_message,        // SPI_IOC_MESSAGE(n)
  spi_setup,          // SPI_IOC_RD_* / SPI_IOC_WR_*
  gpio_chipinfo,      // GPIO_GET_CHIPINFO_IOCTL
  gpio_line_request,  // GPIO_V2_GET_LINE_IOCTL
  gpio_line,          // any ioctl on a line descriptor
};

using FaultId = std::uint32_t;

// The call fails with -1 and errno = error_number.
FaultId fail_ioctl(IoctlTarget target, int error_number, Trigger when = {});
// SPI messages of `kind` fail with error_number (nothing reaches the sensor).
FaultId fail_spi_message(SpiMessageKind kind, int error_number, Trigger when = {});
// The message reaches the sensor but the ioctl returns `missing_bytes` less.
FaultId short_spi_message(SpiMessageKind kind, std::uint32_t missing_bytes, Trigger when = {});
// The message takes `extra_ns` longer (the latch point is drawn inside it).
FaultId stretch_spi_message(SpiMessageKind kind, std::uint64_t extra_ns, Trigger when = {});
// Reads of the register return (real & ~mask) | (value & mask); writes are kept.
FaultId corrupt_register_read(int bank, std::uint8_t reg, std::uint8_t mask, std::uint8_t value,
                              Trigger when = Trigger::from());
// INT1 edges (counted among the sample edges from now on):
// The line's event buffer overflows at each triggered edge, as behind a reader
// too slow for it: the edge is queued unseen, and the next edge loses as many of
// the oldest unread events (a sequence gap), the faulted one unless older wait.
FaultId drop_edges(Trigger when);
FaultId suppress_edges(Trigger when);    // no interrupt: no event, no sequence advance
// An extra rising edge `offset_ns` after each triggered edge (0: half a period).
FaultId spurious_edges(Trigger when, std::uint64_t offset_ns = 0);
// Samples (counted from now on) whose six axes read -32768.
FaultId sentinel_samples(Trigger when);
// Samples (counted from now on) that are not appended to the FIFO; edges go on.
FaultId stall_fifo(Trigger when);
// Reads of a GPIO line descriptor fail with error_number before taking an event
// (EAGAIN: a wake-up whose event is gone by the time of the read).
FaultId fail_line_read(int error_number, Trigger when = {});
// INT1 events (counted as line reads hand them out) after which the reading
// thread's next two CLOCK_MONOTONIC reads are each held extra_ns: the clock
// bracket a driver takes right after the read spans at least extra_ns.
FaultId stretch_bridge(std::uint64_t extra_ns, Trigger when = {});

// Presence and identity, effective for the next open / directory listing / reset.
void set_spidev_present(bool present);
void set_chips(const std::vector<ChipConfig>& chips);
void set_who_am_i(std::uint8_t value);   // also changes the live register

std::uint64_t fault_hits(FaultId id);    // calls or samples the fault has affected
void clear_fault(FaultId id);
void clear_faults();

// ---- Waiting ---------------------------------------------------------------------

// Block until the condition holds or the timeout passes; true when it holds.
bool wait_for_samples(std::uint64_t total, std::chrono::nanoseconds timeout);
bool wait_for_edges(std::uint64_t total, std::chrono::nanoseconds timeout);
bool wait_for_line_request(std::chrono::nanoseconds timeout);
bool wait_for_spi_messages(std::uint64_t total, std::chrono::nanoseconds timeout);

}  // namespace pelmor_vboard

#pragma GCC visibility pop
