#include "Command.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>

#include "LogDirectory.h"

namespace fbcdc {

void complain(const char* command, const std::string& text) {
  std::fprintf(stderr, "fbcdc %s: %s\n", command, text.c_str());
}

int parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    std::fprintf(stderr, "%s: %s (see %s --help)\n", app.get_name().c_str(), e.what(),
                 app.get_name().c_str());
    return kExitUsage;
  }
  return -1;
}

EventFormat OutputOptions::eventFormat() const {
  EventFormat f;
  f.decimalAsDouble = decimal == "double";
  f.blobsAsText = blobs == "text";
  f.transactions = transactions;
  return f;
}

void addOutputOptions(CLI::App& app, OutputOptions& o) {
  app.add_option("--format", o.format,
                 "json: JSON Lines, one event per line (default); text: a listing")
      ->check(CLI::IsMember({"json", "text"}));
  app.add_option("--decimal", o.decimal,
                 "scaled integers as exact decimal strings (string, default) or numbers (double)")
      ->check(CLI::IsMember({"string", "double"}));
  app.add_option("--blobs", o.blobs, "blob contents as base64 (default) or as UTF-8 text")
      ->check(CLI::IsMember({"base64", "text"}));
  app.add_flag("--transactions", o.transactions,
               "a BEGIN line before and an END line after each log's events");
}

LogRange RangeOptions::range() const {
  LogRange r;
  auto time = [](const std::string& text, const char* option) {
    std::int64_t seconds;
    if (!LogRange::parseTime(text, seconds))
      throw CLI::ValidationError(option, "\"" + text +
                                             "\" is not a time (2023-11-14T22:13:23Z, "
                                             "2023-11-14 or @1700000003)");
    return seconds;
  };
  if (!since.empty()) r.since = time(since, "--since");
  if (!until.empty()) r.until = time(until, "--until");
  if (!from.empty()) r.from = from;
  if (!to.empty()) r.to = to;
  return r;
}

void addRangeOptions(CLI::App& app, RangeOptions& o) {
  app.add_option("--since", o.since, "only logs published at or after this time (UTC)");
  app.add_option("--until", o.until, "only logs published before this time (UTC)");
  app.add_option("--from", o.from, "only logs whose name sorts at or after this name");
  app.add_option("--to", o.to, "only logs whose name sorts at or before this name");
}

std::vector<LogFile> expandPaths(const std::vector<std::string>& paths, bool withTemporary,
                                 bool settled) {
  std::vector<LogFile> logs;
  for (const std::string& path : paths) {
    if (LogDirectory::isDirectory(path)) {
      const auto which =
          withTemporary ? LogDirectory::Which::kBoth : LogDirectory::Which::kPublished;
      for (LogFile& log : LogDirectory::list(path, which, settled)) logs.push_back(std::move(log));
      continue;
    }
    LogFile log;
    if (!LogFile::examine(path, log)) {
      // A file named otherwise (a copy, say) is read all the same; its name tells nothing.
      if (::access(path.c_str(), R_OK) != 0)
        throw std::runtime_error(path + ": no such file or directory, or not readable");
      log = LogFile();
      log.path = path;
      log.name = LogName::baseName(path);
      log.parsed.published = true;
    }
    logs.push_back(std::move(log));
  }
  return logs;
}

}  // namespace fbcdc
