// fbcdc dump: the events of logs on stdout.
#include <cstdio>

#include "Command.h"
#include "LogFormatError.h"
#include "Progress.h"
#include "StreamSink.h"

namespace fbcdc {

int dumpCommand(int argc, char** argv) {
  CLI::App app(
      "Prints the events of change logs, as JSON Lines or as a listing. A directory stands for "
      "its published logs in publication order.",
      argv[0]);
  std::vector<std::string> paths;
  OutputOptions output;
  RangeOptions ranges;
  app.add_option("FILE|DIR", paths, "logs, or directories of logs")->required();
  addOutputOptions(app, output);
  addRangeOptions(app, ranges);
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  LogRange range;
  std::vector<LogFile> logs;
  try {
    range = ranges.range();
    logs = expandPaths(paths, false);
    if (logs.empty()) complain("dump", "no published logs there");  // a note; nothing failed
  } catch (const CLI::ValidationError& e) {
    return refuse("dump", e.what());
  } catch (const std::exception& e) {
    complain("dump", e.what());
    return kExitFailed;
  }

  const EventFormat format = output.eventFormat();
  auto writer = EventWriter::create(output.format, format);
  static char buffer[1 << 16];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  StreamSink sink(*writer, stdout);
  Progress progress("dump", logs.size());
  int status = kExitOk;
  for (std::size_t i = 0; i < logs.size(); ++i) {
    if (!range.contains(logs[i])) continue;
    progress.update(i, logs[i].name);
    try {
      sink.send(logs[i]);
    } catch (const LogFormatError& e) {
      // What was decoded before the damage has been printed; the other logs follow.
      std::string partial(writer->pending());
      writer->clear();
      std::fwrite(partial.data(), 1, partial.size(), stdout);
      std::fflush(stdout);
      complain("dump", e.what());
      status = kExitFailed;
    } catch (const std::exception& e) {
      complain("dump", e.what());
      return kExitFailed;
    }
  }
  return status;
}

}  // namespace fbcdc
