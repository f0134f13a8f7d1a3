// Events as consumers read them: golden JSON and text for a log with every kind of value, the text
// forms of values against known dates and numbers, and the character set table against the
// server's own.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <regex>
#include <sstream>

#include "CharacterSets.h"
#include "EmbeddedDatabase.h"
#include "EventWriter.h"
#include "IReplPlugin.h"
#include "IReplTransaction.h"
#include "LiteralRow.h"
#include "LogDirectory.h"
#include "LogRange.h"
#include "PosixFaults.h"
#include "StreamSink.h"
#include "TestFiles.h"
#include "ValueText.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

std::string goldenPath(const std::string& name) {
  return std::string(FBCDC_TEST_SOURCE_DIR) + "/decoder/golden/" + name;
}

// Writes the fixed log: one row with a column of every kind, its update and delete, a statement.
std::string writeFixedLog(const TempDir& dir, EmbeddedDatabase& db) {
  writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
  Firebird::IConfig* config = loadConfig(dir / "plugin.conf");
  FbStatus status;
  Firebird::IReplPlugin* plugin = getReplPlugin(status, 30, config);
  config->release();
  const ISC_QUAD doc = db.createBlob(bytesOf("caf\xC3\xA9\nline \xFF"), true);
  LiteralRow row("CUSTOMER");
  row.addLong("ID", 5)
      .addInt64("PRICE", -1234, -2)
      .addShort("SMALL", 5, -2)
      .addInt64("HUGE", std::numeric_limits<std::int64_t>::min(), -18)
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
  LiteralRow before("CUSTOMER");
  before.addLong("ID", 5).addBlob("DOC", doc);
  LiteralRow after("CUSTOMER");
  after.addLong("ID", 6).addBlob("DOC", doc).addVarchar("NAME", "Bob", 4);
  PosixFaults::setTime(1700000000);
  Firebird::IReplTransaction* t = plugin->startTransaction(status, 1234);
  EXPECT_EQ(0, t->insertRecord(status, db.attachment(), db.transaction(), &row));
  EXPECT_EQ(0, t->updateRecord(status, db.attachment(), db.transaction(), &before, &after));
  EXPECT_EQ(0, t->deleteRecord(status, db.attachment(), db.transaction(), &after));
  EXPECT_EQ(0, t->executeSql(status, "update customer set rank = 1", 42));
  EXPECT_EQ(0, t->commit(status)) << status.text();
  t->dispose();
  plugin->dispose();
  PosixFaults::setTime(0);
  return dir / "logs/000000006553f100_00000000000004d2.fbl";
}

std::string render(const std::string& path, const std::string& format, const EventFormat& f) {
  std::unique_ptr<EventWriter> writer = EventWriter::create(format, f);
  std::FILE* out = std::tmpfile();
  StreamSink sink(*writer, out);
  LogFile log;
  EXPECT_TRUE(LogFile::examine(path, log));
  sink.send(log);
  std::string text(static_cast<std::size_t>(std::ftell(out)), '\0');
  std::rewind(out);
  EXPECT_EQ(text.size(), std::fread(&text[0], 1, text.size(), out));
  std::fclose(out);
  // The moment of production is the one thing that differs from run to run.
  return std::regex_replace(text, std::regex("\"ts_ms\":[0-9]+"), "\"ts_ms\":0");
}

TEST(EventWriterTest, GoldenOutputOfALogWithEveryKindOfValue) {
  TempDir dir;
  EmbeddedDatabase db(dir / "source.fdb");
  const std::string path = writeFixedLog(dir, db);
  EventFormat plain;
  EventFormat other;
  other.decimalAsDouble = true;
  other.blobsAsText = true;
  other.transactions = true;
  const struct {
    const char* golden;
    std::string output;
  } cases[] = {
      {"every_type.jsonl", render(path, "json", plain)},
      {"every_type_options.jsonl", render(path, "json", other)},
      {"every_type.txt", render(path, "text", plain)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.golden);
    const Bytes golden = readFile(goldenPath(c.golden));
    EXPECT_EQ(std::string(golden.begin(), golden.end()), c.output);
    // FBCDC_UPDATE_GOLDEN=1 rewrites the files, to be reviewed line by line before a commit.
    if (std::getenv("FBCDC_UPDATE_GOLDEN")) writeFile(goldenPath(c.golden), c.output);
  }
}

TEST(ValueTextTest, KnownForms) {
  const struct {
    std::int64_t value;
    int scale;
    const char* text;
  } decimals[] = {
      {1234, -2, "12.34"},
      {5, -2, "0.05"},
      {-5, -1, "-0.5"},
      {0, -2, "0.00"},
      {12, 2, "1200"},
      {0, 3, "0"},
      {-7, 0, "-7"},
      {std::numeric_limits<std::int64_t>::min(), -18, "-9.223372036854775808"},
      {15, -100, "15E-100"},
  };
  for (const auto& d : decimals) {
    std::string out;
    ValueText::appendScaled(out, d.value, d.scale);
    EXPECT_EQ(d.text, out);
  }
  const struct {
    std::int64_t day;
    const char* text;
  } dates[] = {{0, "1858-11-17"},
               {40587, "1970-01-01"},
               {51603, "2000-02-29"},
               {-678575, "0001-01-01"},
               {2973483, "9999-12-31"}};
  for (const auto& d : dates) {
    std::string out;
    ValueText::appendDate(out, d.day);
    EXPECT_EQ(d.text, out);
    std::int64_t seconds = 0;
    ASSERT_TRUE(LogRange::parseTime(d.text, seconds));
    EXPECT_EQ((d.day - ValueText::kUnixEpochDay) * 86400, seconds);
  }
  std::string times;
  for (std::uint32_t units : {0u, 453960123u, 863999999u})
    ValueText::appendTime(times += " ", units);
  EXPECT_EQ(" 00:00:00.0000 12:36:36.0123 23:59:59.9999", times);
  std::string iso;
  ValueText::appendIsoUtc(iso, 1700000000);
  EXPECT_EQ("2023-11-14T22:13:20Z", iso);
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
  forEachRow(db,
             "select cast(rdb$character_set_id as integer), "
             "cast(trim(rdb$character_set_name) as varchar(31)) from rdb$character_sets",
             [&](Firebird::IMessageMetadata* meta, const unsigned char* message) {
               FbStatus s;
               Firebird::CheckStatusWrapper w(s);
               std::int32_t id;
               std::memcpy(&id, message + meta->getOffset(&w, 0), 4);
               std::uint16_t length;
               std::memcpy(&length, message + meta->getOffset(&w, 1), 2);
               const std::string name(
                   reinterpret_cast<const char*>(message + meta->getOffset(&w, 1) + 2), length);
               const char* ours = CharacterSets::nameOf(static_cast<std::uint8_t>(id));
               EXPECT_EQ(name, ours ? ours : "(none)") << id;
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
  std::string euro;
  ASSERT_TRUE(CharacterSets::appendUtf8(53, "\x80\x81", euro));
  EXPECT_EQ("\xE2\x82\xAC\xEF\xBF\xBD", euro);  // WIN1252: 80 is the euro sign, 81 undefined
  EXPECT_FALSE(CharacterSets::isReadable(1));   // OCTETS
  EXPECT_FALSE(CharacterSets::isReadable(5));   // SJIS_0208
}

// Logs published within one second, the second by a transaction with a lower number: the
// directory lists them in the order of publication, not of their names.
TEST(LogDirectoryTest, PublicationOrderWithinOneSecond) {
  PosixFaults::Scope faults;
  TempDir dir;
  writeFile(dir / "plugin.conf", "OutputDirectory = " + dir.path() + "logs\n");
  Firebird::IConfig* config = loadConfig(dir / "plugin.conf");
  FbStatus status;
  Firebird::IReplPlugin* plugin = getReplPlugin(status, 30, config);
  config->release();
  PosixFaults::setTime(1700000000);
  for (std::uint64_t number : {9, 8, 7}) {
    Firebird::IReplTransaction* t = plugin->startTransaction(status, number);
    ASSERT_EQ(0, t->executeSql(status, "x", 1));
    ASSERT_EQ(0, t->commit(status));
    t->dispose();
    // Beyond one tick of the file system's clock.
    ::usleep(20000);
  }
  plugin->dispose();
  std::string order;
  for (const LogFile& log : LogDirectory::list(dir / "logs"))
    order += std::to_string(log.parsed.transaction);
  EXPECT_EQ("987", order);
}

}  // namespace
