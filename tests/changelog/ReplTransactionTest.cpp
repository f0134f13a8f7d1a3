#include "ReplTransaction.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "PluginFixture.h"

namespace {

using Strings = std::vector<std::string>;

// The byte stream a log should hold, built independently of the writer.
struct StreamModel {
  Bytes stream = bytesOf("ZEFO\x04");

  void statement(const char* text, std::int64_t number) { appendStatement(stream, text, number); }
  Bytes committed() const {
    Bytes s = stream;
    s.push_back(0x7B);
    return containerOf(s);
  }
};

std::string text(std::size_t n, char c) { return std::string(n, c); }

class ReplTransactionTest : public PluginFixture {
 protected:
  // Records the statements of the model into t.
  void record(ReplTransaction* t, StreamModel& model, int count, const std::string& prefix) {
    for (int i = 0; i < count; ++i) {
      const std::string sql = prefix + std::to_string(i);
      model.statement(sql.c_str(), i);
      ASSERT_EQ(0, t->executeSql(status, sql.c_str(), i)) << status.text();
    }
  }

  Strings logNames() const { return listDirectory(logs); }
};

TEST_F(ReplTransactionTest, StatementOnlyLogIsPublishedAs24Bytes) {
  PosixFaults::setTime(1700000000);
  ReplTransaction* t = begin(1234);
  EXPECT_EQ(logs + "000000006553f100_00000000000004d2.tmp", t->getFileName());
  ASSERT_EQ(0, t->executeSql(status, nullptr, 1));
  ASSERT_EQ(0, t->commit(status));
  EXPECT_EQ("5A 45 46 4F 04 53 00 00 13 00 00 01 00 00 00 00 00 00 00 7B 26 F4 89 80",
            hex(readFile(t->getFileName())));
  // The final name carries the time of dispose, taken anew.
  PosixFaults::setTime(1700000003);
  t->dispose();
  EXPECT_EQ(Strings{"000000006553f103_00000000000004d2.fbl"}, logNames());
  EXPECT_EQ(24u, readFile(logs + "000000006553f103_00000000000004d2.fbl").size());
  EXPECT_FALSE(status.hasErrors());
}

TEST_F(ReplTransactionTest, NothingRecordedLeavesNothing) {
  ReplTransaction* t = begin(7);
  EXPECT_EQ(0, t->commit(status));
  t->dispose();
  EXPECT_EQ(Strings{}, logNames());
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kOpen));
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kRemove));
}

// Statement texts as short texts: null and empty alike, up to 255 bytes; a longer text is refused
// before anything of its record is written.
TEST_F(ReplTransactionTest, StatementTexts) {
  struct Case {
    const char* name;
    std::string sql;
    bool null;
  };
  const Case cases[] = {
      {"null", "", true},
      {"empty", "", false},
      {"8 bytes", "SELECT 1", false},
      {"255 bytes", text(255, 'q'), false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PosixFaults::reset();
    StreamModel model;
    ReplTransaction* t = begin(1);
    const char* sql = c.null ? nullptr : c.sql.c_str();
    ASSERT_EQ(0, t->executeSql(status, sql, -2));
    model.statement(sql, -2);
    FbStatus refused;
    EXPECT_EQ(335544382, t->executeSql(refused, text(256, 'x').c_str(), 5));
    EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error: Statement text longer than 255 bytes"}),
              refused.errors());
    ASSERT_EQ(0, t->commit(status));
    EXPECT_EQ(model.committed(), readFile(t->getFileName()));
    t->dispose();
    for (const std::string& name : logNames()) ::remove((logs + name).c_str());
  }
}

TEST_F(ReplTransactionTest, UncommittedLogIsClosedOnceAndRemoved) {
  StreamModel model;
  ReplTransaction* t = begin(3);
  record(t, model, 3000, "INSERT INTO T VALUES ");  // several blocks
  const std::string name = t->getFileName();
  ASSERT_TRUE(fileExists(name));
  // The file holds the full blocks; the rest of the stream is still in the buffer.
  const std::size_t full = model.stream.size() / 32764 * 32764;
  ASSERT_GE(full, 2u * 32764);
  EXPECT_EQ(containerOf(Bytes(model.stream.begin(), model.stream.begin() + full)), readFile(name));
  const int closesBefore = PosixFaults::calls(PosixFaults::kClose);
  t->dispose();
  EXPECT_EQ(closesBefore + 1, PosixFaults::calls(PosixFaults::kClose));
  EXPECT_EQ(1, PosixFaults::calls(PosixFaults::kRemove));
  EXPECT_EQ(Strings{}, logNames());
}

// Header 5 + records 32758 + marker 1 = 32764: the marker fills the block, which is written by the
// put itself, and the closing flush writes nothing more.
TEST_F(ReplTransactionTest, CommitMarkerFillingTheBlockExactly) {
  StreamModel model;
  ReplTransaction* t = begin(9);
  const std::string longest = text(255, 'a'), rest = text(195, 'b');  // records of 269 and 209
  for (int i = 0; i < 121; ++i) {
    model.statement(longest.c_str(), i);
    ASSERT_EQ(0, t->executeSql(status, longest.c_str(), i));
  }
  model.statement(rest.c_str(), 0);
  ASSERT_EQ(0, t->executeSql(status, rest.c_str(), 0));
  ASSERT_EQ(32763u, model.stream.size());
  ASSERT_EQ(0, t->commit(status));
  const Bytes file = readFile(t->getFileName());
  EXPECT_EQ(32768u, file.size());
  EXPECT_EQ(model.committed(), file);
  EXPECT_EQ(1, PosixFaults::calls(PosixFaults::kWrite));
  t->dispose();
}

TEST_F(ReplTransactionTest, ExistingTemporaryFileIsLeftAlone) {
  PosixFaults::setTime(1700000000);
  const std::string name = logs + "000000006553f100_0000000000000005.tmp";
  writeFile(name, "not ours");
  ReplTransaction* t = begin(5);
  ASSERT_EQ(0, t->executeSql(status, "x", 1));
  EXPECT_EQ(335544382, t->commit(status));
  EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error Log file creation failed: File exists"}),
            status.errors());
  t->dispose();
  EXPECT_EQ(Strings{"000000006553f100_0000000000000005.tmp"}, logNames());
  EXPECT_EQ(bytesOf("not ours"), readFile(name));
}

// A commit whose file could not be created may be called again: the log then holds one commit
// marker, not two.
TEST_F(ReplTransactionTest, CommitAgainAfterTheFileCouldNotBeCreated) {
  ReplTransaction* t = begin(14);
  ASSERT_EQ(0, t->executeSql(status, nullptr, 1));
  PosixFaults::reset();
  PosixFaults::failAt(PosixFaults::kOpen, 1, EMFILE);
  FbStatus failed;
  EXPECT_EQ(335544382, t->commit(failed));
  EXPECT_EQ("CDC error Log file creation failed: Too many open files", failed.text());
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  ASSERT_EQ(1u, logNames().size());
  EXPECT_EQ("5A 45 46 4F 04 53 00 00 13 00 00 01 00 00 00 00 00 00 00 7B 26 F4 89 80",
            hex(readFile(logs + logNames()[0])));
}

TEST_F(ReplTransactionTest, WriteFailureInARecordIsNeverPublished) {
  StreamModel model;
  ReplTransaction* t = begin(12);
  PosixFaults::failAt(PosixFaults::kWrite, 2, ENOSPC);
  int failedAt = -1;
  for (int i = 0; i < 5000 && failedAt < 0; ++i)
    if (t->executeSql(status, "DELETE FROM T", i) != 0) failedAt = i;
  ASSERT_GT(failedAt, 0);
  EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error TF::WC-w: No space left on device"}),
            status.errors());
  FbStatus later;
  EXPECT_EQ(335544382, t->commit(later));
  EXPECT_EQ("CDC error TF::WC-w: Log writer stopped after an earlier write failure", later.text());
  t->dispose();
  EXPECT_EQ(Strings{}, logNames());
}

TEST_F(ReplTransactionTest, OperationsAfterCommit) {
  StreamModel model;
  ReplTransaction* t = begin(13);
  record(t, model, 2, "S");
  ASSERT_EQ(0, t->commit(status));
  const Bytes committed = readFile(t->getFileName());
  FbStatus after;
  EXPECT_EQ(335544382, t->executeSql(after, "late", 1));
  EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error: Transaction is already committed"}),
            after.errors());
  EXPECT_EQ(0, t->commit(status));
  t->startSavepoint(status, 1);
  t->rollbackSavepoint(1);
  t->releaseSavepoint(status, 1);
  EXPECT_EQ(committed, readFile(t->getFileName()));
  t->dispose();
  ASSERT_EQ(1u, logNames().size());
  EXPECT_EQ(model.committed(), readFile(logs + logNames()[0]));
}

// Fail the nth call of each kind in turn until a run reaches no fault: every run either publishes
// the whole log or leaves no log at all. Failures of the cleanup calls are ignored: a close that
// fails at commit still publishes, a rename that fails keeps the whole log as ".tmp".
TEST_F(ReplTransactionTest, EveryFaultLeavesAWholeLogOrNone) {
  const PosixFaults::Call kinds[] = {PosixFaults::kOpen, PosixFaults::kWrite, PosixFaults::kClose,
                                     PosixFaults::kRename, PosixFaults::kRemove};
  for (PosixFaults::Call kind : kinds) {
    for (int n = 1;; ++n) {
      SCOPED_TRACE("call kind " + std::to_string(kind) + ", failure at call " + std::to_string(n));
      PosixFaults::reset();
      PosixFaults::failAt(kind, n, EIO, true);
      StreamModel model;
      ReplTransaction* t = begin(100 + n);
      bool failed = false;
      for (int i = 0; i < 2500 && !failed; ++i) {
        const std::string sql = "INSERT " + std::to_string(i);
        model.statement(sql.c_str(), i);
        failed = t->executeSql(status, sql.c_str(), i) != 0;
      }
      failed = t->commit(status) != 0 || failed;
      t->dispose();
      const int fired = PosixFaults::fired();
      PosixFaults::reset();
      const Strings names = logNames();
      if (failed) {
        EXPECT_EQ(Strings{}, names) << status.text();
      } else {
        ASSERT_EQ(1u, names.size());
        const bool renameFailed = kind == PosixFaults::kRename && fired > 0;
        EXPECT_EQ(renameFailed ? ".tmp" : ".fbl", names[0].substr(33));
        EXPECT_EQ(model.committed(), readFile(logs + names[0]));
      }
      for (const std::string& name : names) ::remove((logs + name).c_str());
      if (fired == 0) break;
    }
  }
}

// Eight threads start, fill and commit their own transactions at once; every log is whole.
TEST_F(ReplTransactionTest, EightThreadsWriteTheirOwnLogs) {
  constexpr int kThreads = 8;
  StreamModel models[kThreads];
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i, &models] {
      FbStatus own;
      Firebird::IReplTransaction* t = plugin->startTransaction(own, 1000 + i);
      ASSERT_NE(nullptr, t);
      for (int k = 0; k < 700 * (i + 1); ++k) {
        const std::string sql = "thread " + std::to_string(i) + " statement " + std::to_string(k);
        models[i].statement(sql.c_str(), k * (i + 1));
        ASSERT_EQ(0, t->executeSql(own, sql.c_str(), k * (i + 1)));
      }
      ASSERT_EQ(0, t->commit(own));
      t->dispose();
    });
  }
  for (std::thread& th : threads) th.join();
  const Strings names = logNames();
  ASSERT_EQ(static_cast<std::size_t>(kThreads), names.size());
  for (int i = 0; i < kThreads; ++i) {
    char suffix[40];
    std::snprintf(suffix, sizeof suffix, "_%016x.fbl", 1000 + i);
    const std::string* found = nullptr;
    for (const std::string& n : names)
      if (n.substr(16) == suffix) found = &n;
    ASSERT_NE(nullptr, found) << suffix;
    EXPECT_EQ(models[i].committed(), readFile(logs + *found)) << *found;
  }
}

}  // namespace
