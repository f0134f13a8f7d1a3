// The subcommands of fbcdc, each a thin layer over the library's classes, listed in one table in
// main.cpp. A handler receives its own arguments, argv[0] being "fbcdc NAME".
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include "EventFormat.h"
#include "LogFile.h"
#include "LogRange.h"

namespace fbcdc {

// Exit statuses, the same for every subcommand.
constexpr int kExitOk = 0;      // done; for verify: every log valid
constexpr int kExitFailed = 1;  // a log is damaged or could not be read, or the work failed
constexpr int kExitUsage = 2;   // wrong arguments

struct Command {
  const char* name;
  const char* help;  // one line, for the list of commands
  int (*run)(int argc, char** argv);
};

int dumpCommand(int argc, char** argv);
int verifyCommand(int argc, char** argv);
int followCommand(int argc, char** argv);
int captureCommand(int argc, char** argv);
int applyCommand(int argc, char** argv);
int compareCommand(int argc, char** argv);
int statusCommand(int argc, char** argv);
int pruneCommand(int argc, char** argv);
int demoCommand(int argc, char** argv);
int snapshotCommand(int argc, char** argv);

// Parses the arguments; on --help prints the help and returns kExitOk, on an error prints one line
// and returns kExitUsage. Returns -1 when the command should go on. Gives every command the same
// help layout and words its complaints as fbcdc's other errors, not as CLI11 does.
int parse(CLI::App& app, int argc, char** argv);

// Prints "fbcdc NAME: text (see fbcdc NAME --help)" on stderr; returns kExitUsage.
int refuse(const char* command, const std::string& text);

// Checks that an option's value is one of choices, or a whole number within [min, max], with
// complaints in fbcdc's words, and names its kind in the help (json|text, N).
CLI::Option* choice(CLI::Option* option, const std::vector<std::string>& choices);
CLI::Option* wholeNumber(CLI::Option* option, long long min, long long max);

// The options of every command that prints events: --format, --decimal, --bigint, --blobs,
// --transactions.
struct OutputOptions {
  std::string format = "json";
  std::string decimal = "string";
  std::string bigint = "string";
  std::string blobs = "base64";
  bool transactions = false;
  EventFormat eventFormat() const;
};
void addOutputOptions(CLI::App& app, OutputOptions& options);

// --since, --until, --from, --to.
struct RangeOptions {
  std::string since, until, from, to;
  // Throws CLI::ValidationError, worded for the user, on a time it cannot read.
  LogRange range() const;
};
void addRangeOptions(CLI::App& app, RangeOptions& options);

// The logs named on the command line: a file as it is, a directory as its published logs in
// publication order (with temporary ones as well when asked; only those renamed in before the read
// began with settled, see LogDirectory::list). Throws std::runtime_error for a path that does not
// exist.
std::vector<LogFile> expandPaths(const std::vector<std::string>& paths, bool withTemporary,
                                 bool settled = false);

// Prints "fbcdc NAME: text" on stderr.
void complain(const char* command, const std::string& text);

}  // namespace fbcdc
