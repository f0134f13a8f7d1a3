// fbcdc follow: streams the events of a directory's logs as they are published.
#include <cstdio>

#include "CheckpointFile.h"
#include "Command.h"
#include "LogDirectory.h"
#include "LogFollower.h"
#include "StreamSink.h"

namespace fbcdc {

int followCommand(int argc, char** argv) {
  CLI::App app(
      "Prints the events of every published log of a directory in publication order, "
      "then waits for new ones. After each log the checkpoint file (if given) names the "
      "last log emitted in full; a restarted follower goes on after it. SIGINT and SIGTERM "
      "stop it after the current log.",
      argv[0]);
  std::string directory;
  std::string checkpointPath;
  bool once = false;
  OutputOptions output;
  RangeOptions ranges;
  app.add_option("DIR", directory, "the plugin's output directory")->required();
  app.add_option("--checkpoint", checkpointPath, "file that keeps the position between runs");
  app.add_flag("--once", once, "handle the logs present, then exit");
  addOutputOptions(app, output);
  addRangeOptions(app, ranges);
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  LogRange range;
  try {
    range = ranges.range();
  } catch (const CLI::ValidationError& e) {
    complain("follow", e.what());
    return kExitUsage;
  }
  if (!LogDirectory::isDirectory(directory)) {
    complain("follow", directory + ": not a directory");
    return kExitFailed;
  }

  try {
    CheckpointFile checkpoint(checkpointPath);
    FollowPosition position;
    if (!checkpointPath.empty()) position = FollowPosition::parse(checkpoint.load());
    auto writer = EventWriter::create(output.format, output.eventFormat());
    StreamSink sink(*writer, stdout);
    LogFollower::stopOnSignals();
    LogFollower follower(directory, range);
    follower.run(
        position, [&](const LogFile& log) { sink.send(log); },
        [&](const FollowPosition& p) {
          if (!checkpointPath.empty()) checkpoint.store(p.serialize());
        },
        once);
  } catch (const std::exception& e) {
    complain("follow", e.what());
    return kExitFailed;
  }
  return kExitOk;
}

}  // namespace fbcdc
