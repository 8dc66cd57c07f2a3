// pelmor-check: is this board ready for the driver? One line per check.
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "check_result.hpp"
#include "checks.hpp"

namespace {

constexpr int exit_usage = 2;

void print_usage(std::FILE* to) {
  std::fputs(
      "usage: pelmor-check [--rate 25|30] [--seconds S] [--json]\n"
      "\n"
      "Checks the GPIO chip and INT1 line, the sensor's spidev node, WHO_AM_I, one second of\n"
      "data-ready edges with their timing, and the host's real-time setup. Prints one line per\n"
      "check (PASS, WARN or FAIL, with a remedy for each WARN and FAIL).\n"
      "\n"
      "  --rate 25|30   sensor data rate to stream at, as the driver's sample rate selects (25)\n"
      "  --seconds S    how long to watch INT1, 1 to 60 (1)\n"
      "  --json         one JSON object instead of lines\n"
      "  -h, --help     this text\n"
      "\n"
      "Exit status: 0 when no check fails, 1 when one does, 2 on a usage error.\n",
      to);
}

bool parse_unsigned(const char* text, unsigned long min, unsigned long max, unsigned long& out) {
  char* end = nullptr;
  if (text == nullptr || *text == '\0' || *text == '-') return false;
  out = std::strtoul(text, &end, 10);
  return *end == '\0' && out >= min && out <= max;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace pelmor_lusk::check;
  CheckOptions options;
  bool json = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    unsigned long value = 0;
    if (arg == "-h" || arg == "--help") {
      print_usage(stdout);
      return 0;
    }
    if (arg == "--json") {
      json = true;
    } else if (arg == "--rate" && i + 1 < argc && parse_unsigned(argv[i + 1], 25, 30, value) &&
               (value == 25 || value == 30)) {
      options.rate_hz = static_cast<std::uint32_t>(value);
      ++i;
    } else if (arg == "--seconds" && i + 1 < argc && parse_unsigned(argv[i + 1], 1, 60, value)) {
      options.stream_ns = value * 1'000'000'000ULL;
      ++i;
    } else {
      std::fprintf(stderr, "pelmor-check: invalid argument: %s\n", arg.c_str());
      print_usage(stderr);
      return exit_usage;
    }
  }

  const std::vector<CheckResult> results = run_checks(options);
  if (json) {
    std::cout << format_json(results) << std::endl;
  } else {
    for (const CheckResult& result : results) std::cout << format_line(result) << '\n';
    std::cout.flush();
  }
  return exit_status(results);
}
