// The plugin's record path on arbitrary operations (TransactionScript): inserts, updates and
// deletes of row images with any names, type codes, scales, character sets and values, statements
// and savepoints, then commit or not. Either the output directory holds exactly what it must and
// the published log decodes to exactly what was written (less what rollbacks undid), or some
// operation was refused with an error.
#include <unistd.h>

#include <cstdio>

#include "FuzzFile.h"
#include "TestFiles.h"
#include "TransactionScript.h"

extern "C" Firebird::IReplPlugin* getReplPlugin(Firebird::IStatus*, int, Firebird::IConfig*);

namespace {

struct Plugin {
  const std::string directory =
      fuzzDirectory() + "fbcdc-fuzz-record-" + std::to_string(::getpid()) + "/";
  FbStatus status;
  Firebird::IReplPlugin* plugin;
  Plugin() {
    const std::string config = directory.substr(0, directory.size() - 1) + ".conf";
    writeFile(config, "OutputDirectory = " + directory + "\n");
    Firebird::IConfig* c = loadConfig(config);
    plugin = getReplPlugin(status, 30, c);
    c->release();
    if (!plugin) __builtin_trap();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Plugin p;
  TransactionScript script(data, size, false);
  const std::string problem = script.play(p.plugin, 1, p.directory);
  if (!problem.empty()) std::fprintf(stderr, "%s\n", problem.c_str()), __builtin_trap();
  if (!script.published.empty()) ::unlink(script.published.c_str());
  return 0;
}
