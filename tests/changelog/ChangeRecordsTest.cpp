#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "LiteralRow.h"
#include "PluginFixture.h"

namespace {

using Strings = std::vector<std::string>;

std::string le(std::uint64_t value, int bytes) {
  Bytes b;
  for (int i = 0; i < bytes; ++i) b.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  return hex(b);
}

std::string doubleBytes(double d) {
  std::uint64_t bits;
  std::memcpy(&bits, &d, 8);
  return le(bits, 8);
}

class ChangeRecordsTest : public PluginFixture {
 protected:
  // Records one operation and returns the hex of what it left in the stream.
  std::string record(const std::function<std::int32_t(ReplTransaction*)>& op,
                     std::int32_t expectedResult = 0) {
    // The server hands every call a clean status; an error left from an earlier call would stop
    // the record at its first field.
    status.get()->init();
    std::int32_t result = -1;
    const Bytes stream = recordStream([&](ReplTransaction* t) { result = op(t); });
    EXPECT_EQ(expectedResult, result) << status.text();
    return hex(stream);
  }
  std::string insert(LiteralRow& row, std::int32_t expectedResult = 0) {
    return record(
        [&](ReplTransaction* t) { return t->insertRecord(status, nullptr, nullptr, &row); },
        expectedResult);
  }
  std::string remove(LiteralRow& row, std::int32_t expectedResult = 0) {
    return record(
        [&](ReplTransaction* t) { return t->deleteRecord(status, nullptr, nullptr, &row); },
        expectedResult);
  }
  std::string update(LiteralRow& oldRow, LiteralRow& newRow, std::int32_t expectedResult = 0) {
    return record(
        [&](ReplTransaction* t) {
          return t->updateRecord(status, nullptr, nullptr, &oldRow, &newRow);
        },
        expectedResult);
  }
};

// One field F in relation T: the value bytes as they stand in an insert (new values) or a delete
// (old values).
TEST_F(ChangeRecordsTest, ValueEncodings) {
  struct Case {
    const char* name;
    std::function<void(LiteralRow&)> field;
    bool old;
    std::string entry;  // bytes between the relation name and the end byte
  };
  const std::vector<Case> cases = {
      {"short", [](LiteralRow& r) { r.addShort("F", 1234, -2); }, false, "01 46 FD 08 FE FF D2 04"},
      {"long", [](LiteralRow& r) { r.addLong("F", 5); }, false, "01 46 FD 09 00 00 05 00 00 00"},
      {"real", [](LiteralRow& r) { r.addFloat("F", 1.5f); }, false,
       "01 46 FD 0B 00 00 00 00 00 00 F8 3F"},
      {"double", [](LiteralRow& r) { r.addDouble("F", -0.1); }, false,
       "01 46 FD 0C " + doubleBytes(-0.1)},
      {"old int64", [](LiteralRow& r) { r.addInt64("F", -1, -4); }, true,
       "01 46 FE 13 FC FF FF FF FF FF FF FF FF FF"},
      {"boolean", [](LiteralRow& r) { r.addBoolean("F", true); }, false, "01 46 FD 15 01"},
      {"date", [](LiteralRow& r) { r.addDate("F", 100); }, false, "01 46 FD 0E 64 00 00 00"},
      {"time", [](LiteralRow& r) { r.addTime("F", 0x01020304); }, false, "01 46 FD 0F 04 03 02 01"},
      {"timestamp", [](LiteralRow& r) { r.addTimestamp("F", 0x11223344, 0x55667788); }, false,
       "01 46 FD 10 44 33 22 11 88 77 66 55"},
      {"char, blanks dropped", [](LiteralRow& r) { r.addChar("F", "ab   ", 4); }, false,
       "01 46 FD 01 04 02 00 61 62"},
      {"char octets, zeros dropped",
       [](LiteralRow& r) { r.addChar("F", std::string("ab\0\0\0", 5), 1); }, false,
       "01 46 FD 01 01 02 00 61 62"},
      {"char octets keeps blanks", [](LiteralRow& r) { r.addChar("F", "ab   ", 1); }, false,
       "01 46 FD 01 01 05 00 61 62 20 20 20"},
      {"char keeps zeros", [](LiteralRow& r) { r.addChar("F", std::string("ab\0\0", 4), 0); },
       false, "01 46 FD 01 00 04 00 61 62 00 00"},
      {"char of blanks only", [](LiteralRow& r) { r.addChar("F", "     ", 4); }, false,
       "01 46 FD 01 04 00 00"},
      {"char with a collation", [](LiteralRow& r) { r.addChar("F", "x ", 0x0304); }, false,
       "01 46 FD 01 04 01 00 78"},
      {"varchar", [](LiteralRow& r) { r.addVarchar("F", "xyz", 0); }, false,
       "01 46 FD 03 00 03 00 78 79 7A"},
      {"varchar keeps blanks", [](LiteralRow& r) { r.addVarchar("F", "a ", 53); }, false,
       "01 46 FD 03 35 02 00 61 20"},
      {"cstring", [](LiteralRow& r) { r.addCString("F", "hi", 2); }, false,
       "01 46 FD 02 02 02 00 68 69"},
      {"null new", [](LiteralRow& r) { r.addNull("F", 9); }, false, "01 46 FD 63"},
      {"null old", [](LiteralRow& r) { r.addNull("F", 19); }, true, "01 46 FE 63"},
      {"null blob", [](LiteralRow& r) { r.addNull("F", 17); }, false, "01 46 FD 63"},
      {"old blob: name only",
       [](LiteralRow& r) {
         r.addBlob("F", ISC_QUAD{1, 2});
       },
       true, "01 46"},
      {"old array: name only",
       [](LiteralRow& r) {
         r.addArray("F", ISC_QUAD{1, 2});
       },
       true, "01 46"},
      {"type 0: nothing", [](LiteralRow& r) { r.addRaw("F", 0, "abcd"); }, false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LiteralRow row("T");
    c.field(row);
    const std::string expected = std::string(c.old ? "44" : "49") + " 00 01 54 " +
                                 (c.entry.empty() ? "" : c.entry + " ") + "FF";
    EXPECT_EQ(expected, c.old ? remove(row) : insert(row));
  }
}

// Types without a recording are refused after their marker and type byte; the record stops there.
TEST_F(ChangeRecordsTest, RefusedTypes) {
  for (std::uint32_t type : {4u, 5u, 6u, 7u, 10u, 13u, 20u, 22u, 255u, 0x1234u}) {
    SCOPED_TRACE(type);
    FbStatus fresh;
    LiteralRow row("T");
    row.addLong("A", 1).addRaw("B", type, "12345678", 8).addLong("C", 2);
    std::int32_t result = 0;
    const Bytes stream = recordStream(
        [&](ReplTransaction* t) { result = t->insertRecord(fresh, nullptr, nullptr, &row); });
    EXPECT_EQ(336330778, result);
    EXPECT_EQ((Strings{"1", "336330778", "4", std::to_string(type)}), fresh.errors());
    EXPECT_EQ("49 00 01 54 01 41 FD 09 00 00 01 00 00 00 01 42 FD " + le(type & 0xFF, 1),
              hex(stream));
  }
}

TEST_F(ChangeRecordsTest, RecordLayouts) {
  LiteralRow id("T");
  id.addLong("ID", 5);
  EXPECT_EQ("49 00 01 54 02 49 44 FD 09 00 00 05 00 00 00 FF", insert(id));

  LiteralRow empty("T"), emptyToo("T");
  EXPECT_EQ("49 00 01 54 FF", insert(empty));
  EXPECT_EQ("44 00 01 54 FF", remove(empty));
  EXPECT_EQ("55 00 01 54 FF", update(empty, emptyToo));

  LiteralRow nullName(nullptr), emptyName("");
  nullName.addLong("A", 1);
  emptyName.addLong("A", 1);
  EXPECT_EQ("49 00 00 01 41 FD 09 00 00 01 00 00 00 FF", insert(nullName));
  EXPECT_EQ("49 00 00 01 41 FD 09 00 00 01 00 00 00 FF", insert(emptyName));

  // Fields of type 0 and fields without a name leave no bytes in any record.
  LiteralRow skipped("T"), skippedToo("T");
  for (LiteralRow* r : {&skipped, &skippedToo})
    r->addRaw("Z", 0, "").addLong(nullptr, 7).addLong("", 8).addLong("A", 1);
  EXPECT_EQ("49 00 01 54 01 41 FD 09 00 00 01 00 00 00 FF", insert(skipped));
  EXPECT_EQ("44 00 01 54 01 41 FE 09 00 00 01 00 00 00 FF", remove(skipped));
  EXPECT_EQ("55 00 01 54 01 41 FE 09 00 00 01 00 00 00 FD 09 00 00 01 00 00 00 FF",
            update(skipped, skippedToo));

  LiteralRow blobOnly("T");
  blobOnly.addBlob("B", ISC_QUAD{0, 1});
  EXPECT_EQ("44 00 01 54 01 42 FF", remove(blobOnly));
}

TEST_F(ChangeRecordsTest, UpdateWalksBothImagesInLockstep) {
  struct Case {
    const char* name;
    std::function<void(LiteralRow&)> oldFields, newFields;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"old image shorter", [](LiteralRow& r) { r.addLong("A", 9); },
       [](LiteralRow& r) { r.addLong("A", 1).addLong("B", 2); },
       "01 41 FE 09 00 00 09 00 00 00 FD 09 00 00 01 00 00 00 01 42 FD 09 00 00 02 00 00 00"},
      {"new skips a field, old skips its partner",
       [](LiteralRow& r) { r.addLong("X", 7).addLong("Y", 8); },
       [](LiteralRow& r) { r.addRaw("A", 0, "").addLong("B", 2); },
       "01 42 FE 09 00 00 08 00 00 00 FD 09 00 00 02 00 00 00"},
      {"names are not compared", [](LiteralRow& r) { r.addShort("OTHER", 3); },
       [](LiteralRow& r) { r.addLong("A", 1); }, "01 41 FE 08 00 00 03 00 FD 09 00 00 01 00 00 00"},
      {"old of type 0 has no old value", [](LiteralRow& r) { r.addRaw("A", 0, ""); },
       [](LiteralRow& r) { r.addLong("A", 1); }, "01 41 FD 09 00 00 01 00 00 00"},
      {"old blob has no old value",
       [](LiteralRow& r) {
         r.addBlob("A", ISC_QUAD{0, 1});
       },
       [](LiteralRow& r) { r.addNull("A", 17); }, "01 41 FD 63"},
      {"old fields beyond the new image are dropped",
       [](LiteralRow& r) { r.addLong("A", 1).addLong("B", 2); },
       [](LiteralRow& r) { r.addNull("A", 9); }, "01 41 FE 09 00 00 01 00 00 00 FD 63"},
      {"null old value", [](LiteralRow& r) { r.addNull("A", 9); },
       [](LiteralRow& r) { r.addLong("A", 1); }, "01 41 FE 63 FD 09 00 00 01 00 00 00"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LiteralRow oldRow("OLD_NAME_IGNORED"), newRow("T");
    c.oldFields(oldRow);
    c.newFields(newRow);
    EXPECT_EQ("55 00 01 54 " + c.expected + " FF", update(oldRow, newRow));
  }
}

// The status is tested after the first field and after every field that reached the server: an
// error the status already held stops the record after its first field, as it would if the status
// were tested after every field.
TEST_F(ChangeRecordsTest, ErrorAlreadyInTheStatusStopsAfterTheFirstField) {
  LiteralRow row("T"), oldRow("T");
  row.addLong("A", 1).addLong("B", 2);
  oldRow.addLong("A", 0).addLong("B", 0);
  const std::function<std::int32_t(ReplTransaction*)> ops[] = {
      [&](ReplTransaction* t) { return t->insertRecord(status, nullptr, nullptr, &row); },
      [&](ReplTransaction* t) { return t->updateRecord(status, nullptr, nullptr, &oldRow, &row); },
  };
  const char* expected[] = {"49 00 01 54 01 41 FD 09 00 00 01 00 00 00",
                            "55 00 01 54 01 41 FE 09 00 00 00 00 00 00"};
  for (int i = 0; i < 2; ++i) {
    const intptr_t earlier[] = {isc_arg_gds, 335544321, isc_arg_end};
    std::int32_t result = 0;
    const Bytes stream = recordStream([&](ReplTransaction* t) {
      status.get()->setErrors(earlier);
      result = ops[i](t);
    });
    EXPECT_EQ(335544321, result);
    EXPECT_EQ(expected[i], hex(stream));
  }
}

// Names and texts whose length cannot be written: refused before anything they would start.
TEST_F(ChangeRecordsTest, LengthLimits) {
  const std::string name252(252, 'N'), name253(253, 'N');
  LiteralRow longest(name252.c_str());
  longest.addLong(name252.c_str(), 1);
  const std::string stream = insert(longest);
  EXPECT_EQ("49 00 FC", stream.substr(0, 8));
  EXPECT_EQ(3 + 252 + 1 + 252 + 8 + 1, static_cast<int>((stream.size() + 1) / 3));

  const std::function<std::int32_t(ReplTransaction*, LiteralRow&)> ops[] = {
      [this](ReplTransaction* t, LiteralRow& r) {
        return t->insertRecord(status, nullptr, nullptr, &r);
      },
      [this](ReplTransaction* t, LiteralRow& r) {
        return t->deleteRecord(status, nullptr, nullptr, &r);
      },
      [this](ReplTransaction* t, LiteralRow& r) {
        LiteralRow oldImage("T");  // no fields: every entry carries only its new value
        return t->updateRecord(status, nullptr, nullptr, &oldImage, &r);
      },
  };
  for (const auto& op : ops) {
    LiteralRow longRelation(name253.c_str());
    longRelation.addLong("A", 1);
    EXPECT_EQ("", record([&](ReplTransaction* t) { return op(t, longRelation); }, 335544382));
    EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error: Relation name longer than 252 bytes"}),
              status.errors());

    LiteralRow longField("T");
    longField.addLong("A", 1).addLong(name253.c_str(), 2).addLong("C", 3);
    const std::string partial =
        record([&](ReplTransaction* t) { return op(t, longField); }, 335544382);
    EXPECT_EQ("CDC error: Field name longer than 252 bytes", status.text());
    EXPECT_EQ("01 41", partial.substr(12, 5)) << "the fields before it stay";
    EXPECT_EQ(std::string::npos, partial.find("FD 09 00 00 02")) << "nothing of its entry";
    EXPECT_NE("FF", partial.substr(partial.size() - 2)) << "the record stays unfinished";
  }

  for (std::uint32_t type : {1u, 2u}) {
    SCOPED_TRACE(type);
    LiteralRow longText("T");
    if (type == 1) {
      longText.addChar("F", std::string(65536, 'a'), 4);
    } else {
      longText.addCString("F", std::string(70000, 'a'), 4);
    }
    EXPECT_EQ("49 00 01 54 01 46 FD " + le(type, 1), insert(longText, 335544382));
    EXPECT_EQ("CDC error: Text value longer than 65535 bytes", status.text());
    LiteralRow longestText("T");
    longestText.addChar("F", std::string(65535, 'b') + "   ", 4);
    EXPECT_EQ("49 00 01 54 01 46 FD 01 04 FF FF", insert(longestText).substr(0, 32));
  }
}

TEST_F(ChangeRecordsTest, OperationsAfterCommitAndWriteFailures) {
  LiteralRow row("T");
  row.addVarchar("V", std::string(60000, 'v'), 0).addLong("A", 1);
  ReplTransaction* t = begin(2);
  ASSERT_EQ(0, t->executeSql(status, "x", 1));
  ASSERT_EQ(0, t->commit(status));
  FbStatus late;
  EXPECT_EQ(335544382, t->insertRecord(late, nullptr, nullptr, &row));
  EXPECT_EQ(335544382, t->updateRecord(late, nullptr, nullptr, &row, &row));
  EXPECT_EQ(335544382, t->deleteRecord(late, nullptr, nullptr, &row));
  EXPECT_EQ("CDC error: Transaction is already committed", late.text());
  t->dispose();
  EXPECT_EQ(25u, readFile(publishedLog()).size());
  ::remove(publishedLog().c_str());

  // A block that cannot be written in the middle of a record.
  t = begin(3);
  PosixFaults::reset();
  PosixFaults::failAt(PosixFaults::kWrite, 1, EIO);
  FbStatus failed;
  EXPECT_EQ(335544382, t->insertRecord(failed, nullptr, nullptr, &row));
  EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error TF::WC-w: Input/output error"}),
            failed.errors());
  EXPECT_NE(0, t->commit(failed));
  t->dispose();
  EXPECT_EQ("", publishedLog());
}

// Records that straddle block edges at every offset: names, lengths, numbers and texts split
// between blocks. The whole file is compared with a stream built here byte by byte.
TEST_F(ChangeRecordsTest, RecordsAcrossBlockEdges) {
  Bytes model = bytesOf("ZEFO\x04");
  auto put = [&](std::initializer_list<std::uint8_t> bytes) { model.insert(model.end(), bytes); };
  auto putText = [&](const std::string& s) { model.insert(model.end(), s.begin(), s.end()); };
  auto putLe = [&](std::uint64_t v, int n) {
    for (int i = 0; i < n; ++i) model.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  };

  ReplTransaction* t = begin(4);
  int k = 0;
  while (model.size() < 3 * 32764 + 500) {
    const std::string relation(1 + k % 17, 'R');
    const std::string text(k % 41, static_cast<char>('a' + k % 26));
    const std::int64_t big = -(static_cast<std::int64_t>(k) << 33) - k;
    LiteralRow row(relation.c_str());
    row.addLong("ID", k).addVarchar("NAME", text, 4).addInt64("BIG", big, -3).addNull("N", 12);
    ASSERT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row));
    put({0x49, 0x00, static_cast<std::uint8_t>(relation.size())});
    putText(relation);
    put({2, 'I', 'D', 0xFD, 9, 0, 0});
    putLe(static_cast<std::uint32_t>(k), 4);
    put({4, 'N', 'A', 'M', 'E', 0xFD, 3, 4});
    putLe(text.size(), 2);
    putText(text);
    put({3, 'B', 'I', 'G', 0xFD, 19});
    putLe(static_cast<std::uint16_t>(-3), 2);
    putLe(static_cast<std::uint64_t>(big), 8);
    put({1, 'N', 0xFD, 99, 0xFF});
    ++k;
  }
  ASSERT_EQ(0, t->commit(status));
  model.push_back(0x7B);
  EXPECT_EQ(containerOf(model), readFile(t->getFileName()));
  t->dispose();
}

}  // namespace
