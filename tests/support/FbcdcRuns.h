// The built fbcdc as the tests run it: started with its output going to files of the test, or run
// to its end with that output read back; command lines written with short names for the test's
// paths; and log names formed as the plugin forms them. Inline, as the paths of the built programs
// are known to the test programs only.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Processes.h"
#include "TestFiles.h"

struct FbcdcOutcome {
  int status;
  std::string out, err;
};

// text with every from replaced by to.
inline std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

// Starts fbcdc with args, its output going to the files out and err, with the NAME=VALUE settings
// of environment (and FBCDC_REDIS_PASSWORD only when they set it).
inline pid_t startFbcdc(const Strings& args, const std::string& out, const std::string& err,
                        const Strings& environment = {}) {
  Strings all = {"/usr/bin/env", "-u", "FBCDC_REDIS_PASSWORD"};
  all.insert(all.end(), environment.begin(), environment.end());
  all.push_back(FBCDC_CLI_PATH);
  all.insert(all.end(), args.begin(), args.end());
  return spawn(all, out, err);
}

// Runs fbcdc to its end, its output in out.txt and err.txt of dir.
inline FbcdcOutcome runFbcdc(const TempDir& dir, const Strings& args,
                             const Strings& environment = {}) {
  const int status = waitFor(startFbcdc(args, dir / "out.txt", dir / "err.txt", environment));
  return {status, readText(dir / "out.txt"), readText(dir / "err.txt")};
}

// What status and prune write with what the clock decides masked: lags and ages to the hundred
// seconds; times, positions' times and free space not at all.
inline std::string clockMasked(const std::string& text) {
  const std::regex lags(
      "(lag_seconds\":|\n  lag +|lags |begun "
      "|age_seconds\":)([0-9]*?)[0-9]{1,2}(?![0-9])(\\.[0-9]+)?");
  return std::regex_replace(
      std::regex_replace(text, lags, "$1$2xx"),
      std::regex("(free space +)[^\n]*|(free_bytes\":|total_bytes\":|idle_seconds\":|written )"
                 "[0-9]+|[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}Z|[0-9]{19}(?= [FUP])"),
      "$1$2#");
}

// Runs fbcdc with args rounds times while logs are published, each run killed (SIGKILL) after
// publish has been called each times, with a random pause of up to pause microseconds after each
// call; run N writes its stdout to dir/runN.out and its stderr to dir/err.txt. Returns the number
// of runs.
inline int runKilledWhilePublishing(const TempDir& dir, const Strings& args, int rounds, int each,
                                    std::mt19937& random, unsigned pause,
                                    const std::function<void()>& publish) {
  for (int run = 0; run < rounds; ++run) {
    const pid_t pid =
        startFbcdc(args, dir / ("run" + std::to_string(run) + ".out"), dir / "err.txt");
    for (int i = 0; i < each; ++i) {
      publish();
      ::usleep(random() % pause);
    }
    stop(pid, SIGKILL);
  }
  return rounds;
}

// Runs fbcdc for each line in turn, its leading NAME=VALUE words its environment, with each short
// name (first) replaced by what it stands for (second), and writes down "$ LINE", what it wrote to
// stdout, "stderr: " and what it wrote to stderr (each through shown, with false and true, when
// given), and "exit N".
inline std::string transcriptOf(
    const TempDir& dir, const Strings& lines,
    const std::vector<std::pair<std::string, std::string>>& names,
    const std::function<std::string(const std::string&, bool)>& shown = {}) {
  std::string transcript;
  for (const std::string& line : lines) {
    std::string replaced = line;
    for (const auto& [name, path] : names) replaced = replaceAll(replaced, name, path);
    Strings args, environment;
    std::istringstream words(replaced);
    for (std::string w; words >> w;) args.push_back(w);
    std::size_t command = 0;  // where the command starts in line
    for (; !args.empty() && args[0][0] >= 'A' && args[0][0] <= 'Z' &&
           args[0].find('=') != std::string::npos;
         command = line.find(' ', command) + 1) {
      environment.push_back(args[0]);
      args.erase(args.begin());
    }
    const FbcdcOutcome r = runFbcdc(dir, args, environment);
    transcript += "$ " + line.substr(0, command) + "fbcdc " + line.substr(command) + "\n" +
                  (shown ? shown(r.out, false) : r.out) +
                  "stderr: " + (shown ? shown(r.err, true) : r.err) + "exit " +
                  std::to_string(r.status) + "\n";
  }
  return transcript;
}

// The lines of a golden transcript (its "$ ... fbcdc ..." lines, as transcriptOf writes them), by
// its "## TITLE" sections in turn (one, untitled, where it has none): a transcript test runs the
// lines of its golden file, so that a line added there runs, and is written down at the next
// update, and each line is written once.
inline std::vector<std::pair<std::string, Strings>> linesOf(const std::string& path) {
  std::vector<std::pair<std::string, Strings>> sections(1);
  std::istringstream in(readText(std::string(FBCDC_TEST_SOURCE_DIR) + "/" + path));
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("## ", 0) == 0) sections.push_back({line.substr(3), {}});
    const std::size_t command = line.find("fbcdc ");
    if (line.rfind("$ ", 0) == 0 && command != std::string::npos)
      sections.back().second.push_back(line.substr(2, command - 2) + line.substr(command + 6));
  }
  if (sections.size() > 1) sections.erase(sections.begin());
  EXPECT_FALSE(sections[0].second.empty()) << path << " has no lines to run";
  return sections;
}

// A log's name: its second and transaction as 16 hexadecimal digits each, and suffix.
inline std::string logName(std::int64_t second, std::uint64_t transaction,
                           const char* suffix = ".fbl") {
  char name[64];
  std::snprintf(name, sizeof name, "%016llx_%016llx%s", static_cast<long long>(second),
                static_cast<unsigned long long>(transaction), suffix);
  return name;
}
