// A follower over a large directory: how long until it hands over the first log of a backlog, how
// long a look at the directory takes once everything is taken, and whether an idle follower's
// memory grows. FBCDC_BENCH_LOGS sets the largest directory (default 1000000; the test run's is
// small). The logs are empty files named over the last hours, as a busy server leaves them.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>

#include "BenchSupport.h"
#include "LogFollower.h"

namespace {

std::int64_t largestDirectory() {
  const char* text = std::getenv("FBCDC_BENCH_LOGS");
  return text ? std::atoll(text) : 1000000;
}

// A directory of n logs named over the two hours before now; made once per size.
std::string directoryOf(std::int64_t n) {
  const std::string dir = bench::scratchDirectory() + "follow-" + std::to_string(n) + "/";
  if (::access((dir + ".complete").c_str(), F_OK) == 0) return dir;
  (void)!std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "'").c_str());
  const std::int64_t now = std::time(nullptr);
  char name[64];
  for (std::int64_t i = 0; i < n; ++i) {
    std::snprintf(name, sizeof name, "%016llx_%016llx.fbl",
                  static_cast<long long>(now - 7200 + i * 7200 / n),
                  static_cast<unsigned long long>(i + 1));
    ::close(::open((dir + name).c_str(), O_CREAT | O_WRONLY, 0644));
  }
  ::close(::open((dir + ".complete").c_str(), O_CREAT | O_WRONLY, 0644));
  return dir;
}

void FollowBacklog(benchmark::State& state) {
  const std::int64_t n = std::min<std::int64_t>(state.range(0), largestDirectory());
  const std::string dir = directoryOf(n);
  double toFirst = 0, idleLook = 0;
  long growth = 0;
  for (auto _ : state) {
    FollowPosition position;
    LogFollower follower(dir, LogRange());
    const auto start = std::chrono::steady_clock::now();
    bool first = true;
    std::int64_t taken = 0;
    follower.run(
        position,
        [&](const LogFile&) {
          if (first) toFirst = std::chrono::duration<double>(std::chrono::steady_clock::now() -
                                                             start)
                                   .count();
          first = false;
          ++taken;
        },
        [](const FollowPosition&) {}, true);
    if (taken != n) state.SkipWithError("not every log was taken");
    // Idle: each look finds nothing new. Memory is compared between the tenth and the last.
    const int looks = 40;
    long afterTen = 0;
    const auto idle = std::chrono::steady_clock::now();
    for (int i = 0; i < looks; ++i) {
      LogFollower again(dir, LogRange());
      again.run(position, [&](const LogFile&) { ++taken; }, [](const FollowPosition&) {}, true);
      if (i == 9) afterTen = bench::residentKiB();
    }
    idleLook = std::chrono::duration<double>(std::chrono::steady_clock::now() - idle).count() /
               looks;
    growth = bench::residentKiB() - afterTen;
    if (taken != n) state.SkipWithError("an idle look took a log again");
  }
  state.counters["logs"] = static_cast<double>(n);
  state.counters["first_event_s"] = toFirst;
  state.counters["idle_look_ms"] = idleLook * 1000;
  state.counters["idle_rss_growth_KiB"] = static_cast<double>(growth);
}

}  // namespace

BENCHMARK(FollowBacklog)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();
