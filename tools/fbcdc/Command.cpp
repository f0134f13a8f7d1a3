#include "Command.h"

#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "LogDirectory.h"
#include "Messages.h"
#include "SnapshotFiles.h"

namespace fbcdc {

void complain(const char* command, const std::string& text) {
  const bool warning = text.compare(0, 9, "warning: ") == 0;
  Messages::print(warning ? Messages::Level::kWarning : Messages::Level::kError,
                  std::string("fbcdc ") + command + ": " + text);
}

int refuse(const char* command, const std::string& text) {
  Messages::print(Messages::Level::kError, std::string("fbcdc ") + command + ": " + text +
                                               " (see fbcdc " + command + " --help)");
  return kExitUsage;
}

namespace {

// "a", "a or b", "a, b or c".
std::string alternatives(const std::vector<std::string>& words) {
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i)
    text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
  return text;
}

// Breaks text into lines of at most width columns, at spaces.
std::string wrap(const std::string& text, std::size_t width) {
  std::string out, line;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (!line.empty() && line.size() + 1 + word.size() > width) {
      out += line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  return out + line;
}

// The option a message of CLI11 begins with ("--format: ...", "Could not convert: --once = x").
const CLI::Option* optionIn(const CLI::App& app, const std::string& message) {
  std::istringstream words(message);
  for (std::string word; words >> word;) {
    if (!word.empty() && word.back() == ':') word.pop_back();
    if (word.size() > 1 && word[0] == '-')
      if (const CLI::Option* o = app.get_option_no_throw(word)) return o;
  }
  return nullptr;
}

// What went wrong, in the words of fbcdc's other errors rather than CLI11's.
std::string describe(const CLI::App& app, const CLI::ParseError& e) {
  const std::string message = e.what();
  const CLI::Option* option = optionIn(app, message);
  const std::string name = option ? option->get_name() : "";
  if (dynamic_cast<const CLI::RequiredError*>(&e)) {
    for (const CLI::Option* o : app.get_options())
      if (o->get_required() && o->count() == 0) return o->get_name() + " missing";
  } else if (dynamic_cast<const CLI::ValidationError*>(&e)) {
    return message;  // "--format: xml is not json or text", worded by the checks below
  } else if (dynamic_cast<const CLI::ArgumentMismatch*>(&e) && option) {
    return name + (message.find("missing") != std::string::npos ? " needs a value"
                                                                : " given more than once");
  } else if (dynamic_cast<const CLI::ConversionError*>(&e) && option &&
             option->get_expected_min() == 0) {
    return name + " takes no value";
  }
  return message;
}

}  // namespace

CLI::Option* choice(CLI::Option* option, const std::vector<std::string>& choices) {
  std::string names;
  for (const std::string& c : choices) names += (names.empty() ? "" : "|") + c;
  return option->type_name(names)->check(CLI::Validator(
      [choices](std::string& value) -> std::string {
        for (const std::string& c : choices)
          if (value == c) return "";
        return value + " is not " + alternatives(choices);
      },
      ""));
}

CLI::Option* wholeNumber(CLI::Option* option, long long min, long long max) {
  option->type_name("N");
  return option->check(CLI::Validator(
      [min, max](std::string& value) -> std::string {
        errno = 0;
        char* end = nullptr;
        const long long n = std::strtoll(value.c_str(), &end, 10);
        const bool number = !value.empty() && *end == '\0' && errno == 0 &&
                            value.find_first_not_of("-0123456789") == std::string::npos;
        if (number && n >= min && n <= max) return "";
        return value + " is not a whole number " +
               (max == LLONG_MAX ? "of at least " + std::to_string(min)
                                 : "from " + std::to_string(min) + " to " + std::to_string(max));
      },
      ""));
}

int parse(CLI::App& app, int argc, char** argv) {
  // Every command's help and complaints in one style: short lines, fbcdc's own words.
  app.description(wrap(app.get_description(), 78));
  app.set_help_flag("-h,--help", "print this help and exit");
  app.get_formatter()->label("REQUIRED", "(required)");
  app.get_formatter()->column_width(30);
  std::string footer;
  std::istringstream lines(app.get_footer());
  // A footer's line that fits keeps its own spacing (columns of a table); a longer one is wrapped.
  for (std::string line; std::getline(lines, line);)
    footer += (line.size() <= 78 ? line : wrap(line, 78)) + "\n";
  app.footer(footer + "Details: docs/commands.md");
  app.allow_extras();
  for (CLI::Option* o : app.get_options())
    if (o->get_positional()) o->type_name("");  // its name says what it is
  const std::string command = app.get_name().substr(app.get_name().find(' ') + 1);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return kExitOk;
  } catch (const CLI::ParseError& e) {
    return refuse(command.c_str(), describe(app, e));
  }
  if (!app.remaining().empty()) {
    const std::string extra = app.remaining().front();
    return refuse(
        command.c_str(),
        (extra.size() > 1 && extra[0] == '-' ? "unknown option " : "unexpected argument ") + extra);
  }
  return -1;
}

EventFormat OutputOptions::eventFormat() const {
  EventFormat f;
  f.decimalAsDouble = decimal == "double";
  f.bigintAsNumber = bigint == "number";
  f.blobsAsText = blobs == "text";
  f.transactions = transactions;
  return f;
}

void addOutputOptions(CLI::App& app, OutputOptions& o) {
  choice(app.add_option("--format", o.format, "JSON Lines (default) or a listing"),
         {"json", "text"});
  choice(app.add_option("--decimal", o.decimal, "scaled integers as exact strings (default)"),
         {"string", "double"});
  choice(app.add_option("--bigint", o.bigint, "64-bit integers as exact strings (default)"),
         {"string", "number"});
  choice(app.add_option("--blobs", o.blobs, "blob contents as base64 (default) or text"),
         {"base64", "text"});
  app.add_flag("--transactions", o.transactions, "a BEGIN and an END line around each log");
}

namespace {

// A time in one of the three forms the help names, all UTC; a time of day without its Z is refused,
// since it reads as local time.
bool isTimeForm(const std::string& text) {
  auto shaped = [&text](const char* pattern) {  // 9: a digit
    if (text.size() != std::strlen(pattern)) return false;
    for (std::size_t i = 0; i < text.size(); ++i)
      if (pattern[i] == '9' ? !std::isdigit(static_cast<unsigned char>(text[i]))
                            : text[i] != pattern[i])
        return false;
    return true;
  };
  if (text.size() > 1 && text[0] == '@')
    return text.find_first_not_of("0123456789", 1) == std::string::npos;
  return shaped("9999-99-99") || shaped("9999-99-99T99:99:99Z");
}

}  // namespace

LogRange RangeOptions::range() const {
  LogRange r;
  auto time = [](const std::string& text, const char* option) {
    std::int64_t seconds;
    if (!isTimeForm(text) || !LogRange::parseTime(text, seconds))
      throw CLI::ValidationError(std::string(option) + ": " + text +
                                 " is not a time; give 2023-11-14T22:13:20Z, 2023-11-14 or "
                                 "@1700000000 (UTC)");
    return seconds;
  };
  if (!since.empty()) r.since = time(since, "--since");
  if (!until.empty()) r.until = time(until, "--until");
  if (!from.empty()) r.from = from;
  if (!to.empty()) r.to = to;
  return r;
}

void addRangeOptions(CLI::App& app, RangeOptions& o) {
  app.add_option("--since", o.since, "logs published at or after TIME")->type_name("TIME");
  app.add_option("--until", o.until, "logs published before TIME")->type_name("TIME");
  app.add_option("--from", o.from, "logs named NAME or later")->type_name("NAME");
  app.add_option("--to", o.to, "logs named NAME or earlier")->type_name("NAME");
  app.footer("TIME: 2023-11-14T22:13:20Z, 2023-11-14 or @1700000000, all UTC.");
}

std::vector<LogFile> expandPaths(const std::vector<std::string>& paths, bool withTemporary,
                                 bool settled) {
  std::vector<LogFile> logs;
  for (const std::string& path : paths) {
    if (expandSnapshot(path, logs)) continue;
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
