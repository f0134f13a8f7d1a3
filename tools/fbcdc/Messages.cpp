#include "Messages.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace fbcdc {

namespace {

const char* word(Messages::Level level) {
  switch (level) {
    case Messages::Level::kError:
      return "error";
    case Messages::Level::kWarning:
      return "warning";
    case Messages::Level::kInfo:
      break;
  }
  return "info";
}

// Whether stderr is the stream JOURNAL_STREAM ("DEVICE:INODE") names: a child that inherited the
// variable but writes elsewhere is not logging to the journal.
bool stderrIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  unsigned long long device = 0, inode = 0;
  struct stat st {};
  return stream && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
         ::fstat(STDERR_FILENO, &st) == 0 && st.st_dev == device && st.st_ino == inode;
}

}  // namespace

Messages::Style Messages::style() {
  static const Style decided = [] {
    const char* chosen = std::getenv("FBCDC_LOG");
    if (chosen && std::strcmp(chosen, "plain") == 0) return Style::kPlain;
    if (chosen && std::strcmp(chosen, "journal") == 0) return Style::kJournal;
    if (chosen && std::strcmp(chosen, "time") == 0) return Style::kTime;
    return stderrIsJournal() ? Style::kJournal : Style::kPlain;
  }();
  return decided;
}

std::string Messages::prefix(Level level, Style style, std::int64_t now) {
  switch (style) {
    case Style::kPlain:
      return "";
    case Style::kJournal:
      return "<" + std::to_string(static_cast<int>(level)) + ">";
    case Style::kTime:
      break;
  }
  const time_t seconds = static_cast<time_t>(now / 1000000000);
  tm parts{};
  char text[48] = "";
  ::gmtime_r(&seconds, &parts);
  const std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + n, sizeof text - n, ".%03dZ ", static_cast<int>(now % 1000000000 / 1000000));
  return text + std::string(word(level)) + " ";
}

void Messages::print(Level level, const std::string& line) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const std::string text =
      prefix(level, style(), static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec) +
      line + "\n";
  // One write per line, so that lines of several threads do not interleave.
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace fbcdc
