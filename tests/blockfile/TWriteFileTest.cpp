#include "TWriteFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>

#include "PosixFaults.h"
#include "ReplException.h"
#include "TestFiles.h"

namespace {

// The writer as its owner sees it: the owner names the file and may look at the descriptor.
class Writer : public TWriteFile {
 public:
  explicit Writer(const std::string& path) {
    std::snprintf(fileName, sizeof fileName, "%s", path.c_str());
  }
  int descriptor() const { return fd; }
  std::int64_t highWater() const { return highWaterMark; }
};

Bytes pattern(std::size_t n, unsigned seed = 1) {
  Bytes b(n);
  for (std::size_t i = 0; i < n; ++i) b[i] = static_cast<std::uint8_t>((i * 131 + seed * 7) >> 3);
  return b;
}

// Expects fn to throw a ReplException with exactly these texts.
void expectReplException(const std::function<void()>& fn, const std::string& first,
                         const std::string& second) {
  try {
    fn();
    ADD_FAILURE() << "no exception, expected " << first << ": " << second;
  } catch (const ReplException& e) {
    EXPECT_EQ(first, e.first());
    EXPECT_EQ(second, e.second());
  }
}

class TWriteFileTest : public ::testing::Test {
 protected:
  PosixFaults::Scope faults;
  TempDir dir;
  std::string path = dir / "log";
};

// Stream lengths around the block edge, written byte by byte and as one run, then flushed: the file
// is the container of the stream, and the positions count the trailers.
TEST_F(TWriteFileTest, StreamLengthsAroundBlockEdges) {
  struct Case {
    std::size_t length;
    std::int64_t positionBeforeFlush;
    std::int64_t fileLengthBeforeFlush;  // -1: no file yet
    std::int64_t finalLength;
  };
  const Case cases[] = {
      {1, 1, -1, 5},
      {9, 9, -1, 13},
      {32763, 32763, -1, 32767},
      {32764, 32768, 32768, 32768},
      {32765, 32769, 32768, 32773},
      {32764 + 10, 32778, 32768, 32782},
      {2 * 32764, 65536, 65536, 65536},
      {2 * 32764 + 1, 65537, 65536, 65541},
  };
  for (const Case& c : cases) {
    for (bool asRun : {false, true}) {
      SCOPED_TRACE("length " + std::to_string(c.length) +
                   (asRun ? " as one run" : " byte by byte"));
      ::remove(path.c_str());
      const Bytes stream = pattern(c.length);
      Writer w(path);
      if (asRun) {
        w.putBytes(stream.data(), static_cast<std::int32_t>(stream.size()));
      } else {
        for (std::uint8_t b : stream) w.putByte(b);
      }
      EXPECT_EQ(c.positionBeforeFlush, w.getPosition());
      EXPECT_EQ(c.fileLengthBeforeFlush,
                fileExists(path) ? static_cast<std::int64_t>(readFile(path).size()) : -1);
      w.flushBlock();
      EXPECT_EQ(c.finalLength, w.getPosition());
      EXPECT_EQ(containerOf(stream), readFile(path));
    }
  }
}

TEST_F(TWriteFileTest, PutOperationsStoreLittleEndianBytes) {
  struct Case {
    const char* name;
    std::function<void(Writer&)> put;
    const char* bytes;
  };
  const Case cases[] = {
      {"putByte", [](Writer& w) { w.putByte(0xAB); }, "AB"},
      {"putInt16", [](Writer& w) { w.putInt16(0x1234); }, "34 12"},
      {"putInt32", [](Writer& w) { w.putInt32(0x12345678); }, "78 56 34 12"},
      {"putInt64", [](Writer& w) { w.putInt64(0x0102030405060708); }, "08 07 06 05 04 03 02 01"},
      {"putDouble", [](Writer& w) { w.putDouble(1.0); }, "00 00 00 00 00 00 F0 3F"},
      {"putInt32Pair", [](Writer& w) { w.putInt32Pair(1, 2); }, "01 00 00 00 02 00 00 00"},
      {"putBytes", [](Writer& w) { w.putBytes("abc", 3); }, "61 62 63"},
      {"putBytes 0", [](Writer& w) { w.putBytes("abc", 0); }, ""},
      {"putBytes -1", [](Writer& w) { w.putBytes("abc", -1); }, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ::remove(path.c_str());
    Writer w(path);
    w.putByte(0x5A);  // a marker so that the empty cases still produce a file
    c.put(w);
    w.flushBlock();
    Bytes file = readFile(path);
    ASSERT_GE(file.size(), 5u);
    EXPECT_EQ(c.bytes, hex(Bytes(file.begin() + 1, file.end() - 4)));
  }
}

TEST_F(TWriteFileTest, NineDigitsGiveThirteenBytesEndingInTheirCrc) {
  Writer w(path);
  w.putBytes("123456789", 9);
  w.flushBlock();
  EXPECT_EQ("31 32 33 34 35 36 37 38 39 83 92 06 E3", hex(readFile(path)));
}

// A number that straddles the block edge: its low bytes end block 0, its high bytes start block 1.
TEST_F(TWriteFileTest, NumbersSplitAcrossTheBlockEdge) {
  struct Case {
    const char* name;
    std::size_t before;
    std::function<void(Writer&)> put;
    const char* tail;  // last data bytes of block 0
    const char* head;  // first data bytes of block 1
    std::int64_t position;
  };
  const Case cases[] = {
      {"putInt32 at 32762", 32762, [](Writer& w) { w.putInt32(0x12345678); }, "78 56", "34 12",
       32770},
      {"putInt16 at 32763", 32763, [](Writer& w) { w.putInt16(0xBEEF); }, "EF", "BE", 32769},
      {"putInt64 at 32761", 32761, [](Writer& w) { w.putInt64(0x0807060504030201); }, "01 02 03",
       "04 05 06 07 08", 32773},
      {"putInt32Pair at 32760", 32760, [](Writer& w) { w.putInt32Pair(0x04030201, 0x08070605); },
       "01 02 03 04", "05 06 07 08", 32772},
      {"putInt32 ending at the edge", 32760, [](Writer& w) { w.putInt32(0x04030201); },
       "01 02 03 04", "", 32768},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ::remove(path.c_str());
    Writer w(path);
    const Bytes before = pattern(c.before);
    w.putBytes(before.data(), static_cast<std::int32_t>(before.size()));
    c.put(w);
    EXPECT_EQ(c.position, w.getPosition());
    Bytes file = readFile(path);
    ASSERT_EQ(32768u, file.size()) << "the block is written by the put that fills it";
    const std::string tail = c.tail;
    const std::size_t tailBytes = (tail.size() + 1) / 3;
    EXPECT_EQ(tail, hex(Bytes(file.begin() + 32764 - tailBytes, file.begin() + 32764)));
    w.flushBlock();
    file = readFile(path);
    EXPECT_EQ(c.head, hex(Bytes(file.begin() + 32768, file.end() - (file.size() > 32768 ? 4 : 0))));
  }
}

TEST_F(TWriteFileTest, NothingFlushedLeavesNoFile) {
  {
    Writer w(path);
    w.flushBlock();
    EXPECT_FALSE(fileExists(path));
    w.putBytes("abc", 3);
  }
  EXPECT_FALSE(fileExists(path)) << "the destructor drops buffered data";
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kOpen));
}

TEST_F(TWriteFileTest, OneWritePerBlock) {
  Writer w(path);
  const Bytes stream = pattern(3 * 32764 + 100);
  w.putBytes(stream.data(), static_cast<std::int32_t>(stream.size()));
  w.flushBlock();
  EXPECT_EQ(4, PosixFaults::calls(PosixFaults::kWrite));
  EXPECT_EQ(containerOf(stream), readFile(path));
}

// An existing file is never overwritten. The failed flush keeps every buffered byte, and a later
// flush, or a put that finds the buffer full, tries to create the file again.
TEST_F(TWriteFileTest, ExistingFileFailsCreationAndKeepsTheBuffer) {
  writeFile(path, "someone else's");
  Writer w(path);
  const Bytes stream = pattern(32764);
  w.putBytes(stream.data(), 32763);
  expectReplException([&] { w.putByte(stream[32763]); }, "Log file creation failed", "File exists");
  EXPECT_EQ(-1, w.descriptor());
  EXPECT_EQ(bytesOf("someone else's"), readFile(path));
  expectReplException([&] { w.putByte(0x01); }, "Log file creation failed", "File exists");
  ::remove(path.c_str());
  w.putByte(0x42);  // flushes the full buffer first, then stores
  w.flushBlock();
  Bytes expected = stream;
  expected.push_back(0x42);
  EXPECT_EQ(containerOf(expected), readFile(path));
}

// Short writes are continued; a failed write or one that makes no progress stops the writer for
// good, and every later put, flush and seek is refused with the same texts.
TEST_F(TWriteFileTest, WriteFaults) {
  struct Case {
    const char* name;
    std::function<void()> arm;
    const char* second;  // null: the block is written whole
    int writeCalls;
  };
  const Case cases[] = {
      {"short write", [] { PosixFaults::limitAt(PosixFaults::kWrite, 1, 1000); }, nullptr, 2},
      {"one byte at a time for a while",
       [] { PosixFaults::limitAt(PosixFaults::kWrite, 1, 1, true); }, nullptr, 32768},
      {"failure", [] { PosixFaults::failAt(PosixFaults::kWrite, 1, EIO); }, "Input/output error",
       1},
      {"failure after a short write",
       [] {
         PosixFaults::limitAt(PosixFaults::kWrite, 1, 100);
         PosixFaults::failAt(PosixFaults::kWrite, 2, ENOSPC);
       },
       "No space left on device", 2},
      {"no progress", [] { PosixFaults::limitAt(PosixFaults::kWrite, 1, 0); },
       "Write made no progress", 1},
  };
  const Bytes stream = pattern(32764);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ::remove(path.c_str());
    PosixFaults::reset();
    Writer w(path);
    w.putBytes(stream.data(), 32763);
    c.arm();
    if (!c.second) {
      w.putByte(stream[32763]);
      EXPECT_EQ(32768, w.getPosition());
      EXPECT_EQ(containerOf(stream), readFile(path));
      EXPECT_EQ(c.writeCalls, PosixFaults::calls(PosixFaults::kWrite));
      continue;
    }
    expectReplException([&] { w.putByte(stream[32763]); }, "TF::WC-w", c.second);
    EXPECT_EQ(c.writeCalls, PosixFaults::calls(PosixFaults::kWrite));
    PosixFaults::reset();
    const char* stopped = "Log writer stopped after an earlier write failure";
    const std::function<void()> later[] = {
        [&] { w.putByte(1); },        [&] { w.putInt16(1); },  [&] { w.putInt32(1); },
        [&] { w.putInt64(1); },       [&] { w.putDouble(1); }, [&] { w.putInt32Pair(1, 2); },
        [&] { w.putBytes("ab", 2); }, [&] { w.flushBlock(); }, [&] { w.seek(5); },
    };
    for (const auto& op : later) expectReplException(op, "TF::WC-w", stopped);
    EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kWrite)) << "nothing more reaches the file";
  }
}

// The texts of every way a rewind can fail. A failed first positioning leaves the writer as it was;
// once the descriptor has moved, the writer stops.
TEST_F(TWriteFileTest, SeekFailures) {
  struct Case {
    const char* name;
    std::function<void()> arm;
    std::int64_t target;
    const char* first;
    const char* second;
    bool stops;
  };
  const Case cases[] = {
      {"first positioning", [] { PosixFaults::failAt(PosixFaults::kLseek64, 1, EIO); }, 100,
       "TWF::Seek", "Input/output error", false},
      {"read-back fails", [] { PosixFaults::failAt(PosixFaults::kRead, 1, EIO); }, 100,
       "TWF::Seek-RB", "Input/output error", true},
      {"read-back at the end", [] { PosixFaults::limitAt(PosixFaults::kRead, 1, 0); }, 100,
       "TWF::Seek-RB", "Unexpected EOF", true},
      {"short read-back", [] { PosixFaults::limitAt(PosixFaults::kRead, 1, 32767); }, 100,
       "TWF::Seek-RB", "Short block read", true},
      {"second positioning", [] { PosixFaults::failAt(PosixFaults::kLseek64, 2, EBADF); }, 100,
       "TWF::Seek2", "Bad file descriptor", true},
      {"into a trailer", [] {}, 32764, "TWF::Seek", "!BUGCHECK! Seek past end of buffer", false},
      {"past the buffer", [] {}, 2 * 32768 + 32764, "TWF::Seek",
       "!BUGCHECK! Seek past end of buffer", false},
  };
  const Bytes stream = pattern(2 * 32764 + 50);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ::remove(path.c_str());
    PosixFaults::reset();
    Writer w(path);
    w.putBytes(stream.data(), static_cast<std::int32_t>(stream.size()));
    const std::int64_t before = w.getPosition();
    c.arm();
    expectReplException([&] { w.seek(c.target); }, c.first, c.second);
    EXPECT_EQ(65536, w.highWater()) << "raised before anything else";
    PosixFaults::reset();
    if (c.stops) {
      expectReplException([&] { w.putByte(1); }, "TF::WC-w",
                          "Log writer stopped after an earlier write failure");
      EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kWrite));
      continue;
    }
    EXPECT_EQ(before, w.getPosition());
    w.flushBlock();
    EXPECT_EQ(containerOf(stream), readFile(path));
  }
}

// highWaterMark takes filePosition, never the position in the buffer: bytes that were only
// buffered never reached the disk.
TEST_F(TWriteFileTest, RewindWithinTheBufferTouchesNoFile) {
  Writer w(path);
  const Bytes stream = pattern(32764 + 500);
  w.putBytes(stream.data(), static_cast<std::int32_t>(stream.size()));
  PosixFaults::reset();
  w.seek(32768 + 100);
  EXPECT_EQ(32768, w.highWater());
  EXPECT_EQ(32768 + 100, w.getPosition());
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kLseek64) + PosixFaults::calls(PosixFaults::kRead));
  w.putBytes("xyz", 3);
  w.flushBlock();
  Bytes expected(stream.begin(), stream.begin() + 32764 + 100);
  for (char c : std::string("xyz")) expected.push_back(static_cast<std::uint8_t>(c));
  EXPECT_EQ(containerOf(expected), readFile(path));
}

}  // namespace
