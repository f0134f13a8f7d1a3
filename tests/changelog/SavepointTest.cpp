#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "PluginFixture.h"
#include "TReadFile.h"

namespace {

using Strings = std::vector<std::string>;

const Bytes kHeader = bytesOf("ZEFO\x04");

class SavepointTest : public PluginFixture {
 protected:
  // Records one statement into t and into the model stream.
  void statement(ReplTransaction* t, Bytes& model, const std::string& sql, std::int64_t number) {
    appendStatement(model, sql.c_str(), number);
    ASSERT_EQ(0, t->executeSql(status, sql.c_str(), number)) << status.text();
  }

  // Commits and disposes t; returns the published file ("" when none) after checking that exactly
  // the expected stream was published, or nothing when the stream holds no record.
  void commitAndCheck(ReplTransaction* t, const Bytes& model) {
    ASSERT_EQ(0, t->commit(status)) << status.text();
    t->dispose();
    const Strings names = listDirectory(logs);
    if (model.size() == kHeader.size()) {
      EXPECT_EQ(Strings{}, names);
      return;
    }
    ASSERT_EQ(1u, names.size());
    Bytes stream = model;
    stream.push_back(0x7B);
    const std::string path = logs + names[0];
    EXPECT_EQ(containerOf(stream), readFile(path));
    ::remove(path.c_str());
  }
};

// Blocks 0 to 2 written, 1000 bytes of block 3 buffered, savepoint 7 at position 40000. Rolling it
// back reads block 1 back, 100 bytes follow, and commit cuts the file to 40105 bytes.
TEST_F(SavepointTest, RollbackIntoAnEarlierBlockAndCommit) {
  ReplTransaction* t = begin(1);
  Bytes model = kHeader;
  // Statement records are 14 bytes plus their text: 148 of 269 and one of 179 bytes reach stream
  // byte 39996, which is position 40000.
  for (int i = 0; i < 148; ++i) statement(t, model, std::string(255, 'a'), i);
  statement(t, model, std::string(165, 'b'), 0);
  ASSERT_EQ(39996u, model.size());
  t->startSavepoint(status, 7);
  Bytes atSavepoint = model;
  for (int i = 0; i < 220; ++i) statement(t, model, std::string(255, 'c'), i);
  statement(t, model, std::string(102, 'd'), 0);
  ASSERT_EQ(3u * 32764 + 1000, model.size());  // position 99304
  EXPECT_EQ(98304u, readFile(t->getFileName()).size());

  PosixFaults::reset();
  t->rollbackSavepoint(7);
  EXPECT_EQ(2, PosixFaults::calls(PosixFaults::kLseek64));
  EXPECT_EQ(1, PosixFaults::calls(PosixFaults::kRead));
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kWrite));

  model = atSavepoint;
  statement(t, model, std::string(86, 'e'), 0);  // 100 bytes
  ASSERT_EQ(0, t->commit(status));
  EXPECT_EQ(1, PosixFaults::calls(PosixFaults::kFtruncate64));
  const Bytes file = readFile(t->getFileName());
  EXPECT_EQ(40105u, file.size());
  model.push_back(0x7B);
  EXPECT_EQ(containerOf(model), file);
  t->dispose();
}

// A truncation that fails at commit is ignored: the log is published with the stale blocks of its
// longer past behind the final block. A reader still finds the whole stream, commit marker last,
// before it meets them.
TEST_F(SavepointTest, FailedTruncationKeepsTheStaleTail) {
  ReplTransaction* t = begin(8);
  Bytes model = kHeader;
  statement(t, model, "kept", 1);
  t->startSavepoint(status, 1);
  const Bytes atSavepoint = model;
  for (int i = 0; i < 300; ++i) statement(t, model, std::string(255, 'x'), i);
  t->rollbackSavepoint(1);
  model = atSavepoint;
  PosixFaults::reset();
  PosixFaults::failAt(PosixFaults::kFtruncate64, 1, EIO);
  ASSERT_EQ(0, t->commit(status));
  EXPECT_EQ(1, PosixFaults::fired());
  t->dispose();
  ASSERT_EQ(1u, listDirectory(logs).size());
  const Bytes file = readFile(logs + listDirectory(logs)[0]);
  model.push_back(0x7B);
  const Bytes head = containerOf(model);
  EXPECT_EQ(2u * 32768, file.size()) << "the file keeps the length it had before the rollback";
  EXPECT_EQ(head, Bytes(file.begin(), file.begin() + head.size()));
}

// Savepoint scripts over records A, B, C...: "rA" records A, "s5" starts savepoint 5, "l5" releases
// and "b5" rolls back savepoint 5. Each runs with one statement per record (all in the buffer) and
// with 150 (each record about 40 KiB, so rollbacks reach into blocks already on disk).
TEST_F(SavepointTest, StackScripts) {
  struct Case {
    const char* script;
    const char* survivors;
  };
  const Case cases[] = {
      {"rA b9 rB", "B"},                           // empty stack: back to the header
      {"rA s1 b1 rB", "AB"},                       // nothing since the savepoint
      {"s2 rA s3 rB b1", ""},                      // below every node: nothing left
      {"rX s1 rA s3 rB s5 rC b4 rD b2 rE", "XE"},  // 5 and 3 go, 1 stays
      {"rX s1 rA s3 rB s5 rC l3 b2", "X"},         // release 3 removes 5 and 3
      {"rX s1 rA s3 rB l6 b3 rC", "XAC"},          // release 6 removes nothing
      {"rX s1 rA l-1 b5", ""},                     // release -1 empties the stack
      {"s4 rA s4 rB b4 rC", "AC"},                 // only the upper 4 goes
      {"s4 rA s4 rB b4 rC b4", ""},                // then the lower one
      {"s4 rA s4 rB l4 b4 rC", "C"},               // release 4 removes both
      {"rA s1 rB b1 rC s2 rD b2 rE", "ACE"},       // rewinds written over again
      {"rA s1 rB rC rD b1", "A"},                  // several records undone at once
  };
  for (int perRecord : {1, 150}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.script) + " with " + std::to_string(perRecord) + " per record");
      PosixFaults::reset();
      ReplTransaction* t = begin(2);
      Bytes scratch;
      std::istringstream ops(c.script);
      std::string op;
      while (ops >> op) {
        const std::string arg = op.substr(1);
        if (op[0] == 'r') {
          for (int i = 0; i < perRecord; ++i) {
            ASSERT_EQ(0, t->executeSql(status, (arg + std::string(254, 'x')).c_str(), i));
          }
        } else if (op[0] == 's') {
          t->startSavepoint(status, std::stoi(arg));
        } else if (op[0] == 'l') {
          t->releaseSavepoint(status, std::stoi(arg));
        } else {
          t->rollbackSavepoint(std::stoi(arg));
        }
      }
      Bytes model = kHeader;
      for (const char* s = c.survivors; *s; ++s)
        for (int i = 0; i < perRecord; ++i)
          appendStatement(model, (*s + std::string(254, 'x')).c_str(), i);
      commitAndCheck(t, model);
      if (perRecord == 1) {
        EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kFtruncate64)) << "rewinds within the buffer";
      }
    }
  }
}

// A savepoint started right after a block was written records the next block's start. While that
// block is still in the buffer the rollback reads nothing; once it has been written, the rollback
// reads it back and continues from its first byte.
TEST_F(SavepointTest, SavepointAtABlockStart) {
  for (bool blockWrittenSince : {false, true}) {
    SCOPED_TRACE(blockWrittenSince ? "block written since" : "block still buffered");
    PosixFaults::reset();
    ReplTransaction* t = begin(5);
    Bytes model = kHeader;
    // 121 records of 269 bytes and one of 210 fill the first block exactly.
    for (int i = 0; i < 121; ++i) statement(t, model, std::string(255, 'a'), i);
    statement(t, model, std::string(196, 'b'), 0);
    ASSERT_EQ(32764u, model.size());
    ASSERT_EQ(32768u, readFile(t->getFileName()).size());
    t->startSavepoint(status, 1);
    const Bytes atSavepoint = model;
    const int records = blockWrittenSince ? 130 : 3;
    for (int i = 0; i < records; ++i) statement(t, model, std::string(255, 'c'), i);
    const int readsBefore = PosixFaults::calls(PosixFaults::kRead);
    t->rollbackSavepoint(1);
    EXPECT_EQ(blockWrittenSince ? 1 : 0, PosixFaults::calls(PosixFaults::kRead) - readsBefore);
    model = atSavepoint;
    statement(t, model, "after", 9);
    commitAndCheck(t, model);
  }
}

// A savepoint started while a full block could not be flushed (its file could not be created)
// starts where the next byte goes, the next block's start, and can be rolled back like any other.
TEST_F(SavepointTest, SavepointWhileAFullBlockWaitsForItsFile) {
  for (bool blockWrittenSince : {false, true}) {
    SCOPED_TRACE(blockWrittenSince ? "block written since" : "block still buffered");
    PosixFaults::reset();
    ReplTransaction* t = begin(9);
    Bytes model = kHeader;
    for (int i = 0; i < 121; ++i) statement(t, model, std::string(255, 'a'), i);
    // The last byte of this record fills the block; creating the file fails, the bytes stay.
    PosixFaults::failAt(PosixFaults::kOpen, 1, EACCES);
    appendStatement(model, std::string(196, 'b').c_str(), 0);
    FbStatus failed;
    EXPECT_EQ(335544382, t->executeSql(failed, std::string(196, 'b').c_str(), 0));
    EXPECT_EQ("CDC error Log file creation failed: Permission denied", failed.text());
    ASSERT_EQ(32764u, model.size());
    t->startSavepoint(status, 1);
    const Bytes atSavepoint = model;
    for (int i = 0; i < (blockWrittenSince ? 130 : 1); ++i)
      statement(t, model, std::string(255, 'c'), i);
    t->rollbackSavepoint(1);
    model = atSavepoint;
    statement(t, model, "after", 2);
    commitAndCheck(t, model);
  }
}

// Failures while a rollback reads a block back. A failed first positioning changes nothing and
// the log goes on as if no rollback had been asked for; any later failure stops the writer, so
// commit fails and no log is published: a block is never written anywhere but where it belongs.
TEST_F(SavepointTest, FailuresDuringTheRewind) {
  struct Case {
    const char* name;
    std::function<void()> arm;
    bool stopsTheWriter;
  };
  const Case cases[] = {
      {"first positioning fails", [] { PosixFaults::failAt(PosixFaults::kLseek64, 1, EIO); },
       false},
      {"read-back fails", [] { PosixFaults::failAt(PosixFaults::kRead, 1, EIO); }, true},
      {"read-back finds the end", [] { PosixFaults::limitAt(PosixFaults::kRead, 1, 0); }, true},
      {"read-back is short", [] { PosixFaults::limitAt(PosixFaults::kRead, 1, 100); }, true},
      {"second positioning fails", [] { PosixFaults::failAt(PosixFaults::kLseek64, 2, EIO); },
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    PosixFaults::reset();
    ReplTransaction* t = begin(6);
    Bytes model = kHeader;
    statement(t, model, "before", 1);
    t->startSavepoint(status, 1);
    for (int i = 0; i < 300; ++i) statement(t, model, std::string(255, 'r'), i);
    c.arm();
    t->rollbackSavepoint(1);
    EXPECT_EQ(1, PosixFaults::fired());
    PosixFaults::reset();
    if (!c.stopsTheWriter) {
      // The node stays, so a second rollback of the same savepoint succeeds.
      t->rollbackSavepoint(1);
      model.resize(kHeader.size() + 20);
      statement(t, model, "after", 2);
      commitAndCheck(t, model);
      continue;
    }
    FbStatus refused;
    EXPECT_EQ(335544382, t->executeSql(refused, "after", 2));
    EXPECT_EQ("CDC error TF::WC-w: Log writer stopped after an earlier write failure",
              refused.text());
    EXPECT_EQ(335544382, t->commit(refused));
    t->dispose();
    EXPECT_EQ(Strings{}, listDirectory(logs));
    EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kWrite));
  }
}

// Random sequences of records, savepoint starts, releases and rollbacks, checked against a model
// of the byte stream: the published log, read back with CRC checking, is exactly the model's
// stream, and the file ends where the reader's position ends. FBCDC_SAVEPOINT_SEQUENCES and
// FBCDC_SAVEPOINT_SEED choose a longer run or another seed.
TEST_F(SavepointTest, RandomSequencesMatchTheModel) {
  const char* countText = std::getenv("FBCDC_SAVEPOINT_SEQUENCES");
  const char* seedText = std::getenv("FBCDC_SAVEPOINT_SEED");
  const int sequences = countText ? std::atoi(countText) : 10000;
  const unsigned seed = seedText ? static_cast<unsigned>(std::atoi(seedText)) : 20261123u;
  std::mt19937 random(seed);
  auto below = [&](unsigned n) { return static_cast<int>(random() % n); };

  int rewindsFromDisk = 0, truncated = 0, published = 0;
  for (int sequence = 0; sequence < sequences; ++sequence) {
    PosixFaults::reset();
    ReplTransaction* t = begin(static_cast<std::uint64_t>(sequence));
    Bytes model = kHeader;
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
          appendStatement(model, sql.c_str(), number);
          ASSERT_EQ(0, t->executeSql(status, sql.c_str(), number));
        }
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
        if (stack.empty()) {
          model.resize(kHeader.size());
        } else {
          model.resize(stack.back().second);
          stack.pop_back();
        }
        t->rollbackSavepoint(number);
      }
    }
    if (PosixFaults::calls(PosixFaults::kRead) > 0) ++rewindsFromDisk;
    ASSERT_EQ(0, t->commit(status)) << status.text();
    if (PosixFaults::calls(PosixFaults::kFtruncate64) > 0) ++truncated;
    t->dispose();

    const Strings names = listDirectory(logs);
    if (model.size() == kHeader.size()) {
      ASSERT_EQ(Strings{}, names) << "sequence " << sequence << " seed " << seed;
      continue;
    }
    ASSERT_EQ(1u, names.size()) << "sequence " << sequence << " seed " << seed;
    ++published;
    const std::string path = logs + names[0];
    model.push_back(0x7B);
    TReadFile reader;
    reader.open(path.c_str(), true);
    Bytes back(model.size());
    reader.getBytes(back.data(), static_cast<std::int32_t>(back.size()));
    ASSERT_EQ(model, back) << "sequence " << sequence << " seed " << seed;
    ASSERT_EQ(static_cast<std::int64_t>(readFile(path).size()), reader.getPosition())
        << "sequence " << sequence << " seed " << seed;
    ::remove(path.c_str());
  }
  std::printf("%d sequences (seed %u): %d published, %d rewound into a block on disk, %d cut\n",
              sequences, seed, published, rewindsFromDisk, truncated);
  if (sequences >= 1000) {
    EXPECT_GT(rewindsFromDisk, sequences / 20) << "too few rollbacks reached a block on disk";
    EXPECT_GT(truncated, 0);
  }
}

}  // namespace
