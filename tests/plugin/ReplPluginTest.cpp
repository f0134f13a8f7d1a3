// The plugin's entry: interface versions, configurations read by Firebird's own parser, the output
// directory, running out of memory, and the texts it reports and raises, cut to their buffers.
#include "ReplPlugin.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <tuple>

#include "AllocationFaults.h"
#include "PluginFixture.h"
#include "ReplAutoException.h"
#include "ReplStatus.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

// Each row starts the plugin from a configuration file ("$" stands for a fresh directory); the
// outcomes are in golden/start.txt: the output directory and its mode, or the status. A directory
// the plugin makes lets owner and group create files in it (0770 less the umask, which is 0 here);
// an existing path is taken as it is; a refused version or configuration creates nothing. Then how
// names are normalized: a separator added where there is none, and the length limit.
TEST(ReplPluginStart, VersionsAndConfigurations) {
  PosixFaults::Scope faults;
  TempDir dir;
  const mode_t savedMask = ::umask(0);
  writeFile(dir / "plain-file", "x");
  ::mkdir((dir / "exists").c_str(), 0700);
  // Configuration, interface version, whether mkdir fails (with EACCES).
  std::vector<std::tuple<std::string, int, bool>> cases = {
      {"OutputDirectory = $cdc", 30, false},
      {"OutputDirectory = $slash/", 30, false},
      {"OutputDirectory = \"$with space\"", 30, false},
      {"OutputDirectory = $exists", 30, false},
      {"OutputDirectory = $plain-file", 30, false},
      {"# no key at all\nOther = 1", 30, false},
      {"OutputDirectory", 30, false},
      {"OutputDirectory = $no/such/dir", 30, false},
      {"OutputDirectory = /" + std::string(4095, 'a'), 30, false},
      {"OutputDirectory = $denied", 30, true},
      {"OutputDirectory = $durable\nDurableLogs = TRUE", 30, false},
      {"OutputDirectory = $plain\nDurableLogs = false", 30, false},
      {"OutputDirectory = $refused\nDurableLogs = yes", 30, false},
  };
  for (int version : {29, 31, 0, -1, 3000})
    cases.push_back({"OutputDirectory = $v", version, false});
  std::string text;
  const auto shown = [&](std::string s) {
    for (std::size_t at; (at = s.find(dir.path())) != std::string::npos;)
      s.replace(at, dir.path().size(), "$");
    std::replace(s.begin(), s.end(), '\n', ';');
    return s.size() > 80 ? s.substr(0, 40) + "... (" + std::to_string(s.size()) + " bytes)" : s;
  };
  for (auto [config, version, mkdirFails] : cases) {
    PosixFaults::reset();
    if (mkdirFails) PosixFaults::failAt(PosixFaults::kMkdir, 1, EACCES);
    for (std::size_t at; (at = config.find('$')) != std::string::npos;)
      config.replace(at, 1, dir.path());
    FbStatus status;
    Firebird::IReplPlugin* plugin = startPlugin(status, dir / "c.conf", config + "\n", version);
    text += shown(config) + " (version " + std::to_string(version) + "):";
    if (plugin) {
      const std::string out = static_cast<ReplPlugin*>(plugin)->getOutputDirectory();
      struct stat st {};
      ::stat(out.substr(0, out.size() - 1).c_str(), &st);
      char mode[16];
      std::snprintf(mode, sizeof mode, "%o", st.st_mode);
      text += " " + shown(out) + " mode " + mode;
      plugin->dispose();
    }
    for (const std::string& item : status.hasErrors() ? status.errors() : Strings())
      text += " " + shown(item);
    text += "\n";
  }
  ::umask(savedMask);
  for (const std::string& name : listDirectory(dir.path())) text += name + " ";
  // Separators and length limits of a name as configured.
  const std::string a(4094, 'a');
  for (const std::string& name :
       {std::string(), std::string("/data/cdc"), std::string("/data/cdc/"),
        std::string("C:\\cdc\\"), a, a + "/", a + "a", a + "a/", a + "aa"}) {
    char out[ReplPlugin::kOutputDirectorySize];
    const char* error = ReplPlugin::normalizeOutputDirectory(name.c_str(), out);
    text += "\nnormalized \"" + shown(name) + "\": " + shown(error ? error : out);
  }
  expectGolden("plugin/golden/start.txt", text + "\n");
}

using ReplPluginAllocation = PluginFixture;

// Running out of memory: a failed transaction start reports its fixed text and leaves the plugin
// usable, and the entry function returns null with the status untouched and makes no directory.
TEST_F(ReplPluginAllocation, FailuresLeaveNothingBehind) {
  AllocationFaults::failNextOfAtLeast(sizeof(ReplTransaction));
  EXPECT_EQ(nullptr, plugin->startTransaction(status, 1));
  EXPECT_EQ(cdcError("CDC error: Transaction initialization failed"), status.errors());
  Bytes after;
  appendStatement(after, "after", 1);
  EXPECT_EQ(after, recordStream([&](ReplTransaction* t) { t->executeSql(status, "after", 1); }));

  clearLogs();
  ::rmdir(logs.c_str());
  status.get()->init();
  Firebird::IConfig* config = loadConfig(dir / "plugin.conf");
  AllocationFaults::failNextOfAtLeast(sizeof(ReplPlugin));
  EXPECT_EQ(nullptr, getReplPlugin(status, 30, config));
  AllocationFaults::reset();
  config->release();
  EXPECT_EQ(0u, status.get()->getState());
  EXPECT_FALSE(fileExists(logs));
}

// Texts are cut, never written past their buffer's end: an exception's own text after 2046
// characters, a status message at its buffer's size. (That the buffer is the calling thread's
// own, ThreadsTest shows: every thread's failure text is its own.)
TEST(OwnedTexts, AreFormattedAndCut) {
  const std::string longText(20000, 'x');
  EXPECT_EQ("auto TAG: value 42",
            failureOf([] { ReplAutoException::raise("TAG", "%s %d", "value", 42); }));
  EXPECT_EQ("auto TAG: " + std::string(2046, 'x'),
            failureOf([&] { ReplAutoException::raise("TAG", "%s", longText.c_str()); }));
  EXPECT_EQ(std::string(ReplStatus::kMessageBufferSize - 1, 'x'),
            ReplStatus::format("%s", longText.c_str()));
}

}  // namespace
