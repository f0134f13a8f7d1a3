// The life of one log: its name, publication at commit, statement records, a commit marker or a
// savepoint at a block's edge, and a file that could not be created. (Random savepoint sequences
// are LogDecoderTest's, the failure of every call FaultSweepTest's, empty transactions
// CrashStateTest's.)
#include "ReplTransaction.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

#include "LiteralRow.h"
#include "PluginFixture.h"

namespace {

const char kStatementLog[] =
    "5A 45 46 4F 04 53 00 00 13 00 00 01 00 00 00 00 00 00 00 7B 26 F4 89 80";

class ReplTransactionTest : public PluginFixture {
 protected:
  // Records one statement into t and appends its bytes to model.
  void statement(ReplTransaction* t, Bytes& model, const std::string& sql, std::int64_t number) {
    appendStatement(model, sql.c_str(), number);
    ASSERT_EQ(0, t->executeSql(status, sql.c_str(), number)) << status.text();
  }

  // Records 121 statements of 269 bytes into t: with the header, 210 bytes short of the end of the
  // first block. Returns the stream.
  Bytes fill(ReplTransaction* t) {
    Bytes model = bytesOf("ZEFO\x04");
    for (int i = 0; i < 121; ++i) statement(t, model, std::string(255, 'a'), i);
    return model;
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

// A record of 209 bytes and the commit marker fill the first block: the put writes the block
// itself, and the closing flush writes nothing more.
TEST_F(ReplTransactionTest, CommitMarkerFillingTheBlockExactly) {
  ReplTransaction* t = begin(9);
  Bytes model = fill(t);
  statement(t, model, std::string(195, 'a'), 121);
  commitAndCheck(t, model);
  EXPECT_EQ(1, PosixFaults::calls(PosixFaults::kWrite));
}

// A savepoint right after the first block filled (also while it waits for a file that could not be
// created) starts at the next block: its rollback reads that block back only once it was written.
TEST_F(ReplTransactionTest, SavepointAtABlockStart) {
  for (bool creationFails : {false, true}) {
    for (bool blockWrittenSince : {false, true}) {
      SCOPED_TRACE(std::string(creationFails ? "file creation failed, " : "") +
                   (blockWrittenSince ? "block written since" : "block still buffered"));
      PosixFaults::reset();
      ReplTransaction* t = begin(5);
      Bytes model = fill(t);
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

}  // namespace
