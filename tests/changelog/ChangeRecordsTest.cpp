// Insert, update and delete records, byte for byte as the format lays them out.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "LiteralRow.h"
#include "PluginFixture.h"

namespace {

using Fields = std::function<void(LiteralRow&)>;

class ChangeRecordsTest : public PluginFixture {
 protected:
  // Records one operation ('I' insert, 'D' delete, 'U' update from old to row) and returns the hex
  // of what it left in the stream.
  std::string record(char op, LiteralRow& row, LiteralRow* old = nullptr,
                     std::int32_t expectedResult = 0) {
    // The server hands every call a clean status; an error left from an earlier call would stop
    // the record at its first field.
    status.get()->init();
    std::int32_t result = -1;
    const Bytes stream = recordStream([&](ReplTransaction* t) {
      if (op == 'I') result = t->insertRecord(status, nullptr, nullptr, &row);
      if (op == 'D') result = t->deleteRecord(status, nullptr, nullptr, &row);
      if (op == 'U') result = t->updateRecord(status, nullptr, nullptr, old, &row);
    });
    EXPECT_EQ(expectedResult, result) << status.text();
    return hex(stream);
  }
};

// One record per row, in relation T unless named: an insert carries new values, a delete old ones
// (a blob or array field: its name only), an update walks the old and the new image in step. The
// bytes are those between the relation name and the end byte.
TEST_F(ChangeRecordsTest, RecordBytes) {
  struct Case {
    const char* name;
    char op;
    Fields fields;  // the new image, or a delete's old one
    std::string bytes;
    Fields before = nullptr;  // an update's old image
    const char* relation = "T";
  };
  const Fields none = [](LiteralRow&) {};
  const Fields skipped = [](LiteralRow& r) {
    r.addRaw("Z", 0, "").addLong(nullptr, 7).addLong("", 8).addLong("A", 1);
  };
  const Fields a1 = [](LiteralRow& r) { r.addLong("A", 1); };
  const ISC_QUAD id = {1, 2};
  const Case cases[] = {
      {"short", 'I', [](LiteralRow& r) { r.addShort("F", 1234, -2); }, "01 46 FD 08 FE FF D2 04"},
      {"long", 'I', [](LiteralRow& r) { r.addLong("F", 5); }, "01 46 FD 09 00 00 05 00 00 00"},
      {"real, widened", 'I', [](LiteralRow& r) { r.addFloat("F", 1.5f); },
       "01 46 FD 0B 00 00 00 00 00 00 F8 3F"},
      {"double", 'I', [](LiteralRow& r) { r.addDouble("F", -0.1); },
       "01 46 FD 0C 9A 99 99 99 99 99 B9 BF"},
      {"old int64", 'D', [](LiteralRow& r) { r.addInt64("F", -1, -4); },
       "01 46 FE 13 FC FF FF FF FF FF FF FF FF FF"},
      {"boolean", 'I', [](LiteralRow& r) { r.addBoolean("F", true); }, "01 46 FD 15 01"},
      {"date", 'I', [](LiteralRow& r) { r.addDate("F", 100); }, "01 46 FD 0E 64 00 00 00"},
      {"time", 'I', [](LiteralRow& r) { r.addTime("F", 0x01020304); }, "01 46 FD 0F 04 03 02 01"},
      {"timestamp", 'I', [](LiteralRow& r) { r.addTimestamp("F", 0x11223344, 0x55667788); },
       "01 46 FD 10 44 33 22 11 88 77 66 55"},
      {"char, blanks dropped", 'I', [](LiteralRow& r) { r.addChar("F", "ab   ", 4); },
       "01 46 FD 01 04 02 00 61 62"},
      {"char octets, zeros dropped", 'I',
       [](LiteralRow& r) { r.addChar("F", std::string("ab\0\0\0", 5), 1); },
       "01 46 FD 01 01 02 00 61 62"},
      {"char octets keeps blanks", 'I', [](LiteralRow& r) { r.addChar("F", "ab   ", 1); },
       "01 46 FD 01 01 05 00 61 62 20 20 20"},
      {"char keeps zeros", 'I', [](LiteralRow& r) { r.addChar("F", std::string("ab\0\0", 4), 0); },
       "01 46 FD 01 00 04 00 61 62 00 00"},
      {"char of blanks only", 'I', [](LiteralRow& r) { r.addChar("F", "     ", 4); },
       "01 46 FD 01 04 00 00"},
      {"char with a collation", 'I', [](LiteralRow& r) { r.addChar("F", "x ", 0x0304); },
       "01 46 FD 01 04 01 00 78"},
      {"varchar", 'I', [](LiteralRow& r) { r.addVarchar("F", "xyz", 0); },
       "01 46 FD 03 00 03 00 78 79 7A"},
      {"varchar keeps blanks", 'I', [](LiteralRow& r) { r.addVarchar("F", "a ", 53); },
       "01 46 FD 03 35 02 00 61 20"},
      {"cstring", 'I', [](LiteralRow& r) { r.addCString("F", "hi", 2); },
       "01 46 FD 02 02 02 00 68 69"},
      {"null new", 'I', [](LiteralRow& r) { r.addNull("F", 9); }, "01 46 FD 63"},
      {"null old", 'D', [](LiteralRow& r) { r.addNull("F", 19); }, "01 46 FE 63"},
      {"null blob", 'I', [](LiteralRow& r) { r.addNull("F", 17); }, "01 46 FD 63"},
      {"old blob", 'D', [&](LiteralRow& r) { r.addBlob("F", id); }, "01 46"},
      {"old array", 'D', [&](LiteralRow& r) { r.addArray("F", id); }, "01 46"},
      {"type 0: nothing", 'I', [](LiteralRow& r) { r.addRaw("F", 0, "abcd"); }, ""},
      {"empty insert", 'I', none, ""},
      {"empty delete", 'D', none, ""},
      {"empty update", 'U', none, "", none},
      {"null relation name", 'I', a1, "01 41 FD 09 00 00 01 00 00 00", nullptr, nullptr},
      {"empty relation name", 'I', a1, "01 41 FD 09 00 00 01 00 00 00", nullptr, ""},
      {"type 0 and unnamed fields", 'I', skipped, "01 41 FD 09 00 00 01 00 00 00"},
      {"type 0 and unnamed old fields", 'D', skipped, "01 41 FE 09 00 00 01 00 00 00"},
      {"type 0 and unnamed, update", 'U', skipped,
       "01 41 FE 09 00 00 01 00 00 00 FD 09 00 00 01 00 00 00", skipped},
      {"old image shorter", 'U', [](LiteralRow& r) { r.addLong("A", 1).addLong("B", 2); },
       "01 41 FE 09 00 00 09 00 00 00 FD 09 00 00 01 00 00 00 01 42 FD 09 00 00 02 00 00 00",
       [](LiteralRow& r) { r.addLong("A", 9); }},
      {"new skips a field, old skips its partner", 'U',
       [](LiteralRow& r) { r.addRaw("A", 0, "").addLong("B", 2); },
       "01 42 FE 09 00 00 08 00 00 00 FD 09 00 00 02 00 00 00",
       [](LiteralRow& r) { r.addLong("X", 7).addLong("Y", 8); }},
      {"names are not compared", 'U', a1, "01 41 FE 08 00 00 03 00 FD 09 00 00 01 00 00 00",
       [](LiteralRow& r) { r.addShort("OTHER", 3); }},
      {"old of type 0: no old value", 'U', a1, "01 41 FD 09 00 00 01 00 00 00",
       [](LiteralRow& r) { r.addRaw("A", 0, ""); }},
      {"old blob: no old value", 'U', [](LiteralRow& r) { r.addNull("A", 17); }, "01 41 FD 63",
       [&](LiteralRow& r) { r.addBlob("A", id); }},
      {"old fields beyond the new image are dropped", 'U', [](LiteralRow& r) { r.addNull("A", 9); },
       "01 41 FE 09 00 00 01 00 00 00 FD 63",
       [](LiteralRow& r) { r.addLong("A", 1).addLong("B", 2); }},
      {"null old value", 'U', a1, "01 41 FE 63 FD 09 00 00 01 00 00 00",
       [](LiteralRow& r) { r.addNull("A", 9); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // The old image's relation name is not recorded.
    LiteralRow row(c.relation), old("OLD_NAME_IGNORED");
    c.fields(row);
    if (c.before) c.before(old);
    const std::string relation = c.relation ? c.relation : "";
    const Bytes head =
        bytesOf(std::string{c.op, '\0', static_cast<char>(relation.size())} + relation);
    EXPECT_EQ(hex(head) + (c.bytes.empty() ? "" : " " + c.bytes) + " FF", record(c.op, row, &old));
  }
}

// Types without a recording are refused after their marker and type byte; the record stops there.
TEST_F(ChangeRecordsTest, RefusedTypes) {
  for (std::uint32_t type : {4u, 5u, 6u, 7u, 10u, 13u, 20u, 22u, 255u, 0x1234u}) {
    SCOPED_TRACE(type);
    LiteralRow row("T");
    row.addLong("A", 1).addRaw("B", type, "12345678", 8).addLong("C", 2);
    EXPECT_EQ("49 00 01 54 01 41 FD 09 00 00 01 00 00 00 01 42 FD " +
                  hex({static_cast<std::uint8_t>(type)}),
              record('I', row, nullptr, 336330778));
    EXPECT_EQ((Strings{"1", "336330778", "4", std::to_string(type)}), status.errors());
  }
}

// The status is tested after the first field and after every field that reached the server: an
// error the status already held stops the record after its first field, as it would if the status
// were tested after every field.
TEST_F(ChangeRecordsTest, ErrorAlreadyInTheStatusStopsAfterTheFirstField) {
  LiteralRow row("T"), oldRow("T");
  row.addLong("A", 1).addLong("B", 2);
  oldRow.addLong("A", 0).addLong("B", 0);
  for (bool update : {false, true}) {
    const intptr_t earlier[] = {isc_arg_gds, 335544321, isc_arg_end};
    std::int32_t result = 0;
    const Bytes stream = recordStream([&](ReplTransaction* t) {
      status.get()->setErrors(earlier);
      result = update ? t->updateRecord(status, nullptr, nullptr, &oldRow, &row)
                      : t->insertRecord(status, nullptr, nullptr, &row);
    });
    EXPECT_EQ(335544321, result);
    EXPECT_EQ(update ? "55 00 01 54 01 41 FE 09 00 00 00 00 00 00"
                     : "49 00 01 54 01 41 FD 09 00 00 01 00 00 00",
              hex(stream));
  }
}

// Names and texts whose length cannot be written: refused before anything they would start.
TEST_F(ChangeRecordsTest, LengthLimits) {
  const std::string name252(252, 'N'), name253(253, 'N');
  LiteralRow longest(name252.c_str());
  longest.addLong(name252.c_str(), 1);
  const std::string stream = record('I', longest);
  EXPECT_EQ("49 00 FC", stream.substr(0, 8));
  EXPECT_EQ(3 + 252 + 1 + 252 + 8 + 1, static_cast<int>((stream.size() + 1) / 3));

  for (char op : {'I', 'D', 'U'}) {
    SCOPED_TRACE(op);
    LiteralRow noFields("T");  // an update's old image: every entry carries only its new value
    LiteralRow longRelation(name253.c_str());
    longRelation.addLong("A", 1);
    EXPECT_EQ("", record(op, longRelation, &noFields, 335544382));
    EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error: Relation name longer than 252 bytes"}),
              status.errors());

    LiteralRow longField("T");
    longField.addLong("A", 1).addLong(name253.c_str(), 2).addLong("C", 3);
    const std::string partial = record(op, longField, &noFields, 335544382);
    EXPECT_EQ("CDC error: Field name longer than 252 bytes", status.text());
    EXPECT_EQ("01 41", partial.substr(12, 5)) << "the fields before it stay";
    EXPECT_EQ(std::string::npos, partial.find("FD 09 00 00 02")) << "nothing of its entry";
    EXPECT_NE("FF", partial.substr(partial.size() - 2)) << "the record stays unfinished";
  }

  for (std::uint32_t type : {1u, 2u}) {
    SCOPED_TRACE(type);
    LiteralRow longText("T"), longestText("T");
    if (type == 1) longText.addChar("F", std::string(65536, 'a'), 4);
    if (type == 2) longText.addCString("F", std::string(70000, 'a'), 4);
    EXPECT_EQ("49 00 01 54 01 46 FD 0" + std::to_string(type),
              record('I', longText, nullptr, 335544382));
    EXPECT_EQ("CDC error: Text value longer than 65535 bytes", status.text());
    longestText.addChar("F", std::string(65535, 'b') + "   ", 4);
    EXPECT_EQ("49 00 01 54 01 46 FD 01 04 FF FF", record('I', longestText).substr(0, 32));
  }
}

}  // namespace
