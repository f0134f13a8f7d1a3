// 32 threads, each with 200 transactions with savepoints, some failing with an errno of the
// thread's own: every published log is what its thread wrote, every failure text the thread's own.
// The test command runs it under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <random>
#include <thread>

#include "IReplTransaction.h"
#include "PluginFixture.h"

namespace {

class ThreadsTest : public PluginFixture {};

TEST_F(ThreadsTest, ThirtyTwoThreadsKeepTheirLogsAndTexts) {
  PosixFaults::setTime(1700000000);
  static const int kErrors[] = {EIO, ENOSPC, EACCES, EINTR, EROFS, EDQUOT, EFBIG, EPERM};
  const int threads = 32;
  const int transactions = std::getenv("FBCDC_THREAD_TRANSACTIONS")
                               ? std::atoi(std::getenv("FBCDC_THREAD_TRANSACTIONS"))
                               : 200;
  std::vector<std::thread> workers;
  std::vector<std::string> problems(threads);
  for (int w = 0; w < threads; ++w) {
    workers.emplace_back([&, w] {
      std::mt19937 random(static_cast<unsigned>(w));
      const int error = kErrors[w % 8];
      const std::string expectedText = std::string("CDC error TF::WC-w: ") + std::strerror(error);
      for (int k = 0; k < transactions && problems[w].empty(); ++k) {
        const std::uint64_t number = static_cast<std::uint64_t>(w) * 100000 + k;
        FbStatus st;
        Firebird::IReplTransaction* t = plugin->startTransaction(st, number);
        if (random() % 10 == 0) PosixFaults::failInThisThread(PosixFaults::kWrite, 1, error);
        Bytes model = bytesOf("ZEFO\x04");
        std::vector<std::pair<int, std::size_t>> savepoints;
        bool failed = false;
        const int records = static_cast<int>(random() % 400);
        for (int i = 0; i < records && !failed; ++i) {
          if (random() % 40 == 0) {
            t->startSavepoint(st, i);
            savepoints.emplace_back(i, model.size());
          } else if (random() % 60 == 0 && !savepoints.empty()) {
            // The newest savepoint: its records leave no trace.
            t->rollbackSavepoint(savepoints.back().first);
            model.resize(savepoints.back().second);
            savepoints.pop_back();
          }
          const std::string sql = std::to_string(w) + "/" + std::to_string(k) + "/" +
                                  std::string(random() % 200, 'a' + w % 26);
          appendStatement(model, sql.c_str(), i);
          failed = t->executeSql(st, sql.c_str(), i) != 0;
        }
        if (!failed) failed = t->commit(st) != 0;
        t->dispose();
        PosixFaults::failInThisThread(PosixFaults::kWrite, 0, 0);
        char name[64];
        std::snprintf(name, sizeof name, "000000006553f100_%016llx.fbl",
                      static_cast<unsigned long long>(number));
        const bool published = fileExists(logs + name);
        if (failed != (published == false) && model.size() > 5) {
          problems[w] = std::string(name) + (failed ? " published after a failure" : " missing");
        } else if (failed && st.text() != expectedText) {
          problems[w] = "failure text \"" + st.text() + "\", not \"" + expectedText + "\"";
        } else if (published) {
          model.push_back(0x7B);
          if (readFile(logs + name) != containerOf(model))
            problems[w] = std::string(name) + " differs";
          ::unlink((logs + name).c_str());
        }
      }
    });
  }
  for (std::thread& t : workers) t.join();
  for (int w = 0; w < threads; ++w) EXPECT_EQ("", problems[w]) << "thread " << w;
}

}  // namespace
