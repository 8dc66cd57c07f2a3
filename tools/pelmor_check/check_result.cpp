#include "check_result.hpp"

#include <algorithm>
#include <cstdio>

namespace pelmor_lusk::check {

const char* status_name(Status status) noexcept {
  switch (status) {
    case Status::pass:
      return "PASS";
    case Status::warn:
      return "WARN";
    case Status::fail:
      return "FAIL";
  }
  return "FAIL";
}

std::string format_line(const CheckResult& result) {
  std::string line = std::string(status_name(result.status)) + " " + result.name + ": " + result.detail;
  if (result.status != Status::pass && !result.remedy.empty()) line += "; remedy: " + result.remedy;
  return line;
}

namespace {

std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
          out += escaped;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

}  // namespace

std::string format_json(const std::vector<CheckResult>& results) {
  std::string out = "{\"checks\":[";
  std::size_t warnings = 0;
  std::size_t failures = 0;
  for (std::size_t i = 0; i < results.size(); ++i) {
    const CheckResult& r = results[i];
    if (i > 0) out += ",";
    out += "{\"name\":" + json_string(r.name) + ",\"status\":" + json_string(status_name(r.status)) +
           ",\"detail\":" + json_string(r.detail) + ",\"remedy\":" + json_string(r.remedy) + "}";
    if (r.status == Status::warn) ++warnings;
    if (r.status == Status::fail) ++failures;
  }
  out += "],\"warnings\":" + std::to_string(warnings) + ",\"failures\":" + std::to_string(failures) + "}";
  return out;
}

int exit_status(const std::vector<CheckResult>& results) noexcept {
  return std::any_of(results.begin(), results.end(), [](const CheckResult& r) { return r.status == Status::fail; })
             ? 1
             : 0;
}

Spread spread_of(std::vector<std::uint64_t> values) {
  Spread spread;
  spread.count = values.size();
  if (values.empty()) return spread;
  std::sort(values.begin(), values.end());
  // Nearest rank: the smallest value with at least p% of the sample at or below it.
  auto rank = [&](std::size_t percent) {
    const std::size_t n = values.size();
    const std::size_t r = (percent * n + 99) / 100;
    return values[std::max<std::size_t>(r, 1) - 1];
  };
  spread.p50 = rank(50);
  spread.p99 = rank(99);
  spread.max = values.back();
  return spread;
}

}  // namespace pelmor_lusk::check
