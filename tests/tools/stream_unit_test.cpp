// pelmor-stream's pure parts: command line, sample formats, status and health
// text and the hand-off queue.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "options.hpp"
#include "sample_format.hpp"
#include "sample_queue.hpp"

namespace pelmor_lusk::stream {
namespace {

ParsedCommand parse(std::vector<std::string> args) { return parse_command_line(args); }

TEST(StreamOptions, DefaultsAndEveryAcceptedForm) {
  const StreamOptions defaults = parse({}).options;
  EXPECT_EQ(defaults.rate_hz, 30u);
  EXPECT_EQ(defaults.format, OutputFormat::csv);
  EXPECT_EQ(defaults.duration_ns + defaults.count, 0u);  // runs until a signal

  const ParsedCommand all = parse({"--rate", "25", "--strict", "--duration=2.5", "-n", "7", "-f", "jsonl", "-o",
                                   "out.jsonl", "-q", "--format", "text"});
  ASSERT_EQ(all.action, CommandAction::run) << all.error;
  const StreamOptions& o = all.options;
  EXPECT_EQ(o.rate_hz, 25u);
  EXPECT_TRUE(o.strict && o.quiet);
  EXPECT_FALSE(o.pairing_check || o.bracket_fit);
  const StreamOptions both = parse({"--bracket-fit", "--pairing-check"}).options;
  EXPECT_TRUE(both.pairing_check && both.bracket_fit && !both.strict);
  EXPECT_EQ(o.duration_ns, 2'500'000'000u);
  EXPECT_EQ(o.count, 7u);
  EXPECT_EQ(o.format, OutputFormat::text);  // the last one wins
  EXPECT_EQ(o.output, "out.jsonl");
  EXPECT_EQ(parse({"--restart", "0"}).options.restarts, 0u);
  EXPECT_EQ(parse({"--restart=5"}).options.restarts, 5u);

  EXPECT_EQ(parse({"--rate", "40", "--help"}).action, CommandAction::usage_error);  // in order
  EXPECT_EQ(parse({"-r", "25", "-h"}).action, CommandAction::help);
}

TEST(StreamOptions, RefusalsNameTheProblem) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--rate", "40"}, "--rate must be 25 or 30"},
      {{"--rate"}, "needs a value"},
      {{"--format", "xml"}, "--format must be csv, jsonl or text"},
      {{"--count", "0"}, "--count needs a positive whole number"},
      {{"--count", "-3"}, "--count needs a positive whole number"},
      {{"--count", "12x"}, "--count needs a positive whole number"},
      {{"--duration", "0"}, "--duration needs a positive number"},
      {{"--strict=1"}, "takes no value"},
      {{"--pairing-check=yes"}, "takes no value"},
      {{"--output="}, "needs a file name"},
      {{"--restart", "-1"}, "--restart needs a whole number"},
      {{"--restart", "4294967296"}, "--restart needs a whole number"},
      {{"--bogus"}, "unknown option '--bogus'"},
      {{"-x"}, "unknown option '-x'"},
      {{"file.csv"}, "unexpected argument 'file.csv'"},
  };
  for (const auto& [args, message] : cases) {
    const ParsedCommand result = parse(args);
    EXPECT_EQ(result.action, CommandAction::usage_error) << args.front();
    EXPECT_NE(result.error.find(message), std::string::npos) << result.error;
  }
}

TEST(StreamOptions, DurationsInDecimalSeconds) {
  std::uint64_t ns = 0;
  ASSERT_TRUE(parse_duration_ns("10", ns));
  EXPECT_EQ(ns, 10'000'000'000u);
  ASSERT_TRUE(parse_duration_ns(".5", ns));
  EXPECT_EQ(ns, 500'000'000u);
  ASSERT_TRUE(parse_duration_ns("0.0000000019", ns));  // digits past 1 ns are ignored
  EXPECT_EQ(ns, 1u);
  for (const char* bad : {"", ".", "1.2.3", "-1", "1e3", "0.0", "10s", "99999999999"})
    EXPECT_FALSE(parse_duration_ns(bad, ns)) << bad;
}

pelmor_sample example_sample() {
  pelmor_sample s{};
  s.struct_size = sizeof s;
  s.tmst_wrap_count = 3;
  s.event_timestamp_raw_ns = 18'446'744'073'709'551'000u;  // near the top: printed exactly
  s.mapped_timestamp_raw_ns = 18'446'744'073'709'551'012u;
  s.temperature_c = 25.0 - 5.0 / 2.07;
  s.accel_mps2[0] = -1.5;
  s.accel_mps2[2] = 9.80665;
  s.gyro_radps[1] = 0.0010642;
  s.raw_words[0] = -5;
  s.raw_words[1] = -32767;
  s.raw_words[3] = 2048;
  s.raw_words[6] = 32767;
  s.fifo_timestamp_low16 = 65535;
  s.sample_index = 42;
  s.phase_uncertainty_us = 200;
  s.boundary_resyncs = 1;
  s.batch_failures = 2;
  s.total_drops = 4;
  return s;
}

TEST(SampleFormat, CsvRowFollowsTheHeader) {
  const std::string header = csv_header();
  EXPECT_EQ(header.rfind("sample_index,mapped_timestamp_raw_ns,event_timestamp_raw_ns,", 0), 0u);
  EXPECT_EQ(header.back(), '\n');
  EXPECT_EQ(format_sample(example_sample(), OutputFormat::csv),
            "42,18446744073709551012,18446744073709551000,200,-1.500000,0.000000,9.806650,0.0000000,0.0010642,"
            "0.0000000,22.5845,-5,-32767,0,2048,0,0,32767,65535,3,1,2,4\n");
}

TEST(SampleFormat, JsonLineUsesTheRecordsFieldNames) {
  EXPECT_EQ(format_sample(example_sample(), OutputFormat::jsonl),
            "{\"sample_index\":42,\"mapped_timestamp_raw_ns\":18446744073709551012,"
            "\"event_timestamp_raw_ns\":18446744073709551000,\"phase_uncertainty_us\":200,"
            "\"accel_mps2\":[-1.500000,0.000000,9.806650],\"gyro_radps\":[0.0000000,0.0010642,0.0000000],"
            "\"temperature_c\":22.5845,\"raw_words\":[-5,-32767,0,2048,0,0,32767],\"fifo_timestamp_low16\":65535,"
            "\"tmst_wrap_count\":3,\"boundary_resyncs\":1,\"batch_failures\":2,\"total_drops\":4}\n");
  pelmor_sample odd = example_sample();
  odd.temperature_c = std::numeric_limits<double>::quiet_NaN();
  odd.gyro_radps[0] = std::numeric_limits<double>::infinity();
  const std::string line = format_sample(odd, OutputFormat::jsonl);
  EXPECT_NE(line.find("\"temperature_c\":null"), std::string::npos);
  EXPECT_NE(line.find("\"gyro_radps\":[null,"), std::string::npos);
}

TEST(SampleFormat, TextLineShowsTheSignedEventOffset) {
  pelmor_sample s = example_sample();
  s.mapped_timestamp_raw_ns = 1'000'000;
  s.event_timestamp_raw_ns = 1'012'500;
  EXPECT_NE(format_sample(s, OutputFormat::text).find("event=1012500 ns (+12.5 us)"), std::string::npos);
  s.event_timestamp_raw_ns = 987'500;
  EXPECT_NE(format_sample(s, OutputFormat::text).find("event=987500 ns (-12.5 us)"), std::string::npos);
}

TEST(SampleFormat, HelpDocumentsEveryColumnAndExitCode) {
  const std::string help = help_text();
  for (const ColumnDoc& column : sample_columns())
    EXPECT_NE(help.find(std::string("    ") + column.name + "\n"), std::string::npos) << column.name;
  for (const char* code : {"    0   ", "    1   ", "    2   ", "    3   ", "    4   "})
    EXPECT_NE(help.find(code), std::string::npos) << code;
}

TEST(StatusAndHealth, RateStatusLineAndHealthTable) {
  EXPECT_DOUBLE_EQ(measured_rate_hz(10, 1'000'000'000, 40, 2'000'000'000), 30.0);
  EXPECT_LT(measured_rate_hz(10, 1'000'000'000, 10, 1'000'000'000), 0.0);  // nothing new

  StatusSnapshot status{3.0, 90, 29.97, 2, 1, 3, 17, true, 0};
  const std::string line = format_status_line(status);
  for (const char* part : {"90 samples", "29.97 Hz", "drops 2", "resyncs 1", "batch failures 3", "uncertainty 17 us"})
    EXPECT_NE(line.find(part), std::string::npos) << part << " in " << line;
  status.rate_hz = -1.0;
  EXPECT_NE(format_status_line(status).find(" - Hz"), std::string::npos);

  pelmor_runtime_health h{};
  h.epoch = 2;
  h.samples_delivered = 123456789012;
  h.max_consecutive_drops = 7;
  const std::string table = format_health_table(h);
  EXPECT_EQ(table.rfind("runtime health of run 2:\n", 0), 0u);
  std::istringstream rows(table.substr(table.find('\n') + 1));
  std::map<std::string, std::uint64_t> values;
  for (std::string key; rows >> key;) rows >> values[key];
  EXPECT_EQ(values.size(), 6u) << table;
  EXPECT_EQ(values["samples_delivered"], 123456789012u);
  EXPECT_EQ(values["max_consecutive_drops"], 7u);
}

TEST(StatusAndHealth, DeliveryWarningWhenARunFallsFarShortOfItsRate) {
  constexpr std::uint64_t s = 1'000'000'000;
  EXPECT_EQ(format_delivery_warning(0, s - 1, 30), "");  // too short to judge
  EXPECT_EQ(format_delivery_warning(0, 4 * s, 25).rfind("pelmor-stream: warning: no sample was delivered in 4.0 s", 0),
            0u);
  EXPECT_EQ(format_delivery_warning(45, 3 * s, 30), "");  // half of 90 is still fine
  const std::string short_run = format_delivery_warning(44, 3 * s, 30);
  EXPECT_NE(short_run.find("only 44 samples were delivered in 3.0 s of streaming, where about 90 were due at 30 Hz"),
            std::string::npos)
      << short_run;
  EXPECT_EQ(format_delivery_warning(UINT64_MAX / 4, 1000 * s, 30), "");
}

TEST(SampleHandOff, KeepsOrderAcrossThreadsAndCountsOverruns) {
  SampleQueue full(4);
  pelmor_sample s{};
  for (std::uint64_t i = 0; i < 4; ++i) {
    s.sample_index = i;
    EXPECT_TRUE(full.push(s));
  }
  s.sample_index = 99;
  EXPECT_FALSE(full.push(s));  // never overwrites what the writer has not taken
  EXPECT_EQ(full.overruns(), 1u);
  std::vector<pelmor_sample> out;
  EXPECT_EQ(full.wait_and_pop_all(out), 4u);
  EXPECT_EQ(out.back().sample_index, 3u);

  // A small ring under a producer that retries: nothing lost, nothing reordered.
  SampleQueue queue(8);
  constexpr std::uint64_t total = 20000;
  std::thread producer([&queue] {
    pelmor_sample p{};
    for (std::uint64_t i = 0; i < total; ++i) {
      p.sample_index = i;
      while (!queue.push(p)) std::this_thread::yield();
    }
    queue.close();
  });
  std::vector<pelmor_sample> received;
  while (queue.wait_and_pop_all(received) != 0) {
  }
  producer.join();
  ASSERT_EQ(received.size(), total);
  for (std::uint64_t i = 0; i < total; ++i) ASSERT_EQ(received[i].sample_index, i);
}

}  // namespace
}  // namespace pelmor_lusk::stream
