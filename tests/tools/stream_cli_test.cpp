// The built pelmor-stream run as a process on the virtual board through
// tools/pelmor-vboard: formats, signals, exit codes and the truth dump.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Generous: the machine may be loaded; waits end as soon as the awaited output appears.
constexpr auto patience = 60s;

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> split(const std::string& line, char sep) {
  std::vector<std::string> fields;
  std::istringstream in(line);
  for (std::string field; std::getline(in, field, sep);) fields.push_back(field);
  return fields;
}

class ToolProcess {
 public:
  ToolProcess(const std::vector<std::string>& args, const std::map<std::string, std::string>& env, bool board) {
    std::map<std::string, std::string> variables;
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string entry = *e;
      const auto eq = entry.find('=');
      if (eq != std::string::npos && entry.compare(0, 14, "PELMOR_VBOARD_") != 0)
        variables[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [name, value] : env) variables[name] = value;
    std::vector<std::string> env_strings;
    for (const auto& [name, value] : variables) env_strings.push_back(name + "=" + value);

    // The launcher execs the tool in place, so the pid is the tool's.
    std::vector<std::string> argv_strings;
    if (board) argv_strings = {PELMOR_VBOARD_LAUNCHER, "--board", PELMOR_VBOARD_LIB, "--"};
    argv_strings.push_back(PELMOR_STREAM_EXE);
    argv_strings.insert(argv_strings.end(), args.begin(), args.end());
    std::vector<char*> argv_ptrs, env_ptrs;
    for (auto& s : argv_strings) argv_ptrs.push_back(s.data());
    argv_ptrs.push_back(nullptr);
    for (auto& s : env_strings) env_ptrs.push_back(s.data());
    env_ptrs.push_back(nullptr);

    int out_pipe[2];
    int err_pipe[2];
    if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err_pipe[1], STDERR_FILENO);
    const int rc = posix_spawn(&pid_, argv_strings[0].c_str(), &actions, nullptr, argv_ptrs.data(), env_ptrs.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out_pipe[1]);
    close(err_pipe[1]);
    out_fd_ = out_pipe[0];
    err_fd_ = err_pipe[0];
    if (rc != 0) pid_ = -1;
  }
  ~ToolProcess() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(out_fd_);
    close(err_fd_);
  }
  ToolProcess(const ToolProcess&) = delete;
  ToolProcess& operator=(const ToolProcess&) = delete;

  // Reads output until `done` holds for (stdout, stderr) or both pipes close.
  bool read_until(const std::function<bool(const std::string&, const std::string&)>& done) {
    const auto deadline = Clock::now() + patience;
    while (!done(out_, err_)) {
      if (out_fd_ < 0 && err_fd_ < 0) return false;
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) return false;
      pollfd fds[2] = {{out_fd_, POLLIN, 0}, {err_fd_, POLLIN, 0}};
      if (poll(fds, 2, static_cast<int>(left)) < 0) return false;
      drain(fds[0], out_fd_, out_);
      drain(fds[1], err_fd_, err_);
    }
    return true;
  }

  // Exit code after all output has been read; -1 when it did not end in time
  // or ended by a signal.
  int finish() {
    read_until([](const std::string&, const std::string&) { return false; });
    int status = 0;
    if (pid_ <= 0 || waitpid(pid_, &status, 0) != pid_) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void send(int signal_number) const { kill(pid_, signal_number); }
  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }

 private:
  static void drain(const pollfd& p, int& fd, std::string& text) {
    if (fd < 0 || p.revents == 0) return;
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<std::size_t>(n));
    } else {
      close(fd);
      fd = -1;
    }
  }

  pid_t pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
  std::string out_;
  std::string err_;
};

std::string file_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::string temp_path(const std::string& name) {
  const char* dir = std::getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/pelmor_stream_test_" + std::to_string(getpid()) + "_" + name;
}

std::uint64_t health_value(const std::string& err, const std::string& key) {
  std::smatch m;
  if (!std::regex_search(err, m, std::regex("\n  " + key + " +([0-9]+)\n"))) return UINT64_MAX;
  return std::stoull(m[1]);
}

TEST(PelmorStreamCli, EachFormatWritesTheCountedSamplesInOrder) {
  const std::string csv_path = temp_path("samples.csv");
  {
    ToolProcess tool({"--count", "8", "--output", csv_path, "--quiet"}, {}, true);
    ASSERT_EQ(tool.finish(), 0) << tool.err();
    EXPECT_EQ(tool.out(), "");
    EXPECT_EQ(tool.err().find("pelmor-stream:"), std::string::npos) << "quiet means no status lines";
    EXPECT_EQ(tool.err().find("runtime health"), std::string::npos);
  }
  const auto rows = lines_of(file_text(csv_path));
  std::remove(csv_path.c_str());
  ASSERT_EQ(rows.size(), 9u);
  const std::size_t columns = split(rows[0], ',').size();
  EXPECT_EQ(columns, 23u);
  std::uint64_t previous_mapped = 0;
  for (std::size_t i = 1; i < rows.size(); ++i) {
    const auto fields = split(rows[i], ',');
    ASSERT_EQ(fields.size(), columns) << rows[i];
    EXPECT_EQ(fields[0], std::to_string(i - 1));
    const std::uint64_t mapped = std::stoull(fields[1]);
    EXPECT_GT(mapped, previous_mapped);
    previous_mapped = mapped;
  }

  for (const std::string format : {"jsonl", "text"}) {
    ToolProcess tool({"--format", format, "-n", "5", "--rate", "25"}, {}, true);
    ASSERT_EQ(tool.finish(), 0) << tool.err();
    const auto lines = lines_of(tool.out());
    ASSERT_EQ(lines.size(), 5u) << tool.out();
    for (std::size_t i = 0; i < lines.size(); ++i) {
      const std::string start = format == "jsonl" ? "{\"sample_index\":" + std::to_string(i) + ","
                                                  : "#" + std::to_string(i) + " mapped=";
      EXPECT_EQ(lines[i].rfind(start, 0), 0u) << lines[i];
    }
    const std::uint64_t delivered = health_value(tool.err(), "samples_delivered");
    EXPECT_TRUE(delivered >= 5 && delivered != UINT64_MAX) << tool.err();
  }
}

TEST(PelmorStreamCli, SignalStopsTheDriverCleanlyWithTheHealthTable) {
  for (const int signal_number : {SIGINT, SIGTERM}) {
    ToolProcess tool({}, {}, true);
    // Wait for a status line that has counted samples: the run is under way.
    ASSERT_TRUE(tool.read_until([](const std::string&, const std::string& err) {
      return std::regex_search(err, std::regex("pelmor-stream: .* [1-9][0-9]* samples"));
    })) << tool.err();
    tool.send(signal_number);
    ASSERT_EQ(tool.finish(), 0) << tool.err();
    EXPECT_NE(tool.err().find("TIMING_DROP_SUMMARY label=final"), std::string::npos) << "the driver was stopped";
    const auto rows = lines_of(tool.out());
    ASSERT_GE(rows.size(), 2u);
    // Everything the driver delivered reached the output, nothing more.
    EXPECT_EQ(health_value(tool.err(), "samples_delivered"), rows.size() - 1) << tool.err();
  }
}

TEST(PelmorStreamCli, ExitCodesWithoutARun) {
  {
    ToolProcess tool({"--rate", "50"}, {}, true);
    EXPECT_EQ(tool.finish(), 2);
    EXPECT_NE(tool.err().find("Try 'pelmor-stream --help'"), std::string::npos) << tool.err();
  }
  {
    ToolProcess tool({"--truth", temp_path("truth.csv"), "--count", "1"}, {}, false);
    EXPECT_EQ(tool.finish(), 2);
    EXPECT_NE(tool.err().find("--truth needs the virtual board"), std::string::npos) << tool.err();
  }
  {
    ToolProcess tool({"--output", "/nonexistent-dir/x.csv"}, {}, true);
    EXPECT_EQ(tool.finish(), 4);
    EXPECT_NE(tool.err().find("cannot open /nonexistent-dir/x.csv"), std::string::npos) << tool.err();
  }
}

TEST(PelmorStreamCli, ExitCodesOfFailedRuns) {
  {
    ToolProcess tool({"--count", "3"}, {{"PELMOR_VBOARD_SPIDEV", "none"}}, true);
    EXPECT_EQ(tool.finish(), 1);
    EXPECT_NE(tool.err().find("ICM-42688 start failed: "), std::string::npos) << tool.err();
    EXPECT_NE(tool.err().find("pelmor-stream: start failed: I/O error (-3)"), std::string::npos);
    EXPECT_EQ(tool.out(), "") << "nothing is written for a run that never started";
  }
  {
    // A sentinel sample well after the first accepted one ends the worker.
    ToolProcess tool({"--duration", "120"}, {{"PELMOR_VBOARD_FAULTS", "sentinel:nth=200"}}, true);
    EXPECT_EQ(tool.finish(), 3) << tool.err();
    EXPECT_NE(tool.err().find("worker ended by itself"), std::string::npos) << tool.err();
    const std::uint64_t delivered = health_value(tool.err(), "samples_delivered");
    EXPECT_EQ(delivered, lines_of(tool.out()).size() - 1) << tool.err();
  }
}

TEST(PelmorStreamCli, TruthDumpHoldsEveryRecordedSample) {
  const std::string truth_path = temp_path("truth.csv");
  ToolProcess tool({"--count", "12", "--quiet", "--truth", truth_path}, {{"PELMOR_VBOARD_PROFILE", "realistic"}},
                   true);
  ASSERT_EQ(tool.finish(), 0) << tool.err();
  const auto truth = lines_of(file_text(truth_path));
  std::remove(truth_path.c_str());
  ASSERT_GT(truth.size(), 12u);
  EXPECT_EQ(truth[0].rfind("index,raw_ns,", 0), 0u);
  // Each sample has a true instant with its FIFO timestamp field close to its mapped time.
  const auto samples = lines_of(tool.out());
  ASSERT_EQ(samples.size(), 13u);
  for (std::size_t i = 1; i < samples.size(); ++i) {
    const auto s = split(samples[i], ',');
    const double mapped = std::stod(s[1]);
    bool found = false;
    for (std::size_t j = 1; j < truth.size() && !found; ++j) {
      const auto t = split(truth[j], ',');
      found = t[5] == s[18] && std::abs(std::stod(t[1]) - mapped) < 1e6;
    }
    EXPECT_TRUE(found) << samples[i];
  }
}

}  // namespace
