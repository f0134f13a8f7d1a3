// The decoder against the plugin: random transactions decode to exactly what was written; damage
// under valid CRCs is reported where it lies (any change of bytes ends in a clean decode or a
// LogFormatError: LogDecoderFuzz); long blobs are handed out piece by piece.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "EmbeddedDatabase.h"
#include "EventDescription.h"
#include "LiteralRow.h"
#include "LogDecoder.h"
#include "LogFormatError.h"
#include "PluginFixture.h"
#include "TransactionScript.h"

namespace {

using LogDecoderTest = PluginFixture;

// Seeded random transactions played by TransactionScript (every type, nulls, blobs of the sizes
// around a piece's limit and across a block edge, partial old images, statements, savepoints
// rolled back into blocks on disk, commits and disposes without one): each log decodes to what was
// written. FBCDC_SAVEPOINT_SEQUENCES and FBCDC_SAVEPOINT_SEED choose the run and the seed.
TEST_F(LogDecoderTest, RandomSequencesMatchTheModel) {
  EmbeddedDatabase db(dir / "blobs.fdb");
  TransactionScript::Blobs blobs{db.attachment(), db.transaction(), {}};
  const auto add = [&](const ISC_QUAD& id, const Bytes& data) {
    blobs.values.push_back({id, "blob " + std::to_string(data.size()) + " " +
                                    std::to_string(slowCrc32c(data.data(), data.size()))});
  };
  // Empty, one byte, the largest piece and one more, and pieces across a block edge.
  for (const std::size_t size : {0, 1, 65535, 65536, 70000}) {
    const Bytes data = randomBytes(size, static_cast<unsigned>(size));
    add(db.createBlob(data, size != 70000, 40000), data);
  }
  // An empty segment leaves no piece: its length would end the list.
  ISC_QUAD id;
  Firebird::IBlob* blob =
      db.attachment()->createBlob(db.status(), db.transaction(), &id, 0, nullptr);
  for (const char* segment : {"abc", "", "de"})
    blob->putSegment(db.status(), static_cast<unsigned>(std::strlen(segment)), segment);
  blob->close(db.status());
  add(id, bytesOf("abcde"));

  const auto setting = [](const char* name, int fallback) {
    return std::getenv(name) ? std::atoi(std::getenv(name)) : fallback;
  };
  const int sequences = setting("FBCDC_SAVEPOINT_SEQUENCES", 2000);
  const auto seed = static_cast<unsigned>(setting("FBCDC_SAVEPOINT_SEED", 20261123));
  std::mt19937 random(seed);
  std::size_t largest = 0;
  int cut = 0;
  for (int sequence = 0; sequence < sequences; ++sequence) {
    const Bytes input = randomBytes(random() % 4096, random());
    TransactionScript script(input.data(), input.size(), true, blobs);
    PosixFaults::reset();
    ASSERT_EQ("", script.play(plugin, sequence + 1, logs))
        << "sequence " << sequence << ", seed " << seed;
    cut += PosixFaults::calls(PosixFaults::kFtruncate64);
    if (script.published.empty()) continue;
    largest = std::max<std::size_t>(largest, readFile(script.published).size());
    ::remove(script.published.c_str());
  }
  std::printf("%d sequences (seed %u): %d logs cut after a rollback into a block on disk\n",
              sequences, seed, cut);
  EXPECT_GT(cut, sequences / 100) << "too few rollbacks reached a block on disk";
  EXPECT_GT(largest, 3u * 32768) << "the logs should cross several blocks";
}

// Damage that valid CRCs do not reveal: each case's log position of the byte at fault (the end of
// the stream for a log cut short), its block, and what was expected there, in
// golden/structural.txt. (Far into a log, where the position counts the trailers before it:
// FbcdcCommandTest's verify.)
TEST_F(LogDecoderTest, StructuralDamageIsReportedWhereItLies) {
  const std::string header = "ZEFO\x04";
  const std::string insertT = std::string("I\0\1T", 4);
  const std::string field = std::string("\2ID\xFD\x09\0\0\5\0\0\0", 11);
  const std::string record = insertT + field + "\xFF";
  const std::pair<const char*, std::string> cases[] = {
      {"magic", "ZEFA\x04" + record + "{"},
      {"version", std::string("ZEFO\x03", 5) + record + "{"},
      {"tag", header + "X" + record + "{"},
      {"zero behind tag", header + "I\1" + record + "{"},
      {"relation name", header + std::string("I\0\xFD", 3) + "{"},
      {"empty field name", header + insertT + std::string("\0", 1)},
      {"old value in insert", header + insertT + "\2ID\xFE"},
      {"type code", header + insertT + "\2ID\xFD\x04"},
      {"old blob", header + std::string("D\0\1T\2ID\xFE\x11", 10)},
      {"update without new value", header + "U" + record.substr(1, 3) + "\2ID\xFE\x63\xFF{"},
      {"new value in delete", header + "D" + record.substr(1) + "{"},
      {"statement type", header + std::string("S\0\0\x0C", 4)},
      // The end of a log is its file's length, trailer included.
      {"cut in a text", header + insertT + std::string("\2ID\xFD\3\4\5\0ab", 10)},
      {"no commit marker", header + record},
      {"bytes after the marker", header + record + std::string("{\0", 2)},
      {"nothing recorded", header + "{"},
  };
  std::string text;
  for (const auto& [name, stream] : cases) {
    const std::string path = dir / "damaged.fbl";
    writeFile(path, containerOf(bytesOf(stream)));
    text += std::string(name) + ": ";
    try {
      LogDecoder decoder;
      decoder.open(path);
      while (decoder.next().kind != ChangeEvent::Kind::kEnd) {
      }
      text += "decoded without complaint\n";
    } catch (const LogFormatError& e) {
      text += "position " + std::to_string(e.position()) + ", block " + std::to_string(e.block()) +
              (e.file() == path ? ": " : " of another file: ") + e.reason() + "\n";
    }
  }
  expectGolden("decoder/golden/structural.txt", text);
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
  // Streamed or not, size, pieces, and the bytes kept, of every field of the next event.
  const auto next = [&decoder] {
    std::string s;
    for (const FieldChange& f : decoder.next().fields)
      s += std::string(f.after.streamed ? "streamed " : "") + std::to_string(f.after.size) + " " +
           std::to_string(f.after.pieces) + " [" + hexOf(f.after.bytes) + "] ";
    return s;
  };
  EXPECT_EQ("streamed 200000 7 [] 2 1 [01 02] ", next());
  EXPECT_TRUE(received == data);
  EXPECT_EQ("1 1 [03] ", next());
  EXPECT_EQ(ChangeEvent::Kind::kEnd, decoder.next().kind);
}

}  // namespace
