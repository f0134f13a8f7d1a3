// The change log's records and the life of one log. Insert, update and delete records, byte for
// byte as the format lays them out, and every refusal: types without a recording, names and texts
// too long for their length, and what a server should never hand over; the bytes and status of
// each case are in golden/records.txt (FBCDC_UPDATE_GOLDEN=1 rewrites it, to be reviewed line by
// line before a commit). A log's name, publication at commit, statement records, a commit marker
// or a savepoint at a block's edge, and a file that could not be created. Blobs read from a real
// database through the embedded engine, and the server's own errors while one is read. (Random
// savepoint sequences and blobs of every size are LogDecoderTest's, the failure of every call
// FaultSweepTest's, empty transactions CrashStateTest's.)
#include "ReplTransaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <memory>
#include <tuple>

#include "EmbeddedDatabase.h"
#include "LiteralRow.h"
#include "PluginFixture.h"

namespace {

using Fields = std::function<void(LiteralRow&)>;

// A cursor that never ends: every field is the same INTEGER.
class EndlessCursor : public Firebird::IReplField {
 public:
  bool isValid() override { return true; }
  const char* getName() override { return "F"; }
  std::uint32_t getType() override { return 9; }
  std::int32_t getScale() override { return 0; }
  std::int32_t getLength() override { return 4; }
  std::int32_t getCharSet() override { return 0; }
  bool isNull() override { return false; }
  const void* getData() override { return &value_; }
  bool moveNext() override { return true; }

 private:
  std::int32_t value_ = 1;
};

// A row image whose cursor is the given one (null included).
class Image : public Firebird::IReplRecord {
 public:
  explicit Image(Firebird::IReplField* cursor) : cursor_(cursor) {}
  std::uint32_t unusedSlot0() override { return 0; }
  const char* getName() override { return "T"; }
  std::uint32_t unusedSlot2() override { return 0; }
  Firebird::IReplField* getFields() override { return cursor_; }

 private:
  Firebird::IReplField* cursor_;
};

class ChangeRecordsTest : public PluginFixture {
 protected:
  // Records one operation ('I' insert, 'D' delete, 'U' update from old to row) in a transaction
  // that then commits, and describes what it left: the stream between header and commit marker in
  // hex (a long one by its start, length and CRC), and a refusal's result and status. With
  // earlierError the status holds an error before the call.
  std::string record(char op, Firebird::IReplRecord* row, Firebird::IReplRecord* old,
                     bool earlierError = false) {
    std::int32_t result = -1;
    const Bytes stream = recordStream([&](ReplTransaction* t) {
      const intptr_t earlier[] = {isc_arg_gds, 335544321, isc_arg_end};
      // The server hands every call a clean status.
      earlierError ? status.get()->setErrors(earlier) : status.get()->init();
      if (op == 'I') result = t->insertRecord(status, nullptr, nullptr, row);
      if (op == 'D') result = t->deleteRecord(status, nullptr, nullptr, row);
      if (op == 'U') result = t->updateRecord(status, nullptr, nullptr, old, row);
    });
    std::string text =
        hex(Bytes(stream.begin(), stream.begin() + std::min<std::size_t>(stream.size(), 40)));
    if (stream.size() > 40)
      text += " ... " + std::to_string(stream.size()) + " bytes, CRC-32C " +
              std::to_string(slowCrc32c(stream.data(), stream.size()));
    if (result != 0) text += " | " + std::to_string(result);
    if (status.hasErrors())
      for (const std::string& item : status.errors()) text += " " + item;
    return text;
  }
};

// One record per row, in relation T unless named: an insert carries new values, a delete old ones
// (a blob or array field: its name only), an update walks the old and the new image in step. A
// refused record stops where the refusal lies, unfinished; the transaction still commits.
TEST_F(ChangeRecordsTest, RecordBytesAndRefusals) {
  struct Case {
    std::string name;
    char op;
    Fields fields;            // the new image, or a delete's old one
    Fields before = nullptr;  // an update's old image
    const char* relation = "T";
    bool earlierError = false;
  };
  const Fields none = [](LiteralRow&) {};
  const Fields skipped = [](LiteralRow& r) {
    r.addRaw("Z", 0, "").addLong(nullptr, 7).addLong("", 8).addLong("A", 1);
  };
  const Fields a1 = [](LiteralRow& r) { r.addLong("A", 1); };
  const Fields ab = [](LiteralRow& r) { r.addLong("A", 1).addLong("B", 2); };
  const ISC_QUAD id = {1, 2};
  const std::string n252(252, 'N'), n253(253, 'N');
  const Fields longField = [&](LiteralRow& r) { r.addLong("A", 1).addLong(n253.c_str(), 2); };
  std::vector<Case> cases = {
      {"short", 'I', [](LiteralRow& r) { r.addShort("F", 1234, -2); }},
      {"long", 'I', [](LiteralRow& r) { r.addLong("F", 5); }},
      {"real, widened", 'I', [](LiteralRow& r) { r.addFloat("F", 1.5f); }},
      {"double", 'I', [](LiteralRow& r) { r.addDouble("F", -0.1); }},
      {"old int64", 'D', [](LiteralRow& r) { r.addInt64("F", -1, -4); }},
      {"boolean", 'I', [](LiteralRow& r) { r.addBoolean("F", true); }},
      {"date", 'I', [](LiteralRow& r) { r.addDate("F", 100); }},
      {"time", 'I', [](LiteralRow& r) { r.addTime("F", 0x01020304); }},
      {"timestamp", 'I', [](LiteralRow& r) { r.addTimestamp("F", 0x11223344, 0x55667788); }},
      {"char, blanks dropped", 'I', [](LiteralRow& r) { r.addChar("F", "ab   ", 4); }},
      {"char octets, zeros dropped", 'I',
       [](LiteralRow& r) { r.addChar("F", std::string("ab\0\0\0", 5), 1); }},
      {"char octets keeps blanks", 'I', [](LiteralRow& r) { r.addChar("F", "ab   ", 1); }},
      {"char keeps zeros", 'I', [](LiteralRow& r) { r.addChar("F", std::string("ab\0\0", 4), 0); }},
      {"char of blanks only", 'I', [](LiteralRow& r) { r.addChar("F", "     ", 4); }},
      {"char with a collation", 'I', [](LiteralRow& r) { r.addChar("F", "x ", 0x0304); }},
      {"varchar", 'I', [](LiteralRow& r) { r.addVarchar("F", "xyz", 0); }},
      {"varchar keeps blanks", 'I', [](LiteralRow& r) { r.addVarchar("F", "a ", 53); }},
      {"cstring", 'I', [](LiteralRow& r) { r.addCString("F", "hi", 2); }},
      {"longest text", 'I',
       [](LiteralRow& r) { r.addChar("F", std::string(65535, 'b') + "   ", 4); }},
      {"null new", 'I', [](LiteralRow& r) { r.addNull("F", 9); }},
      {"null old", 'D', [](LiteralRow& r) { r.addNull("F", 19); }},
      {"null blob", 'I', [](LiteralRow& r) { r.addNull("F", 17); }},
      {"old blob", 'D', [&](LiteralRow& r) { r.addBlob("F", id); }},
      {"old array", 'D', [&](LiteralRow& r) { r.addArray("F", id); }},
      {"type 0: nothing", 'I', [](LiteralRow& r) { r.addRaw("F", 0, "abcd"); }},
      {"empty insert", 'I', none},
      {"empty delete", 'D', none},
      {"empty update", 'U', none, none},
      {"null relation name", 'I', a1, nullptr, nullptr},
      {"empty relation name", 'I', a1, nullptr, ""},
      {"longest names", 'I', [&](LiteralRow& r) { r.addLong(n252.c_str(), 1); }, nullptr,
       n252.c_str()},
      {"type 0 and unnamed fields", 'I', skipped},
      {"type 0 and unnamed old fields", 'D', skipped},
      {"type 0 and unnamed, update", 'U', skipped, skipped},
      {"old image shorter", 'U', ab, [](LiteralRow& r) { r.addLong("A", 9); }},
      {"new skips a field, old skips its partner", 'U',
       [](LiteralRow& r) { r.addRaw("A", 0, "").addLong("B", 2); },
       [](LiteralRow& r) { r.addLong("X", 7).addLong("Y", 8); }},
      {"names are not compared", 'U', a1, [](LiteralRow& r) { r.addShort("OTHER", 3); }},
      {"old of type 0: no old value", 'U', a1, [](LiteralRow& r) { r.addRaw("A", 0, ""); }},
      {"old blob: no old value", 'U', [](LiteralRow& r) { r.addNull("A", 17); },
       [&](LiteralRow& r) { r.addBlob("A", id); }},
      {"old fields beyond the new image are dropped", 'U', [](LiteralRow& r) { r.addNull("A", 9); },
       ab},
      {"null old value", 'U', a1, [](LiteralRow& r) { r.addNull("A", 9); }},
      // The status is tested after the first field and after every field that reached the server:
      // an error it already held stops the record after its first field.
      {"error already in the status", 'I', ab, nullptr, "T", true},
      {"error already in the status, update", 'U', ab, ab, "T", true},
      // Names and texts whose length cannot be written: refused before anything they would start.
      {"long relation name", 'I', a1, nullptr, n253.c_str()},
      {"long relation name, delete", 'D', a1, nullptr, n253.c_str()},
      {"long relation name, update", 'U', a1, none, n253.c_str()},
      {"long field name", 'I', longField},
      {"long field name, delete", 'D', longField},
      {"long field name, update", 'U', longField, none},
      {"long text", 'I', [](LiteralRow& r) { r.addChar("F", std::string(65536, 'a'), 4); }},
      {"long zero-terminated text", 'I',
       [](LiteralRow& r) { r.addCString("F", std::string(70000, 'a'), 4); }},
  };
  // Types without a recording are refused after their marker and type byte.
  for (std::uint32_t type : {4u, 5u, 6u, 7u, 10u, 13u, 20u, 22u, 255u, 0x1234u}) {
    const Fields fields = [type](LiteralRow& r) {
      r.addLong("A", 1).addRaw("B", type, "12345678", 8).addLong("C", 2);
    };
    cases.push_back({"type " + std::to_string(type), 'I', fields});
  }
  std::string text;
  for (const Case& c : cases) {
    // The old image's relation name is not recorded.
    LiteralRow row(c.relation), old("OLD_NAME_IGNORED");
    c.fields(row);
    if (c.before) c.before(old);
    text += c.name + ": " + record(c.op, &row, &old, c.earlierError) + "\n";
  }

  // What a server should never hand over.
  EndlessCursor endless;
  Image endlessRow(&endless), noCursor(nullptr);
  LiteralRow noData("T"), negative("T"), blob("T"), good("T");
  noData.addRaw("I", 9, "");  // a non-null INTEGER whose data pointer is null
  negative.addRaw("C", 1, "abc", -1);
  blob.addBlob("B", ISC_QUAD{0, 1});
  good.addLong("ID", 5);
  const std::tuple<const char*, char, Firebird::IReplRecord*, Firebird::IReplRecord*> hostile[] = {
      {"null row", 'I', nullptr, nullptr},
      {"null old image", 'U', &good, nullptr},
      {"null cursor", 'D', &noCursor, nullptr},
      {"endless cursor", 'I', &endlessRow, nullptr},
      {"endless old cursor", 'U', &endlessRow, &good},
      {"null data", 'I', &noData, nullptr},
      {"negative length", 'I', &negative, nullptr},
      {"blob without attachment", 'I', &blob, nullptr},
  };
  for (const auto& [name, op, row, old] : hostile)
    text += std::string(name) + ": " + record(op, row, old) + "\n";

  const std::string golden = std::string(FBCDC_TEST_SOURCE_DIR) + "/changelog/golden/records.txt";
  EXPECT_EQ(readText(golden), text);
  if (std::getenv("FBCDC_UPDATE_GOLDEN")) writeFile(golden, text);
}

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

// Passes openBlob to a real attachment; its blobs fail on demand with the engine's own errors and
// count the caller's references. The plugin asks only for openBlob, getSegment, close and release:
// the other entries of the interface tables stay empty and would fail loudly.
class ForwardingAttachment : public Firebird::IAttachment {
 public:
  enum class Fault { kNone, kClosedAfterTwoPieces, kCloseFails };

  ForwardingAttachment(Firebird::IAttachment* real, Fault fault)
      : IAttachment(Firebird::DoNotInherit()), real_(real), fault_(fault) {
    table_.version = VERSION;
    table_.openBlob = openBlob;
    cloopVTable = &table_;
  }

  int opened = 0, givenUp = 0, extraReleases = 0;

 private:
  struct Blob : Firebird::IBlob {
    Blob(ForwardingAttachment& owner, Firebird::IBlob* real)
        : IBlob(Firebird::DoNotInherit()), owner(owner), real(real) {
      static Firebird::IBlob::VTable table = [] {
        Firebird::IBlob::VTable t{};
        t.version = VERSION;
        t.getSegment = ForwardingAttachment::getSegment;
        t.close = ForwardingAttachment::close;
        t.release = ForwardingAttachment::release;
        return t;
      }();
      cloopVTable = &table;
    }
    ForwardingAttachment& owner;
    Firebird::IBlob* real;
    int pieces = 0, references = 1;
  };

  static Firebird::IBlob* openBlob(Firebird::IAttachment* self, Firebird::IStatus* status,
                                   Firebird::ITransaction* t, ISC_QUAD* id, unsigned length,
                                   const unsigned char* bpb) throw() {
    auto& me = *static_cast<ForwardingAttachment*>(self);
    Firebird::CheckStatusWrapper w(status);
    Firebird::IBlob* real = me.real_->openBlob(&w, t, id, length, bpb);
    if (!real) return nullptr;
    ++me.opened;
    // Kept until the attachment goes, so that a blob released twice is still there to count it.
    me.blobs_.push_back(std::make_unique<Blob>(me, real));
    return me.blobs_.back().get();
  }

  static int getSegment(Firebird::IBlob* self, Firebird::IStatus* status, unsigned length,
                        void* buffer, unsigned* delivered) throw() {
    Blob& b = *static_cast<Blob*>(self);
    Firebird::CheckStatusWrapper w(status);
    if (b.owner.fault_ == Fault::kClosedAfterTwoPieces && b.pieces++ == 2) {
      // Closed under the reader: the engine's object is kept alive and answers the next read.
      FbStatus own;
      Firebird::CheckStatusWrapper ownWrapper(own);
      b.real->addRef();
      b.real->close(&ownWrapper);
    }
    return b.real->getSegment(&w, length, buffer, delivered);
  }

  static void close(Firebird::IBlob* self, Firebird::IStatus* status) throw() {
    Blob& b = *static_cast<Blob*>(self);
    Firebird::CheckStatusWrapper w(status);
    if (b.owner.fault_ == Fault::kCloseFails) {
      // Closing twice makes the engine refuse the second close with its own error.
      b.real->addRef();
      b.real->close(&w);
    }
    if (!(w.getState() & Firebird::IStatus::STATE_ERRORS)) b.real->close(&w);
    if (w.getState() & Firebird::IStatus::STATE_ERRORS) return;
    b.real = nullptr;  // a successful close gives up the caller's reference, as the engine's does
    release(self);
  }

  static int release(Firebird::IReferenceCounted* self) throw() {
    Blob& b = *static_cast<Blob*>(static_cast<Firebird::IBlob*>(self));
    if (--b.references < 0) ++b.owner.extraReleases;  // released after it was given up
    if (b.references != 0) return std::max(b.references, 0);
    ++b.owner.givenUp;
    if (b.real) b.real->release();
    return 0;
  }

  Firebird::IAttachment* real_;
  Fault fault_;
  Firebird::IAttachment::VTable table_{};
  std::vector<std::unique_ptr<Blob>> blobs_;
};

using BlobValuesTest = PluginFixture;

// The server's own errors while a blob is read stay in the status, become the operation's result,
// and leave the record unfinished; every blob that was opened is given up exactly once.
TEST_F(BlobValuesTest, ServerErrorsWhileReadingABlob) {
  EmbeddedDatabase db(dir / "test.fdb");
  const Bytes data = randomBytes(5 * 1000, 3);
  const ISC_QUAD id = db.createBlob(data, false, 1000);
  using Fault = ForwardingAttachment::Fault;
  // Name, fault, blob, pieces recorded, blobs opened.
  const std::tuple<const char*, Fault, ISC_QUAD, std::size_t, int> cases[] = {
      {"no such blob", Fault::kNone, ISC_QUAD{0x7FFF, 0x7FFFFF}, 0, 0},
      {"closed under the reader after two pieces", Fault::kClosedAfterTwoPieces, id, 2, 1},
      {"close fails", Fault::kCloseFails, id, 5, 1},
      {"no fault", Fault::kNone, id, 5, 1},
  };
  for (const auto& [name, fault, blob, piecesKept, opened] : cases) {
    SCOPED_TRACE(name);
    ForwardingAttachment attachment(db.attachment(), fault);
    LiteralRow row("T");
    row.addBlob("B", blob).addLong("AFTER", 1);
    std::int32_t result = -1;
    status.get()->init();
    const Bytes stream = recordStream([&](ReplTransaction* t) {
      result = t->insertRecord(status, &attachment, db.transaction(), &row);
    });
    EXPECT_EQ(opened, attachment.opened);
    EXPECT_EQ(opened, attachment.givenUp);
    EXPECT_EQ(0, attachment.extraReleases);
    std::string expected = "49 00 01 54 01 42 FD 11";
    for (std::size_t i = 0; i < piecesKept; ++i)
      expected += " E8 03 " + hex(Bytes(data.begin() + i * 1000, data.begin() + (i + 1) * 1000));
    if (fault == Fault::kNone && opened) {
      EXPECT_EQ(0, result) << status.text();
      EXPECT_EQ(expected + " 00 00 05 41 46 54 45 52 FD 09 00 00 01 00 00 00 FF", hex(stream));
      continue;
    }
    const Strings errors = status.errors();
    ASSERT_LE(2u, errors.size());
    EXPECT_EQ("1", errors[0]);
    EXPECT_EQ(std::stoll(errors[1]), result) << "the server's code is the result";
    EXPECT_NE("335544382", errors[1]) << "the server's own error, not one of ours";
    EXPECT_EQ(expected, hex(stream)) << "no terminator, no further field, no end byte";
  }
}

}  // namespace
