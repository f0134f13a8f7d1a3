// Where a position puts a log: by the publication time the rename set, and, for a log whose file
// was changed since, by the second in its name, with a window where that cannot decide.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>

#include "FollowPosition.h"
#include "LogName.h"
#include "TestFiles.h"

namespace {

constexpr std::int64_t kSecond = 1000000000;

LogFile logAt(std::int64_t nameSecond, std::uint64_t transaction, std::int64_t publishedAt,
              bool fromName) {
  char name[64];
  std::snprintf(name, sizeof name, "%016llx_%016llx.fbl", static_cast<long long>(nameSecond),
                static_cast<unsigned long long>(transaction));
  LogFile log;
  log.name = log.path = name;
  LogName::parse(name, log.parsed);
  log.publishedAt = publishedAt;
  log.fromName = fromName;
  return log;
}

TEST(FollowPositionTest, VerdictsAroundThePosition) {
  using V = FollowPosition::Verdict;
  FollowPosition position;
  EXPECT_EQ(V::kNotDone, position.check(logAt(100, 1, 100 * kSecond, false)));
  // The last log finished was published at 100.3 s; another one at that same instant too.
  position.advance(logAt(100, 7, 100 * kSecond + 300000000, false));
  position.advance(logAt(100, 3, 100 * kSecond + 300000000, false));
  const std::int64_t at = 100 * kSecond + 300000000;
  const std::int64_t w = LogFile::kPublishWindow / kSecond;  // seconds
  // Name second, transaction, publication time, taken from the name, verdict.
  const std::tuple<std::int64_t, std::uint64_t, std::int64_t, bool, V> cases[] = {
      {100, 5, at - 1, false, V::kDone},         // published just before
      {100, 5, at, false, V::kNotDone},          // same instant, not among the names
      {100, 3, at, false, V::kDone},             // same instant, among the names
      {100, 9, at + 1, false, V::kNotDone},      // just after
      {100, 7, 500 * kSecond, false, V::kDone},  // a name finished, its file touched since
      // Changed since publication: published somewhere in the window after the name's second.
      {100 - w - 1, 2, (100 - w - 1) * kSecond, true, V::kDone},  // by 99 s at the latest
      {100 - w, 2, (100 - w) * kSecond, true, V::kDone},          // by 100 s at the latest
      {101 - w, 2, (101 - w) * kSecond, true, V::kUnknown},       // either side of 100.3 s
      {100, 2, 100 * kSecond, true, V::kUnknown},                 // 100 s to 100 s + w
      {101, 2, 101 * kSecond, true, V::kNotDone},                 // from 101 s on
      {100, 7, 100 * kSecond, true, V::kDone},                    // among the names
  };
  for (const auto& [second, transaction, publishedAt, fromName, verdict] : cases) {
    SCOPED_TRACE(std::to_string(second) + " " + std::to_string(transaction) + " " +
                 std::to_string(publishedAt));
    EXPECT_EQ(verdict, position.check(logAt(second, transaction, publishedAt, fromName)));
  }
  // A position that was itself placed by a name counts the logs of that second by their names.
  FollowPosition named;
  named.advance(logAt(100, 9, 100 * kSecond, true));
  EXPECT_EQ(V::kNotDone, named.check(logAt(100, 10, 100 * kSecond, true)));
  EXPECT_EQ(V::kDone, named.check(logAt(100, 9, 100 * kSecond, true)));
}

// The status-change time is the publication time only within the window after the name's second.
TEST(FollowPositionTest, PublicationTimeOfAFile) {
  TempDir dir;
  const std::time_t now = std::time(nullptr);
  const std::int64_t w = LogFile::kPublishWindow / kSecond;
  // Names far outside any clock's range keep the status-change time.
  for (const auto& [nameSecond, fromName] : {std::pair<std::int64_t, bool>{now, false},
                                             {now - 1, false},
                                             {now - w + 5, false},
                                             {now - w - 1, true},
                                             {now + 5, true},
                                             {-1, true},
                                             {std::int64_t{1} << 62, false}}) {
    char name[64];
    std::snprintf(name, sizeof name, "%016llx_0000000000000001.fbl",
                  static_cast<long long>(nameSecond));
    const std::string path = dir / name;
    writeFile(path, Bytes{1});
    LogFile log;
    ASSERT_TRUE(LogFile::examine(path, log));
    EXPECT_EQ(fromName, log.fromName) << nameSecond - now;
    EXPECT_EQ(fromName ? nameSecond * kSecond : log.changed, log.publishedAt);
    ::unlink(path.c_str());
  }
}

}  // namespace
