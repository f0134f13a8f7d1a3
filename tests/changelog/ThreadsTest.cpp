// 32 threads share one plugin, each with 200 random transactions (TransactionScript), one in ten
// failing with a write error of the thread's own errno: every log decodes to what its thread wrote,
// a failed transaction leaves nothing, and every failure text is the thread's own. The test
// command runs it under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

#include "PluginFixture.h"
#include "TransactionScript.h"

namespace {

using ThreadsTest = PluginFixture;

TEST_F(ThreadsTest, ThirtyTwoThreadsKeepTheirLogsAndTexts) {
  static const int kErrors[] = {EIO, ENOSPC, EACCES, EINTR, EROFS, EDQUOT, EFBIG, EPERM};
  const char* count = std::getenv("FBCDC_THREAD_TRANSACTIONS");
  const int transactions = count ? std::atoi(count) : 200;
  std::vector<std::thread> workers;
  std::vector<std::string> problems(32);
  for (int w = 0; w < 32; ++w) {
    workers.emplace_back([&, w] {
      std::mt19937 random(static_cast<unsigned>(w));
      const std::string own = std::string("CDC error TF::WC-w: ") + std::strerror(kErrors[w % 8]);
      for (int k = 0; k < transactions && problems[w].empty(); ++k) {
        const bool fails = random() % 10 == 0;
        if (fails) PosixFaults::failInThisThread(PosixFaults::kWrite, 1, kErrors[w % 8]);
        const Bytes input = randomBytes(random() % 2048, random());
        TransactionScript script(input.data(), input.size(), true);
        const std::string problem = script.play(plugin, w * 100000 + k, logs);
        PosixFaults::failInThisThread(PosixFaults::kWrite, 0, 0);
        // A write that failed: the first failure reported is the thread's own, and nothing is left.
        const std::size_t at = problem.find(": ");
        if (!(fails && at != std::string::npos && problem.substr(at + 2) == own))
          problems[w] = problem;
        if (!script.published.empty()) ::unlink(script.published.c_str());
      }
    });
  }
  for (std::thread& t : workers) t.join();
  for (int w = 0; w < 32; ++w) EXPECT_EQ("", problems[w]) << "thread " << w;
}

}  // namespace
