#include "TReadFile.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <random>
#include <string>

#include "PosixFaults.h"
#include "ReplAutoException.h"
#include "TWriteFile.h"
#include "TestFiles.h"

namespace {

Bytes randomBytes(std::size_t n, unsigned seed) {
  std::mt19937 random(seed);
  Bytes b(n);
  for (auto& x : b) x = static_cast<std::uint8_t>(random());
  return b;
}

struct Failure {
  std::string first;
  std::string second;
  bool owned = false;  // thrown as ReplAutoException
};

// Runs fn and returns the texts of the ReplException it threw (empty when none).
Failure failureOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const ReplAutoException& e) {
    return {e.first(), e.second(), true};
  } catch (const ReplException& e) {
    return {e.first(), e.second(), false};
  }
  return {};
}

bool operator==(const Failure& a, const Failure& b) {
  return a.first == b.first && a.second == b.second && a.owned == b.owned;
}
std::ostream& operator<<(std::ostream& out, const Failure& f) {
  return out << (f.owned ? "auto " : "") << f.first << ": " << f.second;
}

class TReadFileTest : public ::testing::Test {
 protected:
  // Writes stream as a block container with the library's writer.
  std::string writeLog(const Bytes& stream, const std::string& name = "log") {
    struct Writer : TWriteFile {
      explicit Writer(const std::string& p) {
        std::snprintf(fileName, sizeof fileName, "%s", p.c_str());
      }
    } writer(dir / name);
    writer.putBytes(stream.data(), static_cast<std::int32_t>(stream.size()));
    writer.flushBlock();
    return dir / name;
  }

  PosixFaults::Scope faults;
  TempDir dir;
};

TEST_F(TReadFileTest, ThirteenByteFileWithAndWithoutCrc) {
  const std::string path = writeLog(bytesOf("123456789"));
  TReadFile checked;
  checked.open(path.c_str(), true);
  std::string digits;
  for (int i = 0; i < 9; ++i) digits += static_cast<char>(checked.getByte());
  EXPECT_EQ("123456789", digits);
  EXPECT_EQ(13, checked.getPosition());
  EXPECT_EQ((Failure{"TRF::RB", "Unexpected EOF"}), failureOf([&] { checked.getByte(); }));

  TReadFile raw;
  raw.open(path.c_str(), false);
  Bytes all;
  for (int i = 0; i < 13; ++i) all.push_back(raw.getByte());
  EXPECT_EQ(readFile(path), all);
  EXPECT_EQ(13, raw.getPosition());
}

// The get operations read back exactly what the put operations wrote, also when the writer split a
// value between two blocks at any byte.
TEST_F(TReadFileTest, ValuesRoundTripAcrossEveryBlockEdgeOffset) {
  for (int before = 32764 - 9; before <= 32764; ++before) {
    SCOPED_TRACE(before);
    struct Writer : TWriteFile {
      explicit Writer(const std::string& p) {
        std::snprintf(fileName, sizeof fileName, "%s", p.c_str());
      }
    };
    const std::string path = dir / ("values" + std::to_string(before));
    {
      Writer w(path);
      const Bytes filler(before, 0xEE);
      w.putBytes(filler.data(), before);
      w.putInt16(0xA1B2);
      w.putInt32(0xC1D2E3F4);
      w.putInt64(0x0102030405060708);
      w.putDouble(-2.5e300);
      w.putInt32Pair(7, 0xFFFFFFFF);
      w.putBytes("tail", 4);
      w.flushBlock();
    }
    TReadFile r;
    r.open(path.c_str(), true);
    r.skip(static_cast<std::uint32_t>(before));
    EXPECT_EQ(0xA1B2, r.getInt16());
    EXPECT_EQ(0xC1D2E3F4u, r.getInt32());
    EXPECT_EQ(0x0102030405060708u, r.getInt64());
    EXPECT_EQ(-2.5e300, r.getDouble());
    TReadFile::Int32Pair pair{};
    r.getInt32Pair(pair);
    EXPECT_EQ(7u, pair.first);
    EXPECT_EQ(0xFFFFFFFFu, pair.second);
    char tail[4];
    r.getBytes(tail, 4);
    EXPECT_EQ("tail", std::string(tail, 4));
    EXPECT_EQ(static_cast<std::int64_t>(readFile(path).size()), r.getPosition());
  }
}

TEST_F(TReadFileTest, PositionsAgreeWithTheWriter) {
  const Bytes stream = randomBytes(3 * 32764 + 500, 7);
  const std::string path = writeLog(stream);
  TReadFile r;
  r.open(path.c_str(), true);
  EXPECT_EQ(0, r.getPosition());
  for (std::size_t i = 0; i < stream.size(); ++i) {
    const std::int64_t expected = static_cast<std::int64_t>(i / 32764 * 32768 + i % 32764);
    ASSERT_EQ(expected, r.getPosition()) << "byte " << i;
    ASSERT_EQ(stream[i], r.getByte()) << "byte " << i;
  }
  EXPECT_EQ(3 * 32768 + 504, r.getPosition());

  // After 32764 bytes the position is the next block's start; the next byte loads that block.
  r.seek(0);
  r.skip(32764);
  EXPECT_EQ(32768, r.getPosition());
  EXPECT_EQ(stream[32764], r.getByte());
}

TEST_F(TReadFileTest, GetBytesAndSkip) {
  const Bytes stream = randomBytes(5 * 32764 + 10, 11);
  const std::string path = writeLog(stream);
  TReadFile r;
  r.open(path.c_str(), true);
  Bytes none(4, 0x55);
  r.getBytes(none.data(), 0);
  r.getBytes(none.data(), -3);
  EXPECT_EQ(Bytes(4, 0x55), none);
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kRead)) << "nothing read for an empty request";

  Bytes run(70000);
  r.getBytes(run.data(), 70000);
  EXPECT_EQ(Bytes(stream.begin(), stream.begin() + 70000), run);
  PosixFaults::reset();
  r.skip(2 * 32764 + 3);  // over two whole blocks into the fourth
  EXPECT_EQ(2, PosixFaults::calls(PosixFaults::kRead)) << "every block passed over is read";
  EXPECT_EQ(stream[70000 + 2 * 32764 + 3], r.getByte());
  // A skip that ends exactly at the end of a block's data loads nothing more.
  const std::int64_t inBlock = r.getPosition() % 32768;
  PosixFaults::reset();
  r.skip(static_cast<std::uint32_t>(32764 - inBlock));
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kRead));
  EXPECT_EQ(5 * 32768, r.getPosition());
}

TEST_F(TReadFileTest, Seek) {
  const Bytes stream = randomBytes(3 * 32764, 13);  // ends with a full block
  const std::string path = writeLog(stream);
  TReadFile r;
  r.open(path.c_str(), true);
  // A fresh reader loads the first block for a position in it.
  r.seek(100);
  EXPECT_EQ(stream[100], r.getByte());
  PosixFaults::reset();
  r.seek(5);
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kRead) + PosixFaults::calls(PosixFaults::kLseek64))
      << "a seek within the loaded block does no file operation";
  EXPECT_EQ(5, r.getPosition());
  EXPECT_EQ(stream[5], r.getByte());
  r.seek(2 * 32768 + 17);
  EXPECT_EQ(2 * 32768 + 17, r.getPosition());
  EXPECT_EQ(stream[2 * 32764 + 17], r.getByte());
  r.seek(32768);
  EXPECT_EQ(stream[32764], r.getByte());
  // The length of a file that ends with a full block is the start of a block that does not exist.
  EXPECT_EQ((Failure{"TRF::RB", "Unexpected EOF"}), failureOf([&] { r.seek(3 * 32768); }));
  EXPECT_EQ(3 * 32768, r.getPosition());
  EXPECT_EQ((Failure{"TRF::Seek", "Invalid argument"}), failureOf([&] { r.seek(-1); }));

  // A reader without a file fails at the positioning.
  TReadFile closed;
  EXPECT_EQ((Failure{"TRF::Seek", "Bad file descriptor"}), failureOf([&] { closed.seek(40000); }));
  EXPECT_EQ((Failure{"TRF::RB", "File is not opened"}), failureOf([&] { closed.getByte(); }));
}

// A log of 4 GiB and more is reachable: seek takes 64-bit positions. The file is sparse; only its
// last block is written.
TEST_F(TReadFileTest, SeekBeyondFourGibibytes) {
  const std::int64_t far = (std::int64_t{5} << 30) + 3 * 32768;
  const Bytes data = randomBytes(32764, 17);
  Bytes block = data;
  const std::uint32_t crc = slowCrc32c(data.data(), data.size());
  for (int i = 0; i < 4; ++i) block.push_back(static_cast<std::uint8_t>(crc >> (8 * i)));
  const std::string path = dir / "sparse";
  {
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    ASSERT_EQ(0, fseeko(f, far, SEEK_SET));
    ASSERT_EQ(block.size(), std::fwrite(block.data(), 1, block.size(), f));
    std::fclose(f);
  }
  TReadFile r;
  r.open(path.c_str(), true);
  r.seek(far + 1000);
  EXPECT_EQ(far + 1000, r.getPosition());
  EXPECT_EQ(data[1000], r.getByte());
}

TEST_F(TReadFileTest, DamagedAndOddFiles) {
  const std::string log = writeLog(bytesOf("ZEFO\x04S\x00\x00"));
  struct Case {
    const char* name;
    std::function<std::string()> make;
    Failure expected;
  };
  const std::vector<Case> cases = {
      {"zero-length file",
       [&] {
         writeFile(dir / "empty", "");
         return dir / "empty";
       },
       {"TRF::RB", "Unexpected EOF"}},
      {"1 byte",
       [&] {
         writeFile(dir / "f1", "Z");
         return dir / "f1";
       },
       {"TFDB::RB", "Too small block"}},
      {"4 bytes",
       [&] {
         writeFile(dir / "f4", "ZEFO");
         return dir / "f4";
       },
       {"TFDB::RB", "Too small block"}},
      {"a directory",
       [&] {
         ::mkdir((dir / "d").c_str(), 0700);
         return dir / "d";
       },
       {"TRF::RB", "Is a directory"}},
      {"5 bytes with a wrong CRC",
       [&] {
         writeFile(dir / "f5", "Z\1\2\3\4");
         return dir / "f5";
       },
       {"TFDB::RB", "CRC error, file " + dir / "f5" + " is corrupted", true}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = c.make();
    TReadFile r;
    r.open(path.c_str(), true);
    EXPECT_EQ(c.expected, failureOf([&] { r.getByte(); }));
  }

  TReadFile missing;
  EXPECT_EQ((Failure{"TRF::Open", "Cannot open " + dir / "missing" + ": No such file or directory",
                     true}),
            failureOf([&] { missing.open((dir / "missing").c_str(), true); }));
  EXPECT_EQ((Failure{"TRF::RB", "File is not opened"}), failureOf([&] { missing.getByte(); }));

  TReadFile noCrc;
  noCrc.open(log.c_str(), true);
  EXPECT_NO_THROW(noCrc.getByte());
}

// Every single bit flipped anywhere in a small log, data or trailer, is caught when its block
// loads.
TEST_F(TReadFileTest, EveryFlippedBitIsDetected) {
  const std::string path = writeLog(randomBytes(60, 19));
  const Bytes good = readFile(path);
  const std::string bad = dir / "bad";
  for (std::size_t byte = 0; byte < good.size(); ++byte) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes damaged = good;
      damaged[byte] ^= static_cast<std::uint8_t>(1u << bit);
      writeFile(bad, std::string(damaged.begin(), damaged.end()));
      TReadFile r;
      r.open(bad.c_str(), true);
      ASSERT_EQ((Failure{"TFDB::RB", "CRC error, file " + bad + " is corrupted", true}),
                failureOf([&] { r.getByte(); }))
          << "byte " << byte << " bit " << bit;
    }
  }
}

// A log cut at every length near its start, its block edge and its end (and at a stride between):
// the whole blocks before the cut read back, reading never gets further than the cut, and the
// damaged tail gives one of the reader's own errors.
TEST_F(TReadFileTest, TruncatedAtEveryLength) {
  const Bytes stream = randomBytes(32764 + 40, 23);
  const Bytes whole = readFile(writeLog(stream));
  const std::string cut = dir / "cut";
  std::vector<std::size_t> lengths;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const bool nearEdge =
        length < 64 || (length > 32768 - 64 && length < 32768 + 64) || length + 64 > whole.size();
    if (nearEdge || length % 97 == 0) lengths.push_back(length);
  }
  for (std::size_t length : lengths) {
    writeFile(cut, std::string(whole.begin(), whole.begin() + length));
    TReadFile r;
    r.open(cut.c_str(), true);
    std::size_t got = 0;
    const Failure f = failureOf([&] {
      for (; got < stream.size(); ++got) ASSERT_EQ(stream[got], r.getByte());
    });
    const std::size_t wholeBlocks = length / 32768 * 32764;
    ASSERT_GE(got, wholeBlocks) << "cut at " << length;
    ASSERT_LT(got, stream.size()) << "cut at " << length;
    ASSERT_TRUE(f.first == "TRF::RB" || f.first == "TFDB::RB") << f << " at " << length;
  }
}

TEST(TReadFileCrc, NoFunctionInstalledIsABugcheck) {
  EXPECT_EQ((Failure{"TRF::RB", "BUGCHECK: CRC function is not set"}),
            failureOf([] { TReadFile::crcNotSet(nullptr, 0); }));
}

TEST(ReplAutoExceptionTest, OwnsAndHandsOverItsText) {
  try {
    ReplAutoException::raise("TAG", "%s %d", "value", 42);
  } catch (const ReplException& e) {
    EXPECT_STREQ("TAG", e.first());
    EXPECT_STREQ("value 42", e.second());
  }
  ReplAutoException original("TAG", "text");
  ReplAutoException copy(original);
  EXPECT_EQ(nullptr, original.second());
  EXPECT_STREQ("text", copy.second());
  // A message longer than 2046 characters is cut.
  const std::string longText(5000, 'm');
  try {
    ReplAutoException::raise("TAG", "%s", longText.c_str());
  } catch (const ReplException& e) {
    EXPECT_EQ(std::string(2046, 'm'), e.second());
  }
}

}  // namespace
