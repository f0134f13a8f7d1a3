// What a server should never hand over, handed over: each case is refused with its text and the
// generic error code, without a crash, and the transaction goes on to record and publish.
#include <gtest/gtest.h>

#include <tuple>

#include "LiteralRow.h"
#include "PluginFixture.h"

namespace {

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

class HostileInputTest : public PluginFixture {};

TEST_F(HostileInputTest, RefusedWithATextAndNeverACrash) {
  EndlessCursor endless;
  Image endlessRow(&endless);
  Image noCursor(nullptr);
  LiteralRow noData("T");
  noData.addRaw("I", 9, "");  // a non-null INTEGER whose data pointer is null
  LiteralRow negative("T");
  negative.addRaw("C", 1, "abc", -1);
  LiteralRow blob("T");
  blob.addBlob("B", ISC_QUAD{0, 1});
  LiteralRow good("T");
  good.addLong("ID", 5);
  // Name, operation ('I' inserts row, 'D' deletes it, 'U' updates old to row), row, old, text.
  const std::tuple<const char*, char, Firebird::IReplRecord*, Firebird::IReplRecord*, const char*>
      cases[] = {
          {"null row", 'I', nullptr, nullptr, "CDC error: No row image"},
          {"null old image", 'U', &good, nullptr, "CDC error: No row image"},
          {"null cursor", 'D', &noCursor, nullptr, "CDC error: Row image without a field cursor"},
          {"endless cursor", 'I', &endlessRow, nullptr,
           "CDC error: Row image with more than 65535 fields"},
          {"endless old cursor", 'U', &endlessRow, &good,
           "CDC error: Row image with more than 65535 fields"},
          {"null data", 'I', &noData, nullptr, "CDC error: Field value without data"},
          {"negative length", 'I', &negative, nullptr,
           "CDC error: Fixed-length text with a negative length"},
          {"blob without attachment", 'I', &blob, nullptr,
           "CDC error: Blob or array value without attachment or transaction"},
      };
  for (const auto& [name, op, row, old, text] : cases) {
    SCOPED_TRACE(name);
    ReplTransaction* t = begin();
    FbStatus st;
    EXPECT_EQ(335544382, op == 'I'   ? t->insertRecord(st, nullptr, nullptr, row)
                         : op == 'D' ? t->deleteRecord(st, nullptr, nullptr, row)
                                     : t->updateRecord(st, nullptr, nullptr, old, row));
    EXPECT_EQ(text, st.text());
    // The transaction is still usable: a later record and the commit work. (The refused record
    // stays unfinished in the log, as every refused record does.)
    FbStatus after;
    EXPECT_EQ(0, t->executeSql(after, "x", 1));
    EXPECT_EQ(0, t->commit(after)) << after.text();
    t->dispose();
    clearLogs();
  }
}

}  // namespace
