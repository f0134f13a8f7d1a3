// A server killed at random moments while it writes: after every kill each ".fbl" is whole and
// valid, and every ".tmp" left behind is one that fbcdc verify tells complete or incomplete.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "LogVerifier.h"
#include "PluginFixture.h"

extern char** environ;

namespace {

TEST(CrashSafetyTest, KilledWritersLeaveOnlyWholeLogs) {
  TempDir dir;
  const std::string logs = dir / "logs/";
  writeFile(dir / "plugin.conf", "OutputDirectory = " + logs + "\n");
  const int kills = std::getenv("FBCDC_KILLS") ? std::atoi(std::getenv("FBCDC_KILLS")) : 300;
  std::mt19937 random(2026);
  std::size_t published = 0, complete = 0, incomplete = 0;
  for (int kill = 0; kill < kills; ++kill) {
    std::string args[] = {FBCDC_CRASH_WRITER, FBCDC_PLUGIN_PATH, dir / "plugin.conf",
                          std::to_string(kill)};
    char* argv[] = {&args[0][0], &args[1][0], &args[2][0], &args[3][0], nullptr};
    pid_t pid;
    ASSERT_EQ(0, posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ));
    ::usleep(2000 + random() % 25000);
    ::kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself: " << status;
    for (const std::string& name : listDirectory(logs)) {
      const LogVerifier::Result r = LogVerifier::verify(logs + name);
      switch (r.verdict) {
        case LogVerifier::Verdict::kValid:
          ++published;
          break;
        case LogVerifier::Verdict::kDamaged:
          FAIL() << name << " damaged after kill " << kill << ": " << r.problems[0].reason;
        case LogVerifier::Verdict::kComplete:
          ++complete;
          break;
        case LogVerifier::Verdict::kIncomplete:
          ++incomplete;
          break;
      }
      // Checked once: what a later kill finds is new.
      ::unlink((logs + name).c_str());
    }
  }
  std::printf("%d kills: %zu whole logs, %zu temporary logs complete, %zu incomplete\n", kills,
              published, complete, incomplete);
  EXPECT_GT(published, 0u);
  EXPECT_GT(incomplete, 0u);
}

}  // namespace
