// The files that hold a position are their owner's: a checkpoint is 0600 and the prune mark, which
// every consumer of the directory reads, 0640, whatever the umask and whatever mode a file or a
// temporary file left behind had; fbcdc follow's checkpoint is made so too.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "CheckpointFile.h"
#include "LogDirectory.h"
#include "PluginFixture.h"
#include "Processes.h"
#include "PruneMark.h"

namespace {

mode_t modeOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return 07777;
  return st.st_mode & 07777;
}

// Sets the umask for the scope: the modes must not come from it.
class Umask {
 public:
  explicit Umask(mode_t mask) : old_(::umask(mask)) {}
  ~Umask() { ::umask(old_); }

 private:
  mode_t old_;
};

class FileModesTest : public PluginFixture {};

}  // namespace

TEST_F(FileModesTest, PositionsAreTheirOwnersAlone) {
  ReplTransaction* t = begin(1);
  ASSERT_EQ(0, t->executeSql(status, "UPDATE T SET V = 1", 1));
  ASSERT_EQ(0, t->commit(status));
  t->dispose();
  const std::vector<LogFile> published = LogDirectory::list(logs);
  ASSERT_EQ(1u, published.size());
  const struct {
    const char* name;
    mode_t umask;
    mode_t before;  // the mode of a file and a temporary file already there; 0: none
  } cases[] = {
      {"umask 0, new", 0, 0},
      {"umask 022, new", 022, 0},
      {"umask 0, over world-writable files", 0, 0666},
      {"umask 077, over files of mode 0644", 077, 0644},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Umask mask(c.umask);
    const std::string checkpoint = dir / ("checkpoint" + std::to_string(n));
    const std::string marked = dir / ("marked" + std::to_string(n++)) + "/";
    ASSERT_EQ(0, ::mkdir(marked.c_str(), 0755));
    const std::string mark = marked + PruneMark::kFileName;
    if (c.before != 0) {
      for (const std::string& path : {checkpoint, checkpoint + ".tmp", mark, mark + ".tmp"}) {
        writeFile(path, "");
        ASSERT_EQ(0, ::chmod(path.c_str(), c.before));
      }
    }
    CheckpointFile(checkpoint).store("0 position");
    EXPECT_EQ(0600u, modeOf(checkpoint));
    EXPECT_EQ("0 position", CheckpointFile(checkpoint).load());
    PruneMark(marked).record(published);
    EXPECT_EQ(0640u, modeOf(mark));
  }
  // fbcdc follow's own checkpoint, under a umask that would leave it open to all.
  const Umask mask(0);
  const int exit =
      waitFor(spawn({FBCDC_CLI_PATH, "follow", logs, "--once", "--checkpoint", dir / "follow.pos"},
                    dir / "out.txt", dir / "err.txt"));
  ASSERT_EQ(0, exit) << readText(dir / "err.txt");
  EXPECT_EQ(0600u, modeOf(dir / "follow.pos"));
}
