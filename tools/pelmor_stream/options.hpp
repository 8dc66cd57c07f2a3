// Command line of pelmor-stream: parsed without global state so that every
// accepted and refused form can be checked directly.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pelmor_lusk::stream {

enum class OutputFormat : std::uint8_t { csv, jsonl, text };

// Process exit codes, documented in --help.
inline constexpr int exit_ok = 0;
inline constexpr int exit_start_failed = 1;
inline constexpr int exit_usage = 2;
inline constexpr int exit_worker_ended = 3;
inline constexpr int exit_output_failed = 4;

struct StreamOptions {
  std::uint32_t rate_hz = 30;
  bool strict = false;
  bool pairing_check = false;  // PELMOR_FLAG_PAIRING_CHECK
  bool bracket_fit = false;    // PELMOR_FLAG_BRACKET_FIT
  std::uint64_t duration_ns = 0;  // 0: until a signal (or --count)
  std::uint64_t count = 0;        // 0: no limit
  OutputFormat format = OutputFormat::csv;
  std::string output;             // empty or "-": standard output
  bool quiet = false;
  std::uint32_t restarts = 0;     // starts allowed after the worker ended by itself
};

enum class CommandAction : std::uint8_t { run, help, version, usage_error };

struct ParsedCommand {
  CommandAction action = CommandAction::run;
  StreamOptions options;
  std::string error;  // one line, set for usage_error
};

// args excludes the program name. Accepts "--name value", "--name=value" and the
// short forms -r -d -n -f -o -q -h; the last occurrence of an option wins.
ParsedCommand parse_command_line(const std::vector<std::string>& args);

// Decimal seconds ("10", "0.5", "2.25") to nanoseconds; false for anything else,
// zero, or more than a year.
bool parse_duration_ns(const std::string& text, std::uint64_t& out);

const char* format_name(OutputFormat format);

// The manual page printed by --help.
std::string help_text();

}  // namespace pelmor_lusk::stream
