// The fbcdc command as users run it: exit statuses and one-line errors, verify telling damaged logs
// from good ones with their positions, and follow's end when its directory goes and its take of a
// late rename.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "FbcdcRuns.h"
#include "PluginFixture.h"
#include "PosixFaults.h"

namespace {

using ::testing::HasSubstr;

class FbcdcCommandTest : public PluginFixture {
 protected:
  // Publishes a log of statements numbered 0 to count - 1, each with a text of size bytes.
  void publish(std::uint64_t number, int count, std::size_t size = 100) {
    ReplTransaction* t = begin(number);
    for (int i = 0; i < count; ++i)
      EXPECT_EQ(0, t->executeSql(status, std::string(size, 'a' + i % 26).c_str(), i));
    EXPECT_EQ(0, t->commit(status));
    t->dispose();
  }
};

// The lines of golden/commands.txt, each one's output and errors (a long text by its first line)
// and exit status held against it, with the test's directory as $/ and times and the names of logs
// written now masked (a name of second 1, as a line gives it, stays); FBCDC_UPDATE_GOLDEN=1
// rewrites it, to be reviewed before a commit: a wrong invocation (status 2) is one line, and a
// failure comes before any event. L/ is the log directory. (--until @99 ends at once: every log is
// later; follow --until 2000-01-01 ends: no log can come.)
TEST_F(FbcdcCommandTest, ExitStatusesAndOneLineErrors) {
  publish(1, 3);
  writeFile(dir / "plain.fbl", readFile(publishedLog()));
  ::mkdir((dir / "stray").c_str(), 0700);
  writeFile(dir / "stray/x", "");
  const std::string transcript =
      transcriptOf(dir, linesOf("tools/golden/commands.txt")[0].second,
                   {{"L/", logs}, {"$/", dir.path()}}, [](const std::string& text, bool) {
                     return std::count(text.begin(), text.end(), '\n') > 3
                                ? text.substr(0, text.find('\n') + 1) + "...\n"
                                : text;
                   });
  expectGolden(
      "tools/golden/commands.txt",
      std::regex_replace(
          replaceAll(transcript, dir.path(), "$/"),
          std::regex("[0-9a-f]{8}[1-9a-f][0-9a-f]{7}_[0-9a-f]{16}|\"(ts_ms|time)\":[^,]*"), "#"));
  // Every command's help fits 80 columns and speaks fbcdc's words, not CLI11's.
  std::istringstream usage(runFbcdc(dir, {"--help"}).out);
  for (std::string entry; std::getline(usage, entry);) {
    if (entry.rfind("  ", 0) != 0) continue;  // the list of commands: "  NAME  what it does"
    const std::string command = entry.substr(2, entry.find(' ', 2) - 2);
    std::istringstream help(runFbcdc(dir, {"help", command}).out);
    for (std::string line; std::getline(help, line);) {
      EXPECT_LE(line.size(), 80u) << command << ": " << line;
      for (const char* foreign : {" TEXT", " INT", " UINT", ":{", "Print this help"})
        EXPECT_EQ(std::string::npos, line.find(foreign)) << command << ": " << line;
    }
  }
}

// dump and verify name damage alike: the block, log position and reason that dump prints after the
// file's name are what verify prints after its verdict, for damage that the block reader finds (a
// CRC, a short block) as for damage under valid CRCs; temporary logs are classified, not damage.
// The lines and what they print (but the events dump prints before the damage) are
// golden/damage.txt, with the test's directory as $/.
TEST_F(FbcdcCommandTest, DumpAndVerifyNameBlockAndPosition) {
  publish(1, 800, 200);
  const Bytes good = readFile(publishedLog());
  ASSERT_GT(good.size(), 4u * 32768);
  const Bytes stream = streamOf(good);
  auto flipped = [](Bytes b, std::size_t at, std::uint8_t bits) {
    b[at] ^= bits;
    return b;
  };
  // The statement tag of a record in block 2 (each record: 53 00 len text 13 00 00 number), at log
  // position 70633: its place in the stream and the 4 bytes of each block before it.
  const std::size_t tag = 5 + 330 * 214;
  ASSERT_EQ('S', stream[tag]);
  // Logs 1 to 6: CRCs in blocks 2 and 0, a short block 2, an empty file, a damaged tag, a stream
  // cut short.
  const Bytes damaged[] = {flipped(good, 2 * 32768 + 100, 0x10),
                           flipped(good, 2, 0x10),
                           Bytes(good.begin(), good.begin() + 2 * 32768 + 3),
                           Bytes(),
                           containerOf(flipped(stream, tag, 'S' ^ 'Q')),
                           containerOf(Bytes(stream.begin(), stream.begin() + 1000))};
  const std::string named = dir / "checked/0000000000000001_000000000000000";
  ::mkdir((dir / "checked").c_str(), 0700);
  writeFile(named + "0.fbl", good);
  for (std::size_t i = 0; i < std::size(damaged); ++i)
    writeFile(named + std::to_string(i + 1) + ".fbl", damaged[i]);
  writeFile(named + "8.tmp", good);
  writeFile(named + "9.tmp", Bytes(good.begin(), good.begin() + 3 * 32768));
  const std::string transcript =
      transcriptOf(dir, linesOf("tools/golden/damage.txt")[0].second, {{"$/", dir.path()}},
                   [](const std::string& text, bool) {
                     return std::regex_replace(text, std::regex("\\{.*\\}\n"), "");
                   });
  expectGolden("tools/golden/damage.txt", replaceAll(transcript, dir.path(), "$/"));
}

// A follower whose directory goes away says so and ends, rather than wait for nothing; a rename
// that comes long after its name was formed (a stalled writer) is still a new log, which a running
// follower takes although its name's second lies before the position. (Followers killed and started
// again lose nothing: ConsumerPruneTest.)
TEST_F(FbcdcCommandTest, FollowEndsWithItsDirectoryAndTakesALateRename) {
  const std::string checkpoint = dir / "checkpoint";
  publish(1, 3);
  ASSERT_EQ(0, runFbcdc(dir, {"follow", logs, "--once", "--checkpoint", checkpoint}).status);
  const std::string gone = dir / "gone";
  ::mkdir(gone.c_str(), 0700);
  const pid_t orphan = startFbcdc({"follow", gone}, dir / "gone.jsonl", dir / "gone.txt");
  ::usleep(300000);
  ::rmdir(gone.c_str());
  EXPECT_EQ(1, stop(orphan, 0));  // no signal: it must end by itself
  EXPECT_THAT(readText(dir / "gone.txt"), HasSubstr("was removed or moved away"));

  const pid_t late = startFbcdc({"follow", logs, "--checkpoint", checkpoint, "--format", "text"},
                                dir / "late.txt", dir / "err.txt");
  ::sleep(1);
  PosixFaults::setTime(::time(nullptr) - 600);
  publish(9999, 3);
  PosixFaults::setTime(0);
  // Named ten minutes before the first log, it is the first of the directory.
  const std::string stalled = listDirectory(logs)[0];
  ::sleep(1);
  EXPECT_EQ(0, stop(late, SIGTERM)) << readText(dir / "err.txt");
  EXPECT_THAT(readText(dir / "late.txt"), HasSubstr(stalled));
}

}  // namespace
