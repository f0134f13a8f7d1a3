// The life of one log: its name, publication at commit and removal otherwise, statement records,
// savepoints (a rolled-back one leaves no trace, also when the rewind reaches into blocks on disk),
// and failures of the calls that create, write, position, read, cut, close, rename and remove it.
#include "ReplTransaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <random>

#include "LiteralRow.h"
#include "PluginFixture.h"
#include "TReadFile.h"

namespace {

const char kStatementLog[] =
    "5A 45 46 4F 04 53 00 00 13 00 00 01 00 00 00 00 00 00 00 7B 26 F4 89 80";
const Bytes kHeader = bytesOf("ZEFO\x04");

class ReplTransactionTest : public PluginFixture {
 protected:
  // Records one statement into t and appends its bytes to model.
  void statement(ReplTransaction* t, Bytes& model, const std::string& sql, std::int64_t number) {
    appendStatement(model, sql.c_str(), number);
    ASSERT_EQ(0, t->executeSql(status, sql.c_str(), number)) << status.text();
  }

  // Commits and disposes t, and checks that exactly the model stream and the commit marker were
  // published.
  void commitAndCheck(ReplTransaction* t, Bytes model) {
    ASSERT_EQ(0, t->commit(status)) << status.text();
    t->dispose();
    model.push_back(0x7B);
    EXPECT_EQ(containerOf(model), readFile(publishedLog()));
    clearLogs();
  }
};

using SavepointTest = ReplTransactionTest;

// The names carry the start's and the dispose's time. A text over 255 bytes is refused before its
// record starts; after commit records are refused, and commit and savepoints do nothing.
TEST_F(ReplTransactionTest, StatementOnlyLogIsPublishedAs24Bytes) {
  PosixFaults::setTime(1700000000);
  ReplTransaction* t = begin(1234);
  EXPECT_EQ(logs + "000000006553f100_00000000000004d2.tmp", t->getFileName());
  ASSERT_EQ(0, t->executeSql(status, nullptr, 1));
  EXPECT_EQ(335544382, t->executeSql(status, std::string(256, 'x').c_str(), 5));
  EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error: Statement text longer than 255 bytes"}),
            status.errors());
  ASSERT_EQ(0, t->commit(status));
  EXPECT_EQ(kStatementLog, hex(readFile(t->getFileName())));
  LiteralRow row("T");
  row.addLong("A", 1);
  const std::function<std::int32_t(FbStatus&)> late[] = {
      [&](FbStatus& st) { return t->executeSql(st, "late", 1); },
      [&](FbStatus& st) { return t->insertRecord(st, nullptr, nullptr, &row); },
      [&](FbStatus& st) { return t->updateRecord(st, nullptr, nullptr, &row, &row); },
      [&](FbStatus& st) { return t->deleteRecord(st, nullptr, nullptr, &row); },
  };
  for (const auto& op : late) {
    FbStatus st;
    EXPECT_EQ(335544382, op(st));
    EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error: Transaction is already committed"}),
              st.errors());
  }
  EXPECT_EQ(0, t->commit(status));
  t->startSavepoint(status, 1);
  t->rollbackSavepoint(1);
  t->releaseSavepoint(status, 1);
  PosixFaults::setTime(1700000003);
  t->dispose();
  EXPECT_EQ(Strings{"000000006553f103_00000000000004d2.fbl"}, listDirectory(logs));
  EXPECT_EQ(kStatementLog, hex(readFile(publishedLog())));
}

// Starting, committing and disposing a transaction that recorded nothing touches no file, and
// neither does one disposed without a commit.
TEST_F(ReplTransactionTest, NothingRecordedLeavesNothing) {
  ReplTransaction* committedOne = begin(7);
  ReplTransaction* abandoned = begin(8);
  EXPECT_EQ(0, committedOne->commit(status));
  committedOne->dispose();
  abandoned->dispose();
  EXPECT_EQ(Strings{}, listDirectory(logs));
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kOpen) + PosixFaults::calls(PosixFaults::kRemove));
}

// Header 5 + 121 records of 269 + one of 209 + marker 1 = 32764: the marker fills the block, which
// the put writes itself, and the closing flush writes nothing more.
TEST_F(ReplTransactionTest, CommitMarkerFillingTheBlockExactly) {
  Bytes model = kHeader;
  ReplTransaction* t = begin(9);
  for (int i = 0; i < 122; ++i) statement(t, model, std::string(i < 121 ? 255 : 195, 'a'), i);
  ASSERT_EQ(32763u, model.size());
  commitAndCheck(t, model);
  EXPECT_EQ(1, PosixFaults::calls(PosixFaults::kWrite));
}

// A file of the temporary name that someone else made is never written, nor removed. A commit whose
// file could not be created may be called again: the log then holds one commit marker, not two.
TEST_F(ReplTransactionTest, FileCreationFailsAtCommit) {
  PosixFaults::setTime(1700000000);
  const std::string name = logs + "000000006553f100_0000000000000005.tmp";
  writeFile(name, "not ours");
  for (bool retry : {false, true}) {
    SCOPED_TRACE(retry ? "committed again" : "given up");
    ReplTransaction* t = begin(5);
    ASSERT_EQ(0, t->executeSql(status, nullptr, 1));
    EXPECT_EQ(335544382, t->commit(status));
    EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error Log file creation failed: File exists"}),
              status.errors());
    EXPECT_EQ(bytesOf("not ours"), readFile(name));
    if (retry) {
      ::remove(name.c_str());
      EXPECT_EQ(0, t->commit(status)) << status.text();
    }
    t->dispose();
  }
  EXPECT_EQ(kStatementLog, hex(readFile(publishedLog())));
}

// A savepoint right after the first block filled (also while it waits for a file that could not be
// created) starts at the next block: its rollback reads that block back only once it was written.
TEST_F(SavepointTest, SavepointAtABlockStart) {
  for (bool creationFails : {false, true}) {
    for (bool blockWrittenSince : {false, true}) {
      SCOPED_TRACE(std::string(creationFails ? "file creation failed, " : "") +
                   (blockWrittenSince ? "block written since" : "block still buffered"));
      PosixFaults::reset();
      ReplTransaction* t = begin(5);
      Bytes model = kHeader;
      // 121 records of 269 bytes and one of 210 fill the first block exactly.
      for (int i = 0; i < 121; ++i) statement(t, model, std::string(255, 'a'), i);
      if (creationFails) PosixFaults::failAt(PosixFaults::kOpen, 1, EACCES);
      const std::string last(196, 'b');
      appendStatement(model, last.c_str(), 0);
      ASSERT_EQ(32764u, model.size());
      FbStatus st;
      EXPECT_EQ(creationFails ? 335544382 : 0, t->executeSql(st, last.c_str(), 0));
      EXPECT_EQ(creationFails ? "CDC error Log file creation failed: Permission denied" : "",
                st.text());
      EXPECT_EQ(!creationFails, fileExists(t->getFileName()));
      t->startSavepoint(status, 1);
      const Bytes atSavepoint = model;
      for (int i = 0; i < (blockWrittenSince ? 130 : 3); ++i)
        statement(t, model, std::string(255, 'c'), i);
      const int readsBefore = PosixFaults::calls(PosixFaults::kRead);
      t->rollbackSavepoint(1);
      EXPECT_EQ(blockWrittenSince ? 1 : 0, PosixFaults::calls(PosixFaults::kRead) - readsBefore);
      model = atSavepoint;
      statement(t, model, "after", 9);
      commitAndCheck(t, model);
    }
  }
}

// Random records, savepoint starts, releases and rollbacks (numbers repeat, and -1) against a model
// of the stream. A rollback into a block on disk does two lseeks and one 32768-byte read, and
// writes nothing. FBCDC_SAVEPOINT_SEQUENCES and FBCDC_SAVEPOINT_SEED choose the run and the seed.
TEST_F(SavepointTest, RandomSequencesMatchTheModel) {
  using namespace PosixFaults;
  const auto setting = [](const char* name, int fallback) {
    return std::getenv(name) ? std::atoi(std::getenv(name)) : fallback;
  };
  const int sequences = setting("FBCDC_SAVEPOINT_SEQUENCES", 10000);
  const auto seed = static_cast<unsigned>(setting("FBCDC_SAVEPOINT_SEED", 20261123));
  std::mt19937 random(seed);
  auto below = [&](unsigned n) { return static_cast<int>(random() % n); };

  int rewindsFromDisk = 0, truncated = 0, published = 0;
  for (int sequence = 0; sequence < sequences; ++sequence) {
    SCOPED_TRACE("sequence " + std::to_string(sequence) + " seed " + std::to_string(seed));
    reset();
    ReplTransaction* t = begin(static_cast<std::uint64_t>(sequence));
    Bytes model = kHeader;
    std::size_t longest = model.size();
    std::vector<std::pair<std::int32_t, std::size_t>> stack;  // number, stream length
    const int operations = 1 + below(50);
    for (int op = 0; op < operations; ++op) {
      const int kind = below(100);
      if (kind < 55) {
        // Mostly single records, sometimes a burst that runs over one or more blocks.
        const int count = below(4) == 0 ? 20 + below(200) : 1;
        for (int i = 0; i < count; ++i) {
          const std::string sql(below(256), static_cast<char>('a' + below(26)));
          const std::int64_t number = static_cast<std::int64_t>(random()) << 20 ^ random();
          statement(t, model, sql, number);
        }
        longest = std::max(longest, model.size());
      } else if (kind < 72) {
        const std::int32_t number = below(8);
        stack.emplace_back(number, model.size());
        t->startSavepoint(status, number);
      } else if (kind < 80) {
        const std::int32_t number = below(9) - 1;
        while (!stack.empty() && stack.back().first >= number) stack.pop_back();
        t->releaseSavepoint(status, number);
      } else {
        const std::int32_t number = below(9) - 1;
        while (!stack.empty() && stack.back().first > number) stack.pop_back();
        model.resize(stack.empty() ? kHeader.size() : stack.back().second);
        if (!stack.empty()) stack.pop_back();
        const int seeks = calls(kLseek64), reads = calls(kRead), writes = calls(kWrite);
        const long bytes = bytesRead();
        t->rollbackSavepoint(number);
        const int fromDisk = calls(kRead) - reads;
        ASSERT_EQ(2 * fromDisk, calls(kLseek64) - seeks);
        ASSERT_EQ(32768 * fromDisk, bytesRead() - bytes);
        ASSERT_EQ(writes, calls(kWrite));
        rewindsFromDisk += fromDisk;
      }
    }
    ASSERT_EQ(0, t->commit(status)) << status.text();
    if (calls(kFtruncate64) > 0) ++truncated;
    EXPECT_TRUE(longest >= 32764 || calls(kLseek64) + calls(kRead) + calls(kFtruncate64) == 0);
    t->dispose();
    if (model.size() == kHeader.size()) {
      ASSERT_EQ(Strings{}, listDirectory(logs));
      // A transaction that never recorded anything touches no file.
      ASSERT_TRUE(longest > kHeader.size() || calls(kOpen) == 0);
      continue;
    }
    ++published;
    const std::string path = publishedLog();
    model.push_back(0x7B);
    TReadFile reader;
    reader.open(path.c_str(), true);
    Bytes back(model.size());
    reader.getBytes(back.data(), static_cast<std::int32_t>(back.size()));
    ASSERT_EQ(model, back);
    ASSERT_EQ(static_cast<std::int64_t>(readFile(path).size()), reader.getPosition());
    clearLogs();
  }
  std::printf("%d sequences (seed %u): %d published, %d rewinds into a block on disk, %d cut\n",
              sequences, seed, published, rewindsFromDisk, truncated);
  if (sequences >= 1000) {
    EXPECT_GT(rewindsFromDisk, sequences / 20) << "too few rollbacks reached a block on disk";
    EXPECT_GT(truncated, 0);
  }
}

}  // namespace
