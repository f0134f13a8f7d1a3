// The built fbcdc as the tests run it: started with its output going to files of the test, or run
// to its end with that output read back; command lines written with short names for the test's
// paths; and log names formed as the plugin forms them. Inline, as the paths of the built programs
// are known to the test programs only.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
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

// The words of line once each short name (first) is replaced by what it stands for (second).
inline Strings argsOf(std::string line,
                      const std::vector<std::pair<std::string, std::string>>& names) {
  for (const auto& [name, path] : names) line = replaceAll(line, name, path);
  Strings args;
  std::istringstream words(line);
  for (std::string w; words >> w;) args.push_back(w);
  return args;
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

// Runs fbcdc for each line in turn, its leading NAME=VALUE words its environment and its short
// names replaced (argsOf), and writes down "$ LINE", what it wrote to stdout, "stderr: " and what
// it wrote to stderr (each through shown, with false and true, when given), and "exit N".
inline std::string transcriptOf(
    const TempDir& dir, const Strings& lines,
    const std::vector<std::pair<std::string, std::string>>& names,
    const std::function<std::string(const std::string&, bool)>& shown = {}) {
  std::string transcript;
  for (const std::string& line : lines) {
    Strings args = argsOf(line, names), environment;
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
