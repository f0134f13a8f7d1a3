// Insert, update and delete records, byte for byte as the format lays them out, and every refusal:
// types without a recording, names and texts too long for their length, and what a server should
// never hand over. The bytes and status of each case are in golden/records.txt;
// FBCDC_UPDATE_GOLDEN=1 rewrites it, to be reviewed line by line before a commit.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <tuple>

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

}  // namespace
