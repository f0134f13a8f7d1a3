// Field values read from a real database through the embedded engine: blobs of every size, a table
// with a column of every recordable type, and the server's own errors. Logs are read back with the
// product's decoder.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>

#include "EmbeddedDatabase.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "PluginFixture.h"
#include "ResultSetRow.h"

namespace {

// Passes openBlob to a real attachment; its blobs fail on demand with the engine's own errors
// (closed under the reader after two pieces, or closed twice) and count the caller's references, so
// that every blob is seen given up exactly once. The plugin asks only for openBlob, getSegment,
// close and release: the other entries of the interface tables stay empty and would fail loudly.
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

// A decoded value as "<type code> <scale> <character set>: <value>", texts and blobs in hex.
std::string describe(const FieldValue& v) {
  using Kind = FieldValue::Kind;
  if (v.kind == Kind::kNull || v.kind == Kind::kAbsent) return v.present() ? "null" : "absent";
  std::ostringstream out;
  out << int{v.typeCode} << " " << v.scale << " " << int{v.charSet} << ": ";
  if (v.kind == Kind::kFloat || v.kind == Kind::kDouble) out << v.real;
  if (v.kind == Kind::kText || v.isBlobLike()) out << hex(Bytes(v.bytes.begin(), v.bytes.end()));
  if (v.kind != Kind::kFloat && v.kind != Kind::kDouble && v.kind != Kind::kText && !v.isBlobLike())
    out << v.integer;
  if (v.kind == Kind::kTimestamp) out << " " << v.time;
  return out.str();
}

class BlobValuesTest : public PluginFixture {
 protected:
  // Records one insert of row, its blobs read through attachment (the database's own when null);
  // returns the operation's result and keeps the published stream in `stream`.
  std::int32_t insert(Firebird::IReplRecord* row, Firebird::IAttachment* attachment = nullptr) {
    status.get()->init();
    std::int32_t result = -1;
    stream = recordStream([&](ReplTransaction* t) {
      result =
          t->insertRecord(status, attachment ? attachment : db.attachment(), db.transaction(), row);
    });
    return result;
  }

  // The one record of the published log, each field's new value as the product's decoder reads
  // it; checks that the log ends behind the record.
  Strings decodeSingle(const char* relation) {
    LogDecoder log;
    log.open(publishedLog());
    const ChangeEvent& e = log.next();
    EXPECT_EQ(ChangeEvent::Kind::kInsert, e.kind);
    EXPECT_EQ(relation, e.relation);
    Strings values;
    for (const FieldChange& f : e.fields)
      values.push_back(std::string(f.name) + " " + describe(f.before) + ", " + describe(f.after));
    EXPECT_EQ(ChangeEvent::Kind::kEnd, log.next().kind);
    return values;
  }

  EmbeddedDatabase db{dir / "test.fdb"};
  Bytes stream;
};

// Blobs of every size read back whole, in the pieces the server delivered (a segmented blob's at
// most its segments), read from the stream: "49 00 01 54 01 42 FD 11", the pieces, "00 00 FF".
TEST_F(BlobValuesTest, BlobsOfEverySizeRoundTrip) {
  for (std::size_t size : {0, 1, 65535, 65536, 3 << 20}) {
    for (bool streamBlob : {true, false}) {
      SCOPED_TRACE(std::to_string(size) + (streamBlob ? " stream" : " segmented"));
      const Bytes data = randomBytes(size, static_cast<unsigned>(size));
      LiteralRow row("T");
      row.addBlob("B", db.createBlob(data, streamBlob, 40000));
      ASSERT_EQ(0, insert(&row)) << status.text();
      ASSERT_EQ("49 00 01 54 01 42 FD 11", hex(Bytes(stream.begin(), stream.begin() + 8)));
      std::size_t at = 8, total = 0;
      for (std::size_t n; (n = stream.at(at) | stream.at(at + 1) << 8) != 0; at += 2 + n) {
        EXPECT_LE(n, streamBlob ? 65535u : 40000u);
        total += n;
      }
      EXPECT_EQ(size, total) << "an empty piece would have ended the list early";
      EXPECT_EQ(at + 3, stream.size());
      EXPECT_EQ(0xFF, stream.back());
      EXPECT_EQ(Strings{"B absent, 17 0 0: " + hex(data)}, decodeSingle("T"));
    }
  }
}

// An empty segment is not written: its length would end the list.
TEST_F(BlobValuesTest, EmptySegmentIsSkipped) {
  ISC_QUAD id;
  Firebird::CheckStatusWrapper w(status);
  Firebird::IBlob* blob = db.attachment()->createBlob(&w, db.transaction(), &id, 0, nullptr);
  db.check(w, "create blob");
  for (const char* segment : {"abc", "", "de"})
    blob->putSegment(&w, static_cast<unsigned>(std::strlen(segment)), segment);
  blob->close(&w);
  db.check(w, "segmented blob");
  LiteralRow row("T");
  row.addBlob("B", id);
  ASSERT_EQ(0, insert(&row)) << status.text();
  EXPECT_EQ("49 00 01 54 01 42 FD 11 03 00 61 62 63 02 00 64 65 00 00 FF", hex(stream));
}

// The server's own errors while a blob is read stay in the status, become the operation's result,
// and leave the record unfinished; every blob that was opened is given up exactly once.
TEST_F(BlobValuesTest, ServerErrorsWhileReadingABlob) {
  const Bytes data = randomBytes(5 * 1000, 3);
  const ISC_QUAD id = db.createBlob(data, false, 1000);
  using Fault = ForwardingAttachment::Fault;
  struct Case {
    const char* name;
    Fault fault;
    ISC_QUAD id;
    std::size_t piecesKept;
    int opened;
  };
  const Case cases[] = {
      {"no such blob", Fault::kNone, ISC_QUAD{0x7FFF, 0x7FFFFF}, 0, 0},
      {"closed under the reader after two pieces", Fault::kClosedAfterTwoPieces, id, 2, 1},
      {"close fails", Fault::kCloseFails, id, 5, 1},
      {"no fault", Fault::kNone, id, 5, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ForwardingAttachment attachment(db.attachment(), c.fault);
    LiteralRow row("T");
    row.addBlob("B", c.id).addLong("AFTER", 1);
    const std::int32_t result = insert(&row, &attachment);
    EXPECT_EQ(c.opened, attachment.opened);
    EXPECT_EQ(c.opened, attachment.givenUp);
    EXPECT_EQ(0, attachment.extraReleases);
    std::string expected = "49 00 01 54 01 42 FD 11";
    for (std::size_t i = 0; i < c.piecesKept; ++i)
      expected += " E8 03 " + hex(Bytes(data.begin() + i * 1000, data.begin() + (i + 1) * 1000));
    if (c.fault == Fault::kNone && c.opened) {
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

// A column of every recordable type, read through a result set row: each value decoded from the log
// is the one stored; an array is what the server delivers, its description and then the elements.
TEST_F(BlobValuesTest, EveryColumnTypeOfARealTable) {
  db.execute(
      "create table alltypes ("
      " c_smallint smallint, c_integer integer, c_bigint bigint,"
      " c_num18 numeric(18,4), c_dec9 decimal(9,2), c_num4 numeric(4,1),"
      " c_float float, c_double double precision,"
      " c_date date, c_time time, c_timestamp timestamp,"
      " c_char char(8) character set win1252, c_octets char(4) character set octets,"
      " c_varchar varchar(20) character set utf8, c_boolean boolean,"
      " c_text blob sub_type text, c_binary blob sub_type binary,"
      " c_array integer[3], c_null integer)");
  db.commitRetaining();
  db.executeWithArray(
      "insert into alltypes values (-12, 123456, 9007199254740993, 12345.6789, -7.25, 12.3,"
      " 1.5, 2.25e100, date '2024-02-29', time '12:34:56.7890',"
      " timestamp '2024-02-29 12:34:56.7890', 'ab', x'6162', 'h\xC3\xA9llo', true,"
      " 'some text', x'00FF00', ?, null)",
      "ALLTYPES", "C_ARRAY", {10, 20, 30});
  forEachRow(db, "select * from alltypes",
             [&](Firebird::IMessageMetadata* meta, const unsigned char* message) {
               ResultSetRow row("ALLTYPES", meta, message);
               ASSERT_EQ(0, insert(&row)) << status.text();
             });
  Strings values = decodeSingle("ALLTYPES");
  ASSERT_EQ(19u, values.size());
  // The array as the server delivers it: its description, then the elements.
  const std::string array = values[17];
  const std::string elements = " 0A 00 00 00 14 00 00 00 1E 00 00 00";
  ASSERT_EQ("C_ARRAY absent, 18 0 0: ", array.substr(0, 24));
  ASSERT_LT(24 + elements.size(), array.size());
  EXPECT_EQ(elements, array.substr(array.size() - elements.size()));
  // 2024-02-29 is day 60369 after 1858-11-17; 12:34:56.7890 is 452967890 units of 1/10000 s.
  const Strings expected = {
      "C_SMALLINT absent, 8 0 0: -12",
      "C_INTEGER absent, 9 0 0: 123456",
      "C_BIGINT absent, 19 0 0: 9007199254740993",
      "C_NUM18 absent, 19 -4 0: 123456789",
      "C_DEC9 absent, 9 -2 0: -725",
      "C_NUM4 absent, 8 -1 0: 123",
      "C_FLOAT absent, 11 0 0: 1.5",
      "C_DOUBLE absent, 12 0 0: 2.25e+100",
      "C_DATE absent, 14 0 0: 60369",
      "C_TIME absent, 15 0 0: 452967890",
      "C_TIMESTAMP absent, 16 0 0: 60369 452967890",
      "C_CHAR absent, 1 0 53: 61 62",
      "C_OCTETS absent, 1 0 1: 61 62",
      "C_VARCHAR absent, 3 0 4: 68 C3 A9 6C 6C 6F",
      "C_BOOLEAN absent, 21 0 0: 1",
      "C_TEXT absent, 17 0 0: 73 6F 6D 65 20 74 65 78 74",
      "C_BINARY absent, 17 0 0: 00 FF 00",
      array,
      "C_NULL absent, null",
  };
  EXPECT_EQ(expected, values);
}

// What the plugin relies on: the engine's successful close gives up the caller's reference, so with
// one extra reference taken before it, the release after it drops the last one.
TEST_F(BlobValuesTest, EngineCloseGivesUpTheReference) {
  ISC_QUAD id = db.createBlob(bytesOf("abc"), false);
  Firebird::CheckStatusWrapper w(status);
  Firebird::IBlob* blob = db.attachment()->openBlob(&w, db.transaction(), &id, 0, nullptr);
  ASSERT_NE(nullptr, blob);
  blob->addRef();
  blob->close(&w);
  ASSERT_FALSE(status.hasErrors()) << status.text();
  EXPECT_EQ(0, blob->release());
}

// Unrecorded column types map to a code the plugin refuses (see RefusedTypes). No result set of
// this server has one, so the client library's builder makes it; an unnamed column is numbered.
TEST(ResultSetRowTest, UnrecordedTypesAndUnnamedColumns) {
  for (unsigned type : {SQL_D_FLOAT, SQL_QUAD, SQL_NULL, SQL_QUAD + 1})
    EXPECT_EQ(ResultSetRow::kUnrecordedType, ResultSetRow::typeCodeOf(type)) << type;
  FbStatus st;
  Firebird::CheckStatusWrapper w(st);
  Firebird::IMetadataBuilder* builder =
      Firebird::fb_get_master_interface()->getMetadataBuilder(&w, 2);
  builder->setType(&w, 0, SQL_LONG);
  builder->setLength(&w, 0, 4);
  builder->setType(&w, 1, SQL_QUAD);
  builder->setLength(&w, 1, 8);
  Firebird::IMessageMetadata* meta = builder->getMetadata(&w);
  builder->release();
  ASSERT_FALSE(st.hasErrors()) << st.text();
  const std::vector<unsigned char> message(meta->getMessageLength(&w), 0);
  ResultSetRow row("ODD", meta, message.data());
  meta->release();
  EXPECT_EQ(9u, row.fields()[0].type);
  EXPECT_EQ(ResultSetRow::kUnrecordedType, row.fields()[1].type);
  EXPECT_EQ("COLUMN_2", row.fields()[1].name);
}

}  // namespace
