// Events as users read them: golden JSON and text for a log with every kind of value,
// 64-bit integers read back exactly, END's counts against a model, one escaping for JSON and the
// listing, the listing's marks and cuts, text forms of known values, and the character set table
// against the server's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <regex>
#include <sstream>
#include <tuple>

#include "CharacterSets.h"
#include "EmbeddedDatabase.h"
#include "EventWriter.h"
#include "LiteralRow.h"
#include "LogRange.h"
#include "PluginFixture.h"
#include "Processes.h"
#include "StreamSink.h"
#include "TextEventWriter.h"
#include "ValueText.h"

namespace {

using ::testing::HasSubstr;

std::string goldenPath(const std::string& name) {
  return std::string(FBCDC_TEST_SOURCE_DIR) + "/render/golden/" + name;
}

std::string render(const std::string& path, const std::string& format, const EventFormat& f) {
  std::unique_ptr<EventWriter> writer = EventWriter::create(format, f);
  std::FILE* out = std::fopen((path + ".out").c_str(), "wb");
  StreamSink sink(*writer, out);
  LogFile log;
  EXPECT_TRUE(LogFile::examine(path, log));
  sink.send(log);
  std::fclose(out);
  // The moment of production is the one thing that differs from run to run.
  return std::regex_replace(readText(path + ".out"), std::regex("\"ts_ms\":[0-9]+"), "\"ts_ms\":0");
}

using EventWriterTest = PluginFixture;

TEST_F(EventWriterTest, GoldenOutputOfALogWithEveryKindOfValue) {
  // A log with one row of a column of every kind, its update and delete, and a statement.
  EmbeddedDatabase db(dir / "source.fdb");
  const ISC_QUAD doc = db.createBlob(bytesOf("caf\xC3\xA9\nline \xFF"), true);
  LiteralRow row("CUSTOMER");
  row.addLong("ID", 5)
      .addInt64("PRICE", -1234, -2)
      .addShort("SMALL", 5, -2)
      .addInt64("HUGE", std::numeric_limits<std::int64_t>::min(), -18)
      .addInt64("BIG", 267232655130119182)
      .addVarchar("NAME", "Ada \xC3\xA9\xF0\x9F\x98\x80 \"q\"", 4)
      .addChar("LEGACY", "caf\xE9\x80  ", 53)
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
  PosixFaults::setTime(1700000000);
  ReplTransaction* t = begin(1234);
  EXPECT_EQ(0, t->insertRecord(status, db.attachment(), db.transaction(), &row));
  EXPECT_EQ(0, t->updateRecord(status, db.attachment(), db.transaction(), &before, &after));
  EXPECT_EQ(0, t->deleteRecord(status, db.attachment(), db.transaction(), &after));
  EXPECT_EQ(0, t->executeSql(status, "update customer set rank = 1", 42));
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  PosixFaults::setTime(0);
  const std::string path = logs + "000000006553f100_00000000000004d2.fbl";

  EventFormat plain, other;
  other.decimalAsDouble = true;
  other.bigintAsNumber = true;
  other.blobsAsText = true;
  other.transactions = true;
  const std::pair<const char*, std::string> cases[] = {
      {"every_type.jsonl", render(path, "json", plain)},
      {"every_type_options.jsonl", render(path, "json", other)},
      {"every_type.txt", render(path, "text", plain)},
  };
  for (const auto& [golden, output] : cases) {
    SCOPED_TRACE(golden);
    EXPECT_EQ(readText(goldenPath(golden)), output);
    // FBCDC_UPDATE_GOLDEN=1 rewrites the files, to be reviewed line by line before a commit.
    if (std::getenv("FBCDC_UPDATE_GOLDEN")) writeFile(goldenPath(golden), output);
  }
}

// A 64-bit integer is exact for every JSON reader: by default a decimal string, which a reader that
// holds numbers as doubles (JavaScript, jq) cannot round, and with bigintAsNumber the same integer
// as a number, for readers that keep 64-bit integers. The choice goes by the field's type, so small
// values are strings too; 32-bit integers stay numbers. The listing shows them all as numbers.
TEST_F(EventWriterTest, SixtyFourBitIntegersReadBackExactly) {
  constexpr std::int64_t kPast53 = (std::int64_t{1} << 53) + 1;
  const std::int64_t values[] = {0,
                                 -1,
                                 std::int64_t{1} << 53,
                                 kPast53,
                                 -kPast53,
                                 267232655130119182,
                                 std::numeric_limits<std::int64_t>::max(),
                                 std::numeric_limits<std::int64_t>::min()};
  LiteralRow row("T");
  std::vector<std::string> names;
  for (std::size_t i = 0; i < std::size(values); ++i) names.push_back("B" + std::to_string(i));
  for (std::size_t i = 0; i < std::size(values); ++i) row.addInt64(names[i].c_str(), values[i]);
  row.addLong("SMALL", std::numeric_limits<std::int32_t>::min());
  ReplTransaction* t = begin(267232655130119182);
  EXPECT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row));
  for (const std::int64_t v : values) EXPECT_EQ(0, t->executeSql(status, "select 1", v));
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  const std::string path = publishedLog();
  // Each value exactly as written: a string unless numbers were asked for.
  for (const bool asNumber : {false, true}) {
    SCOPED_TRACE(asNumber ? "numbers" : "strings");
    EventFormat format;
    format.bigintAsNumber = asNumber;
    const std::string json = render(path, "json", format);
    auto shown = [&](const std::string& name, std::int64_t v) {
      const std::string q = asNumber ? "" : "\"";
      return '"' + name + "\":" + q + std::to_string(v) + q;
    };
    for (std::size_t i = 0; i < std::size(values); ++i) {
      EXPECT_THAT(json, HasSubstr(shown(names[i], values[i]) + ","));
      EXPECT_THAT(json, HasSubstr(shown("number", values[i]) + "}"));
    }
    EXPECT_THAT(json, HasSubstr(shown("transaction", values[5]) + ","));
    EXPECT_THAT(json, HasSubstr("\"SMALL\":-2147483648}"));
  }
  const std::string text = render(path, "text", EventFormat());
  for (std::size_t i = 0; i < std::size(values); ++i)
    EXPECT_THAT(text, HasSubstr("  " + names[i] + " = " + std::to_string(values[i]) + "\n"));
  EXPECT_THAT(text, HasSubstr("sql " + std::to_string(values[5]) + " "));
}

// END's counts against a model of seeded random logs: data_collections groups the events by their
// table, statements (table null) being a group of their own, in the order each group first
// appears; each event's data_collection_order counts within its group, and the groups' counts add
// up to event_count. An empty relation name is a table, not the statements' null.
TEST_F(EventWriterTest, EndCountsEveryEventInItsGroup) {
  std::mt19937 random(11);
  EventFormat format;
  format.transactions = true;
  for (int round = 0; round < 6; ++round) {
    SCOPED_TRACE(round);
    clearLogs();
    const char* const tables[] = {"A", "B", ""};
    std::vector<const char*> model;  // each event's table, null for a statement
    ReplTransaction* t = begin(100 + round);
    const int events = 1 + static_cast<int>(random() % 40);
    for (int i = 0; i < events; ++i) {
      const unsigned pick = random() % 4;
      if (pick == 3) {
        EXPECT_EQ(0, t->executeSql(status, "delete from a", i));
        model.push_back(nullptr);
        continue;
      }
      LiteralRow row(tables[pick]);
      row.addLong("ID", i);
      EXPECT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row)) << status.text();
      model.push_back(tables[pick]);
    }
    EXPECT_EQ(0, t->commit(status)) << status.text();
    t->dispose();

    std::vector<std::pair<const char*, unsigned>> groups;  // the model's END
    std::istringstream lines(render(publishedLog(), "json", format));
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    for (const char* table : model) {
      auto group = std::find_if(groups.begin(), groups.end(), [&](const auto& g) {
        return g.first == table || (g.first && table && std::strcmp(g.first, table) == 0);
      });
      if (group == groups.end()) group = groups.insert(groups.end(), {table, 0});
      ++group->second;
      ASSERT_TRUE(std::getline(lines, line));
      rapidjson::Document event;
      ASSERT_FALSE(event.Parse(line.c_str()).HasParseError()) << line;
      if (table)
        EXPECT_EQ(std::string(table), event["table"].GetString()) << line;
      else
        EXPECT_TRUE(event["table"].IsNull()) << line;
      EXPECT_EQ(group->second, event["transaction"]["data_collection_order"].GetUint()) << line;
    }
    ASSERT_TRUE(std::getline(lines, line));
    rapidjson::Document end;
    ASSERT_FALSE(end.Parse(line.c_str()).HasParseError()) << line;
    EXPECT_EQ(model.size(), end["event_count"].GetUint()) << line;
    const rapidjson::Value& listed = end["data_collections"];
    ASSERT_EQ(groups.size(), listed.Size()) << line;
    unsigned sum = 0;
    for (rapidjson::SizeType i = 0; i < listed.Size(); ++i) {
      const rapidjson::Value& name = listed[i]["data_collection"];
      if (groups[i].first)
        EXPECT_EQ(std::string(groups[i].first), name.GetString()) << line;
      else
        EXPECT_TRUE(name.IsNull()) << line;
      EXPECT_EQ(groups[i].second, listed[i]["event_count"].GetUint()) << line;
      sum += listed[i]["event_count"].GetUint();
    }
    EXPECT_EQ(end["event_count"].GetUint(), sum) << line;
    EXPECT_FALSE(std::getline(lines, line)) << "more after END: " << line;
  }
}

// The listing escapes texts, statements and names exactly as JSON does: each case's value shows
// the same between the quotes in both, and no control character breaks a line of the listing.
TEST_F(EventWriterTest, TextAndJsonEscapeAlike) {
  // Bytes of a UTF8 value, and how both formats show them.
  const std::pair<std::string, std::string> cases[] = {
      {"a\"b", "a\\\"b"},
      {"back\\slash", "back\\\\slash"},
      {"line\nbreak\r\ttab", "line\\nbreak\\r\\ttab"},
      {"\b\f", "\\b\\f"},
      {std::string("nul\0", 4), "nul\\u0000"},
      {"\x01\x1F\x7F", "\\u0001\\u001f\\u007f"},
      {"\xC3\xA9\xF0\x9F\x98\x80 \xFF", "\xC3\xA9\xF0\x9F\x98\x80 \xEF\xBF\xBD"},
  };
  LiteralRow row("T");
  for (std::size_t i = 0; i < std::size(cases); ++i)
    row.addVarchar(("V" + std::to_string(i)).c_str(), cases[i].first, 4);
  row.addLong("N\x01\"", 1);
  ReplTransaction* t = begin();
  EXPECT_EQ(0, t->insertRecord(status, nullptr, nullptr, &row));
  EXPECT_EQ(0, t->executeSql(status, "select '\n\x01\"'", 1));
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  const std::string path = publishedLog();
  const std::string json = render(path, "json", EventFormat());
  const std::string text = render(path, "text", EventFormat());
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    const std::string name = "V" + std::to_string(i);
    const std::string shown = "\"" + cases[i].second + "\"";
    EXPECT_THAT(json, HasSubstr("\"" + name + "\":" + shown + ","));
    EXPECT_THAT(text, HasSubstr("\n  " + name + " = " + shown + "\n"));
  }
  EXPECT_THAT(json, HasSubstr("\"N\\u0001\\\"\":1"));
  EXPECT_THAT(text, HasSubstr("\n  N\\u0001\\\" = 1\n"));
  const std::string statement = "\"select '\\n\\u0001\\\"'\"";
  EXPECT_THAT(json, HasSubstr("\"text\":" + statement + ","));
  EXPECT_THAT(text, HasSubstr("\n  " + statement + "\n"));
  // A header and an end line, an event line per event, a line per field.
  EXPECT_EQ(2 + 2 + std::size(cases) + 1 + 1,
            static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')))
      << text;
}

// The listing of an update marks what changed: an unchanged field once, a changed one as
// old -> new marked "*", one whose old value the log lacks marked "?" with <unavailable>, never
// quoted; the goldens hold the same for blobs.
TEST_F(EventWriterTest, ListingMarksChangedFields) {
  LiteralRow before("T"), after("T");
  // Each field's old and new value, and its line in the listing.
  const std::tuple<std::function<void(LiteralRow&, bool)>, const char*> cases[] = {
      {[](LiteralRow& r, bool) { r.addLong("SAME", 5); }, "  SAME = 5"},
      {[](LiteralRow& r, bool n) { r.addLong("INT", n ? 6 : 5); }, "* INT = 5 -> 6"},
      {[](LiteralRow& r, bool) { r.addVarchar("NAME", "Ada", 4); }, "  NAME = \"Ada\""},
      {[](LiteralRow& r, bool n) { r.addVarchar("TEXT", n ? "Bob" : "Ada", 4); },
       "* TEXT = \"Ada\" -> \"Bob\""},
      {[](LiteralRow& r, bool) { r.addNull("NOTE", 3); }, "  NOTE = null"},
      {[](LiteralRow& r, bool n) { n ? r.addNull("GONE", 9) : r.addLong("GONE", 1); },
       "* GONE = 1 -> null"},
      {[](LiteralRow& r, bool) { r.addDouble("NAN", std::nan("")); }, "  NAN = \"NaN\""},
      {[](LiteralRow& r, bool) { r.addInt64("PRICE", 1234, -2); }, "  PRICE = \"12.34\""},
      {[](LiteralRow& r, bool n) { r.addInt64("SCALED", 1234, n ? -1 : -2); },
       "* SCALED = \"12.34\" -> \"123.4\""},
      {[](LiteralRow& r, bool n) {
         if (n) r.addLong("ADDED", 7);
       },
       "? ADDED = <unavailable> -> 7"},
  };
  for (const auto& [add, line] : cases) {
    add(before, false);
    add(after, true);
  }
  ReplTransaction* t = begin();
  EXPECT_EQ(0, t->updateRecord(status, nullptr, nullptr, &before, &after));
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  const std::string text = render(publishedLog(), "text", EventFormat());
  std::string expected;
  for (const auto& [add, line] : cases) expected += std::string(line) + "\n";
  EXPECT_THAT(text, HasSubstr(")\n" + expected + "== end"));
}

// A long value is cut in the listing, at a character's start, with its size in the log; JSON
// keeps it whole.
TEST_F(EventWriterTest, ListingCutsLongValues) {
  EmbeddedDatabase db(dir / "long.fdb");
  const Bytes blob = randomBytes(3 << 20, 5);
  std::string accents = "a";
  for (int i = 0; i < 2000; ++i) accents += "\xC3\xA9";
  LiteralRow row("T");
  row.addBlob("DOC", db.createBlob(blob, true))
      .addVarchar("TEXT", accents, 4)
      .addVarchar("FITS", std::string(TextEventWriter::kShownBytes, 'x'), 4);
  ReplTransaction* t = begin();
  EXPECT_EQ(0, t->insertRecord(status, db.attachment(), db.transaction(), &row));
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  const std::string path = publishedLog();
  std::string base64;
  ValueText::appendBase64(
      base64, std::string_view(reinterpret_cast<const char*>(blob.data()), blob.size()));
  // Each field's line as the listing shows it; a failure prints its start only.
  const std::string text = render(path, "text", EventFormat());
  const std::pair<std::string, std::string> lines[] = {
      {"DOC", '"' + base64.substr(0, TextEventWriter::kShownBytes) + "\"... (3145728 bytes)"},
      // 'a' and 99 whole characters: the 200th byte would split the 100th.
      {"TEXT", '"' + accents.substr(0, 199) + "\"... (4001 bytes)"},
      {"FITS", '"' + std::string(TextEventWriter::kShownBytes, 'x') + '"'},
  };
  for (const auto& [name, shown] : lines) {
    const std::string start = "\n  " + name + " = ";
    const std::size_t at = text.find(start);
    ASSERT_NE(std::string::npos, at) << name;
    const std::string line =
        text.substr(at + start.size(), text.find('\n', at + 1) - at - start.size());
    EXPECT_TRUE(line == shown) << name << ": " << line.substr(0, 300) << "... of " << line.size();
  }
  const std::string json = render(path, "json", EventFormat());
  EXPECT_NE(std::string::npos, json.find("\"DOC\":\"" + base64 + "\"")) << "the whole blob";
  EXPECT_NE(std::string::npos, json.find("\"TEXT\":\"" + accents + "\"")) << "the whole text";
}

// Edge forms; the usual ones (scaled values, the ISO time, a WIN1252 euro sign, sets shown as
// base64) are pinned by the golden files.
TEST(ValueTextTest, KnownForms) {
  const std::tuple<std::int64_t, int, const char*> decimals[] = {
      {-5, -1, "-0.5"}, {0, -2, "0.00"}, {12, 2, "1200"},
      {0, 3, "0"},      {-7, 0, "-7"},   {15, -100, "15E-100"},
  };
  for (const auto& [value, scale, text] : decimals) {
    std::string out;
    ValueText::appendScaled(out, value, scale);
    EXPECT_EQ(text, out);
  }
  const std::pair<std::int64_t, const char*> dates[] = {{0, "1858-11-17"},
                                                        {40587, "1970-01-01"},
                                                        {51603, "2000-02-29"},
                                                        {-678575, "0001-01-01"},
                                                        {2973483, "9999-12-31"}};
  for (const auto& [day, text] : dates) {
    std::string out;
    ValueText::appendDate(out, day);
    EXPECT_EQ(text, out);
    std::int64_t seconds = 0;
    ASSERT_TRUE(LogRange::parseTime(text, seconds));
    EXPECT_EQ((day - ValueText::kUnixEpochDay) * 86400, seconds);
  }
  std::string times;
  for (std::uint32_t units : {0u, 453960123u, 863999999u})
    ValueText::appendTime(times += " ", units);
  EXPECT_EQ(" 00:00:00.0000 12:36:36.0123 23:59:59.9999", times);
  std::int64_t seconds = 0;
  EXPECT_TRUE(LogRange::parseTime("2023-11-14T22:13:20Z", seconds));
  EXPECT_EQ(1700000000, seconds);
  EXPECT_TRUE(LogRange::parseTime("@1700000000", seconds));
  for (const char* bad : {"", "2023-13-01", "yesterday", "@12x", "2023-11-14T25:00:00"})
    EXPECT_FALSE(LogRange::parseTime(bad, seconds)) << bad;
  // RFC 4648's test vectors.
  std::string base64;
  for (const char* s : {"", "f", "fo", "foo", "foob", "fooba", "foobar"})
    ValueText::appendBase64(base64 += "|", s);
  EXPECT_EQ("||Zg==|Zm8=|Zm9v|Zm9vYg==|Zm9vYmE=|Zm9vYmFy", base64);
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
  std::string win;
  ASSERT_TRUE(CharacterSets::appendUtf8(53, "\x80\x81", win));
  EXPECT_EQ("\xE2\x82\xAC\xEF\xBF\xBD", win);  // WIN1252: 80 is the euro sign, 81 undefined
}

}  // namespace
