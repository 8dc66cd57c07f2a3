#include "options.hpp"

#include <cstddef>
#include <limits>
#include <optional>
#include <string_view>

#include "sample_format.hpp"

namespace pelmor_lusk::stream {
namespace {

constexpr std::uint64_t ns_per_s = 1'000'000'000;
constexpr std::uint64_t max_duration_ns = 366ULL * 24 * 3600 * ns_per_s;

ParsedCommand usage_error(std::string message) {
  ParsedCommand result;
  result.action = CommandAction::usage_error;
  result.error = std::move(message);
  return result;
}

bool parse_count(const std::string& text, std::uint64_t& out) {
  if (text.empty() || text.size() > 19) return false;
  std::uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<std::uint64_t>(c - '0');
  }
  if (value == 0) return false;
  out = value;
  return true;
}

std::optional<OutputFormat> parse_format(std::string_view text) {
  if (text == "csv") return OutputFormat::csv;
  if (text == "jsonl") return OutputFormat::jsonl;
  if (text == "text") return OutputFormat::text;
  return std::nullopt;
}

// Long name of an option that takes a value, or empty for a flag / unknown.
std::string_view long_name_of_short(std::string_view arg) {
  if (arg == "-r") return "--rate";
  if (arg == "-d") return "--duration";
  if (arg == "-n") return "--count";
  if (arg == "-f") return "--format";
  if (arg == "-o") return "--output";
  if (arg == "-q") return "--quiet";
  if (arg == "-h") return "--help";
  return {};
}

// The options that take no value.
bool* switch_of(StreamOptions& options, std::string_view name) {
  if (name == "--strict") return &options.strict;
  if (name == "--quiet") return &options.quiet;
  if (name == "--pairing-check") return &options.pairing_check;
  if (name == "--bracket-fit") return &options.bracket_fit;
  return nullptr;
}

bool takes_value(std::string_view name) {
  return name == "--rate" || name == "--duration" || name == "--count" || name == "--format" ||
         name == "--output" || name == "--restart";
}

}  // namespace

bool parse_duration_ns(const std::string& text, std::uint64_t& out) {
  std::uint64_t whole = 0;
  std::uint64_t fraction_ns = 0;
  std::uint64_t scale = ns_per_s / 10;
  bool seen_digit = false;
  bool in_fraction = false;
  for (char c : text) {
    if (c == '.' && !in_fraction) {
      in_fraction = true;
      continue;
    }
    if (c < '0' || c > '9') return false;
    seen_digit = true;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    if (!in_fraction) {
      whole = whole * 10 + digit;
      if (whole > max_duration_ns / ns_per_s) return false;
    } else if (scale > 0) {
      fraction_ns += digit * scale;
      scale /= 10;
    }
  }
  if (!seen_digit) return false;
  const std::uint64_t total = whole * ns_per_s + fraction_ns;
  if (total == 0 || total > max_duration_ns) return false;
  out = total;
  return true;
}

ParsedCommand parse_command_line(const std::vector<std::string>& args) {
  ParsedCommand result;
  StreamOptions& options = result.options;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    std::string name = arg;
    std::optional<std::string> value;
    if (arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
      const std::size_t eq = arg.find('=');
      if (eq != std::string::npos) {
        name = arg.substr(0, eq);
        value = arg.substr(eq + 1);
      }
    } else if (arg.size() == 2 && arg[0] == '-') {
      const std::string_view long_name = long_name_of_short(arg);
      if (long_name.empty()) return usage_error("unknown option '" + arg + "'");
      name = long_name;
    } else {
      return usage_error("unexpected argument '" + arg + "'");
    }

    if (name == "--help") {
      result.action = CommandAction::help;
      return result;
    }
    if (name == "--version") {
      result.action = CommandAction::version;
      return result;
    }
    if (bool* flag = switch_of(options, name)) {
      if (value) return usage_error("option '" + name + "' takes no value");
      *flag = true;
      continue;
    }
    if (!takes_value(name)) return usage_error("unknown option '" + name + "'");
    if (!value) {
      if (i + 1 >= args.size()) return usage_error("option '" + name + "' needs a value");
      value = args[++i];
    }

    const std::string& v = *value;
    if (name == "--rate") {
      if (v == "25") {
        options.rate_hz = 25;
      } else if (v == "30") {
        options.rate_hz = 30;
      } else {
        return usage_error("--rate must be 25 or 30, not '" + v + "'");
      }
    } else if (name == "--duration") {
      if (!parse_duration_ns(v, options.duration_ns))
        return usage_error("--duration needs a positive number of seconds, not '" + v + "'");
    } else if (name == "--count") {
      if (!parse_count(v, options.count))
        return usage_error("--count needs a positive whole number, not '" + v + "'");
    } else if (name == "--format") {
      const auto format = parse_format(v);
      if (!format) return usage_error("--format must be csv, jsonl or text, not '" + v + "'");
      options.format = *format;
    } else if (name == "--output") {
      if (v.empty()) return usage_error("option '" + name + "' needs a file name");
      options.output = v;
    } else if (name == "--restart") {
      std::uint64_t restarts = 0;
      if (v != "0" && (!parse_count(v, restarts) || restarts > UINT32_MAX))
        return usage_error("--restart needs a whole number of restarts, not '" + v + "'");
      options.restarts = static_cast<std::uint32_t>(restarts);
    }
  }
  return result;
}

const char* format_name(OutputFormat format) {
  switch (format) {
    case OutputFormat::csv:
      return "csv";
    case OutputFormat::jsonl:
      return "jsonl";
    case OutputFormat::text:
      return "text";
  }
  return "csv";
}

std::string help_text() {
  std::string text = R"(NAME
    pelmor-stream - stream and record ICM-42688 samples through libpelmor

SYNOPSIS
    pelmor-stream [--rate 25|30] [--strict] [--pairing-check] [--bracket-fit]
                  [--duration SECONDS | --count N] [--format csv|jsonl|text]
                  [--output FILE] [--restart N] [--quiet]

DESCRIPTION
    Starts the driver through its public C interface, writes every delivered
    sample in the chosen format and stops the driver cleanly when the duration
    has passed, N samples have been written, or SIGINT (Ctrl-C) or SIGTERM
    arrives. A second Ctrl-C ends the program at once.

    Once a second a status line goes to standard error: samples written, the
    rate measured over the last second from the mapped timestamps, drops,
    boundary resyncs, batch failures and the latest phase uncertainty. On a
    terminal it is redrawn in place; otherwise each one is a line of its own.
    At the end the runtime-health record of the run is printed on standard
    error as a short table. The library's own diagnostic lines (drop logs,
    TIMING_* lines, the start failure reason) also go to standard error.

OPTIONS
    -r, --rate 25|30
        Delivered sample rate in Hz (default 30).
    --strict
        Strict timing: a timing fault stops the driver instead of dropping
        the sample; the program then ends with exit code 3.
    --pairing-check
        Opt-in (PELMOR_FLAG_PAIRING_CHECK): resync when a sample's INT1 stamp
        slips by a good part of a period against its mapped time, as after an
        interrupt edge lost or added without a sequence gap.
    --bracket-fit
        Opt-in (PELMOR_FLAG_BRACKET_FIT): map sample times with the line
        through every sensor-clock anchor's clock bracket, and take early
        anchors while the map is young.
    -d, --duration SECONDS
        Stop after this many seconds (decimals allowed). Without --duration
        and --count the program runs until it is interrupted.
    -n, --count N
        Stop after N samples have been written. With --duration too, whichever
        comes first ends the run.
    -f, --format csv|jsonl|text
        Output format (default csv). csv: a header line, then one row per
        sample. jsonl: one JSON object per line, keyed by the field names of
        pelmor_sample, axes as arrays. text: one line per sample for reading.
    -o, --output FILE
        Write samples to FILE (created or truncated) instead of standard
        output; "-" means standard output.
    --restart N
        When the worker ends by itself (a fatal timing or device fault, an SPI
        error), stop the driver and start it again, up to N times in all, with
        a line saying so after the driver's own reason. Sample indices start
        again from 0 with each run; the health table is the last run's.
        Default 0: the program ends with exit code 3.
    -q, --quiet
        No status lines and no health table; errors are still reported.
    -h, --help
        This text.
    --version
        Versions of the tool and of the loaded library.

OUTPUT COLUMNS
    Clocks: every *_raw_ns value is an absolute CLOCK_MONOTONIC_RAW time in
    nanoseconds. The CSV header and the JSON keys use the names below (JSON
    groups the axes as accel_mps2, gyro_radps and raw_words arrays).
)";
  for (const ColumnDoc& column : sample_columns()) {
    text += "    ";
    text += column.name;
    text += "\n        ";
    text += column.doc;
    text += '\n';
  }
  text += R"(
EXIT STATUS
    0   the run ended as asked (duration, count, SIGINT or SIGTERM)
    1   the driver could not be created or started; the library's status
        text (and its "ICM-42688 start failed: ..." line) is printed
    2   usage error: an unknown option or a bad value
    3   the worker ended by itself (a fatal timing or device fault, or a
        fault in --strict mode) and no restart was left, or a restart failed;
        the health table is still printed
    4   the output file could not be opened or written

EXAMPLES
    pelmor-stream --duration 10 --output run.csv
        Record ten seconds at 30 Hz as CSV.
    pelmor-stream --rate 25 --format jsonl | jq .mapped_timestamp_raw_ns
        Stream 25 Hz samples as JSON lines into another program.
    pelmor-stream --format text --count 5
        Print five samples for a quick look.
    tools/pelmor-vboard --profile realistic --truth-file truth.csv -- \
        pelmor-stream --duration 10 --output run.csv &&
        pelmor-timing-report run.csv truth.csv
        Record on the virtual board and judge the timestamps against its
        ground truth.
)";
  return text;
}

}  // namespace pelmor_lusk::stream
