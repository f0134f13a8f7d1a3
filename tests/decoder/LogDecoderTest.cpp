// The decoder against the plugin: random transactions (every type, nulls, blobs, partial old
// images, statements, savepoint rollbacks) decode to exactly what was written; damage under valid
// CRCs is reported where it lies; no change of bytes fails the decoder other than with a
// LogFormatError.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <tuple>

#include "EmbeddedDatabase.h"
#include "EventDescription.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "LogFormatError.h"
#include "PluginFixture.h"

namespace {

using Blob = std::pair<ISC_QUAD, std::string>;  // a blob's id and its description

std::string randomText(std::mt19937& r, std::size_t n) {
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(r());
  return s;
}

// Adds a random field to row and returns the description of its value as the decoder must read it
// back. skipped tells that the writer makes no entry for it (type 0, or no name); in an old image
// its value counts all the same. A blob is one of blobs, when there are any.
std::string addField(std::mt19937& r, LiteralRow& row, const std::string& name, bool& skipped,
                     const std::vector<Blob>& blobs) {
  const char* n = name.c_str();
  const auto scale = static_cast<std::int16_t>(-static_cast<int>(r() % 5));
  const unsigned kind = r() % (blobs.empty() ? 15 : 16);
  skipped = kind == 13 || kind == 14;
  const std::string s = " scale " + std::to_string(scale) + " ";
  const auto date = static_cast<std::int32_t>(r() % 100000);
  const std::uint32_t time = r() % 864000000;
  const float f = static_cast<float>(r()) / 7.0f;
  const double d = r() % 8 == 0 ? std::nan("") : static_cast<double>(r()) / 3.0;
  const std::int32_t cs = r() % 2 ? 1 : 4;
  std::string text = randomText(r, r() % 1200);
  // Adds v with a member of LiteralRow (and its scale) and describes it as kind, gap and v.
  const auto put = [&](auto add, const char* kind, const std::string& gap, auto v, auto... scaled) {
    (row.*add)(n, v, scaled...);
    return kind + gap + std::to_string(v);
  };
  switch (kind) {
    case 0:
      return put(&LiteralRow::addShort, "short", s, static_cast<std::int16_t>(r()), scale);
    case 1:
      return put(&LiteralRow::addLong, "long", s, static_cast<std::int32_t>(r()), scale);
    case 2:
      return put(&LiteralRow::addInt64, "int64", s,
                 static_cast<std::int64_t>(static_cast<std::uint64_t>(r()) << 32 | r()), scale);
    case 3:
      row.addFloat(n, f);
      return "float " + bitsOf(static_cast<double>(f));
    case 4:
      row.addDouble(n, d);
      return "double " + bitsOf(d);
    case 5:
      return put(&LiteralRow::addDate, "date", " ", date);
    case 6:
      return put(&LiteralRow::addTime, "time", " ", time);
    case 7:
      row.addTimestamp(n, date, time);
      return "timestamp " + std::to_string(date) + " " + std::to_string(time);
    case 8:
      return put(&LiteralRow::addBoolean, "boolean", " ", static_cast<bool>(r() % 2));
    case 9:  // fixed-length text: the writer drops the pad of its character set
      text.resize(text.size() % 40);
      row.addChar(n, text + std::string(r() % 5, cs == 1 ? '\0' : ' '), cs);
      while (!text.empty() && text.back() == (cs == 1 ? '\0' : ' ')) text.pop_back();
      return "text1 cs" + std::to_string(cs) + " " + hexOf(text);
    case 10:
      row.addVarchar(n, text, 53);
      return "text3 cs53 " + hexOf(text);
    case 11:
      text.resize(text.size() % 20);
      text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
      row.addCString(n, text, 0);
      return "text2 cs0 " + hexOf(text);
    case 12: {
      // Any type but the blob kinds, whose old values are never written, null or not.
      static const std::uint32_t types[] = {1, 3, 4, 8, 9, 12, 14, 16, 19, 20, 21};
      row.addNull(n, types[r() % 11]);
      return "null";
    }
    case 13:
      row.addRaw(n, 0, "");
      return "absent";
    case 14:
      row.addRaw(nullptr, 9, std::string(4, '\1'));
      return "long scale 0 16843009";
    default: {
      const Blob& b = blobs[r() % blobs.size()];
      row.addBlob(n, b.first);
      return b.second;
    }
  }
}

// Decodes the whole log at path; a LogFormatError goes to the caller.
void decodeAll(const std::string& path) {
  LogDecoder decoder;
  decoder.open(path);
  while (decoder.next().kind != ChangeEvent::Kind::kEnd) {
  }
}

class LogDecoderTest : public PluginFixture {
 protected:
  // Decodes the one log of the output directory (and removes it); empty when there is none.
  std::vector<std::string> decodePublished(Bytes* file) {
    const std::string path = publishedLog();
    if (path.empty()) return {};
    *file = readFile(path);
    std::vector<std::string> events;
    LogDecoder decoder;
    decoder.open(path);
    for (const ChangeEvent* e = &decoder.next(); e->kind != ChangeEvent::Kind::kEnd;
         e = &decoder.next()) {
      EXPECT_EQ(events.size(), e->index);
      events.push_back(describe(*e));
    }
    ::remove(path.c_str());
    return events;
  }
};

// Random transactions, checked against a model of what their published log must hold: the events
// written, less those of rolled-back savepoints.
TEST_F(LogDecoderTest, RandomTransactionsDecodeToWhatWasWritten) {
  EmbeddedDatabase db(dir / "blobs.fdb");
  std::mt19937 random(20261123);
  std::vector<Blob> blobs;
  for (std::size_t size : {0, 700, 70000}) {  // none, one piece, pieces across a block edge
    const Bytes data = randomBytes(size, random());
    blobs.push_back({db.createBlob(data, true), "blob " + std::to_string(size) + " " +
                                                    std::to_string(slowCrc32c(data.data(), size))});
  }
  Bytes largest;
  for (int transaction = 0; transaction < 60; ++transaction) {
    SCOPED_TRACE("transaction " + std::to_string(transaction));
    ReplTransaction* t = begin(transaction + 1);
    ASSERT_NE(nullptr, t);
    std::vector<std::string> expected;
    std::vector<std::pair<int, std::size_t>> savepoints;  // number, events before it
    int nextSavepoint = 1;
    const int operations = 1 + static_cast<int>(random() % 300);
    for (int op = 0; op < operations; ++op) {
      const std::string relation = "REL" + std::to_string(random() % 4);
      LiteralRow newRow(relation.c_str()), oldRow(relation.c_str());
      const int fields = static_cast<int>(random() % 12);
      const int oldFields = static_cast<int>(random() % (fields + 1));
      std::string entries;
      const unsigned kind = random() % 10;
      for (int f = 0; f < fields; ++f) {
        const std::string name = "F" + std::to_string(f);
        bool skipped, unused;
        // A delete's image carries no blob value, so its blobs would read as absent.
        const std::string after =
            addField(random, newRow, name, skipped, kind == 2 ? std::vector<Blob>{} : blobs);
        std::string before = f < oldFields ? addField(random, oldRow, name, unused, blobs) : "";
        if (before.empty() || before.rfind("blob", 0) == 0) before = "absent";
        if (skipped) continue;
        if (kind <= 1) entries += "|" + name + ":absent>" + after;       // insert
        if (kind == 2) entries += "|" + name + ":" + after + ">absent";  // delete
        if (kind >= 3 && kind <= 5) entries += "|" + name + ":" + before + ">" + after;
      }
      std::int32_t result = 0;
      if (kind <= 5) {
        const char tag = kind <= 1 ? 'I' : kind == 2 ? 'D' : 'U';
        auto* a = db.attachment();
        result = tag == 'I'   ? t->insertRecord(status, a, db.transaction(), &newRow)
                 : tag == 'D' ? t->deleteRecord(status, a, db.transaction(), &newRow)
                              : t->updateRecord(status, a, db.transaction(), &oldRow, &newRow);
        expected.push_back(tag + ("|" + relation) + entries);
      } else if (kind == 6) {
        const std::string sql = randomText(random, random() % 256);
        const auto number = static_cast<std::int64_t>(random());
        result = t->executeSql(status, sql.c_str(), number);
        expected.push_back("S|" + std::string(sql.c_str()) + "|" + std::to_string(number));
      } else if (kind == 7) {
        t->startSavepoint(status, nextSavepoint);
        savepoints.emplace_back(nextSavepoint++, expected.size());
      } else if (kind == 8 && !savepoints.empty()) {
        const int n = savepoints[random() % savepoints.size()].first;
        t->releaseSavepoint(status, n);
        while (!savepoints.empty() && savepoints.back().first >= n) savepoints.pop_back();
      } else if (kind == 9) {
        const int n = savepoints.empty() || random() % 8 == 0
                          ? 0
                          : savepoints[random() % savepoints.size()].first;
        t->rollbackSavepoint(n);
        while (!savepoints.empty() && savepoints.back().first > n) savepoints.pop_back();
        expected.resize(savepoints.empty() ? 0 : savepoints.back().second);
        if (!savepoints.empty()) savepoints.pop_back();
      }
      ASSERT_EQ(0, result) << status.text();
    }
    ASSERT_EQ(0, t->commit(status)) << status.text();
    t->dispose();
    Bytes file;
    EXPECT_EQ(expected, decodePublished(&file));
    if (file.size() > largest.size()) largest = file;
  }
  ASSERT_GT(largest.size(), 3u * 32768) << "the logs should cross several blocks";

  // Any change of the stream, sealed with valid CRCs so that the decoder's own checks are reached,
  // and any cut of the file: the decoder reads on or stops with a LogFormatError, nothing else.
  const Bytes stream = streamOf(largest);
  auto survives = [&](const Bytes& file) {
    writeFile(dir / "damaged.fbl", file);
    try {
      decodeAll(dir / "damaged.fbl");
    } catch (const LogFormatError&) {
    }
  };
  for (int i = 0; i < 400; ++i) {
    Bytes changed = stream;
    for (unsigned k = 0; k < 1 + random() % 3; ++k)
      changed[random() % changed.size()] = static_cast<std::uint8_t>(random());
    survives(containerOf(changed));
  }
  for (std::size_t cut = 0; cut < largest.size(); cut += 1 + random() % 4000) {
    survives(Bytes(largest.begin(), largest.begin() + cut));
    survives(containerOf(Bytes(stream.begin(), stream.begin() + std::min(cut, stream.size()))));
  }
}

// Damage that valid CRCs do not reveal: each case names the log position of the byte at fault
// (the end of the stream for a log cut short), its block, and what was expected there.
TEST_F(LogDecoderTest, StructuralDamageIsReportedWhereItLies) {
  const std::string header = "ZEFO\x04";
  const std::string insertT = std::string("I\0\1T", 4);
  const std::string field = std::string("\2ID\xFD\x09\0\0\5\0\0\0", 11);
  const std::string record = insertT + field + "\xFF";
  // Far into a log the position counts the trailers of the blocks before: a damaged tag at stream
  // offset s lies at s + 4 * (s / 32764).
  std::string longStream = header;
  while (longStream.size() < 70000) longStream += record;
  const std::size_t damaged = longStream.size();
  // Name, stream, position, reason.
  const std::tuple<const char*, std::string, std::size_t, const char*> cases[] = {
      {"magic", "ZEFA\x04" + record + "{", 3, "expected the magic"},
      {"version", std::string("ZEFO\x03", 5) + record + "{", 4, "expected the format version 04"},
      {"tag", header + "X" + record + "{", 5, "expected a record tag"},
      {"zero behind tag", header + "I\1" + record + "{", 6, "00 byte behind the record tag"},
      {"relation name", header + std::string("I\0\xFD", 3) + "{", 7, "at most 252 bytes"},
      {"empty field name", header + insertT + std::string("\0", 1), 9, "field name length"},
      {"old value in insert", header + insertT + "\2ID\xFE", 12, "new value marker FD"},
      {"type code", header + insertT + "\2ID\xFD\x04", 13, "type code the writer produces"},
      {"old blob", header + std::string("D\0\1T\2ID\xFE\x11", 10), 13, "an old value"},
      {"update without new value", header + "U" + record.substr(1, 3) + "\2ID\xFE\x63\xFF{", 14,
       "new value marker FD of an update"},
      {"new value in delete", header + "D" + record.substr(1) + "{", 12, "old value marker FE"},
      {"statement type", header + std::string("S\0\0\x0C", 4), 8, "type code 13"},
      // The end of a log is its file's length, trailer included.
      {"cut in a text", header + insertT + std::string("\2ID\xFD\3\4\5\0ab", 10), 23,
       "a text's bytes"},
      {"no commit marker", header + record, 25, "a record tag"},
      {"bytes after the marker", header + record + std::string("{\0", 2), 22,
       "bytes follow the commit marker"},
      {"nothing recorded", header + "{", 5, "no record before its commit marker"},
      {"tag in the third block", longStream + "X{", damaged + 4 * (damaged / 32764),
       "expected a record tag"},
  };
  for (const auto& [name, stream, position, reason] : cases) {
    SCOPED_TRACE(name);
    const std::string path = dir / "damaged.fbl";
    writeFile(path, containerOf(bytesOf(stream)));
    try {
      LogDecoder decoder;
      decoder.open(path);
      while (decoder.next().kind != ChangeEvent::Kind::kEnd) {
      }
      ADD_FAILURE() << "decoded without complaint";
    } catch (const LogFormatError& e) {
      EXPECT_EQ(static_cast<std::int64_t>(position), e.position()) << e.what();
      EXPECT_EQ(static_cast<std::int64_t>(position / 32768), e.block());
      EXPECT_NE(std::string::npos, e.reason().find(reason)) << e.what();
      EXPECT_EQ(path, e.file());
    }
  }
}

// A long blob handed out piece by piece: the receiver gets every byte in order and the event
// keeps only its size. The next event reuses the field: nothing of the streamed value stays.
TEST_F(LogDecoderTest, LargeBlobsAreStreamedPastTheThreshold) {
  EmbeddedDatabase db(dir / "blobs.fdb");
  Bytes data(200000);
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(i * 7);
  LiteralRow row("T");
  row.addBlob("B", db.createBlob(data, false, 30000)).addBlob("SMALL", db.createBlob({1, 2}, true));
  ReplTransaction* t = begin();
  ASSERT_EQ(0, t->insertRecord(status, db.attachment(), db.transaction(), &row));
  LiteralRow small("T");
  small.addBlob("B", db.createBlob({3}, true));
  ASSERT_EQ(0, t->insertRecord(status, db.attachment(), db.transaction(), &small));
  ASSERT_EQ(0, t->commit(status));
  t->dispose();
  Bytes received;
  LogDecoder decoder;
  decoder.streamBlobs(65536, [&](std::string_view name, const std::uint8_t* p, std::size_t n) {
    EXPECT_EQ("B", name);
    received.insert(received.end(), p, p + n);
  });
  decoder.open(publishedLog());
  const ChangeEvent& e = decoder.next();
  ASSERT_EQ(2u, e.fields.size());
  EXPECT_TRUE(e.fields[0].after.streamed);
  EXPECT_EQ(data.size(), e.fields[0].after.size);
  EXPECT_EQ(7u, e.fields[0].after.pieces);
  EXPECT_TRUE(e.fields[0].after.bytes.empty());
  EXPECT_TRUE(received == data);
  EXPECT_FALSE(e.fields[1].after.streamed);
  EXPECT_EQ(std::string("\1\2", 2), e.fields[1].after.bytes);
  const ChangeEvent& reused = decoder.next();
  ASSERT_EQ(1u, reused.fields.size());
  const FieldValue& v = reused.fields[0].after;
  EXPECT_FALSE(v.streamed);
  EXPECT_EQ(1u, v.size);
  EXPECT_EQ(1u, v.pieces);
  EXPECT_EQ("\3", v.bytes);
  EXPECT_EQ(ChangeEvent::Kind::kEnd, decoder.next().kind);
}

}  // namespace
