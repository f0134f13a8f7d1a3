// Field values read from a real database through the embedded engine: blobs and arrays of every
// size, a table with a column of every recordable type, and the server's own errors.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "EmbeddedDatabase.h"
#include "ForwardingAttachment.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "PluginFixture.h"
#include "ResultSetRow.h"

namespace {

using Strings = std::vector<std::string>;

Bytes blobData(std::size_t n, bool text, unsigned seed) {
  std::mt19937 random(seed);
  Bytes b(n);
  for (std::size_t i = 0; i < n; ++i) {
    b[i] = text ? static_cast<std::uint8_t>(i % 61 == 60 ? '\n' : 'a' + random() % 26)
                : static_cast<std::uint8_t>(random());
  }
  return b;
}

template <typename T>
Bytes bytesOfValue(T value) {
  Bytes b(sizeof value);
  std::memcpy(b.data(), &value, sizeof value);
  return b;
}

class BlobValuesTest : public PluginFixture {
 protected:
  void SetUp() override {
    PluginFixture::SetUp();
    db = std::make_unique<EmbeddedDatabase>(dir / "test.fdb");
  }
  void TearDown() override {
    db.reset();
    PluginFixture::TearDown();
  }

  // Records one insert of row through attachment; returns the operation's result.
  std::int32_t insert(Firebird::IAttachment* attachment, Firebird::IReplRecord* row, FbStatus& st) {
    ReplTransaction* t = begin(7);
    const std::int32_t result = t->insertRecord(st, attachment, db->transaction(), row);
    EXPECT_EQ(0, t->commit(st));
    t->dispose();
    return result;
  }

  std::unique_ptr<EmbeddedDatabase> db;
};

// Stream and segmented blobs of every interesting size, text and binary, stored in a table and
// read back through a result set row: the segment list in the log reassembles to what was stored,
// every piece is at most 65535 bytes, and a segmented blob's pieces are its segments.
TEST_F(BlobValuesTest, BlobsOfEverySizeRoundTrip) {
  db->execute("create table blobs (id integer, t blob sub_type text, b blob sub_type binary)");
  db->commitRetaining();
  const std::size_t sizes[] = {0, 1, 65535, 65536, 3 << 20};
  for (std::size_t size : sizes) {
    for (bool stream : {true, false}) {
      for (bool text : {true, false}) {
        SCOPED_TRACE(std::to_string(size) + (stream ? " stream" : " segmented") +
                     (text ? " text" : " binary"));
        const Bytes data = blobData(size, text, static_cast<unsigned>(size));
        const std::size_t segment = 40000;
        const ISC_QUAD id = db->createBlob(data, stream, segment);
        db->execute("delete from blobs");
        db->executeWithId(text ? "insert into blobs (id, t) values (1, ?)"
                               : "insert into blobs (id, b) values (1, ?)",
                          SQL_BLOB, id);
        forEachRow(*db, text ? "select t from blobs" : "select b from blobs",
                   [&](Firebird::IMessageMetadata* meta, const unsigned char* message) {
                     ResultSetRow row("BLOBS", meta, message);
                     FbStatus st;
                     ASSERT_EQ(0, insert(db->attachment(), &row, st)) << st.text();
                   });
        const std::vector<DecodedRecord> records = decodeLog(publishedLog());
        ::remove(publishedLog().c_str());
        ASSERT_EQ(1u, records.size());
        ASSERT_EQ(1u, records[0].fields.size());
        const DecodedValue& v = records[0].fields[0].values.at(0);
        EXPECT_EQ(17, v.type);
        EXPECT_TRUE(v.payload == data) << "contents differ";
        std::size_t total = 0;
        for (std::size_t piece : v.pieces) {
          EXPECT_GT(piece, 0u);
          EXPECT_LE(piece, 65535u);
          if (!stream) {
            EXPECT_LE(piece, segment) << "a segmented blob's pieces are its segments";
          }
          total += piece;
        }
        EXPECT_EQ(size, total);
      }
    }
  }
}

// Pieces are what each read delivered; an empty segment is not written, as its length would end
// the list.
TEST_F(BlobValuesTest, SegmentListBytes) {
  struct Case {
    std::vector<std::string> segments;
    const char* expected;
  };
  const Case cases[] = {
      {{"abc", "", "de"}, "01 42 FD 11 03 00 61 62 63 02 00 64 65 00 00"},
      {{}, "01 42 FD 11 00 00"},
      {{"x"}, "01 42 FD 11 01 00 78 00 00"},
  };
  for (const Case& c : cases) {
    Bytes joined;
    ISC_QUAD id;
    {
      // Segmented blob written segment by segment, the empty one included.
      Firebird::IStatus* st = Firebird::fb_get_master_interface()->getStatus();
      Firebird::CheckStatusWrapper w(st);
      Firebird::IBlob* blob = db->attachment()->createBlob(&w, db->transaction(), &id, 0, nullptr);
      db->check(w, "create blob");
      for (const std::string& s : c.segments) {
        blob->putSegment(&w, static_cast<unsigned>(s.size()), s.data());
        db->check(w, "put segment");
      }
      blob->close(&w);
      db->check(w, "close");
      st->dispose();
    }
    LiteralRow row("T");
    row.addBlob("B", id);
    FbStatus st;
    ASSERT_EQ(0, insert(db->attachment(), &row, st)) << st.text();
    const Bytes file = readFile(publishedLog());
    ::remove(publishedLog().c_str());
    const Bytes stream(file.begin() + 5, file.end() - 5);
    EXPECT_EQ(std::string("49 00 01 54 ") + c.expected + " FF", hex(stream));
  }
}

TEST_F(BlobValuesTest, ArrayContentsAreReadLikeABlob) {
  db->execute("create table arrays (id integer, a integer[3])");
  db->commitRetaining();
  const ISC_QUAD slice = db->putIntegerArray("ARRAYS", "A", {10, 20, 30});
  db->executeWithId("insert into arrays (id, a) values (1, ?)", SQL_ARRAY, slice);
  Bytes direct;
  forEachRow(*db, "select id, a from arrays",
             [&](Firebird::IMessageMetadata* meta, const unsigned char* message) {
               ResultSetRow row("ARRAYS", meta, message);
               ISC_QUAD stored;
               std::memcpy(&stored, row.fields()[1].value.data(), sizeof stored);
               direct = db->readBlob(stored);
               FbStatus st;
               ASSERT_EQ(0, insert(db->attachment(), &row, st)) << st.text();
             });
  const std::vector<DecodedRecord> records = decodeLog(publishedLog());
  ASSERT_EQ(1u, records.size());
  ASSERT_EQ(2u, records[0].fields.size());
  EXPECT_EQ("A", records[0].fields[1].name);
  const DecodedValue& v = records[0].fields[1].values.at(0);
  EXPECT_EQ(18, v.type);
  EXPECT_EQ(direct, v.payload);
  // The server delivers its description of the array and then the elements.
  const Bytes elements = bytesOf(std::string("\x0A\0\0\0\x14\0\0\0\x1E\0\0\0", 12));
  ASSERT_GE(v.payload.size(), elements.size());
  EXPECT_EQ(elements, Bytes(v.payload.end() - 12, v.payload.end()));
}

// The server's own errors while a blob is read stay in the status, become the operation's result,
// and leave the record unfinished; every blob that was opened is given up exactly once.
TEST_F(BlobValuesTest, ServerErrorsWhileReadingABlob) {
  const Bytes data = blobData(5 * 1000, false, 3);
  const ISC_QUAD id = db->createBlob(data, false, 1000);
  struct Case {
    const char* name;
    ForwardingAttachment::BlobFault fault;
    ISC_QUAD id;
    std::size_t piecesKept;  // -1: none opened
    int opened;
  };
  const Case cases[] = {
      {"no such blob", ForwardingAttachment::BlobFault::kNone, ISC_QUAD{0x7FFF, 0x7FFFFF}, 0, 0},
      {"closed under the reader after two pieces",
       ForwardingAttachment::BlobFault::kClosedAfterPieces, id, 2, 1},
      {"close fails", ForwardingAttachment::BlobFault::kCloseFails, id, 5, 1},
      {"no fault", ForwardingAttachment::BlobFault::kNone, id, 5, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ForwardingAttachment attachment(db->attachment());
    attachment.injectBlobFault(c.fault, 2);
    LiteralRow row("T");
    row.addBlob("B", c.id).addLong("AFTER", 1);
    FbStatus st;
    const std::int32_t result = insert(&attachment, &row, st);
    EXPECT_EQ(c.opened, attachment.blobsOpened());
    EXPECT_EQ(c.opened, attachment.blobsGivenUp());
    EXPECT_EQ(0, attachment.extraReleases());
    const Bytes file = readFile(publishedLog());
    ::remove(publishedLog().c_str());
    const std::string stream = hex(Bytes(file.begin() + 5, file.end() - 5));
    std::string expected = "49 00 01 54 01 42 FD 11";
    for (std::size_t i = 0; i < c.piecesKept; ++i)
      expected += " E8 03 " + hex(Bytes(data.begin() + i * 1000, data.begin() + (i + 1) * 1000));
    if (c.fault == ForwardingAttachment::BlobFault::kNone && c.opened) {
      EXPECT_EQ(0, result) << st.text();
      EXPECT_EQ(expected + " 00 00 05 41 46 54 45 52 FD 09 00 00 01 00 00 00 FF", stream);
      continue;
    }
    ASSERT_TRUE(st.hasErrors());
    const std::vector<std::string> errors = st.errors();
    EXPECT_EQ("1", errors[0]);
    EXPECT_EQ(std::stoll(errors[1]), result) << "the server's code is the result";
    EXPECT_NE("335544382", errors[1]) << "the server's own error, not one of ours";
    EXPECT_EQ(expected, stream) << "no terminator, no further field, no end byte";
  }
}

// A table with a column of every recordable type, read through a result set row and recorded:
// every value decoded from the log is the one stored.
TEST_F(BlobValuesTest, EveryColumnTypeOfARealTable) {
  db->execute(
      "create table alltypes ("
      " c_smallint smallint, c_integer integer, c_bigint bigint,"
      " c_num18 numeric(18,4), c_dec9 decimal(9,2), c_num4 numeric(4,1),"
      " c_float float, c_double double precision,"
      " c_date date, c_time time, c_timestamp timestamp,"
      " c_char char(8) character set win1252, c_octets char(4) character set octets,"
      " c_varchar varchar(20) character set utf8, c_boolean boolean,"
      " c_text blob sub_type text, c_binary blob sub_type binary,"
      " c_array integer[2], c_null integer)");
  db->commitRetaining();
  db->execute(
      "insert into alltypes values (-12, 123456, 9007199254740993, 12345.6789, -7.25, 12.3,"
      " 1.5, 2.25e100, date '2024-02-29', time '12:34:56.7890',"
      " timestamp '2024-02-29 12:34:56.7890', 'ab', x'6162', 'h\xC3\xA9llo', true,"
      " 'some text', x'00FF00', null, null)");
  const std::int32_t date = 60369;  // days since 1858-11-17
  const std::uint32_t time = ((12 * 3600 + 34 * 60 + 56) * 10000u) + 7890;
  struct Expected {
    const char* name;
    int type;
    int scale;
    int charSet;
    Bytes payload;
  };
  const std::vector<Expected> expected = {
      {"C_SMALLINT", 8, 0, 0, bytesOfValue<std::int16_t>(-12)},
      {"C_INTEGER", 9, 0, 0, bytesOfValue<std::int32_t>(123456)},
      {"C_BIGINT", 19, 0, 0, bytesOfValue<std::int64_t>(9007199254740993)},
      {"C_NUM18", 19, -4, 0, bytesOfValue<std::int64_t>(123456789)},
      {"C_DEC9", 9, -2, 0, bytesOfValue<std::int32_t>(-725)},
      {"C_NUM4", 8, -1, 0, bytesOfValue<std::int16_t>(123)},
      {"C_FLOAT", 11, 0, 0, bytesOfValue<double>(1.5)},
      {"C_DOUBLE", 12, 0, 0, bytesOfValue<double>(2.25e100)},
      {"C_DATE", 14, 0, 0, bytesOfValue<std::int32_t>(date)},
      {"C_TIME", 15, 0, 0, bytesOfValue<std::uint32_t>(time)},
      {"C_TIMESTAMP", 16, 0, 0,
       [&] {
         Bytes b = bytesOfValue<std::int32_t>(date);
         const Bytes t = bytesOfValue<std::uint32_t>(time);
         b.insert(b.end(), t.begin(), t.end());
         return b;
       }()},
      {"C_CHAR", 1, 0, 53, bytesOf("ab")},
      {"C_OCTETS", 1, 0, 1, bytesOf("ab")},
      {"C_VARCHAR", 3, 0, 4, bytesOf("h\xC3\xA9llo")},
      {"C_BOOLEAN", 21, 0, 0, Bytes{1}},
      {"C_TEXT", 17, 0, 0, bytesOf("some text")},
      {"C_BINARY", 17, 0, 0, Bytes{0x00, 0xFF, 0x00}},
      {"C_ARRAY", -1, 0, 0, {}},
      {"C_NULL", -1, 0, 0, {}},
  };
  forEachRow(*db, "select * from alltypes",
             [&](Firebird::IMessageMetadata* meta, const unsigned char* message) {
               ResultSetRow row("ALLTYPES", meta, message);
               FbStatus st;
               ASSERT_EQ(0, insert(db->attachment(), &row, st)) << st.text();
             });
  const std::vector<DecodedRecord> records = decodeLog(publishedLog());
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ('I', records[0].tag);
  EXPECT_EQ("ALLTYPES", records[0].name);
  ASSERT_EQ(expected.size(), records[0].fields.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Expected& e = expected[i];
    const DecodedField& f = records[0].fields[i];
    SCOPED_TRACE(e.name);
    EXPECT_EQ(e.name, f.name);
    ASSERT_EQ(1u, f.values.size());
    const DecodedValue& v = f.values[0];
    EXPECT_EQ(0xFD, v.marker);
    if (e.type < 0) {
      EXPECT_TRUE(v.null);
      continue;
    }
    EXPECT_FALSE(v.null);
    EXPECT_EQ(e.type, v.type);
    EXPECT_EQ(e.scale, v.scale);
    EXPECT_EQ(e.charSet, v.charSet);
    EXPECT_EQ(hex(e.payload), hex(v.payload));
  }
}

// The rule the plugin relies on: a successful close of one of the engine's blobs gives up the
// caller's reference, so a release after it would be one too many. With one extra reference taken
// before the close, the release that follows it drops the last one.
TEST_F(BlobValuesTest, EngineCloseGivesUpTheReference) {
  ISC_QUAD id = db->createBlob(bytesOf("abc"), false);
  FbStatus st;
  Firebird::CheckStatusWrapper w(st);
  Firebird::IBlob* blob = db->attachment()->openBlob(&w, db->transaction(), &id, 0, nullptr);
  ASSERT_NE(nullptr, blob);
  blob->addRef();
  blob->close(&w);
  ASSERT_FALSE(st.hasErrors()) << st.text();
  EXPECT_EQ(0, blob->release());
}

// Column types map to the codes the plugin records; the rest to one it refuses.
TEST(ResultSetRowTypes, SqlTypesMapToDescriptorCodes) {
  const std::pair<unsigned, std::uint32_t> map[] = {
      {SQL_TEXT, 1},       {SQL_VARYING, 3},  {SQL_SHORT, 8},      {SQL_LONG, 9},
      {SQL_FLOAT, 11},     {SQL_DOUBLE, 12},  {SQL_TYPE_DATE, 14}, {SQL_TYPE_TIME, 15},
      {SQL_TIMESTAMP, 16}, {SQL_BLOB, 17},    {SQL_ARRAY, 18},     {SQL_INT64, 19},
      {SQL_BOOLEAN, 21},   {SQL_LONG + 1, 9}, {SQL_D_FLOAT, 22},   {SQL_QUAD, 22},
      {SQL_NULL, 22},
  };
  for (const auto& m : map) EXPECT_EQ(m.second, ResultSetRow::typeCodeOf(m.first)) << m.first;
}

// A column whose type has no recording is refused through the same path as any refused type.
// Result sets of this server never carry such a type, so the metadata comes from the client
// library's own metadata builder.
TEST_F(BlobValuesTest, UnrecordedColumnTypeIsRefused) {
  Firebird::IMaster* master = Firebird::fb_get_master_interface();
  FbStatus st;
  Firebird::CheckStatusWrapper w(st);
  Firebird::IMetadataBuilder* builder = master->getMetadataBuilder(&w, 2);
  builder->setType(&w, 0, SQL_LONG);
  builder->setLength(&w, 0, 4);
  builder->setType(&w, 1, SQL_QUAD);
  builder->setLength(&w, 1, 8);
  Firebird::IMessageMetadata* meta = builder->getMetadata(&w);
  builder->release();
  ASSERT_FALSE(st.hasErrors()) << st.text();
  std::vector<unsigned char> message(meta->getMessageLength(&w), 0);
  const std::int32_t one = 1;
  std::memcpy(message.data() + meta->getOffset(&w, 0), &one, 4);
  ResultSetRow row("ODD", meta, message.data());
  meta->release();
  EXPECT_EQ(ResultSetRow::kUnrecordedType, row.fields()[1].type);
  EXPECT_EQ("COLUMN_2", row.fields()[1].name) << "a column without a name is named by position";
  FbStatus recorded;
  EXPECT_EQ(336330778, insert(db->attachment(), &row, recorded));
  EXPECT_EQ((Strings{"1", "336330778", "4", "22"}), recorded.errors());
}

TEST(RowImageCursor, StaysInvalidPastTheEnd) {
  LiteralRow none("T");
  Firebird::IReplField* cursor = none.getFields();
  EXPECT_FALSE(cursor->isValid());
  cursor->moveNext();
  EXPECT_FALSE(cursor->isValid());
  LiteralRow one("T");
  one.addLong("A", 1);
  cursor = one.getFields();
  EXPECT_TRUE(cursor->isValid());
  EXPECT_STREQ("A", cursor->getName());
  cursor->moveNext();
  cursor->moveNext();
  EXPECT_FALSE(cursor->isValid());
  EXPECT_TRUE(one.getFields()->isValid()) << "getFields starts over";
}

}  // namespace
