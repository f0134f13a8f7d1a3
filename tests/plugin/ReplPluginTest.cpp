#include "ReplPlugin.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "AllocationFaults.h"
#include "IReplTransaction.h"
#include "PosixFaults.h"
#include "ReplStatus.h"
#include "ReplTransaction.h"
#include "TestFiles.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

using Strings = std::vector<std::string>;

class ReplPluginTest : public ::testing::Test {
 protected:
  // Writes a configuration file, reads it back through Firebird and calls the entry function.
  Firebird::IReplPlugin* start(const std::string& configText, int version = 30) {
    const std::string path = dir / "plugin.conf";
    writeFile(path, configText);
    Firebird::IConfig* config = loadConfig(path);
    Firebird::IReplPlugin* plugin = getReplPlugin(status, version, config);
    config->release();
    return plugin;
  }

  PosixFaults::Scope faults;
  TempDir dir;
  FbStatus status;
};

TEST_F(ReplPluginTest, RefusesEveryOtherInterfaceVersion) {
  for (int version : {29, 31, 0, -1, 3000}) {
    SCOPED_TRACE(version);
    FbStatus fresh;
    writeFile(dir / "v.conf", "OutputDirectory = " + dir.path() + "v\n");
    Firebird::IConfig* config = loadConfig(dir / "v.conf");
    EXPECT_EQ(nullptr, getReplPlugin(fresh, version, config));
    config->release();
    EXPECT_EQ((Strings{"1", "335545000", "4", "30", "4", std::to_string(version)}), fresh.errors());
    EXPECT_FALSE(fileExists(dir / "v")) << "no directory for a refused version";
  }
}

TEST_F(ReplPluginTest, ConfigurationsFromRealFiles) {
  writeFile(dir / "plain-file", "x");
  ::mkdir((dir / "exists").c_str(), 0700);
  struct Case {
    std::string config;
    std::string outputDirectory;  // empty: construction fails
    std::string text;
  };
  const std::vector<Case> cases = {
      {"OutputDirectory = " + dir.path() + "cdc\n", dir.path() + "cdc/", ""},
      {"OutputDirectory = " + dir.path() + "slash/\n", dir.path() + "slash/", ""},
      {"OutputDirectory = \"" + dir.path() + "with space\"\n", dir.path() + "with space/", ""},
      {"OutputDirectory = " + dir.path() + "exists\n", dir.path() + "exists/", ""},
      {"OutputDirectory = " + dir.path() + "plain-file\n", dir.path() + "plain-file/", ""},
      {"# no key at all\nOther = 1\n", "", "CDC error: No output directory name configured"},
      {"OutputDirectory\n", "", "CDC error: No output directory name configured"},
      {"OutputDirectory = " + dir.path() + "no/such/dir\n", "",
       "CDC error creating output directory " + dir.path() +
           "no/such/dir/: No such file or directory"},
      {"OutputDirectory = /" + std::string(4095, 'a') + "\n", "",
       "CDC error: Too long output directory name"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.config.substr(0, 80));
    FbStatus fresh;
    writeFile(dir / "c.conf", c.config);
    Firebird::IConfig* config = loadConfig(dir / "c.conf");
    Firebird::IReplPlugin* plugin = getReplPlugin(fresh, 30, config);
    config->release();
    if (c.outputDirectory.empty()) {
      EXPECT_EQ(nullptr, plugin);
      EXPECT_EQ((Strings{"1", "335544382", "2", c.text}), fresh.errors());
      continue;
    }
    ASSERT_NE(nullptr, plugin) << fresh.text();
    EXPECT_FALSE(fresh.hasErrors());
    EXPECT_EQ(c.outputDirectory, static_cast<ReplPlugin*>(plugin)->getOutputDirectory());
    EXPECT_TRUE(fileExists(c.outputDirectory.substr(0, c.outputDirectory.size() - 1)));
    plugin->dispose();
  }
}

// A directory the plugin makes lets owner and group create files in it.
TEST_F(ReplPluginTest, NewDirectoryIsSearchableByOwnerAndGroup) {
  const mode_t saved = ::umask(0);
  Firebird::IReplPlugin* plugin = start("OutputDirectory = " + dir.path() + "made\n");
  ::umask(saved);
  ASSERT_NE(nullptr, plugin);
  struct stat st;
  ASSERT_EQ(0, ::stat((dir / "made").c_str(), &st));
  EXPECT_EQ(0770u, st.st_mode & 0777);
  plugin->dispose();
}

TEST_F(ReplPluginTest, MkdirFailureNamesTheDirectoryAndTheReason) {
  PosixFaults::failAt(PosixFaults::kMkdir, 1, EACCES);
  EXPECT_EQ(nullptr, start("OutputDirectory = " + dir.path() + "denied\n"));
  EXPECT_EQ("CDC error creating output directory " + dir.path() + "denied/: Permission denied",
            status.text());
}

TEST(ReplPluginNormalize, SeparatorsAndLengthLimits) {
  struct Case {
    std::string text;
    const char* error;
    std::string result;
  };
  const std::vector<Case> cases = {
      {"", nullptr, "/"},
      {"/data/cdc", nullptr, "/data/cdc/"},
      {"/data/cdc/", nullptr, "/data/cdc/"},
      {"C:\\cdc\\", nullptr, "C:\\cdc\\"},
      {std::string(4094, 'a'), nullptr, std::string(4094, 'a') + "/"},
      {std::string(4094, 'a') + "/", nullptr, std::string(4094, 'a') + "/"},
      {std::string(4095, 'a'), "CDC error: Too long output directory name", ""},
      {std::string(4095, 'a') + "/", "CDC error: Too long output directory name", ""},
      {std::string(4096, 'a'), "CDC error: Too long output directory name", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.size());
    char out[ReplPlugin::kOutputDirectorySize];
    const char* error = ReplPlugin::normalizeOutputDirectory(c.text.c_str(), out);
    if (c.error) {
      ASSERT_NE(nullptr, error);
      EXPECT_STREQ(c.error, error);
    } else {
      EXPECT_EQ(nullptr, error);
      EXPECT_EQ(c.result, out);
    }
  }
}

TEST_F(ReplPluginTest, StartingATransactionCreatesNoFile) {
  Firebird::IReplPlugin* plugin = start("OutputDirectory = " + dir.path() + "logs\n");
  ASSERT_NE(nullptr, plugin);
  Firebird::IReplTransaction* t1 = plugin->startTransaction(status, 1);
  Firebird::IReplTransaction* t2 = plugin->startTransaction(status, 2);
  ASSERT_NE(nullptr, t1);
  ASSERT_NE(nullptr, t2);
  EXPECT_EQ(0, PosixFaults::calls(PosixFaults::kOpen));
  t1->dispose();
  t2->dispose();
  EXPECT_EQ(std::vector<std::string>{}, listDirectory(dir / "logs"));
  plugin->dispose();
}

// Running out of memory: the entry function returns null with the status untouched, and a failed
// transaction start reports its fixed text and leaves the plugin usable.
TEST_F(ReplPluginTest, AllocationFailures) {
  writeFile(dir / "a.conf", "OutputDirectory = " + dir.path() + "logs\n");
  Firebird::IConfig* config = loadConfig(dir / "a.conf");
  AllocationFaults::failNextOfAtLeast(sizeof(ReplPlugin));
  EXPECT_EQ(nullptr, getReplPlugin(status, 30, config));
  EXPECT_EQ(0u, status.get()->getState());
  EXPECT_FALSE(fileExists(dir / "logs"));
  AllocationFaults::reset();

  Firebird::IReplPlugin* plugin = getReplPlugin(status, 30, config);
  config->release();
  ASSERT_NE(nullptr, plugin);
  AllocationFaults::failNextOfAtLeast(sizeof(ReplTransaction));
  EXPECT_EQ(nullptr, plugin->startTransaction(status, 1));
  EXPECT_EQ((Strings{"1", "335544382", "2", "CDC error: Transaction initialization failed"}),
            status.errors());
  Firebird::IReplTransaction* t = plugin->startTransaction(status, 2);
  ASSERT_NE(nullptr, t);
  EXPECT_EQ(0, t->executeSql(status, "after", 1));
  EXPECT_EQ(0, t->commit(status));
  t->dispose();
  EXPECT_EQ(1u, listDirectory(dir / "logs").size());
  plugin->dispose();
  AllocationFaults::reset();
}

// The message buffer belongs to the calling thread: a later failure overwrites the earlier text of
// the same thread only.
TEST(ReplStatusMessages, BufferIsPerThreadAndHoldsTheLatestText) {
  const char* first = ReplStatus::format("first %d", 1);
  const char* second = ReplStatus::format("second %d", 2);
  EXPECT_EQ(first, second);
  EXPECT_STREQ("second 2", first);

  std::string other;
  const char* otherPointer = nullptr;
  std::thread([&] {
    otherPointer = ReplStatus::format("other thread");
    other = otherPointer;
  }).join();
  EXPECT_NE(first, otherPointer);
  EXPECT_EQ("other thread", other);
  EXPECT_STREQ("second 2", first);

  // A text longer than the buffer is cut, never written past the end.
  const std::string longText(20000, 'x');
  const char* cut = ReplStatus::format("%s", longText.c_str());
  EXPECT_EQ(std::string(ReplStatus::kMessageBufferSize - 1, 'x'), cut);
}

}  // namespace
