// The plugin's entry: interface versions, configurations read by Firebird's own parser, the output
// directory, running out of memory, and the texts it reports.
#include "ReplPlugin.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "AllocationFaults.h"
#include "PluginFixture.h"
#include "ReplStatus.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

Strings cdcError(const std::string& text) { return {"1", "335544382", "2", text}; }

// Each row starts the plugin from a configuration file. A directory the plugin makes lets owner and
// group create files in it (0770 less the umask, which is 0 here); an existing path is taken as it
// is. A refused version or configuration creates nothing.
TEST(ReplPluginStart, VersionsAndConfigurations) {
  PosixFaults::Scope faults;
  TempDir dir;
  writeFile(dir / "plain-file", "x");
  ::mkdir((dir / "exists").c_str(), 0700);
  struct Case {
    std::string config;
    int version;
    std::string outputDirectory;  // empty: construction fails
    Strings errors;
    bool mkdirFails = false;
  };
  const auto key = [&](const std::string& value) { return "OutputDirectory = " + value + "\n"; };
  const std::string p = dir.path();
  std::vector<Case> cases = {
      {key(p + "cdc"), 30, p + "cdc/", {}},
      {key(p + "slash/"), 30, p + "slash/", {}},
      {key("\"" + p + "with space\""), 30, p + "with space/", {}},
      {key(p + "exists"), 30, p + "exists/", {}},
      {key(p + "plain-file"), 30, p + "plain-file/", {}},
      {"# no key at all\nOther = 1\n", 30, "",
       cdcError("CDC error: No output directory name configured")},
      {"OutputDirectory\n", 30, "", cdcError("CDC error: No output directory name configured")},
      {key(p + "no/such/dir"), 30, "",
       cdcError("CDC error creating output directory " + p +
                "no/such/dir/: No such file or directory")},
      {key("/" + std::string(4095, 'a')), 30, "",
       cdcError("CDC error: Too long output directory name")},
      {key(p + "denied"), 30, "",
       cdcError("CDC error creating output directory " + p + "denied/: Permission denied"), true},
  };
  for (int version : {29, 31, 0, -1, 3000})
    cases.push_back(
        {key(p + "v"), version, "", {"1", "335545000", "4", "30", "4", std::to_string(version)}});
  const mode_t savedMask = ::umask(0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.config.substr(0, 80) + " version " + std::to_string(c.version));
    PosixFaults::reset();
    if (c.mkdirFails) PosixFaults::failAt(PosixFaults::kMkdir, 1, EACCES);
    const bool existed = fileExists(c.outputDirectory.substr(0, c.outputDirectory.size() - 1));
    FbStatus status;
    Firebird::IReplPlugin* plugin = startPlugin(status, dir / "c.conf", c.config, c.version);
    if (c.outputDirectory.empty()) {
      EXPECT_EQ(c.errors, status.errors());
      EXPECT_EQ(nullptr, plugin);
      EXPECT_FALSE(fileExists(p + "v"));
      continue;
    }
    ASSERT_NE(nullptr, plugin) << status.text();
    EXPECT_FALSE(status.hasErrors());
    EXPECT_EQ(c.outputDirectory, static_cast<ReplPlugin*>(plugin)->getOutputDirectory());
    struct stat st;
    ASSERT_EQ(0, ::stat(c.outputDirectory.substr(0, c.outputDirectory.size() - 1).c_str(), &st));
    if (!existed) {
      EXPECT_EQ(S_IFDIR | 0770u, st.st_mode);
    }
    plugin->dispose();
  }
  ::umask(savedMask);
}

TEST(ReplPluginNormalize, SeparatorsAndLengthLimits) {
  const char* tooLong = "CDC error: Too long output directory name";
  const std::string a4094(4094, 'a');
  const std::pair<std::string, std::string> cases[] = {{"", "/"},
                                                       {"/data/cdc", "/data/cdc/"},
                                                       {"/data/cdc/", "/data/cdc/"},
                                                       {"C:\\cdc\\", "C:\\cdc\\"},
                                                       {a4094, a4094 + "/"},
                                                       {a4094 + "/", a4094 + "/"},
                                                       {a4094 + "a", tooLong},
                                                       {a4094 + "a/", tooLong},
                                                       {a4094 + "aa", tooLong}};
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text.size());
    char out[ReplPlugin::kOutputDirectorySize];
    const char* error = ReplPlugin::normalizeOutputDirectory(text.c_str(), out);
    EXPECT_EQ(expected, error ? error : out);
  }
}

// Running out of memory: the entry function returns null with the status untouched, and a failed
// transaction start reports its fixed text and leaves the plugin usable.
TEST(ReplPluginStart, AllocationFailures) {
  PosixFaults::Scope faults;
  TempDir dir;
  FbStatus status;
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
  EXPECT_EQ(cdcError("CDC error: Transaction initialization failed"), status.errors());
  Firebird::IReplTransaction* t = plugin->startTransaction(status, 2);
  ASSERT_NE(nullptr, t);
  EXPECT_EQ(0, t->executeSql(status, "after", 1));
  EXPECT_EQ(0, t->commit(status));
  t->dispose();
  EXPECT_EQ(1u, listDirectory(dir / "logs").size());
  plugin->dispose();
  AllocationFaults::reset();
}

// A text longer than the message buffer is cut, never written past its end. (That the buffer is the
// calling thread's own, ThreadsTest shows: every thread's failure text is its own.)
TEST(ReplStatusMessages, LongTextIsCut) {
  const std::string longText(20000, 'x');
  EXPECT_EQ(std::string(ReplStatus::kMessageBufferSize - 1, 'x'),
            ReplStatus::format("%s", longText.c_str()));
}

}  // namespace
