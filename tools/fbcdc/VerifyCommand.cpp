// fbcdc verify: checks logs block by block and record by record.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "Command.h"
#include "LogVerifier.h"
#include "Progress.h"

namespace fbcdc {

int verifyCommand(int argc, char** argv) {
  CLI::App app(
      "Checks every block's CRC-32C and the whole structure of change logs. A directory "
      "stands for its published and temporary logs. Prints one line per problem (file, "
      "block, log position, reason), one line per temporary log, and a summary; exit "
      "status 0 only when every published log is valid.",
      argv[0]);
  std::vector<std::string> paths;
  bool quiet = false;
  app.add_option("FILE|DIR", paths, "logs, or directories of logs")->required();
  app.add_flag("-q,--quiet", quiet, "leave out the summary line");
  if (const int status = parse(app, argc, argv); status >= 0) return status;

  std::vector<LogFile> logs;
  try {
    logs = expandPaths(paths, true);
    if (logs.empty()) complain("verify", "no logs there");  // a note; nothing failed
    // A verdict speaks of a file at rest: a pipe would be read once and found short, a device
    // such as /dev/zero never ends.
    for (const LogFile& log : logs) {
      struct stat st;
      if (::stat(log.path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        throw std::runtime_error(log.path + ": not a regular file");
    }
  } catch (const std::exception& e) {
    complain("verify", e.what());
    return kExitFailed;
  }

  std::size_t counts[4] = {0, 0, 0, 0};
  Progress progress("verify", logs.size());
  for (std::size_t i = 0; i < logs.size(); ++i) {
    progress.update(i, logs[i].name);
    const LogVerifier::Result r = LogVerifier::verify(logs[i].path);
    ++counts[static_cast<int>(r.verdict)];
    const char* path = logs[i].path.c_str();
    switch (r.verdict) {
      case LogVerifier::Verdict::kValid:
        break;
      case LogVerifier::Verdict::kComplete:
        std::printf("%s: %s (%u events)\n", path, LogVerifier::describe(r.verdict), r.events);
        break;
      case LogVerifier::Verdict::kIncomplete:
      case LogVerifier::Verdict::kDamaged:
        for (const LogVerifier::Problem& p : r.problems) {
          std::printf("%s: %s: block %lld, log position %lld: %s\n", path,
                      LogVerifier::describe(r.verdict), static_cast<long long>(p.block),
                      static_cast<long long>(p.position), p.reason.c_str());
        }
        break;
    }
  }
  const std::size_t damaged = counts[static_cast<int>(LogVerifier::Verdict::kDamaged)];
  if (!quiet) {
    std::printf(
        "%zu published logs: %zu valid, %zu damaged; %zu temporary: %zu complete but "
        "never published, %zu incomplete\n",
        counts[0] + counts[1], counts[0], damaged, counts[2] + counts[3], counts[2], counts[3]);
  }
  // A report that did not reach its reader is no verdict.
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    complain("verify", std::string("cannot write the output: ") + std::strerror(errno));
    return kExitFailed;
  }
  return damaged == 0 ? kExitOk : kExitFailed;
}

}  // namespace fbcdc
