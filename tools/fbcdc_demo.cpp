// fbcdc-demo: loads the plugin library as the server does, records one transaction holding a
// single SQL statement record, and prints the published change log.
//
//   fbcdc-demo [--plugin LIBRARY] CONFIG_FILE
//
// CONFIG_FILE is a Firebird configuration file with an OutputDirectory entry, read by Firebird's
// own parser. Exit status 0 when a log was published, 1 otherwise.
#include <dirent.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <firebird/Interface.h>

#include "IReplPlugin.h"
#include "IReplTransaction.h"

namespace {

using GetReplPlugin = Firebird::IReplPlugin* (*)(Firebird::IStatus*, int, Firebird::IConfig*);

int usage() {
  std::fprintf(stderr, "usage: fbcdc-demo [--plugin LIBRARY] CONFIG_FILE\n");
  return 2;
}

int failWithStatus(Firebird::IMaster* master, Firebird::IStatus* status, const char* what) {
  char text[2048];
  master->getUtilInterface()->formatStatus(text, sizeof text, status);
  std::fprintf(stderr, "fbcdc-demo: %s: %s\n", what, text);
  return 1;
}

// The final name carries the time of publication, so the log is found by its transaction number.
std::string findPublished(const std::string& directory, unsigned long long number) {
  char suffix[64];
  std::snprintf(suffix, sizeof suffix, "_%16.16llx.fbl", number);
  std::string newest;
  if (DIR* dir = opendir(directory.c_str())) {
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name.size() == 37 && name.compare(16, std::string::npos, suffix) == 0 &&
          (newest.empty() || name > newest))
        newest = name;
    }
    closedir(dir);
  }
  return newest.empty() ? newest : directory + newest;
}

}  // namespace

int main(int argc, char** argv) {
  const char* pluginPath = FBCDC_PLUGIN_PATH;
  int arg = 1;
  if (arg + 1 < argc && std::strcmp(argv[arg], "--plugin") == 0) {
    pluginPath = argv[arg + 1];
    arg += 2;
  }
  if (arg + 1 != argc) return usage();
  const char* configPath = argv[arg];

  void* library = dlopen(pluginPath, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::fprintf(stderr, "fbcdc-demo: cannot load %s: %s\n", pluginPath, dlerror());
    return 1;
  }
  auto entry = reinterpret_cast<GetReplPlugin>(dlsym(library, "getReplPlugin"));
  if (!entry) {
    std::fprintf(stderr, "fbcdc-demo: %s exports no getReplPlugin\n", pluginPath);
    return 1;
  }

  Firebird::IMaster* master = Firebird::fb_get_master_interface();
  Firebird::IStatus* status = master->getStatus();
  Firebird::CheckStatusWrapper wrapper(status);
  Firebird::IConfig* config = master->getPluginManager()->getConfig(&wrapper, configPath);
  if (!config) return failWithStatus(master, status, "cannot read configuration");

  Firebird::IReplPlugin* plugin = entry(status, 30, config);
  config->release();
  if (!plugin) return failWithStatus(master, status, "plugin refused to start");

  const unsigned long long number = static_cast<unsigned long long>(getpid());
  Firebird::IReplTransaction* transaction = plugin->startTransaction(status, number);
  if (!transaction) return failWithStatus(master, status, "startTransaction failed");
  if (transaction->executeSql(status, nullptr, 1) != 0 || transaction->commit(status) != 0) {
    transaction->dispose();
    return failWithStatus(master, status, "recording failed");
  }
  transaction->dispose();

  // Read the directory the plugin settled on back from the configuration, as the server would not.
  Firebird::IConfig* again = master->getPluginManager()->getConfig(&wrapper, configPath);
  std::string directory;
  if (Firebird::IConfigEntry* e = again ? again->find(&wrapper, "OutputDirectory") : nullptr) {
    directory = e->getValue() ? e->getValue() : "";
    e->release();
  }
  if (again) again->release();
  if (directory.empty() || directory.back() != '/') directory += '/';
  plugin->dispose();
  status->dispose();

  const std::string path = findPublished(directory, number);
  FILE* file = path.empty() ? nullptr : std::fopen(path.c_str(), "rb");
  if (!file) {
    std::fprintf(stderr, "fbcdc-demo: no published log for transaction %llu in %s\n", number,
                 directory.c_str());
    return 1;
  }
  unsigned char bytes[4096];
  const size_t length = std::fread(bytes, 1, sizeof bytes, file);
  std::fclose(file);
  std::printf("%s\n%zu bytes:", path.c_str(), length);
  for (size_t i = 0; i < length; ++i) std::printf("%s%02X", i % 16 ? " " : "\n", bytes[i]);
  std::printf("\n");
  return 0;
}
