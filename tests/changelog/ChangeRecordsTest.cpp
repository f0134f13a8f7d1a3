// The change log's records and the life of one log. Insert, update and delete records, byte for
// byte as the format lays them out, and every refusal: types without a recording, names and texts
// too long for their length, and what a server should never hand over; the bytes and status of
// each case are in golden/records.txt. A log's name, publication at commit, statement records, a
// savepoint at a block's edge, and a file that could not be created. Blobs read from a real
// database through the embedded engine, and the server's own errors while one is read
// (golden/blobs.txt). (Random savepoint sequences and blobs of every size are LogDecoderTest's, the
// failure of every call FaultSweepTest's, empty transactions CrashStateTest's.)
#include "ReplTransaction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
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

// A row image of relation T whose cursor is the given one (null included).
class Image : public LiteralRow {
 public:
  explicit Image(Firebird::IReplField* cursor) : LiteralRow("T"), cursor_(cursor) {}
  Firebird::IReplField* getFields() override { return cursor_; }

 private:
  Firebird::IReplField* cursor_;
};

// Passes openBlob to a real attachment; its blobs count the caller's references, and the engine's
// blob is closed under the reader before its read numbered closeAt (the close counts as the last
// read), so that the engine itself refuses what follows with its own error. The plugin asks only
// for openBlob, getSegment, close and release: the other entries of the interface tables stay
// empty and would fail loudly.
class ForwardingAttachment : public Firebird::IAttachment {
 public:
  ForwardingAttachment(Firebird::IAttachment* real, int closeAt)
      : IAttachment(Firebird::DoNotInherit()), real_(real), closeAt_(closeAt) {
    table_.version = VERSION;
    table_.openBlob = openBlob;
    cloopVTable = &table_;
    blobTable_.version = Firebird::IBlob::VERSION;
    blobTable_.getSegment = getSegment;
    blobTable_.close = close;
    blobTable_.release = release;
  }

  int opened = 0, givenUp = 0, extraReleases = 0;

 private:
  struct Blob : Firebird::IBlob {
    Blob(ForwardingAttachment& owner, Firebird::IBlob* real)
        : IBlob(Firebird::DoNotInherit()), owner(owner), real(real) {
      cloopVTable = &owner.blobTable_;
    }
    // Counts a read; before the one numbered closeAt the engine's blob is closed, kept alive.
    Blob& read() {
      if (reads++ == owner.closeAt_) {
        FbStatus own;
        Firebird::CheckStatusWrapper wrapper(own);
        real->addRef();
        real->close(&wrapper);
      }
      return *this;
    }
    ForwardingAttachment& owner;
    Firebird::IBlob* real;
    int reads = 0, references = 1;
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
    Firebird::CheckStatusWrapper w(status);
    return static_cast<Blob*>(self)->read().real->getSegment(&w, length, buffer, delivered);
  }

  static void close(Firebird::IBlob* self, Firebird::IStatus* status) throw() {
    Blob& b = static_cast<Blob*>(self)->read();
    Firebird::CheckStatusWrapper w(status);
    b.real->close(&w);
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
  const int closeAt_;
  Firebird::IAttachment::VTable table_{};
  Firebird::IBlob::VTable blobTable_{};
  std::vector<std::unique_ptr<Blob>> blobs_;
};

class ChangeRecordsTest : public PluginFixture {
 protected:
  // Records one operation ('I' insert, 'D' delete, 'U' update from old to row) in a transaction
  // that then commits, and describes what it left: the stream between header and commit marker in
  // hex (a long one by its start, length and CRC), and a refusal's result and status. With
  // earlierError the status holds an error before the call.
  std::string record(char op, Firebird::IReplRecord* row, Firebird::IReplRecord* old,
                     bool earlierError = false, Firebird::IAttachment* a = nullptr,
                     Firebird::ITransaction* tr = nullptr) {
    std::int32_t result = -1;
    const Bytes stream = recordStream([&](ReplTransaction* t) {
      const intptr_t earlier[] = {isc_arg_gds, 335544321, isc_arg_end};
      // The server hands every call a clean status.
      earlierError ? status.get()->setErrors(earlier) : status.get()->init();
      if (op == 'I') result = t->insertRecord(status, a, tr, row);
      if (op == 'D') result = t->deleteRecord(status, a, tr, row);
      if (op == 'U') result = t->updateRecord(status, a, tr, old, row);
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

  expectGolden("changelog/golden/records.txt", text);
}

// The server's own errors while a blob is read, in golden/blobs.txt: they stay in the status and
// become the operation's result, and leave the record unfinished; every blob that was opened is
// given up exactly once. A blob read whole, for the references.
TEST_F(ChangeRecordsTest, ServerErrorsWhileReadingABlob) {
  EmbeddedDatabase db(dir / "test.fdb");
  const ISC_QUAD id = db.createBlob(randomBytes(5 * 1000, 3), false, 1000);
  // The read before which the engine's blob is closed: five pieces, the end, the close.
  const std::tuple<const char*, ISC_QUAD, int> cases[] = {
      {"no such blob", ISC_QUAD{0x7FFF, 0x7FFFFF}, -1},
      {"closed under the reader after two pieces", id, 2},
      {"close fails", id, 6},
      {"read whole", id, -1},
  };
  std::string text;
  for (const auto& [name, blob, closeAt] : cases) {
    ForwardingAttachment attachment(db.attachment(), closeAt);
    LiteralRow row("T");
    row.addBlob("B", blob).addLong("AFTER", 1);
    text +=
        std::string(name) + ": " + record('I', &row, nullptr, false, &attachment, db.transaction());
    text += " | opened " + std::to_string(attachment.opened) + ", given up " +
            std::to_string(attachment.givenUp) + ", released after that " +
            std::to_string(attachment.extraReleases) + "\n";
  }
  expectGolden("changelog/golden/blobs.txt", text);
}

const char kStatementLog[] =
    "5A 45 46 4F 04 53 00 00 13 00 00 01 00 00 00 00 00 00 00 7B 26 F4 89 80";

using ReplTransactionTest = PluginFixture;

// The names carry the start's and the dispose's time. A text over 255 bytes is refused before its
// record starts; after commit records are refused, and commit and savepoints do nothing. A file of
// the temporary name that someone else made is never written, nor removed; a commit whose file
// could not be created may be called again: the log then holds one commit marker, not two.
TEST_F(ReplTransactionTest, StatementOnlyLogIsPublishedAs24Bytes) {
  PosixFaults::setTime(1700000000);
  ReplTransaction* t = begin(1234);
  EXPECT_EQ(logs + "000000006553f100_00000000000004d2.tmp", t->getFileName());
  ASSERT_EQ(0, t->executeSql(status, nullptr, 1));
  EXPECT_EQ(335544382, t->executeSql(status, std::string(256, 'x').c_str(), 5));
  EXPECT_EQ(cdcError("CDC error: Statement text longer than 255 bytes"), status.errors());
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
    EXPECT_EQ(cdcError("CDC error: Transaction is already committed"), st.errors());
  }
  EXPECT_EQ(0, t->commit(status));
  t->startSavepoint(status, 1);
  t->rollbackSavepoint(1);
  t->releaseSavepoint(status, 1);
  PosixFaults::setTime(1700000003);
  t->dispose();
  EXPECT_EQ(Strings{"000000006553f103_00000000000004d2.fbl"}, listDirectory(logs));
  EXPECT_EQ(kStatementLog, hex(readFile(publishedLog())));
  clearLogs();

  PosixFaults::setTime(1700000000);
  const std::string name = logs + "000000006553f100_0000000000000005.tmp";
  writeFile(name, "not ours");
  for (bool retry : {false, true}) {
    SCOPED_TRACE(retry ? "committed again" : "given up");
    t = begin(5);
    ASSERT_EQ(0, t->executeSql(status, nullptr, 1));
    EXPECT_EQ(335544382, t->commit(status));
    EXPECT_EQ(cdcError("CDC error Log file creation failed: File exists"), status.errors());
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
// (That a put filling a block writes it, and the closing flush nothing more: TWriteFileTest.)
TEST_F(ReplTransactionTest, SavepointAtABlockStart) {
  for (bool creationFails : {false, true}) {
    for (bool blockWrittenSince : {false, true}) {
      SCOPED_TRACE(std::string(creationFails ? "file creation failed, " : "") +
                   (blockWrittenSince ? "block written since" : "block still buffered"));
      PosixFaults::reset();
      clearLogs();
      ReplTransaction* t = begin(5);
      Bytes model = bytesOf("ZEFO\x04");
      FbStatus st;
      // Records a statement, with a clean status as the server hands over, and models its bytes.
      const auto statement = [&](const std::string& sql, std::int64_t number) {
        st.get()->init();
        appendStatement(model, sql.c_str(), number);
        return t->executeSql(st, sql.c_str(), number);
      };
      // 121 statements of 269 bytes, with the header 210 bytes short of the first block's end,
      // and one of 210 bytes that ends it.
      for (int i = 0; i < 121; ++i) ASSERT_EQ(0, statement(std::string(255, 'a'), i));
      if (creationFails) PosixFaults::failAt(PosixFaults::kOpen, 1, EACCES);
      EXPECT_EQ(creationFails ? 335544382 : 0, statement(std::string(196, 'b'), 0));
      ASSERT_EQ(32764u, model.size());
      EXPECT_EQ(creationFails ? "CDC error Log file creation failed: Permission denied" : "",
                st.text());
      EXPECT_EQ(!creationFails, fileExists(t->getFileName()));
      t->startSavepoint(status, 1);
      const Bytes atSavepoint = model;
      for (int i = 0; i < (blockWrittenSince ? 130 : 3); ++i)
        ASSERT_EQ(0, statement(std::string(255, 'c'), i));
      const int readsBefore = PosixFaults::calls(PosixFaults::kRead);
      t->rollbackSavepoint(1);
      EXPECT_EQ(blockWrittenSince ? 1 : 0, PosixFaults::calls(PosixFaults::kRead) - readsBefore);
      model = atSavepoint;
      ASSERT_EQ(0, statement("after", 9));
      ASSERT_EQ(0, t->commit(status)) << status.text();
      t->dispose();
      model.push_back(0x7B);
      EXPECT_EQ(containerOf(model), readFile(publishedLog()));
    }
  }
}

}  // namespace
