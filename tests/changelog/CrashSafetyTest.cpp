// A server killed at random moments while it writes: after every kill each ".fbl" is whole and
// valid, and every ".tmp" left behind is one that fbcdc verify tells complete or incomplete.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <random>

#include "LogVerifier.h"
#include "Processes.h"
#include "TestFiles.h"

namespace {

TEST(CrashSafetyTest, KilledWritersLeaveOnlyWholeLogs) {
  TempDir dir;
  const std::string logs = dir / "logs/";
  writeFile(dir / "plugin.conf", "OutputDirectory = " + logs + "\n");
#ifdef FBCDC_SANITIZED
  const int defaultKills = 80;
#else
  const int defaultKills = 300;
#endif
  const int kills =
      std::getenv("FBCDC_KILLS") ? std::atoi(std::getenv("FBCDC_KILLS")) : defaultKills;
  std::mt19937 random(2026);
  std::size_t published = 0, complete = 0, incomplete = 0;
  for (int kill = 0; kill < kills; ++kill) {
    const pid_t pid =
        spawn({FBCDC_CRASH_WRITER, FBCDC_PLUGIN_PATH, dir / "plugin.conf", std::to_string(kill)},
              dir / "ready", "/dev/null");
    ASSERT_GT(pid, 0);
    for (int wait = 0; wait < 3000 && readText(dir / "ready").empty(); ++wait) ::usleep(10000);
    ::usleep(2000 + random() % 25000);
    ASSERT_EQ(-1, stop(pid, SIGKILL)) << "the writer ended by itself";
    for (const std::string& name : listDirectory(logs)) {
      const LogVerifier::Result r = LogVerifier::verify(logs + name);
      using Verdict = LogVerifier::Verdict;
      ASSERT_NE(Verdict::kDamaged, r.verdict)
          << name << " damaged after kill " << kill << ": " << r.problems[0].reason;
      published += r.verdict == Verdict::kValid;
      complete += r.verdict == Verdict::kComplete;
      incomplete += r.verdict == Verdict::kIncomplete;
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
