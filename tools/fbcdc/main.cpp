// fbcdc: reads, checks and streams the change logs that the fbcdc plugin writes.
//
//   fbcdc COMMAND [OPTIONS] [ARGUMENTS]
//   fbcdc help COMMAND
//   fbcdc --version
//
// Exit status: 0 success, 1 failure, 2 wrong arguments (see usage below).
#include <cstdio>
#include <cstring>
#include <string>

#include "Command.h"
#include "Database.h"

namespace {

using fbcdc::Command;

// Every subcommand, in the order the help lists them.
const Command kCommands[] = {
    {"dump", "print the events of logs as JSON Lines or as a listing", fbcdc::dumpCommand},
    {"verify", "check every block and the structure of logs", fbcdc::verifyCommand},
    {"follow", "stream the events of a directory's logs as they are published",
     fbcdc::followCommand},
    {"capture", "drive the plugin with a seeded workload on a real database",
     fbcdc::captureCommand},
    {"snapshot", "write the current rows of a database's tables as snapshot files",
     fbcdc::snapshotCommand},
    {"apply", "replay logs into a replica database, exactly once", fbcdc::applyCommand},
    {"compare", "compare two databases table by table", fbcdc::compareCommand},
    {"status", "how far behind each consumer of a directory is", fbcdc::statusCommand},
    {"prune", "remove or archive the logs every named consumer has taken",
     fbcdc::pruneCommand},
    {"demo", "capture, verify, apply and compare, on an embedded database", fbcdc::demoCommand},
};

const Command* find(const char* name) {
  for (const Command& c : kCommands)
    if (std::strcmp(c.name, name) == 0) return &c;
  return nullptr;
}

void usage(std::FILE* out) {
  std::fprintf(out,
               "usage: fbcdc COMMAND [OPTIONS] [ARGUMENTS]\n"
               "\n"
               "commands:\n");
  for (const Command& c : kCommands) std::fprintf(out, "  %-9s %s\n", c.name, c.help);
  std::fprintf(out,
               "\n"
               "\"fbcdc help COMMAND\" or \"fbcdc COMMAND --help\" describes a command;\n"
               "\"fbcdc --version\" prints the version.\n"
               "\n"
               "Exit status: 0 success; 1 failure: a damaged log, an unreadable file, a log that\n"
               "does not apply, a database error, a sink that refused a message, databases that\n"
               "differ; 2 wrong arguments.\n");
}

int runCommand(const Command& command, int argc, char** argv) {
  // The command sees "fbcdc NAME" as its program name.
  std::string program = std::string("fbcdc ") + command.name;
  argv[0] = &program[0];
  try {
    return command.run(argc, argv);
  } catch (const Firebird::FbException& e) {
    // A database error that no command turned into words of its own still ends in one line and
    // the failure status, never in an abort.
    fbcdc::complain(command.name, Database::describe(e));
    return fbcdc::kExitFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    usage(stderr);
    return fbcdc::kExitUsage;
  }
  const std::string first = argv[1];
  if (first == "--help" || first == "-h") {
    usage(stdout);
    return fbcdc::kExitOk;
  }
  if (first == "--version") {
    std::printf("fbcdc %s\n", FBCDC_VERSION);
    return fbcdc::kExitOk;
  }
  if (first == "help") {
    if (argc == 2) {
      usage(stdout);
      return fbcdc::kExitOk;
    }
    const Command* command = find(argv[2]);
    if (!command) {
      std::fprintf(stderr, "fbcdc help: unknown command \"%s\" (see fbcdc --help)\n", argv[2]);
      return fbcdc::kExitUsage;
    }
    char help[] = "--help";
    char* args[] = {argv[0], help, nullptr};
    return runCommand(*command, 2, args);
  }
  const Command* command = find(first.c_str());
  if (!command) {
    std::fprintf(stderr, "fbcdc: unknown command \"%s\" (see fbcdc --help)\n", first.c_str());
    return fbcdc::kExitUsage;
  }
  return runCommand(*command, argc - 1, argv + 1);
}
