// A real full disk: the output directory on a small tmpfs that the test mounts. Commit fails with
// "No space left on device", nothing is published, and once space is freed the next transaction
// works. Skipped, with its reason, where the machine does not let the test mount.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "IReplTransaction.h"
#include "LogVerifier.h"
#include "PluginFixture.h"

namespace {

TEST(DiskFullTest, CommitFailsAndTheNextTransactionWorks) {
  TempDir dir;
  const std::string mountPoint = dir / "small";
  ASSERT_EQ(0, ::mkdir(mountPoint.c_str(), 0700));
  if (::mount("tmpfs", mountPoint.c_str(), "tmpfs", 0, "size=256k") != 0)
    GTEST_SKIP() << "cannot mount a tmpfs here: " << std::strerror(errno);
  struct Unmount {
    std::string path;
    ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
  } unmount{mountPoint};
  const std::string logs = mountPoint + "/logs/";
  FbStatus status;
  Firebird::IReplPlugin* plugin =
      startPlugin(status, dir / "plugin.conf", "OutputDirectory = " + logs + "\n");
  ASSERT_NE(nullptr, plugin) << status.text();
  // A filler takes most of the room.
  writeFile(mountPoint + "/filler", std::string(200 << 10, 'f'));
  auto transaction = [&](std::uint64_t number, int statements, FbStatus& st) {
    Firebird::IReplTransaction* t = plugin->startTransaction(st, number);
    std::int32_t result = 0;
    for (int i = 0; i < statements && result == 0; ++i)
      result = t->executeSql(st, std::string(250, 'x').c_str(), i);
    if (result == 0) result = t->commit(st);
    t->dispose();
    return result;
  };
  FbStatus full;
  EXPECT_EQ(335544382, transaction(1, 400, full));  // about 100 KiB of log
  EXPECT_NE(std::string::npos, full.text().find("No space left on device")) << full.text();
  EXPECT_TRUE(listDirectory(logs).empty()) << "nothing published, nothing left behind";

  ::unlink((mountPoint + "/filler").c_str());
  FbStatus freed;
  EXPECT_EQ(0, transaction(2, 400, freed)) << freed.text();
  const Strings names = listDirectory(logs);
  ASSERT_EQ(1u, names.size());
  EXPECT_EQ(LogVerifier::Verdict::kValid, LogVerifier::verify(logs + names[0]).verdict);
  plugin->dispose();
}

}  // namespace
