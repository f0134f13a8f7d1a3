// Events as users read them: golden JSON and text for one log that holds every kind of value,
// 64-bit integers, texts to escape, an update's marks, values too long for the listing and END's
// groups; text forms of edge values, and the character set table against the server's own.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <regex>

#include "CharacterSets.h"
#include "EmbeddedDatabase.h"
#include "FbcdcRuns.h"
#include "LiteralRow.h"
#include "LogRange.h"
#include "PluginFixture.h"
#include "TextEventWriter.h"
#include "ValueText.h"

namespace {

using EventWriterTest = PluginFixture;

// The goldens show: 64-bit integers (BIGINT of scale 0, statement numbers, the transaction number)
// as decimal strings by default, exact for readers that hold numbers as doubles, as numbers with
// bigintAsNumber, 32-bit ones as numbers; texts, statements and names escaped alike in JSON and
// the listing; an update's fields in the listing unchanged, changed "*" or with no old value "?";
// long values cut in the listing at a character's start with their size, whole in JSON; and END's
// groups by table in the order each first appears, the statements' null one and the empty name's
// among them, each event's data_collection_order counted in its group.
TEST_F(EventWriterTest, GoldenOutputOfALogWithEveryKindOfValue) {
  EmbeddedDatabase db(dir / "source.fdb");
  const ISC_QUAD doc = db.createBlob(bytesOf("caf\xC3\xA9\nline \xFF"), true);
  LiteralRow row("CUSTOMER");
  row.addLong("ID", 5)
      .addInt64("PRICE", -1234, -2)
      .addShort("SMALL", 5, -2)
      .addInt64("HUGE", std::numeric_limits<std::int64_t>::min(), -18)
      .addInt64("BIG", 267232655130119182)
      .addVarchar("NAME", "Ada \xC3\xA9\xF0\x9F\x98\x80 \"q\"", 4)
      .addChar("LEGACY", "caf\xE9\x80\x81  ", 53)
      .addVarchar("ASCII", "a\xC3z", 2)
      .addChar("RAW", std::string("\0\1\2\0\0", 5), 1)
      .addVarchar("KANJI", "\x82\xA0", 5)
      .addDate("BORN", 0)
      .addTime("AT", 453960123)
      .addTimestamp("SEEN", 60369, 863999999)
      .addBoolean("ACTIVE", true)
      .addFloat("RATE", 1.1f)
      .addDouble("NAN", std::nan(""))
      .addDouble("INF", -HUGE_VAL)
      .addNull("NOTE", 3)
      .addBlob("DOC", doc);
  LiteralRow before("CUSTOMER"), after("CUSTOMER");
  before.addLong("ID", 5).addBlob("DOC", doc);
  after.addLong("ID", 6).addBlob("DOC", doc).addVarchar("NAME", "Bob", 4);
  constexpr std::int64_t kPast53 = (std::int64_t{1} << 53) + 1;
  const std::int64_t wide[] = {0, -1, kPast53 - 1, kPast53, -kPast53, INT64_MAX, INT64_MIN};
  LiteralRow integers("INTEGERS");
  for (std::size_t i = 0; i < std::size(wide); ++i)
    integers.addInt64(("B" + std::to_string(i)).c_str(), wide[i]);
  integers.addLong("SMALL", std::numeric_limits<std::int32_t>::min());
  LiteralRow escaped("");
  const std::string texts[] = {"a\"b",         "back\\slash",           "line\nbreak\r\ttab",
                               "\b\f",         std::string("nul\0", 4), "\x01\x1F\x7F",
                               "\xC3\xA9 \xFF"};
  for (std::size_t i = 0; i < std::size(texts); ++i)
    escaped.addVarchar(("V" + std::to_string(i)).c_str(), texts[i], 4);
  escaped.addLong("N\x01\"", 1);
  LiteralRow old("T"), changed("T");
  for (LiteralRow* r : {&old, &changed}) {
    const bool n = r == &changed;
    r->addLong("SAME", 5).addLong("INT", n ? 6 : 5).addVarchar("NAME", "Ada", 4);
    r->addVarchar("TEXT", n ? "Bob" : "Ada", 4).addNull("NOTE", 3);
    n ? r->addNull("GONE", 9) : r->addLong("GONE", 1);
    r->addDouble("NAN", std::nan("")).addInt64("SCALED", 1234, n ? -1 : -2);
  }
  changed.addLong("ADDED", 7);
  // 'a' and 2000 two-byte characters: the listing's cut at 200 bytes would split the 100th.
  std::string accents = "a";
  for (int i = 0; i < 2000; ++i) accents += "\xC3\xA9";
  LiteralRow longValues("T");
  longValues.addBlob("DOC", db.createBlob(bytesOf(std::string(1000, 'b')), true))
      .addVarchar("TEXT", accents, 4)
      .addVarchar("FITS", std::string(TextEventWriter::kShownBytes, 'x'), 4);

  PosixFaults::setTime(1700000000);
  ReplTransaction* t = begin(267232655130119182);
  Firebird::IAttachment* a = db.attachment();
  Firebird::ITransaction* tr = db.transaction();
  EXPECT_EQ(0, t->insertRecord(status, a, tr, &row));
  EXPECT_EQ(0, t->executeSql(status, "update customer set rank = 1", 42));
  EXPECT_EQ(0, t->updateRecord(status, a, tr, &before, &after));
  EXPECT_EQ(0, t->insertRecord(status, a, tr, &integers));
  for (const std::int64_t v : wide) EXPECT_EQ(0, t->executeSql(status, "select 1", v));
  EXPECT_EQ(0, t->insertRecord(status, a, tr, &escaped));
  EXPECT_EQ(0, t->executeSql(status, "select '\n\x01\"'", 1));
  EXPECT_EQ(0, t->updateRecord(status, a, tr, &old, &changed));
  EXPECT_EQ(0, t->insertRecord(status, a, tr, &longValues));
  EXPECT_EQ(0, t->deleteRecord(status, a, tr, &after));
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  PosixFaults::setTime(0);
  const std::string path = publishedLog();

  // As fbcdc dump prints it, but for the moment of production, which differs from run to run.
  const auto render = [&](Strings args) {
    args.insert(args.begin(), {"dump", path});
    const FbcdcOutcome r = runFbcdc(dir, args);
    EXPECT_EQ(0, r.status) << r.err;
    return std::regex_replace(r.out, std::regex("\"ts_ms\":[0-9]+"), "\"ts_ms\":0");
  };
  const std::pair<const char*, std::string> cases[] = {
      {"every_type.jsonl", render({})},
      {"every_type_options.jsonl",
       render({"--decimal", "double", "--bigint", "number", "--blobs", "text", "--transactions"})},
      {"every_type.txt", render({"--format", "text"})},
  };
  for (const auto& [golden, output] : cases)
    expectGolden(std::string("render/golden/") + golden, output);
}

// Edge forms, in golden/value_text.txt; the usual ones (scaled values, the ISO time, a WIN1252 euro
// sign and a byte it leaves undefined, sets shown as base64) are pinned by the goldens above. Times
// as --since and --until read them: UTC, a day or a second since the epoch, and what they refuse.
// RFC 4648's base64 vectors.
TEST(ValueTextTest, KnownForms) {
  std::string text;
  for (const auto& [value, scale] :
       {std::pair<std::int64_t, int>{-5, -1}, {0, -2}, {12, 2}, {0, 3}, {-7, 0}, {15, -100}})
    ValueText::appendScaled(text += " ", value, scale);
  for (const std::int64_t day : {0, 40587, 51603, -678575, 2973483})
    ValueText::appendDate(text += " ", day);
  for (const std::uint32_t units : {0u, 453960123u, 863999999u})
    ValueText::appendTime(text += " ", units);
  for (const char* time :
       {"2023-11-14T22:13:20Z", "@1700000000", "1858-11-17", "2000-02-29", "0001-01-01",
        "9999-12-31", "", "2023-13-01", "yesterday", "@12x", "2023-11-14T25:00:00"}) {
    std::int64_t seconds = 0;
    const bool read = LogRange::parseTime(time, seconds);
    text += std::string("\n\"") + time + "\": " + (read ? std::to_string(seconds) : "refused");
  }
  text += "\n";
  for (const char* s : {"", "f", "fo", "foo", "foob", "fooba", "foobar"})
    ValueText::appendBase64(text += "|", s);
  expectGolden("render/golden/value_text.txt", text + "\n");
}

// Every character set number and name the engine knows is in the table, and each readable set
// turns every byte into valid UTF-8.
TEST(CharacterSetsTest, AgreeWithTheServersTable) {
  TempDir dir;
  EmbeddedDatabase db(dir / "sets.fdb");
  int sets = 0;
  const char* sql =
      "select cast(rdb$character_set_id as integer), "
      "cast(trim(rdb$character_set_name) as varchar(31)) from rdb$character_sets";
  forEachRow(db, sql, [&](Message& row) {
    std::int32_t id;
    std::memcpy(&id, row.data(0), 4);
    const char* ours = CharacterSets::nameOf(static_cast<std::uint8_t>(id));
    EXPECT_EQ(row.text(1), ours ? ours : "(none)") << id;
    ++sets;
  });
  EXPECT_GT(sets, 40);
  std::string all;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
  for (int cs = 0; cs < 256; ++cs) {
    std::string out;
    if (!CharacterSets::appendUtf8(static_cast<std::uint8_t>(cs), all, out)) continue;
    std::string valid;
    CharacterSets::appendValidUtf8(out, valid);
    EXPECT_EQ(valid, out) << "set " << cs << " gives invalid UTF-8";
  }
}

}  // namespace
